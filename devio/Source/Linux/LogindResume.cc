// Resume from sleep, as logind tells it: PrepareForSleep(true) before the
// machine sleeps, PrepareForSleep(false) once it has woken.

#include <poll.h>
#include <systemd/sd-bus.h>
#include <time.h>

#include <cstring>

#include "Linux/ChangeSources.h"

namespace devio::linux_hid {

namespace {

class LogindResume : public IChangeSource {
public:
    explicit LogindResume(sd_bus* bus) : bus_(bus) {}
    ~LogindResume() override {
        sd_bus_slot_unref(slot_);
        sd_bus_flush_close_unref(bus_);
    }

    bool watch(std::string& why) {
        const int r = sd_bus_match_signal(
            bus_, &slot_, "org.freedesktop.login1", "/org/freedesktop/login1",
            "org.freedesktop.login1.Manager", "PrepareForSleep", &LogindResume::onSignal, this);
        if (r < 0) why = std::string("cannot watch logind: ") + std::strerror(-r);
        return r >= 0;
    }

    int fd() const override { return sd_bus_get_fd(bus_); }
    short events() const override {
        const int e = sd_bus_get_events(bus_);
        return static_cast<short>(e < 0 ? POLLIN : e);
    }
    // sd-bus may need to run again at a time of its own (a pending call's
    // time-out), not only when its socket is ready.
    int timeoutMs() const override {
        std::uint64_t until = 0;
        if (sd_bus_get_timeout(bus_, &until) < 0 || until == UINT64_MAX) return -1;
        timespec now{};
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        const std::uint64_t usec = static_cast<std::uint64_t>(now.tv_sec) * 1000000u +
                                   static_cast<std::uint64_t>(now.tv_nsec) / 1000u;
        return until <= usec ? 0 : static_cast<int>((until - usec + 999) / 1000);
    }

    void drain(std::vector<NodeEvent>& out) override {
        pending_ = &out;
        while (sd_bus_process(bus_, nullptr) > 0) {
        }
        pending_ = nullptr;
    }

private:
    static int onSignal(sd_bus_message* message, void* self, sd_bus_error* /*error*/) {
        auto* me = static_cast<LogindResume*>(self);
        int sleeping = 0;
        if (sd_bus_message_read(message, "b", &sleeping) >= 0 && !sleeping && me->pending_)
            me->pending_->push_back({NodeEvent::Resumed, {}, {}});
        return 0;
    }

    sd_bus* bus_;
    sd_bus_slot* slot_ = nullptr;
    std::vector<NodeEvent>* pending_ = nullptr;  // set while draining
};

}  // namespace

std::unique_ptr<IChangeSource> openLogindResume(std::string& why) {
    sd_bus* bus = nullptr;
    // DBUS_SYSTEM_BUS_ADDRESS, where set, names the system bus.
    const int r = sd_bus_open_system(&bus);
    if (r < 0) {
        why = std::string("no system bus: ") + std::strerror(-r);
        return nullptr;
    }
    auto source = std::make_unique<LogindResume>(bus);
    if (!source->watch(why)) return nullptr;
    // Without logind on the bus no signal will come; the watch stays, in
    // case it starts later.
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    int owned = 0;
    if (sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                           "org.freedesktop.DBus", "NameHasOwner", &error, &reply, "s",
                           "org.freedesktop.login1") >= 0) {
        sd_bus_message_read(reply, "b", &owned);
    }
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
    if (!owned) why = "logind is not on the system bus";
    return source;
}

}  // namespace devio::linux_hid
