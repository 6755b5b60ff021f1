// Resume from sleep, as logind tells it: PrepareForSleep(true) before the
// machine sleeps, PrepareForSleep(false) once it has woken.

#include <systemd/sd-bus.h>

#include <cstring>

#include "Linux/SdBusSource.h"

namespace devio::linux_hid {

namespace {

class LogindResume : public SdBusSource {
public:
    using SdBusSource::SdBusSource;

    bool watch(std::string& why) {
        sd_bus_slot* slot = nullptr;
        const int r = sd_bus_match_signal(
            bus_, &slot, "org.freedesktop.login1", "/org/freedesktop/login1",
            "org.freedesktop.login1.Manager", "PrepareForSleep", &LogindResume::onSignal, this);
        if (r < 0) why = std::string("cannot watch logind: ") + std::strerror(-r);
        if (r >= 0) keep(slot);
        return r >= 0;
    }

private:
    static int onSignal(sd_bus_message* message, void* self, sd_bus_error* /*error*/) {
        auto* me = static_cast<LogindResume*>(self);
        int sleeping = 0;
        if (sd_bus_message_read(message, "b", &sleeping) >= 0 && !sleeping)
            me->push({NodeEvent::Resumed, {}, {}});
        return 0;
    }
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
