#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Base/Producer.h"
#include "Base/Subscriber.h"
#include "Bus/IHardwareDevice.h"

namespace devio {

class IHardwareBus;

// One physical device that the platform shows as several pieces (HID
// collections of their own), taken by the layers above for one hardware
// device: whatever any piece reads, this device reads, and a write goes to
// the first piece, by collection bit, whose reports are long enough.
//
// Threads: the caller of `devices` and the underlying bus's thread add and
// remove pieces; any thread writes; the pieces' read threads deliver reads,
// possibly at the same time. `follow_mutex` serialises adding, removing
// and following pieces and guards `reading` and `loggingWrites`; it is held
// while subscribing to or closing a piece. `pieces_mutex` guards `pieces`
// and is held only to copy or change the map, never while a piece is
// called: a command engine opens the device under its own lock, which a
// piece's read thread takes while delivering under the piece's producer
// lock, so a subscription must not stand between the two.
class CombinerDevice : public IHardwareDevice,
                       public Subscriber<IHardwareDevice::Read>,
                       public Subscriber<IHardwareDevice::Write>,
                       public Producer<IHardwareDevice::Connect>,
                       public Producer<IHardwareDevice::Read>,
                       public Producer<IHardwareDevice::Write>,
                       public std::enable_shared_from_this<CombinerDevice> {
public:
    // The device takes its identity from its first piece: path (the piece's
    // combine key), product id, name and the collections it needs.
    CombinerDevice(const std::shared_ptr<IHardwareBus>& bus,
                   const std::shared_ptr<IHardwareDevice>& first);
    ~CombinerDevice() override;

    bool connected() override { return true; }
    bool open() override;
    void close() override;
    bool write(std::vector<Byte> report, bool wait) override;
    std::shared_ptr<IHardwareBus> bus() override { return bus_.lock(); }
    std::string path() override { return path_; }
    int pid() override { return pid_; }
    std::string name() override { return name_; }
    bool verify_connection_following_timeout() override;

    // True once the pieces cover every collection the device needs.
    bool whole();
    // Adds a piece, unless one with its collection bit is there already;
    // false when following its reads or writes failed (it is kept anyway).
    bool add_piece(const std::shared_ptr<IHardwareDevice>& piece);
    // Closes and drops the piece with the path of `piece`; true when no
    // piece is left.
    bool remove_piece(const std::shared_ptr<IHardwareDevice>& piece);
    // The pieces by collection bit, as they stand now.
    std::map<int, std::shared_ptr<IHardwareDevice>> current_pieces();

    void onRead(std::vector<Byte> report, bool rewrite_index, unsigned sys_error,
                unsigned size) override;
    void onWrite(std::vector<Byte> report, ErrorCode err, unsigned value) override;

protected:
    using Producer<IHardwareDevice::Connect>::on_subscribe;
    using Producer<IHardwareDevice::Connect>::on_subscription_removed;
    bool on_subscribe(IHardwareDevice::Read* subscriber) override;
    bool on_subscribe(IHardwareDevice::Write* subscriber) override;
    void on_subscription_removed(IHardwareDevice::Read* subscriber) override;
    void on_subscription_removed(IHardwareDevice::Write* subscriber) override;

private:
    using Pieces = std::map<int, std::shared_ptr<IHardwareDevice>>;

    std::weak_ptr<IHardwareBus> bus_;
    Pieces pieces;               // guarded by pieces_mutex
    bool reading = false;        // guarded by follow_mutex
    bool loggingWrites = false;  // guarded by follow_mutex
    const std::string path_;
    const int pid_;
    const std::string name_;
    const int collections_expected_;
    std::mutex follow_mutex;
    std::mutex pieces_mutex;
};

}  // namespace devio
