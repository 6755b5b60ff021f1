#include "Control.h"

#include <cstring>
#include <functional>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "features/Feature.h"

namespace devio_sim {

const char* const kControlHelp =
    "plug ID | unplug ID | replug ID | hangup ID\n"
    "connect ID | disconnect ID | pair RECEIVER ID [NUMBER (replaces)] | unpair ID\n"
    "overwrite-flags RECEIVER\n"
    "battery ID LEVEL [NEXT [STATUS]]\n"
    "wireless ID RECONNECT CONFIG_NEEDED POWER_SWITCH\n"
    "notify ID FEATURE_ID FUNCTION [BYTE...]\n"
    "property ID PROPERTY VALUE\n"
    "cookie ID VALUE [SWID]\n"
    "reflash ID ENTITY VERSION [BUILD]\n"
    "fault ID drop N | delay MS [N] | late N | swid SWID [N] | error 1|2 BYTE [N] | clear | show\n"
    "fault ID writes fail|stall|normal\n"
    "fault RECEIVER silent MS (from its next plug) | overcount N\n"
    "list | help | quit\n"
    "(N: a number of commands, or \"on\" until cleared)";

namespace {

constexpr std::uint16_t kBattery = 0x1000;
constexpr std::uint16_t kWirelessStatus = 0x1D4B;
constexpr std::uint16_t kProperties = 0x1F1F;
constexpr Byte kPropertyListEnd = 0xFF;

struct Args {
    std::vector<std::string> words;

    std::size_t size() const { return words.size(); }
    const std::string& at(std::size_t i) const {
        if (i >= words.size()) throw std::invalid_argument("missing argument");
        return words[i];
    }
    unsigned long number(std::size_t i, unsigned long max) const {
        const std::string& w = at(i);
        std::size_t used = 0;
        unsigned long v = 0;
        try {
            v = std::stoul(w, &used, 0);
        } catch (const std::exception&) {
            used = 0;
        }
        if (used != w.size() || w[0] == '-' || v > max)
            throw std::invalid_argument("bad number: " + w);
        return v;
    }
    Byte byte(std::size_t i) const { return static_cast<Byte>(number(i, 0xFF)); }
    unsigned long numberOr(std::size_t i, unsigned long max, unsigned long fallback) const {
        return i < size() ? number(i, max) : fallback;
    }
    int count(std::size_t i, int fallback) const {
        if (i >= size()) return fallback;
        if (at(i) == "on") return Faults::kForever;
        return static_cast<int>(number(i, 1000000));
    }
};

std::string unreachable(const std::string& id) {
    return id + " is unplugged, unpaired or out of reach";
}

std::string sendNotification(Machine& m, const std::string& id, std::uint16_t feature,
                             Byte function, const std::vector<Byte>& params) {
    return m.withDevice(id, [&](SimDevice& d, Byte index, Outbox* out) -> std::string {
        auto n = d.firmware().notification(index, feature, function, params);
        if (!n) return id + " has no feature " + std::to_string(feature);
        if (out == nullptr) return unreachable(id);
        out->send(*n);
        return {};
    });
}

// Arguments are all read before the work goes to the serving thread: a bad
// one is refused here, and nothing is thrown across threads.
std::optional<unsigned long> optional(const Args& a, std::size_t i, unsigned long max) {
    return i < a.size() ? std::optional<unsigned long>(a.number(i, max)) : std::nullopt;
}

std::string battery(Machine& m, const Args& a) {
    const std::string& id = a.at(1);
    const Byte level = a.byte(2);
    const auto next = optional(a, 3, 0xFF), status = optional(a, 4, 0xFF);
    std::vector<Byte> params;
    std::string e = m.withDevice(id, [&](SimDevice& d, Byte, Outbox*) {
        Battery& b = d.firmware().device().battery;
        b.level = level;
        b.next_level = static_cast<Byte>(next.value_or(b.next_level));
        b.status = static_cast<Byte>(status.value_or(b.status));
        params = {b.level, b.next_level, b.status};
        return std::string();
    });
    return e.empty() ? sendNotification(m, id, kBattery, 0, params) : e;
}

std::string property(Machine& m, const Args& a) {
    const std::string& id = a.at(1);
    const Byte which = a.byte(2);
    const std::string& text = a.at(3);
    std::vector<Byte> params;
    std::string e = m.withDevice(id, [&](SimDevice& d, Byte, Outbox*) -> std::string {
        auto& props = d.firmware().device().properties;
        if (which >= props.size()) return id + " has no property " + std::to_string(which);
        Property p = props[which];
        std::uint32_t raw = 0;
        std::size_t used = 0;
        try {
            if (p.is_float) {
                const float f = std::stof(text, &used);
                std::memcpy(&raw, &f, sizeof raw);
            } else {
                raw = static_cast<std::uint32_t>(std::stoi(text, &used, 0));
            }
        } catch (const std::exception&) {
            used = 0;
        }
        if (used != text.size()) return "bad value: " + text;
        // The device changes it itself, read-only or not.
        p.writable = true;
        setPropertyValue(p, raw);
        p.writable = props[which].writable;
        props[which] = p;
        params = {which, 0};
        const auto value = propertyValueBytes(p);
        params.insert(params.end(), value.begin(), value.end());
        params.push_back(kPropertyListEnd);
        return {};
    });
    return e.empty() ? sendNotification(m, id, kProperties, 0, params) : e;
}

std::string cookie(Machine& m, const Args& a) {
    const auto value = static_cast<std::uint16_t>(a.number(2, 0xFFFF));
    const Byte swid = static_cast<Byte>(a.numberOr(3, 0x0F, 1));
    if (swid == 0) return "software id 0 is for notifications";
    const std::string& id = a.at(1);
    return m.withDevice(id, [&](SimDevice& d, Byte index, Outbox* out) -> std::string {
        auto answer = d.firmware().cookieWrittenByOtherHost(index, value, swid);
        if (!answer) return id + " has no cookie";
        if (out != nullptr) out->send(*answer);
        return {};
    });
}

// A new firmware image: the entity's version changes and the device starts
// afresh, having lost its cookie, and says so in its wireless status.
std::string reflash(Machine& m, const Args& a) {
    const std::string& id = a.at(1);
    const std::size_t entity = a.number(2, 0xFF);
    const auto version = static_cast<std::uint16_t>(a.number(3, 0xFFFF));
    const auto build = optional(a, 4, 0xFFFF);
    return m.withDevice(id, [&](SimDevice& d, Byte index, Outbox* out) -> std::string {
        auto& dev = d.firmware().device();
        if (entity >= dev.entities.size())
            return id + " has no firmware entity " + std::to_string(entity);
        dev.entities[entity].version = version;
        dev.entities[entity].build =
            static_cast<std::uint16_t>(build.value_or(dev.entities[entity].build));
        dev.cookie = 0;
        auto n = d.firmware().notification(index, kWirelessStatus, 0, {1, 1, 0});
        if (n && out != nullptr) out->send(*n);
        return {};
    });
}

std::string fault(Machine& m, const Args& a) {
    const std::string& id = a.at(1);
    const std::string& kind = a.at(2);
    if (kind == "writes") {
        const std::string& mode = a.at(3);
        if (mode != "fail" && mode != "stall" && mode != "normal")
            return "writes fail, stall or normal";
        return m.setWriteMode(id, mode == "fail"    ? SimNode::WriteMode::Fail
                                  : mode == "stall" ? SimNode::WriteMode::Stall
                                                    : SimNode::WriteMode::Normal);
    }
    std::function<void(Faults&)> change = [](Faults&) {};
    if (kind == "drop") {
        change = [n = a.count(3, 1)](Faults& f) { f.drop(n); };
    } else if (kind == "delay") {
        change = [ms = static_cast<int>(a.number(3, 600000)),
                  n = a.count(4, Faults::kForever)](Faults& f) { f.delay(ms, n); };
    } else if (kind == "late") {
        change = [n = a.count(3, 1)](Faults& f) { f.late(n); };
    } else if (kind == "swid") {
        change = [swid = static_cast<Byte>(a.number(3, 0x0F)), n = a.count(4, 1)](Faults& f) {
            f.swid(swid, n);
        };
    } else if (kind == "error") {
        const auto version = static_cast<int>(a.number(3, 2));
        if (version != 1 && version != 2) return "error needs protocol version 1 or 2";
        change = [version, byte = a.byte(4), n = a.count(5, 1)](Faults& f) {
            f.error(version, byte, n);
        };
    } else if (kind == "silent") {
        change = [ms = static_cast<int>(a.number(3, 600000))](Faults& f) { f.silentAfterPlug(ms); };
    } else if (kind == "overcount") {
        change = [n = static_cast<int>(a.number(3, 14))](Faults& f) { f.overcount(n); };
    } else if (kind == "clear") {
        change = [](Faults& f) { f.clear(); };
    } else if (kind != "show") {
        return "unknown fault " + kind;
    }
    std::string shown;
    std::string e = m.withFaults(id, [&](Faults& f) {
        change(f);
        shown = f.describe();
        return std::string();
    });
    return e.empty() ? "\n" + shown : e;
}

std::string dispatch(Machine& m, const Args& a) {
    const std::string& cmd = a.at(0);
    if (cmd == "help") return std::string("\n") + kControlHelp;
    if (cmd == "list") return "\n" + m.list();
    if (cmd == "plug") return m.plug(a.at(1));
    if (cmd == "unplug") return m.unplug(a.at(1));
    if (cmd == "replug") {
        const std::string e = m.unplug(a.at(1));
        return e.empty() ? m.plug(a.at(1)) : e;
    }
    if (cmd == "hangup") return m.hangup(a.at(1));
    if (cmd == "connect") return m.setLink(a.at(1), true);
    if (cmd == "disconnect") return m.setLink(a.at(1), false);
    if (cmd == "pair") return m.pair(a.at(1), a.at(2), static_cast<int>(a.numberOr(3, 14, 0)));
    if (cmd == "unpair") return m.unpair(a.at(1));
    if (cmd == "overwrite-flags") return m.overwriteFlags(a.at(1));
    if (cmd == "battery") return battery(m, a);
    if (cmd == "wireless")
        return sendNotification(m, a.at(1), kWirelessStatus, 0, {a.byte(2), a.byte(3), a.byte(4)});
    if (cmd == "notify") {
        std::vector<Byte> params;
        for (std::size_t i = 4; i < a.size(); ++i) params.push_back(a.byte(i));
        return sendNotification(m, a.at(1), static_cast<std::uint16_t>(a.number(2, 0xFFFF)),
                                static_cast<Byte>(a.number(3, 0x0F)), params);
    }
    if (cmd == "property") return property(m, a);
    if (cmd == "cookie") return cookie(m, a);
    if (cmd == "reflash") return reflash(m, a);
    if (cmd == "fault") return fault(m, a);
    return "unknown command " + cmd + " (try help)";
}

}  // namespace

std::string execute(Machine& machine, const std::string& line) {
    Args args;
    std::istringstream in(line);
    for (std::string w; in >> w;) args.words.push_back(w);
    if (args.size() == 0) return "ok";
    std::string result;
    try {
        result = dispatch(machine, args);
    } catch (const std::invalid_argument& e) {
        return std::string("error: ") + e.what();
    }
    // Answers that carry text start with a line break.
    if (!result.empty() && result[0] != '\n') return "error: " + result;
    while (!result.empty() && result.back() == '\n') result.pop_back();
    return "ok" + result;
}

}  // namespace devio_sim
