#pragma once

#include "Base/Byte.h"

namespace devio {

// The flags byte of a feature record, as the root's lookup of one feature
// and the feature set's listing both give it.
struct FeatureFlags {
    bool obsolete;
    bool hidden;       // hidden from software
    bool engineering;  // hidden but for engineering builds
};

inline FeatureFlags decode_feature_flags(Byte flags) {
    return {(flags & 0x80) != 0, (flags & 0x40) != 0, (flags & 0x20) != 0};
}

}  // namespace devio
