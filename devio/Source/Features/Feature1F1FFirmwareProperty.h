#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "Base/Producer.h"
#include "Features/IFeature.h"
#include "Features/IFeature1F1FFirmwareProperties.h"
#include "Features/IFeature1F1FFirmwareProperty.h"

namespace devio {

// One firmware property: what its feature last read of it, and its own
// change event. It is no feature: its commands are its parent's, reached by
// a plain pointer that is used only while the parent's owner reference can
// be locked, so a property that outlives its feature fails with
// `DeviceRemoved` instead of calling into a dead object.
//
// Threads: hosts and the parent's commands on any thread; the parent's
// notification handling on the device's read thread. `mutex` guards every
// field below it and is never held while the parent is called or the event
// is produced.
class Feature1F1FFirmwareProperty : public IFeature1F1FFirmwareProperty,
                                    public Producer<IFeature1F1FFirmwareProperty::Notification> {
public:
    Feature1F1FFirmwareProperty(IFeature1F1FFirmwareProperties* parent, std::uint32_t id,
                                std::weak_ptr<IFeature> owner);

    void NotifyChanged() override;
    std::uint32_t id() override { return _id; }
    std::string name() override;
    bool flagA() override;
    bool flagB() override;
    std::uint32_t size() override;
    Byte reserved() override;
    bool save() override;
    bool reset() override;
    bool isInteger() override;
    std::int32_t integerValue() override;
    std::int32_t integerMinimum() override;
    std::int32_t integerMaximum() override;
    bool setIntegerValue(std::int32_t value) override;
    bool isFloat() override;
    float floatValue() override;
    float floatMinimum() override;
    float floatMaximum() override;
    bool setFloatValue(float value) override;
    void setName(const std::string& name) override;
    void SetInfo(bool flagA, bool flagB, bool hasRange, Byte typeByte) override;
    void ParseInfo(const std::vector<Byte>& bytes) override;
    void ReadValue(const std::vector<Byte>& bytes, std::size_t position) override;
    void WriteValue(std::vector<Byte>& bytes, std::size_t position) override;

private:
    // Calls `command` of the parent with this property while the parent's
    // owner is alive.
    template <class Command>
    bool withParent(Command command);

    IFeature1F1FFirmwareProperties* const parent;
    const std::weak_ptr<IFeature> owner;
    const std::uint32_t _id;

    std::mutex mutex;
    std::string _name;
    bool _flagA = false;
    bool _flagB = false;
    std::uint32_t _size = 0;
    bool hasRange = false;
    // Part of the description's layout; nothing writes it.
    Byte _reserved = 0;
    Byte typeByte = 0;
    bool _isInteger = false;
    std::int32_t _integerValue = 0, _integerMinimum = 0, _integerMaximum = 0;
    bool _isFloat = false;
    float _floatValue = 0, _floatMinimum = 0, _floatMaximum = 0;
};

}  // namespace devio
