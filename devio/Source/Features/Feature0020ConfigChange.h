#pragma once

#include "Base/Producer.h"
#include "Features/Feature.h"
#include "Features/IFeature0020ConfigChange.h"

namespace devio {

// The configuration cookie. Besides reading and writing it, the feature
// turns another program's write, whose answer every host on the link sees,
// into `onCookieSet`.
//
// Threads: commands on the caller's thread; `onUnexpectedResponse` on the
// device's read thread. No state of its own beyond the producer, whose
// mutex is held while subscribers are called.
class Feature0020ConfigChange : public Feature,
                                public IFeature0020ConfigChange,
                                public Producer<IFeature0020ConfigChange::ConfigReport> {
public:
    static constexpr std::uint32_t kId = 0x0020;

    Feature0020ConfigChange(Byte index, const std::shared_ptr<IDevice>& device);

    bool GetCookie(std::uint16_t* cookie) override;
    bool SetCookie(std::uint16_t cookie) override;

protected:
    void onUnexpectedResponse(unsigned function, unsigned swid,
                              const std::vector<Byte>& params) override;
};

}  // namespace devio
