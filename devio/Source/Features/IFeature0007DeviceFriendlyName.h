#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Base/Byte.h"

namespace devio {

// Feature 0x0007: a name that the user may give the device, beside the
// default one it came with. Names travel in chunks of 15 bytes behind a
// byte of `charIndex`; only the low byte of `charIndex` goes on the wire.
// Nothing is answered from the cache: the name can change at any time.
class IFeature0007DeviceFriendlyName {
public:
    virtual ~IFeature0007DeviceFriendlyName() = default;

    virtual bool GetFriendlyNameLen(std::uint16_t* nameLen, std::uint16_t* nameMaxLen,
                                    std::uint16_t* defaultNameLen) = 0;
    // The whole name. It ends early, without failure, at a chunk that
    // begins with a zero byte; the last chunk is kept whole, with the zero
    // bytes that pad it. After a failure `name` holds what came so far.
    virtual bool GetFriendlyName(std::string* name) = 0;
    // The 15 name bytes of one chunk.
    virtual bool GetFriendlyName(std::uint16_t charIndex, std::vector<Byte>* chunk) = 0;
    virtual bool GetDefaultFriendlyName(std::string* name) = 0;
    virtual bool GetDefaultFriendlyName(std::uint16_t charIndex, std::vector<Byte>* chunk) = 0;
    // Writes at most nameMaxLen bytes, never the first part of a UTF-8
    // character whose rest would not fit. Chunks written before a failure
    // stay written, and nothing erases an old name's tail beyond the new
    // one: the device decides what its name then is.
    virtual bool SetFriendlyName(const std::string& name) = 0;
    // One chunk, sent as given (15 bytes make a whole chunk).
    virtual bool SetFriendlyName(std::uint16_t charIndex, const std::vector<Byte>& chunk) = 0;
    // Back to the default name.
    virtual bool ResetFriendlyName() = 0;
};

class IFeatureForceInclusion0007 {
public:
    IFeatureForceInclusion0007();
};
[[maybe_unused]] static const IFeatureForceInclusion0007 featureForceInclusion0007;

}  // namespace devio
