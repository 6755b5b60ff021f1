#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Base/Producer.h"
#include "Bus/IHardwareDevice.h"
#include "Bus/IReceiverDevice.h"

namespace devio {

class BraidBus;

// One device paired to a receiver, at a zero-based slot `index` (device
// number index + 1 on the wire). It owns no transport: writes go out through
// its bus's command engine, and the bus's read handler feeds it the reports
// addressed to its device number. It does not keep the bus alive.
//
// Threads: the receiver's read thread sets the link state and produces
// Read, Write and Connect; any thread writes. `connected` and
// `disconnectedSinceWrite` are atomic for that race. `name_mutex` guards the
// name, which is read from the receiver (a command) without it held.
class BraidDevice : public IHardwareDevice,
                    public IReceiverDevice,
                    public Producer<IHardwareDevice::Write>,
                    public Producer<IHardwareDevice::Read>,
                    public Producer<IHardwareDevice::Connect>,
                    public std::enable_shared_from_this<BraidDevice> {
public:
    BraidDevice(const std::shared_ptr<BraidBus>& bus, unsigned index, unsigned qid, bool connected);
    ~BraidDevice() override;

    // IHardwareDevice
    bool connected() override { return connected_.load(); }
    bool open() override { return true; }
    void close() override {}
    bool write(std::vector<Byte> report, bool wait) override;
    std::shared_ptr<IHardwareBus> bus() override;
    std::string path() override { return path_; }
    int pid() override { return static_cast<int>(qid_); }
    std::string name() override;
    int secondary_id() override { return static_cast<int>(slotStatus.load()); }
    int bustype() override { return 1; }
    int busport() override { return static_cast<int>(index_ + 1); }
    int hw_value() override;
    bool verify_connection_following_timeout() override;

    // IReceiverDevice
    bool configuring_receiver() override;
    bool configuring_device() override;
    bool done_configuring_receiver() override;

    // What the bus tells the device.
    void processConnect();
    void processDisconnect();
    void deliver_read(const std::vector<Byte>& report, unsigned sys_error, unsigned size);
    void deliver_write(const std::vector<Byte>& report, ErrorCode err, unsigned value);
    void set_slot_status(Byte status) { slotStatus = status; }
    unsigned index() const { return index_; }
    unsigned qid() const { return qid_; }

protected:
    using Producer<IHardwareDevice::Read>::on_subscribe;
    using Producer<IHardwareDevice::Connect>::on_subscribe;
    // The bus's Device starts following the hardware's writes.
    bool on_subscribe(IHardwareDevice::Write* subscriber) override;

private:
    std::shared_ptr<BraidBus> locked_bus(const char* function);

    const std::string path_;
    const std::weak_ptr<BraidBus> bus_;
    const unsigned index_;
    const unsigned qid_;
    std::atomic<bool> connected_;
    std::atomic<bool> disconnectedSinceWrite{false};
    std::atomic<std::uint32_t> slotStatus{0};
    std::string name_;      // guarded by name_mutex
    bool nameRead = false;  // guarded by name_mutex
    std::mutex name_mutex;
};

}  // namespace devio
