#include "Hid/HidItem.h"

namespace devio::hid {

namespace {

constexpr std::uint8_t kLongItemPrefix = 0xFE;

// bSize 3 means four bytes, not three.
constexpr std::size_t shortDataSize(std::uint8_t prefix) {
    const std::uint8_t code = prefix & 0x03;
    return code == 3 ? 4 : code;
}

}  // namespace

DecodeStatus ItemReader::next(Item& item) {
    const std::size_t remaining = bytes_.size() - pos_;
    if (remaining == 0) return DecodeStatus::End;

    const std::uint8_t prefix = bytes_[pos_];
    item = Item{};
    item.offset = pos_;

    if (prefix == kLongItemPrefix) {
        // Prefix, bDataSize, bLongItemTag, then the data.
        if (remaining < 3) return DecodeStatus::Truncated;
        const std::size_t dataSize = bytes_[pos_ + 1];
        if (remaining - 3 < dataSize) return DecodeStatus::Truncated;
        item.type = ItemType::Long;
        item.tag = bytes_[pos_ + 2];
        item.size = static_cast<std::uint8_t>(dataSize);
        pos_ += 3 + dataSize;
        return DecodeStatus::Ok;
    }

    const std::size_t dataSize = shortDataSize(prefix);
    if (remaining - 1 < dataSize) return DecodeStatus::Truncated;
    item.type = static_cast<ItemType>((prefix >> 2) & 0x03);
    item.tag = static_cast<std::uint8_t>(prefix >> 4);
    item.size = static_cast<std::uint8_t>(dataSize);

    std::uint32_t value = 0;
    for (std::size_t i = 0; i < dataSize; ++i) {
        value |= static_cast<std::uint32_t>(bytes_[pos_ + 1 + i]) << (8 * i);
    }
    item.udata = value;
    switch (dataSize) {
        case 1:
            item.sdata = static_cast<std::int8_t>(value);
            break;
        case 2:
            item.sdata = static_cast<std::int16_t>(value);
            break;
        case 4:
            item.sdata = static_cast<std::int32_t>(value);
            break;
        default:
            item.sdata = 0;
            break;
    }
    pos_ += 1 + dataSize;
    return DecodeStatus::Ok;
}

}  // namespace devio::hid
