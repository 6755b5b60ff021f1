// Feature: the commands of one feature, and the checks on their answers.

#include "Features/Feature.h"

#include "Base/ClassLog.h"
#include "Base/ErrorRecord.h"
#include "Device/IDevice.h"
#include "Device/VxpReport.h"

namespace devio {

namespace {
constexpr Byte kLongReportId = 0x11;
constexpr std::size_t kHeaderSize = 4;

Byte functionByte(unsigned function, unsigned swid) {
    return static_cast<Byte>((function << 4) | swid);
}
}  // namespace

Feature::Feature(std::uint32_t featureId, Byte featureIndex, const std::shared_ptr<IDevice>& owner)
    : id(featureId), index(featureIndex), weakDevice(owner) {}

Feature::~Feature() = default;

bool Feature::buildCommand(unsigned function, const std::vector<Byte>& params,
                           std::shared_ptr<IDevice>& dev, std::vector<Byte>& report) {
    dev = weakDevice.lock();
    if (!dev) {
        set_error(DeviceRemoved);
        return false;
    }
    report = {vxp::kShortReportId, vxp::kOwnIndex, index, functionByte(function, dev->swid())};
    report.insert(report.end(), params.begin(), params.end());
    if (report.size() > vxp::kShortReportSize) report[0] = kLongReportId;
    return true;
}

bool Feature::sendFeatureCommand(unsigned function, const std::vector<Byte>& params) {
    std::shared_ptr<IDevice> dev;
    std::vector<Byte> report;
    if (!buildCommand(function, params, dev, report)) return false;
    return dev->sendCommand(report, false);
}

bool Feature::sendSynchronousFeatureCommand(unsigned function, const std::vector<Byte>& params,
                                            std::vector<Byte>& response, int cached) {
    return sendSynchronousFeatureCommandMatching(function, params, response, cached, {});
}

bool Feature::sendSynchronousFeatureCommandMatching(
    unsigned function, const std::vector<Byte>& params, std::vector<Byte>& response, int cached,
    const std::vector<std::uint32_t>& matchPositions) {
    std::shared_ptr<IDevice> dev;
    std::vector<Byte> command;
    if (!buildCommand(function, params, dev, command)) return false;
    std::vector<Byte> raw;
    if (!dev->sendSynchronousCommand(command, raw, cached, matchPositions)) return false;
    if (raw.size() < vxp::kShortReportSize) {
        set_error(CommandResponseTooShort);
        return false;
    }
    // The software id may have moved on during the exchange (a collision
    // with another program): the answer carries the id in use now.
    if (raw[2] != command[2] || raw[3] != functionByte(function, dev->swid())) {
        set_error(InternalError, "response does not match command");
        return false;
    }
    response.assign(raw.begin() + kHeaderSize, raw.end());
    return true;
}

void Feature::deliverFeatureReport(int function, const std::vector<Byte>& params) {
    Producer<IFeature::FeatureReport>::produce(
        [function, params](IFeature::FeatureReport* s) { s->onFeatureReport(function, params); },
        event_names::FeatureFeatureReport.onFeatureReport);
    onFeatureReport(function, params);
}

void Feature::deliverUnexpectedResponse(unsigned function, unsigned swid,
                                        const std::vector<Byte>& params) {
    Producer<IFeature::FeatureReport>::produce(
        [function, swid, params](IFeature::FeatureReport* s) {
            s->onUnexpectedResponse(function, swid, params);
        },
        event_names::FeatureFeatureReport.onUnexpectedResponse);
    onUnexpectedResponse(function, swid, params);
}

bool Feature::applyPendingChanges() {
    writingPendingChanges = true;
    const bool written = writePendingChanges();
    writingPendingChanges = false;
    if (written) pendingChanges = false;
    return written;
}

}  // namespace devio
