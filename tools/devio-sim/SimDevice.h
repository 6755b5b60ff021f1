#pragma once

#include "Faults.h"
#include "Firmware.h"
#include "Outbox.h"

namespace devio_sim {

// One simulated device: its firmware and the faults it is told to show.
// Corded, it is the endpoint of its own node; paired, its receiver hands it
// the reports addressed to its device number.
//
// Not thread-safe: used on the machine's serving thread only.
class SimDevice : public Endpoint {
public:
    explicit SimDevice(DeviceDescription description) : firmware_(std::move(description)) {}

    // A corded device answers reports for index 0xFF and, as hosts also
    // accept, 0; other indices are for somebody else.
    void onHostReport(const Report& report, Outbox& out) override {
        if (report.size() < kHeaderSize || (report[1] != kReceiverIndex && report[1] != 0)) return;
        command(report, out);
    }

    // Carries out one command and answers it, through the faults.
    void command(const Report& request, Outbox& out) {
        faults_.respond(
            request, [&] { return firmware_.handle(request); }, out);
    }

    Firmware& firmware() { return firmware_; }
    Faults& faults() { return faults_; }
    const std::string& id() const { return firmware_.device().id; }

private:
    Firmware firmware_;
    Faults faults_;
};

}  // namespace devio_sim
