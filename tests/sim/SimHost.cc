#include "SimHost.h"

#include <stdlib.h>

#include <cctype>
#include <cstdio>
#include <filesystem>
#include <stdexcept>

#include "Control.h"
#include "DescriptionJson.h"

namespace simtest {

SimMachine::SimMachine(const std::string& json) {
    char pattern[] = "/tmp/devio-sim-test-XXXXXX";
    if (::mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp");
    dir_ = pattern;
    try {
        machine_ = std::make_unique<devio_sim::Machine>(devio_sim::parseMachine(json), dir_);
        if (std::string e = machine_->start(); !e.empty()) throw std::runtime_error(e);
    } catch (...) {
        machine_.reset();
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
        throw;
    }
    bus_ = std::make_shared<SimBus>(machine_->sysfsRoot(), machine_->devRoot());
}

SimMachine::~SimMachine() {
    machine_.reset();
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
}

std::string SimMachine::command(const std::string& line) {
    return devio_sim::execute(*machine_, line);
}

std::string SimMachine::path(int hidraw, const std::string& suffix) const {
    return machine_->devRoot() + "/hidraw" + std::to_string(hidraw) + suffix;
}

Host::Host(SimMachine& sim, const std::string& path) {
    std::shared_ptr<devio::IWin32System> system;
    sim.bus()->lazyStart(&system);
    device_ = std::make_shared<devio::Win32Device>(sim.bus(), system, path, 0);
}

Host::~Host() {
    unsubscribe(device_);
    device_->close();
}

bool Host::open() {
    return device_->open() && subscribe(device_, 1, "");
}

bool Host::write(const Bytes& report) {
    return device_->write(report, true);
}

void Host::onRead(std::vector<devio::Byte> report, bool, unsigned sys_error, unsigned) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (report.empty()) {
        last_read_error_ = sys_error;
    } else {
        reads_.push_back(std::move(report));
    }
    cv_.notify_all();
}

std::optional<Bytes> Host::next(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!cv_.wait_for(lock, timeout, [this] { return !reads_.empty(); })) return std::nullopt;
    Bytes r = std::move(reads_.front());
    reads_.pop_front();
    return r;
}

Bytes Host::exchange(const Bytes& request) {
    if (!write(request)) return {};
    return next().value_or(Bytes{});
}

std::size_t Host::pending(std::chrono::milliseconds settle) {
    std::this_thread::sleep_for(settle);
    std::lock_guard<std::mutex> lock(mutex_);
    return reads_.size();
}

bool Host::readFails(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cv_.wait_for(lock, timeout, [this] { return last_read_error_ != 0; });
}

Bytes hex(const std::string& text, std::size_t size) {
    Bytes r;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == ' ') continue;
        if (text[i] == '\'') {
            const std::size_t end = text.find('\'', i + 1);
            if (end == std::string::npos) throw std::invalid_argument("unclosed quote: " + text);
            r.insert(r.end(), text.begin() + i + 1, text.begin() + end);
            i = end;
            continue;
        }
        if (i + 1 >= text.size() || !std::isxdigit(static_cast<unsigned char>(text[i])) ||
            !std::isxdigit(static_cast<unsigned char>(text[i + 1]))) {
            throw std::invalid_argument("not a hex pair at " + std::to_string(i) + ": " + text);
        }
        r.push_back(static_cast<std::uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
        ++i;
    }
    if (size > r.size()) r.resize(size, 0);
    return r;
}

void use_machine(SimMachine& sim) {
    ::setenv("DEVIO_SYSFS_ROOT", sim.machine().sysfsRoot().c_str(), 1);
    ::setenv("DEVIO_DEV_ROOT", sim.machine().devRoot().c_str(), 1);
}

std::string mice(int count, bool plugged) {
    std::string json = R"({"devices": [)";
    for (int i = 0; i < count; ++i) {
        char one[160];
        std::snprintf(one, sizeof one, R"(%s{"id": "m%d", "pid": "0xC0%02X", "plugged": %s})",
                      i ? ", " : "", i, 0x80 + i, plugged ? "true" : "false");
        json += one;
    }
    return json + "]}";
}

}  // namespace simtest
