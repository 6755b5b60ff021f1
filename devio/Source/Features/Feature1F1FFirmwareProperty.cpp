// One firmware property: its description, its value in either type, and
// the event of a change that the device reported.

#include "Features/Feature1F1FFirmwareProperty.h"

#include <cstdio>
#include <limits>

#include "Base/Coding.h"
#include "Base/ErrorRecord.h"

namespace devio {

namespace {
constexpr unsigned kTypeInteger = 0;
constexpr unsigned kTypeFloat = 1;
constexpr std::size_t kMinimumAt = 4;
constexpr std::size_t kMaximumAt = 8;
}  // namespace

Feature1F1FFirmwareProperty::Feature1F1FFirmwareProperty(IFeature1F1FFirmwareProperties* owning,
                                                         std::uint32_t propertyId,
                                                         std::weak_ptr<IFeature> ownerFeature)
    : parent(owning), owner(std::move(ownerFeature)), _id(propertyId) {}

void Feature1F1FFirmwareProperty::NotifyChanged() {
    Producer<IFeature1F1FFirmwareProperty::Notification>::produce(
        [](IFeature1F1FFirmwareProperty::Notification* s) { s->onPropertyChanged(); },
        event_names::IFeature1F1FFirmwarePropertyNotification.onPropertyChanged);
}

std::string Feature1F1FFirmwareProperty::name() {
    std::lock_guard<std::mutex> lock(mutex);
    return _name;
}

bool Feature1F1FFirmwareProperty::flagA() {
    std::lock_guard<std::mutex> lock(mutex);
    return _flagA;
}

bool Feature1F1FFirmwareProperty::flagB() {
    std::lock_guard<std::mutex> lock(mutex);
    return _flagB;
}

std::uint32_t Feature1F1FFirmwareProperty::size() {
    std::lock_guard<std::mutex> lock(mutex);
    return _size;
}

Byte Feature1F1FFirmwareProperty::reserved() {
    std::lock_guard<std::mutex> lock(mutex);
    return _reserved;
}

bool Feature1F1FFirmwareProperty::isInteger() {
    std::lock_guard<std::mutex> lock(mutex);
    return _isInteger;
}

std::int32_t Feature1F1FFirmwareProperty::integerValue() {
    std::lock_guard<std::mutex> lock(mutex);
    return _integerValue;
}

std::int32_t Feature1F1FFirmwareProperty::integerMinimum() {
    std::lock_guard<std::mutex> lock(mutex);
    return _integerMinimum;
}

std::int32_t Feature1F1FFirmwareProperty::integerMaximum() {
    std::lock_guard<std::mutex> lock(mutex);
    return _integerMaximum;
}

bool Feature1F1FFirmwareProperty::isFloat() {
    std::lock_guard<std::mutex> lock(mutex);
    return _isFloat;
}

float Feature1F1FFirmwareProperty::floatValue() {
    std::lock_guard<std::mutex> lock(mutex);
    return _floatValue;
}

float Feature1F1FFirmwareProperty::floatMinimum() {
    std::lock_guard<std::mutex> lock(mutex);
    return _floatMinimum;
}

float Feature1F1FFirmwareProperty::floatMaximum() {
    std::lock_guard<std::mutex> lock(mutex);
    return _floatMaximum;
}

template <class Command>
bool Feature1F1FFirmwareProperty::withParent(Command command) {
    const auto alive = owner.lock();
    if (!alive) {
        set_error(DeviceRemoved);
        return false;
    }
    return command(*parent);
}

bool Feature1F1FFirmwareProperty::save() {
    return withParent(
        [this](IFeature1F1FFirmwareProperties& p) { return p.SavePropertyCommand(this); });
}

bool Feature1F1FFirmwareProperty::reset() {
    return withParent(
        [this](IFeature1F1FFirmwareProperties& p) { return p.ResetPropertyCommand(this); });
}

bool Feature1F1FFirmwareProperty::setIntegerValue(std::int32_t value) {
    {
        std::lock_guard<std::mutex> lock(mutex);
        _integerValue = value;
    }
    return withParent(
        [this](IFeature1F1FFirmwareProperties& p) { return p.SetPropertyValue(this); });
}

bool Feature1F1FFirmwareProperty::setFloatValue(float value) {
    {
        std::lock_guard<std::mutex> lock(mutex);
        _floatValue = value;
    }
    return withParent(
        [this](IFeature1F1FFirmwareProperties& p) { return p.SetPropertyValue(this); });
}

void Feature1F1FFirmwareProperty::setName(const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex);
    _name = text;
}

void Feature1F1FFirmwareProperty::SetInfo(bool a, bool b, bool range, Byte type) {
    std::lock_guard<std::mutex> lock(mutex);
    _flagA = a;
    _flagB = b;
    hasRange = range;
    typeByte = type;
    _size = type & 0x0Fu;
    const unsigned kind = (type >> 4) & 0x07u;
    _isInteger = kind == kTypeInteger;
    _isFloat = kind == kTypeFloat;
}

void Feature1F1FFirmwareProperty::ParseInfo(const std::vector<Byte>& bytes) {
    std::lock_guard<std::mutex> lock(mutex);
    if (_isInteger) {
        _integerValue = coding::le32_int(bytes, 0);
        if (hasRange) {
            _integerMinimum = coding::le32_int(bytes, kMinimumAt);
            _integerMaximum = coding::le32_int(bytes, kMaximumAt);
        } else {
            _integerMinimum = std::numeric_limits<std::int32_t>::min();
            _integerMaximum = std::numeric_limits<std::int32_t>::max();
            hasRange = true;
        }
        std::printf("cmm: %d %d %d\n", _integerValue, _integerMinimum, _integerMaximum);
    } else if (_isFloat) {
        _floatValue = coding::le32_float(bytes, 0);
        if (hasRange) {
            _floatMinimum = coding::le32_float(bytes, kMinimumAt);
            _floatMaximum = coding::le32_float(bytes, kMaximumAt);
        } else {
            _floatMinimum = std::numeric_limits<float>::lowest();
            _floatMaximum = std::numeric_limits<float>::max();
            hasRange = true;
        }
    }
}

void Feature1F1FFirmwareProperty::ReadValue(const std::vector<Byte>& bytes, std::size_t position) {
    std::lock_guard<std::mutex> lock(mutex);
    if (_isInteger) {
        _integerValue = coding::le32_int(bytes, position);
    } else if (_isFloat) {
        _floatValue = coding::le32_float(bytes, position);
    }
}

void Feature1F1FFirmwareProperty::WriteValue(std::vector<Byte>& bytes, std::size_t position) {
    std::lock_guard<std::mutex> lock(mutex);
    if (_isInteger) {
        coding::store_le32_int(bytes, position, _integerValue);
    } else if (_isFloat) {
        coding::store_le32_float(bytes, position, _floatValue);
    }
}

}  // namespace devio
