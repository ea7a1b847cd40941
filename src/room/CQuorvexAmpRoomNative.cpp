#include "room/CQuorvexAmpRoomNative.h"

#include <memory>

#include "models/SpeakerModels.h"
#include "room/RateBands.h"

namespace tarnlow {
namespace {

template <typename... Models>
void AddModels(std::vector<CQuorvexAmp*>& amps)
{
    // Built in speaker order; the vector takes ownership only once all five exist.
    std::unique_ptr<CQuorvexAmp> built[] = {std::make_unique<Models>()...};
    amps.reserve(sizeof...(Models));
    for (auto& model : built) amps.push_back(model.release());
}

void AddBandModels(RateBand band, std::vector<CQuorvexAmp*>& amps)
{
    switch (band) {
    case RateBand::Band192:
        AddModels<CQuorvexAmp_1x12n192a, CQuorvexAmp_2x12n192a, CQuorvexAmp_4x12n192a,
                  CQuorvexAmp_4x10n192a, CQuorvexAmp_4x10Bassn192a>(amps);
        break;
    case RateBand::Band176:
        AddModels<CQuorvexAmp_1x12n176a, CQuorvexAmp_2x12n176a, CQuorvexAmp_4x12n176a,
                  CQuorvexAmp_4x10n176a, CQuorvexAmp_4x10Bassn176a>(amps);
        break;
    case RateBand::Band96:
        AddModels<CQuorvexAmp_1x12n96a, CQuorvexAmp_2x12n96a, CQuorvexAmp_4x12n96a,
                  CQuorvexAmp_4x10n96a, CQuorvexAmp_4x10Bassn96a>(amps);
        break;
    case RateBand::Band88:
        AddModels<CQuorvexAmp_1x12n88a, CQuorvexAmp_2x12n88a, CQuorvexAmp_4x12n88a,
                  CQuorvexAmp_4x10n88a, CQuorvexAmp_4x10Bassn88a>(amps);
        break;
    case RateBand::Band48:
        AddModels<CQuorvexAmp_1x12n48a, CQuorvexAmp_2x12n48a, CQuorvexAmp_4x12n48a,
                  CQuorvexAmp_4x10n48a, CQuorvexAmp_4x10Bassn48a>(amps);
        break;
    case RateBand::Band44:
        AddModels<CQuorvexAmp_1x12n44a, CQuorvexAmp_2x12n44a, CQuorvexAmp_4x12n44a,
                  CQuorvexAmp_4x10n44a, CQuorvexAmp_4x10Bassn44a>(amps);
        break;
    }
}

}  // namespace

CQuorvexAmpRoomNative::CQuorvexAmpRoomNative(int32_t rate)
{
    wordBitsForParameters = 32;
    const RateBandInfo info = BandForRate(rate);
    AddBandModels(info.band, amps);
    rateSupported = rate == info.supportedRate;
    selectedAmp.store(amps.empty() ? nullptr : amps.front(), std::memory_order_relaxed);
    // Sized before Initialise makes the switch: one entry short of the flat ids, so the
    // last id (the 4x10Bass position) reads as not needing a reset.
    resetFlagCount = GetParameterCount();
    resetFlags = std::make_unique<bool[]>(std::size_t(resetFlagCount));
    for (int32_t i = 0; i < resetFlagCount; ++i) resetFlags[std::size_t(i)] = true;
    Initialise();
}

}  // namespace tarnlow
