#pragma once

#include <functional>

#include "Features/Feature.h"
#include "Features/IFeature0007DeviceFriendlyName.h"

namespace devio {

// The friendly name: read, written and reset in chunks of 15 bytes.
//
// Threads: the caller's. No state of its own, so any number of callers.
class Feature0007DeviceFriendlyName : public Feature, public IFeature0007DeviceFriendlyName {
public:
    static constexpr std::uint32_t kId = 0x0007;

    Feature0007DeviceFriendlyName(Byte index, const std::shared_ptr<IDevice>& device);

    bool GetFriendlyNameLen(std::uint16_t* nameLen, std::uint16_t* nameMaxLen,
                            std::uint16_t* defaultNameLen) override;
    bool GetFriendlyName(std::string* name) override;
    bool GetFriendlyName(std::uint16_t charIndex, std::vector<Byte>* chunk) override;
    bool GetDefaultFriendlyName(std::string* name) override;
    bool GetDefaultFriendlyName(std::uint16_t charIndex, std::vector<Byte>* chunk) override;
    bool SetFriendlyName(const std::string& name) override;
    bool SetFriendlyName(std::uint16_t charIndex, const std::vector<Byte>& chunk) override;
    bool ResetFriendlyName() override;

    // How many bytes of `name` are written: at most `nameMaxLen`, and short
    // of a UTF-8 character that would not fit whole.
    static std::size_t writtenLength(const std::string& name, std::size_t nameMaxLen);

private:
    using ChunkRead = std::function<bool(std::uint16_t, std::vector<Byte>*)>;
    bool readName(bool defaultName, const ChunkRead& chunkRead, std::string* name);
    bool readNameChunk(unsigned function, const char* operation, std::uint16_t charIndex,
                       std::vector<Byte>* chunk);
};

}  // namespace devio
