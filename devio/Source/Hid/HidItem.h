#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace devio::hid {

// Item classes of a HID report descriptor (bType of the item prefix).
enum class ItemType : std::uint8_t { Main = 0, Global = 1, Local = 2, Reserved = 3, Long = 4 };

// One decoded item. Short items carry 0, 1, 2 or 4 data bytes; long items
// carry up to 255 bytes that no standard tag uses, so only their size is kept.
struct Item {
    ItemType type = ItemType::Main;
    std::uint8_t tag = 0;
    std::uint8_t size = 0;    // data bytes of the item
    std::uint32_t udata = 0;  // data, zero-extended
    std::int32_t sdata = 0;   // data, sign-extended from its own width
    std::size_t offset = 0;   // where the item's prefix lies in the descriptor
};

enum class DecodeStatus { Ok, End, Truncated };

// Walks the items of a descriptor. It never reads past the span: an item whose
// data would run past the end is reported as Truncated and the walk stops.
// Used by one thread at a time; holds no locks.
class ItemReader {
public:
    explicit ItemReader(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

    DecodeStatus next(Item& item);
    std::size_t offset() const { return pos_; }

private:
    std::span<const std::uint8_t> bytes_;
    std::size_t pos_ = 0;
};

}  // namespace devio::hid
