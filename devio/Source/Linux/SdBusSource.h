#pragma once

#include <systemd/sd-bus.h>

#include <vector>

#include "Linux/ChangeSources.h"

namespace devio::linux_hid {

// A source of device changes that listens on its own connection to a
// D-Bus bus: its signal handlers append to `pending_` while `drain` runs.
// Everything is called on the window thread. Owns the connection.
class SdBusSource : public IChangeSource {
public:
    explicit SdBusSource(sd_bus* bus) : bus_(bus) {}
    ~SdBusSource() override;

    int fd() const override;
    short events() const override;
    // sd-bus may need to run again at a time of its own (a pending call's
    // time-out), not only when its socket is ready.
    int timeoutMs() const override;
    void drain(std::vector<NodeEvent>& out) override;

protected:
    // Keeps a match until the source ends.
    void keep(sd_bus_slot* slot) { slots_.push_back(slot); }
    void push(NodeEvent event) {
        if (pending_) pending_->push_back(std::move(event));
    }

    sd_bus* const bus_;

private:
    std::vector<sd_bus_slot*> slots_;
    std::vector<NodeEvent>* pending_ = nullptr;  // set while draining
};

}  // namespace devio::linux_hid
