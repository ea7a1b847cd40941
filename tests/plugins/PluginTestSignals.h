#pragma once

// Signals and a plain library instance to compare the plug-in against.

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <vector>

#include "support/HostCalls.h"

namespace tarnlow::lv2::testing {

using tarnlow::testing::GuitarLike;

// The library alone, set to one model from the start: what the plug-in must sound like in
// steady state.
inline std::vector<float> LoneModel(int rate, std::array<int, 3> model, const float* in, std::size_t count)
{
    void* handle = CreateInstanceU();
    SetSampleRateU(handle, rate);
    for (std::size_t selector = 0; selector < 3; ++selector) SetParameterA(handle, int32_t(selector), float(model[selector]));
    std::vector<float> out(in, in + count);
    int32_t sounding = 0;
    CalcA(handle, int32_t(count), out.data(), nullptr, nullptr, nullptr, nullptr, &sounding);
    DestroyInstanceU(handle);
    return out;
}
inline std::vector<float> LoneModel(int rate, std::array<int, 3> model, const std::vector<float>& in)
{
    return LoneModel(rate, model, in.data(), in.size());
}

// The largest step between neighbouring samples in [begin, end): a click shows as a step
// far above what the music itself has.
inline float LargestStep(const std::vector<float>& signal, std::size_t begin, std::size_t end)
{
    float largest = 0.0f;
    for (std::size_t n = std::max<std::size_t>(begin, 1); n < end && n < signal.size(); ++n)
        largest = std::max(largest, std::fabs(signal[n] - signal[n - 1]));
    return largest;
}

inline double Rms(const std::vector<float>& signal)
{
    double sum = 0.0;
    for (const float sample : signal) sum += double(sample) * sample;
    return std::sqrt(sum / double(signal.size()));
}

}  // namespace tarnlow::lv2::testing
