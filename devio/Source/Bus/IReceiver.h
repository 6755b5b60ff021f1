#pragma once

#include <memory>

#include "Base/Byte.h"

namespace devio {

class IDevice;

// What only a wireless receiver can do, beside being a bus and a device.
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
};

namespace event_names {
inline constexpr IReceiver::LockingChange::Names IReceiverLockingChange{
    "IReceiver::LockingChange::onLockingChange"};
inline constexpr IReceiver::RegisterZeroOverwritten::Names IReceiverRegisterZeroOverwritten{
    "IReceiver::RegisterZeroOverwritten::onRegisterZeroOverwritten"};
}  // namespace event_names

}  // namespace devio
