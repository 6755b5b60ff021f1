#pragma once

#include "Base/Producer.h"
#include "Features/Feature.h"
#include "Features/IFeature1D4BWirelessStatus.h"

namespace devio {

// The wireless status notification as `onWirelessStatusEvent`: the device
// woke up or was reset and may have lost its settings. The feature has no
// commands.
//
// Threads: `onFeatureReport` on the device's read thread. No state of its
// own beyond the producer, whose mutex is held while subscribers are called.
class Feature1D4BWirelessStatus : public Feature,
                                  public IFeature1D4BWirelessStatus,
                                  public Producer<IFeature1D4BWirelessStatus::Report> {
public:
    static constexpr std::uint32_t kId = 0x1D4B;

    Feature1D4BWirelessStatus(Byte index, const std::shared_ptr<IDevice>& device);
    ~Feature1D4BWirelessStatus() override;

protected:
    void onFeatureReport(int function, const std::vector<Byte>& params) override;
};

}  // namespace devio
