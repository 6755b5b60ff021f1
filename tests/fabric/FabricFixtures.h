#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Base/ErrorRecord.h"
#include "Base/Producer.h"
#include "Base/Subscriber.h"
#include "Bus/IHardwareBus.h"

namespace devio::test {

// What the subscribers of one test saw, in order. It outlives them, so a call
// that reaches a dead subscriber shows up (and under ASan, fails loudly).
class Journal {
public:
    struct Entry {
        std::string who;
        int value;
        std::thread::id thread;
    };

    void add(std::string who, int value) {
        std::lock_guard<std::mutex> lock(mutex);
        entries.push_back(Entry{std::move(who), value, std::this_thread::get_id()});
    }
    std::vector<Entry> snapshot() {
        std::lock_guard<std::mutex> lock(mutex);
        return entries;
    }
    std::size_t count(const std::string& who) {
        std::size_t n = 0;
        for (const auto& e : snapshot()) n += e.who == who ? 1 : 0;
        return n;
    }
    std::size_t size() { return snapshot().size(); }

private:
    std::mutex mutex;
    std::vector<Entry> entries;
};

// A bus as far as the event fabric is concerned: it produces PlugUnplug and
// records what its hooks were told.
class FabricBus : public IHardwareBus, public Producer<IHardwareBus::PlugUnplug> {
public:
    void power(int value) {
        produce([value](IHardwareBus::PlugUnplug* s) { s->onPowerChange(value != 0); },
                event_names::Win32BusPlugUnplug.onPowerChange);
    }

    // No hardware behind this bus.
    std::vector<std::shared_ptr<IHardwareDevice>> devices() override { return {}; }

    bool refuse = false;
    int on_subscribe_calls = 0;
    std::vector<int> added_deliveries;
    int removed = 0;

protected:
    bool on_subscribe(IHardwareBus::PlugUnplug*) override {
        ++on_subscribe_calls;
        if (refuse) {
            set_error(NotConnected, "bus refused", 3);
            return false;
        }
        return true;
    }
    void on_subscription_added(IHardwareBus::PlugUnplug*, int delivery) override {
        added_deliveries.push_back(delivery);
    }
    void on_subscription_removed(IHardwareBus::PlugUnplug*) override { ++removed; }
};

// Writes each onPowerChange into the journal under its name.
class PowerWatcher : public Subscriber<IHardwareBus::PlugUnplug> {
public:
    PowerWatcher(std::shared_ptr<Journal> journal_, std::string name_)
        : journal(std::move(journal_)), name(std::move(name_)) {}
    void onPowerChange(bool standBy) override { journal->add(name, standBy ? 1 : 0); }

    std::shared_ptr<Journal> journal;
    std::string name;
};

}  // namespace devio::test
