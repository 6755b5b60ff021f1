#pragma once

#include <vector>

#include "Byte.h"

namespace devio {

// How a device hands a feature the traffic that no command of ours waited
// for. A feature object that wants such traffic implements it beside
// `IFeature`; the device finds it by a run-time cast. Called on the
// hardware device's read thread with no library lock held, so an
// implementation must not send a synchronous command from here.
class FeatureInlet {
public:
    // A notification: software id 0. `params` are the report's bytes from
    // offset 4 on.
    virtual void feature_report(int function, const std::vector<Byte>& params) = 0;
    // An answer to another program's command (a software id not ours).
    virtual void unexpected_response(unsigned function, unsigned swid,
                                     const std::vector<Byte>& params) = 0;

protected:
    ~FeatureInlet() = default;
};

}  // namespace devio
