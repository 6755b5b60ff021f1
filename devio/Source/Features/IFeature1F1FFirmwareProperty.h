#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Base/Byte.h"

namespace devio {

// One property of feature 0x1F1F, as its feature last read it: an integer
// or a float (or, for a type this library does not know, neither), with its
// limits. Values travel as 4 bytes with the low byte first. The object
// belongs to its feature; one whose feature is gone fails every command
// with `DeviceRemoved`.
class IFeature1F1FFirmwareProperty {
public:
    // The device reported a new value of this property.
    class Notification {
    public:
        using Interface = IFeature1F1FFirmwareProperty;
        struct Names {
            const char* onPropertyChanged;
        };
        virtual void onPropertyChanged() {}

    protected:
        ~Notification() = default;
    };

    virtual ~IFeature1F1FFirmwareProperty() = default;

    virtual void NotifyChanged() = 0;
    virtual std::uint32_t id() = 0;
    virtual std::string name() = 0;
    // Two flags of the property's description, carried for the caller
    // without a meaning of the library's own.
    virtual bool flagA() = 0;
    virtual bool flagB() = 0;
    // Bytes of the value on the wire: the low nibble of the type byte.
    virtual std::uint32_t size() = 0;
    virtual Byte reserved() = 0;
    // The device's functions 5 and 6 for this property; good when the
    // device echoes the property's id.
    virtual bool save() = 0;
    virtual bool reset() = 0;
    virtual bool isInteger() = 0;
    virtual std::int32_t integerValue() = 0;
    virtual std::int32_t integerMinimum() = 0;
    virtual std::int32_t integerMaximum() = 0;
    // Stores the value, then writes it; the device's answer carries the
    // value it took, which replaces the stored one.
    virtual bool setIntegerValue(std::int32_t value) = 0;
    virtual bool isFloat() = 0;
    virtual float floatValue() = 0;
    virtual float floatMinimum() = 0;
    virtual float floatMaximum() = 0;
    virtual bool setFloatValue(float value) = 0;
    virtual void setName(const std::string& name) = 0;
    // The description's flags and type byte (bit 7 flag B, bits 4 to 6 the
    // type: 0 integer, 1 float; bits 0 to 3 the size).
    virtual void SetInfo(bool flagA, bool flagB, bool hasRange, Byte typeByte) = 0;
    // Value and limits from the description's tail. Without a range the
    // limits are those of the type, and the range counts as known from then
    // on.
    virtual void ParseInfo(const std::vector<Byte>& bytes) = 0;
    // The value as the 4 bytes at `position`; bytes beyond the end read as 0.
    virtual void ReadValue(const std::vector<Byte>& bytes, std::size_t position) = 0;
    // The value into the 4 bytes at `position`, growing `bytes` if needed.
    virtual void WriteValue(std::vector<Byte>& bytes, std::size_t position) = 0;
};

namespace event_names {
inline constexpr IFeature1F1FFirmwareProperty::Notification::Names
    IFeature1F1FFirmwarePropertyNotification{
        "IFeature1F1FFirmwareProperty::Notification::onPropertyChanged"};
}  // namespace event_names

}  // namespace devio
