// The seven exported functions: the registry of instances, the host's three controls
// spread over the flat parameter ids, and the wrapping of one audio block.

#include <cmath>
#include <cstring>
#include <vector>

#include "boundary/CQuorvexPlugInstance.h"
#include "tarnlow.h"

using tarnlow::CQuorvexPlugInstance;

namespace {

// Serves only to match DestroyInstanceU with CreateInstanceU. Instances still listed when
// the library is unloaded are the host's leak and are not destroyed here.
std::vector<CQuorvexPlugInstance*> registry;

// Half upwards, in double precision: 2.5 gives 3, -0.5 gives 0, -1.5 gives -1.
double RoundHalfUp(float value)
{
    return std::floor(double(value) + 0.5);
}

// Flat ids: 0 is the speaker switch, then type and position of each of the five speakers.
constexpr int32_t speakerCount = 5;
constexpr int32_t idsPerSpeaker = 2;

}  // namespace

extern "C" {

TARNLOW_API void* TARNLOW_CALL CreateInstanceU(void)
{
    auto* instance = new CQuorvexPlugInstance(0);
    registry.push_back(instance);
    return instance;
}

TARNLOW_API void TARNLOW_CALL DestroyInstanceU(void* instance)
{
    for (auto entry = registry.begin(); entry != registry.end(); ++entry) {
        if (*entry != instance) continue;
        registry.erase(entry);
        delete static_cast<CQuorvexPlugInstance*>(instance);
        return;
    }
}

TARNLOW_API int32_t TARNLOW_CALL SetSampleRateU(void* instance, int32_t rate)
{
    if (instance == nullptr) return 0;
    auto* plugin = static_cast<CQuorvexPlugInstance*>(instance);
    plugin->SetSampleRate(rate);
    return plugin->IsSampleRateSupported() ? 1 : 0;
}

TARNLOW_API void TARNLOW_CALL ResetA(void* instance)
{
    if (instance == nullptr) return;
    static_cast<CQuorvexPlugInstance*>(instance)->Reset();
}

TARNLOW_API void TARNLOW_CALL SetParameterA(void* instance, int32_t selector, float value)
{
    if (instance == nullptr) return;
    auto* plugin = static_cast<CQuorvexPlugInstance*>(instance);
    if (selector == 0) {
        plugin->SetParameter(0, float(RoundHalfUp(value) * 0.25));
        return;
    }
    const float sent = selector == 2 ? float(RoundHalfUp(value) * 0.5) : value;
    // A selector of 3 or more reaches an id past the last within this walk, which ends
    // the process before any id could leave the 32-bit range.
    for (int32_t speaker = 0; speaker < speakerCount; ++speaker)
        plugin->SetParameter(selector + idsPerSpeaker * speaker, sent);
}

TARNLOW_API int32_t TARNLOW_CALL CalcA(void* instance, int32_t count, float* buffer, float* channel1,
                                       float* channel2, float* channel3, float* channel4,
                                       int32_t* outFlag)
{
    if (instance == nullptr) return 0;
    auto* plugin = static_cast<CQuorvexPlugInstance*>(instance);
    // The channel array the frame reads; only as many entries as the amp has channels
    // (one) are ever read.
    float* channels[5] = {buffer, channel1, channel2, channel3, channel4};
    plugin->ProcessBlock(channels, channels, count, 1.0f, nullptr, 0);
    const int32_t sounding = plugin->IsSilent() ? 0 : 1;
    if (outFlag != nullptr) *outFlag = sounding;
    return 0;
}

TARNLOW_API int32_t TARNLOW_CALL GetPlugInfoU(int32_t selector, void* out, int32_t outSize)
{
    static constexpr int32_t info[6] = {1, 1, 2, 1, 32767, 0};
    if (selector < 1 || selector > 6) return 0;
    if (outSize != 4) return 0;
    std::memcpy(out, &info[selector - 1], sizeof(int32_t));
    return 1;
}

}  // extern "C"
