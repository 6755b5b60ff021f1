#pragma once

#include <memory>
#include <vector>

#include "Base/Byte.h"

namespace devio {

class IDevice;

// What only a wireless receiver can do, beside being a bus and a device.
// Each operation sends register commands and blocks for their answers, so
// none may be called on the receiver's read thread.
class IReceiver {
public:
    // The pairing lock state and its error, as the receiver reports them.
    // The library hands them on as numbers without reading them.
    enum State : Byte {};
    enum ErrorType : Byte {};

    class LockingChange {
    public:
        using Interface = IReceiver;
        struct Names {
            const char* onLockingChange;
        };
        virtual void onLockingChange(const std::shared_ptr<IDevice>& /*receiver*/, State /*state*/,
                                     ErrorType /*error*/) {}

    protected:
        ~LockingChange() = default;
    };

    // Something wrote register 0 of the receiver, which may have cleared the
    // notification bits we depend on.
    class RegisterZeroOverwritten {
    public:
        using Interface = IReceiver;
        struct Names {
            const char* onRegisterZeroOverwritten;
        };
        virtual void onRegisterZeroOverwritten() {}

    protected:
        ~RegisterZeroOverwritten() = default;
    };

    virtual ~IReceiver() = default;

    // The library's devices behind this receiver; empty without a manager.
    virtual std::vector<std::shared_ptr<IDevice>> devices_on_receiver() = 0;
    // Reads the per-device status bytes and hands each to its device.
    virtual bool readSlotStatus() = 0;
    virtual bool isTwoDeviceProduct() = 0;
    // Opens and closes the pairing window, and unpairs a device by its
    // device number (index + 1).
    virtual bool open_lock() = 0;
    virtual bool close_lock() = 0;
    virtual bool unpair(unsigned deviceNumber) = 0;
};

namespace event_names {
inline constexpr IReceiver::LockingChange::Names IReceiverLockingChange{
    "IReceiver::LockingChange::onLockingChange"};
inline constexpr IReceiver::RegisterZeroOverwritten::Names IReceiverRegisterZeroOverwritten{
    "IReceiver::RegisterZeroOverwritten::onRegisterZeroOverwritten"};
}  // namespace event_names

}  // namespace devio
