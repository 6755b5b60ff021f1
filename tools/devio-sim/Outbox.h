#pragma once

#include "Report.h"

namespace devio_sim {

// Where simulated hardware puts the reports it sends to the host.
class Outbox {
public:
    virtual ~Outbox() = default;
    // Sends one input report to every host that has the node open, after
    // `delay_ms` milliseconds. The report keeps its meaningful bytes; the
    // node picks the input report that fits them and pads it.
    virtual void send(const Report& report, int delay_ms = 0) = 0;
};

// Something a host talks to through a node: a corded device or a receiver.
class Endpoint {
public:
    virtual ~Endpoint() = default;
    virtual void onHostReport(const Report& report, Outbox& out) = 0;
};

}  // namespace devio_sim
