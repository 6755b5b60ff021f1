#include "Bus/Combiner/CombinerDevice.h"

#include "Base/ClassLog.h"
#include "Base/ErrorRecord.h"
#include "Base/InstanceCount.h"

#define COMBINER_LOG(level, function, ...) \
    DEVIO_LOG_TAG("Devio", "CombinerDevice", level, function, __VA_ARGS__)

namespace devio {

CombinerDevice::CombinerDevice(const std::shared_ptr<IHardwareBus>& bus,
                               const std::shared_ptr<IHardwareDevice>& first)
    : bus_(bus),
      path_(first->combine_key()),
      pid_(first->pid()),
      name_(first->name()),
      collections_expected_(first->collections_expected()) {
    pieces[first->collection_id()] = first;
    COMBINER_LOG(2, "CombinerDevice", "CombinerDevice constructor (pid = 0x%x)", pid_);
    COMBINER_LOG(3, "CombinerDevice", "CombinerDevice::CombinerDevice Number of instances now: %d",
                 InstanceCount<CombinerDevice>::added());
}

CombinerDevice::~CombinerDevice() {
    COMBINER_LOG(2, "~CombinerDevice", "CombinerDevice::~CombinerDevice (pid = 0x%x)", pid_);
    COMBINER_LOG(3, "~CombinerDevice",
                 "CombinerDevice::~CombinerDevice Number of instances now: %d",
                 InstanceCount<CombinerDevice>::removed());
}

bool CombinerDevice::open() {
    for (const auto& [bit, piece] : current_pieces()) {
        if (!piece->open()) {
            COMBINER_LOG(2, "open",
                         "CombinerDevice::open exit (false, could not open a piece of device)");
            return false;
        }
    }
    COMBINER_LOG(2, "open", "CombinerDevice::open exit (true)");
    return true;
}

void CombinerDevice::close() {
    for (const auto& [bit, piece] : current_pieces()) piece->close();
}

bool CombinerDevice::write(std::vector<Byte> report, bool wait) {
    if (wait && !open()) {
        COMBINER_LOG(2, "write", "CombinerDevice::write open failed");
        return false;
    }
    COMBINER_LOG(2, "write", "CombinerDevice::write enter");
    // Pieces in ascending collection order: a short report goes to the
    // lowest piece that carries it, a long one on to a piece with room.
    std::shared_ptr<IHardwareDevice> target;
    for (const auto& [bit, piece] : current_pieces()) {
        if (piece && piece->max_report_size() >= static_cast<int>(report.size())) {
            target = piece;
            break;
        }
    }
    if (!target) {
        set_error(WriteExceedsCollectionSize);
        COMBINER_LOG(2, "write", "CombinerDevice::write exit (false, WriteExceedsCollectionSize)");
        return false;
    }
    const bool ok = target->write(report, wait);
    if (ok) {
        COMBINER_LOG(2, "write", "CombinerDevice::write exit (true, wrote to device)");
    } else {
        COMBINER_LOG(2, "write", "CombinerDevice::write exit (false, failed to write to device)");
    }
    return ok;
}

bool CombinerDevice::verify_connection_following_timeout() {
    bool result = true;
    // Every piece is asked: each one that finds itself gone must say so.
    for (const auto& [bit, piece] : current_pieces()) {
        if (!piece->verify_connection_following_timeout()) {
            COMBINER_LOG(1, "verify_connection_following_timeout",
                         "CombinerDevice::verify_connection_following_timeout() returning false");
            result = false;
        }
    }
    COMBINER_LOG(2, "verify_connection_following_timeout",
                 "CombinerDevice::verify_connection_following_timeout() exit, returning %d",
                 result);
    return result;
}

bool CombinerDevice::whole() {
    int got = 0;
    {
        std::lock_guard<std::mutex> lock(pieces_mutex);
        for (const auto& entry : pieces) got |= entry.first;
    }
    const bool is_whole = (collections_expected_ & got) == collections_expected_;
    COMBINER_LOG(2, "whole", "CombinerDevice::whole = %d (need %d, got %d)", is_whole,
                 collections_expected_, got);
    return is_whole;
}

bool CombinerDevice::add_piece(const std::shared_ptr<IHardwareDevice>& piece) {
    COMBINER_LOG(2, "add_piece", "CombinerDevice::add_piece enter");
    std::lock_guard<std::mutex> follow(follow_mutex);
    const int bit = piece->collection_id();
    {
        std::lock_guard<std::mutex> lock(pieces_mutex);
        if (pieces.count(bit) != 0) {
            COMBINER_LOG(2, "add_piece", "CombinerDevice::add_piece keeping existing piece");
            return true;
        }
    }
    bool ok = true;
    if (reading) {
        COMBINER_LOG(2, "add_piece",
                     "CombinerDevice::add_piece reading, so subscribing to new piece");
        ok = Subscriber<IHardwareDevice::Read>::subscribe(piece, DeliveryDirect,
                                                          "IHardwareDevice::Read");
    }
    if (loggingWrites) {
        COMBINER_LOG(2, "add_piece",
                     "CombinerDevice::add_piece logging writes, so subscribing to new piece");
        ok = Subscriber<IHardwareDevice::Write>::subscribe(piece, DeliveryDirect,
                                                           "IHardwareDevice::Write");
    }
    {
        std::lock_guard<std::mutex> lock(pieces_mutex);
        pieces[bit] = piece;
    }
    COMBINER_LOG(2, "add_piece", "CombinerDevice::add_piece exit, ret=%d", ok);
    return ok;
}

bool CombinerDevice::remove_piece(const std::shared_ptr<IHardwareDevice>& piece) {
    COMBINER_LOG(2, "remove_piece", "CombinerDevice::remove_piece enter");
    const std::string gone = piece->path();
    std::lock_guard<std::mutex> follow(follow_mutex);
    std::shared_ptr<IHardwareDevice> removed;
    bool empty = false;
    {
        std::lock_guard<std::mutex> lock(pieces_mutex);
        for (auto it = pieces.begin(); it != pieces.end(); ++it) {
            if (it->second && it->second->path() == gone) {
                removed = it->second;
                pieces.erase(it);
                break;
            }
        }
        empty = pieces.empty();
    }
    if (removed) {
        COMBINER_LOG(2, "remove_piece", "CombinerDevice::remove_piece erasing piece from device");
        removed->close();
    }
    COMBINER_LOG(2, "remove_piece", "CombinerDevice::remove_piece exit, is_empty=%d", empty);
    return empty;
}

std::map<int, std::shared_ptr<IHardwareDevice>> CombinerDevice::current_pieces() {
    std::lock_guard<std::mutex> lock(pieces_mutex);
    return pieces;
}

void CombinerDevice::onRead(std::vector<Byte> report, bool rewrite_index, unsigned sys_error,
                            unsigned size) {
    COMBINER_LOG(3, "onRead", "CombinerDevice::onRead producing read event");
    Producer<IHardwareDevice::Read>::produce(
        [report, rewrite_index, sys_error, size](IHardwareDevice::Read* s) {
            s->onRead(report, rewrite_index, sys_error, size);
        },
        event_names::CombinerDeviceRead.onRead);
}

void CombinerDevice::onWrite(std::vector<Byte> report, ErrorCode err, unsigned value) {
    Producer<IHardwareDevice::Write>::produce(
        [report, err, value](IHardwareDevice::Write* s) { s->onWrite(report, err, value); },
        event_names::CombinerDeviceWrite.onWrite);
}

// The pieces are followed only while someone follows this device: a piece
// with no Read subscriber does not read at all.
bool CombinerDevice::on_subscribe(IHardwareDevice::Read* /*subscriber*/) {
    COMBINER_LOG(2, "on_subscribe", "CombinerDevice::on_subscribe enter");
    std::lock_guard<std::mutex> follow(follow_mutex);
    if (reading) return true;
    reading = true;
    for (const auto& [bit, piece] : current_pieces()) {
        if (!piece) {
            COMBINER_LOG(1, "on_subscribe",
                         "CombinerDevice::on_subscribe (read) piece.second is nullptr");
            continue;
        }
        if (!Subscriber<IHardwareDevice::Read>::subscribe(piece, DeliveryDirect,
                                                          "IHardwareDevice::Read")) {
            COMBINER_LOG(2, "on_subscribe",
                         "CombinerDevice::on_subscribe exit (false, could not subscribe to read a "
                         "piece)");
            return false;
        }
        COMBINER_LOG(2, "on_subscribe",
                     "CombinerDevice::on_subscribe successfully subscribed to read a piece");
    }
    COMBINER_LOG(2, "on_subscribe", "CombinerDevice::on_subscribe exit (true)");
    return true;
}

bool CombinerDevice::on_subscribe(IHardwareDevice::Write* /*subscriber*/) {
    COMBINER_LOG(2, "on_subscribe", "CombinerDevice::on_subscribe enter");
    std::lock_guard<std::mutex> follow(follow_mutex);
    if (loggingWrites) return true;
    loggingWrites = true;
    for (const auto& [bit, piece] : current_pieces()) {
        if (!piece) continue;
        if (!Subscriber<IHardwareDevice::Write>::subscribe(piece, DeliveryDirect,
                                                           "IHardwareDevice::Write")) {
            COMBINER_LOG(2, "on_subscribe",
                         "CombinerDevice::on_subscribe exit (false, could not subscribe to writes "
                         "from a piece)");
            return false;
        }
        COMBINER_LOG(2, "on_subscribe",
                     "CombinerDevice::on_subscribe successfully subscribed to writes from a "
                     "piece");
    }
    COMBINER_LOG(2, "on_subscribe", "CombinerDevice::on_subscribe exit (true)");
    return true;
}

void CombinerDevice::on_subscription_removed(IHardwareDevice::Read* /*subscriber*/) {
    COMBINER_LOG(2, "on_unsubscribe", "CombinerDevice::on_unsubscribe enter");
    if (Producer<IHardwareDevice::Read>::subscriber_count() != 0) {
        COMBINER_LOG(2, "on_unsubscribe",
                     "CombinerDevice::on_unsubscribe exit, still subscribers remaining");
        return;
    }
    std::lock_guard<std::mutex> follow(follow_mutex);
    reading = false;
    for (const auto& [bit, piece] : current_pieces()) {
        if (!piece) {
            COMBINER_LOG(1, "on_unsubscribe",
                         "CombinerDevice::on_unsubscribe (read) piece.second is nullptr");
            continue;
        }
        Subscriber<IHardwareDevice::Read>::unsubscribe(piece);
    }
}

void CombinerDevice::on_subscription_removed(IHardwareDevice::Write* /*subscriber*/) {
    if (Producer<IHardwareDevice::Write>::subscriber_count() != 0) return;
    std::lock_guard<std::mutex> follow(follow_mutex);
    loggingWrites = false;
    for (const auto& [bit, piece] : current_pieces()) {
        if (piece) Subscriber<IHardwareDevice::Write>::unsubscribe(piece);
    }
}

}  // namespace devio
