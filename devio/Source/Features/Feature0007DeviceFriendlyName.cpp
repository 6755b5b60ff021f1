// Friendly name: lengths (function 0), a chunk of the name (1) or of the
// default name (2), writing a chunk (3) and going back to the default (4).

#include "Features/Feature0007DeviceFriendlyName.h"

#include <algorithm>
#include <iterator>

#include "Base/ClassLog.h"
#include "Base/ErrorRecord.h"
#include "Features/FeatureRegistry.h"

namespace devio {

namespace {
constexpr unsigned kGetFriendlyNameLen = 0;
constexpr unsigned kGetFriendlyName = 1;
constexpr unsigned kGetDefaultFriendlyName = 2;
constexpr unsigned kSetFriendlyName = 3;
constexpr unsigned kResetFriendlyName = 4;
constexpr int kUncached = 0;
constexpr std::size_t kLengthsSize = 3;
// A chunk answer: the echoed index, then 15 name bytes.
constexpr std::size_t kChunk = 15;
constexpr std::size_t kChunkAnswerSize = 1 + kChunk;

// Lead bytes of UTF-8 sequences, longest first, with the sequence's length.
struct Lead {
    Byte mask;
    std::size_t length;
};
constexpr Lead kLeads[] = {{0xFC, 6}, {0xF8, 5}, {0xF0, 4}, {0xE0, 3}, {0xC0, 2}};

const FeatureRegistrar registrar(Feature0007DeviceFriendlyName::kId,
                                 &makeFeature<Feature0007DeviceFriendlyName>);
std::atomic<bool> included{false};
}  // namespace

IFeatureForceInclusion0007::IFeatureForceInclusion0007() {
    noteFeatureIncluded(included, "Feature0007DeviceFriendlyName",
                        "devio::IFeatureForceInclusion0007::IFeatureForceInclusion0007",
                        "Devio: Feature0007 included");
}

Feature0007DeviceFriendlyName::Feature0007DeviceFriendlyName(Byte featureIndex,
                                                             const std::shared_ptr<IDevice>& owner)
    : Feature(kId, featureIndex, owner) {}

bool Feature0007DeviceFriendlyName::GetFriendlyNameLen(std::uint16_t* nameLen,
                                                       std::uint16_t* nameMaxLen,
                                                       std::uint16_t* defaultNameLen) {
    std::vector<Byte> a;
    if (!sendSynchronousFeatureCommand(kGetFriendlyNameLen, {}, a, kUncached)) return false;
    if (a.size() < kLengthsSize) {
        set_error(CommandResponseTooShort);
        return false;
    }
    if (nameLen != nullptr) *nameLen = a[0];
    if (nameMaxLen != nullptr) *nameMaxLen = a[1];
    if (defaultNameLen != nullptr) *defaultNameLen = a[2];
    DEVIO_LOG("Feature0007DeviceFriendlyName", 2, "GetFriendlyNameLen",
              "Feature0007DeviceFriendlyName::GetFriendlyNameLen(*nameLen = %d, *nameMaxLen = %d, "
              "*defaultNameLen = %d)",
              a[0], a[1], a[2]);
    return true;
}

bool Feature0007DeviceFriendlyName::readNameChunk(unsigned function, const char* operation,
                                                  std::uint16_t charIndex,
                                                  std::vector<Byte>* chunk) {
    std::vector<Byte> a;
    if (!sendSynchronousFeatureCommand(function, {static_cast<Byte>(charIndex)}, a, kUncached)) {
        DEVIO_LOG("Feature0007DeviceFriendlyName", 0, "readNameChunk",
                  "Feature0007DeviceFriendlyName::%s(charIndex = %d), feature command returned "
                  "false",
                  operation, charIndex);
        return false;
    }
    if (a.size() < kChunkAnswerSize) {
        DEVIO_LOG("Feature0007DeviceFriendlyName", 0, "readNameChunk",
                  "Feature0007DeviceFriendlyName::%s(charIndex = %d), response too short",
                  operation, charIndex);
        set_error(CommandResponseTooShort);
        return false;
    }
    // Forgiven: the bytes are still the device's answer to this command.
    if (a[0] != charIndex) {
        DEVIO_LOG("Feature0007DeviceFriendlyName", 0, "readNameChunk",
                  "Feature0007DeviceFriendlyName::%s(charIndex = %d), return charIndex (= %d) "
                  "does not match parameter charIndex",
                  operation, charIndex, a[0]);
    }
    if (chunk != nullptr) chunk->assign(a.begin() + 1, a.end());
    DEVIO_LOG("Feature0007DeviceFriendlyName", 2, "readNameChunk",
              "Feature0007DeviceFriendlyName::%s(charIndex = %d)", operation, charIndex);
    return true;
}

bool Feature0007DeviceFriendlyName::GetFriendlyName(std::uint16_t charIndex,
                                                    std::vector<Byte>* chunk) {
    return readNameChunk(kGetFriendlyName, "GetFriendlyName", charIndex, chunk);
}

bool Feature0007DeviceFriendlyName::GetDefaultFriendlyName(std::uint16_t charIndex,
                                                           std::vector<Byte>* chunk) {
    return readNameChunk(kGetDefaultFriendlyName, "GetDefaultFriendlyName", charIndex, chunk);
}

bool Feature0007DeviceFriendlyName::GetFriendlyName(std::string* name) {
    return readName(
        false, [this](std::uint16_t at, std::vector<Byte>* c) { return GetFriendlyName(at, c); },
        name);
}

bool Feature0007DeviceFriendlyName::GetDefaultFriendlyName(std::string* name) {
    return readName(
        true,
        [this](std::uint16_t at, std::vector<Byte>* c) { return GetDefaultFriendlyName(at, c); },
        name);
}

bool Feature0007DeviceFriendlyName::readName(bool defaultName, const ChunkRead& chunkRead,
                                             std::string* name) {
    std::uint16_t nameLen = 0, defaultNameLen = 0;
    if (!GetFriendlyNameLen(&nameLen, nullptr, &defaultNameLen)) return false;
    if (name == nullptr) return false;
    name->clear();
    const std::size_t length = defaultName ? defaultNameLen : nameLen;
    std::size_t charIndex = 0;
    while (charIndex < length) {
        std::vector<Byte> chunk;
        if (!chunkRead(static_cast<std::uint16_t>(charIndex), &chunk)) return false;
        // The device may know a shorter name than its length says; a chunk
        // past the end starts with a zero byte.
        if (chunk.empty() || chunk[0] == 0) return true;
        name->append(chunk.begin(), chunk.end());
        charIndex += chunk.size();
    }
    return true;
}

std::size_t Feature0007DeviceFriendlyName::writtenLength(const std::string& name,
                                                         std::size_t nameMaxLen) {
    std::size_t length = std::min(name.size(), nameMaxLen);
    if (length == 0 || (static_cast<Byte>(name[length - 1]) & 0x80) == 0) return length;
    // Find the lead byte of the last character and keep the character only
    // if all of it fits. A name already shorter than the limit is whole.
    for (std::size_t pos = length; pos-- > 0;) {
        const auto b = static_cast<Byte>(name[pos]);
        const auto lead = std::find_if(std::begin(kLeads), std::end(kLeads),
                                       [b](const Lead& l) { return (b & l.mask) == l.mask; });
        if (lead == std::end(kLeads)) continue;
        if (pos + lead->length > nameMaxLen) length = pos;
        break;
    }
    return length;
}

bool Feature0007DeviceFriendlyName::SetFriendlyName(const std::string& name) {
    std::uint16_t nameMaxLen = 0;
    if (!GetFriendlyNameLen(nullptr, &nameMaxLen, nullptr)) return false;
    const std::size_t length = writtenLength(name, nameMaxLen);
    for (std::size_t charIndex = 0; charIndex < length; charIndex += kChunk) {
        const std::size_t n = std::min(length - charIndex, kChunk);
        std::vector<Byte> chunk(name.begin() + static_cast<std::ptrdiff_t>(charIndex),
                                name.begin() + static_cast<std::ptrdiff_t>(charIndex + n));
        chunk.resize(kChunk, 0);
        if (!SetFriendlyName(static_cast<std::uint16_t>(charIndex), chunk)) {
            DEVIO_LOG("Feature0007DeviceFriendlyName", 0, "SetFriendlyName",
                      "Feature0007DeviceFriendlyName::SetFriendlyName(charIndex = %d) failed",
                      static_cast<int>(charIndex));
            return false;
        }
    }
    return true;
}

bool Feature0007DeviceFriendlyName::SetFriendlyName(std::uint16_t charIndex,
                                                    const std::vector<Byte>& chunk) {
    std::vector<Byte> params(1 + chunk.size());
    params[0] = static_cast<Byte>(charIndex);
    std::copy(chunk.begin(), chunk.end(), params.begin() + 1);
    std::vector<Byte> a;
    if (!sendSynchronousFeatureCommand(kSetFriendlyName, params, a, kUncached)) return false;
    if (a.empty()) {
        set_error(CommandResponseTooShort);
        return false;
    }
    if (a[0] != charIndex) {
        DEVIO_LOG("Feature0007DeviceFriendlyName", 0, "SetFriendlyName",
                  "Feature0007DeviceFriendlyName::SetFriendlyName(charIndex = %d), return "
                  "charIndex (= %d) does not match parameter charIndex",
                  charIndex, a[0]);
    }
    DEVIO_LOG("Feature0007DeviceFriendlyName", 2, "SetFriendlyName",
              "Feature0007DeviceFriendlyName::SetFriendlyName(charIndex = %d)", charIndex);
    return true;
}

bool Feature0007DeviceFriendlyName::ResetFriendlyName() {
    std::vector<Byte> a;
    if (!sendSynchronousFeatureCommand(kResetFriendlyName, {}, a, kUncached)) {
        DEVIO_LOG("Feature0007DeviceFriendlyName", 0, "ResetFriendlyName",
                  "Feature0007DeviceFriendlyName::ResetFriendlyName() failed");
        return false;
    }
    DEVIO_LOG("Feature0007DeviceFriendlyName", 2, "ResetFriendlyName",
              "Feature0007DeviceFriendlyName::ResetFriendlyName()");
    return true;
}

}  // namespace devio
