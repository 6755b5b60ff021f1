// Device: what every report that the hardware reads is. It may complete the
// pending command, be a notification for a feature, be another program's
// answer, or be noise. Runs on the hardware device's read thread.

#include <chrono>

#include "Base/ClassLog.h"
#include "Device/Device.h"
#include "Device/VxpReport.h"
#include "Features/Feature.h"

namespace devio {

namespace {
std::int64_t steady_now_ns() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::vector<Byte> params_of(const std::vector<Byte>& report) {
    return std::vector<Byte>(report.begin() + 4, report.end());
}
}  // namespace

void Device::onRead(std::vector<Byte> report, bool rewrite_index, unsigned sys_error,
                    unsigned size) {
    std::vector<Byte> copy = report;
    const ReportType type = onReadHandler(copy, rewrite_index);
    if (!active) return;
    Producer<IDevice::Report>::produce(
        [report, sys_error, size, type](IDevice::Report* s) {
            s->onReport(report, sys_error, size, type);
        },
        event_names::DeviceReport.onReport);
}

void Device::onWrite(std::vector<Byte> report, ErrorCode err, unsigned value) {
    if (!active) return;
    Producer<IDevice::WriteReport>::produce(
        [report, err, value](IDevice::WriteReport* s) { s->onWriteReport(report, err, value); },
        event_names::DeviceWriteReport.onWriteReport);
}

IDevice::ReportType Device::onReadHandler(std::vector<Byte>& report, bool rewrite_index) {
    {
        std::lock_guard<std::mutex> lock(last_report_mutex);
        last_report_time = steady_now_ns();
    }
    if (report.size() < vxp::kShortReportSize) {
        DEVIO_LOG("Device", 1, "onReadHandler", "Not processing short read report of %d bytes",
                  static_cast<int>(report.size()));
        return ReportIgnored;
    }
    // A receiver's device sees its own index on the wire; above it, every
    // device is "the device itself".
    if (rewrite_index) report[1] = vxp::kOwnIndex;
    if (vxp::is_vxp10_notification(report[2])) {
        DEVIO_LOG("Device", 3, "onReadHandler", "Report is a Vxp 1.0 notification");
        return ReportNotification;
    }
    if (report[1] != 0 && report[1] != vxp::kOwnIndex) return ReportIgnored;

    const bool feature_based_now = feature_based();
    if (feature_based_now && deliver_notification(report)) return ReportNotification;
    if (!feature_based_now && report[2] >= 1 && report[2] <= 0x7F) {
        DEVIO_LOG(
            "Device", 3, "onReadHandler",
            "Report is a Vxp 1.0 notification or a Vxp 2.0 response/event for an unknown feature");
        return ReportIgnored;
    }

    {
        PendingExchange::Hold hold = exchange.hold();
        if (complete_pending(hold, report)) {
            hold.unlock();
            exchange.wake();
            return ReportResponse;
        }
    }
    return classify_other_software(report);
}

bool Device::deliver_notification(const std::vector<Byte>& report) {
    if (vxp::swid_of(report[3]) != 0) return false;
    auto feature = feature_at(report[2]);
    if (!feature) return false;
    DEVIO_LOG("Device", 3, "onReadHandler", "Report is a VXP 2.0 notification");
    if (active) {
        if (auto entry = feature->sharedFeature()) {
            entry->deliverFeatureReport(static_cast<int>(vxp::function_of(report[3])),
                                        params_of(report));
        }
    }
    return true;
}

bool Device::complete_pending(const PendingExchange::Hold& hold, const std::vector<Byte>& report) {
    PendingExchange::Mismatch mismatch;
    const PendingExchange::Offer offer = exchange.offer(hold, report, mismatch);
    if (mismatch == PendingExchange::Mismatch::Header) {
        DEVIO_LOG(
            "Device", 3, "onReadHandler",
            "Response with mismatched header does not complete our pending command. Continuing "
            "decoding... (!)");
    } else if (mismatch == PendingExchange::Mismatch::Payload) {
        DEVIO_LOG("Device", 3, "onReadHandler",
                  "Response with mismatched payload does not complete our pending command. "
                  "Continuing decoding...");
    }
    switch (offer) {
        case PendingExchange::Offer::Idle:
            DEVIO_LOG("Device", 3, "onReadHandler", "No command in progress");
            return false;
        case PendingExchange::Offer::Expired:
            // The waiter gave up on its command, which is gone.
            DEVIO_LOG("Device", 3, "onReadHandler", "Command in progress, size is %d", 0);
            return false;
        case PendingExchange::Offer::ErrorAnswer:
            DEVIO_LOG("Device", 3, "onReadHandler", "Report is a Vxp error response");
            return true;
        case PendingExchange::Offer::Answer:
            DEVIO_LOG("Device", 3, "onReadHandler", "Report is a Vxp command response");
            hwdev->response_seen(hwdev->response_token());
            return true;
        case PendingExchange::Offer::LateAnswer:
            DEVIO_LOG("Device", 2, "onReadHandler",
                      "Response matches previous command. Activating brb workaround.");
            return true;
        case PendingExchange::Offer::NotOurs:
            break;
    }
    return false;
}

IDevice::ReportType Device::classify_other_software(const std::vector<Byte>& report) {
    if (!feature_based()) {
        DEVIO_LOG("Device", 3, "onReadHandler",
                  "Report is an unexpected VXP 1.0 command response, ignoring");
        return ReportOtherSoftware;
    }
    const unsigned function = vxp::function_of(report[3]);
    const unsigned sw = vxp::swid_of(report[3]);
    // Another program asking which protocol the device speaks.
    if (report[2] == 0 && function == 1 && report[6] == 0) {
        DEVIO_LOG("Device", 3, "onReadHandler",
                  "Report is a protocol check response from other SW using swid 0x%x, ignoring",
                  sw);
        return ReportOtherSoftware;
    }
    DEVIO_LOG("Device", 3, "onReadHandler",
              "Report is a feature response from other SW using swid 0x%x", sw);
    if (sw == swid()) {
        DEVIO_LOG("Device", 2, "onReadHandler",
                  "Report is an unexpected command response with our swid 0x%x, so we will switch "
                  "our swid",
                  sw);
        swids.request_switch();
        need_ping = true;
    }
    swids.note_other(sw);
    auto feature = feature_at(report[2]);
    if (feature) {
        if (active) {
            if (auto entry = feature->sharedFeature())
                entry->deliverUnexpectedResponse(function, sw, params_of(report));
        }
    } else if (sw != 0) {
        DEVIO_LOG("Device", 3, "onReadHandler",
                  "Report is a response to an unknown feature index %02x from other SW using swid "
                  "0x%x, ignoring",
                  report[2], sw);
    } else {
        DEVIO_LOG("Device", 3, "onReadHandler",
                  "Report is a notif from an unknown feature at index %02x, ignoring", report[2]);
    }
    return ReportOtherSoftware;
}

}  // namespace devio
