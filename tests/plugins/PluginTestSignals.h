#pragma once

// Signals and a plain library instance to compare the plug-in against.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "tarnlow.h"

namespace tarnlow::lv2::testing {

// A sine with a little deterministic noise, so that every filter of a model is excited.
inline std::vector<float> GuitarLike(std::size_t length, int rate, double frequency = 110.0, double noise = 0.05)
{
    std::vector<float> signal(length);
    uint32_t state = 0x1234567u;
    for (std::size_t n = 0; n < length; ++n) {
        state = state * 1664525u + 1013904223u;
        const double hiss = double(int32_t(state >> 8) - (1 << 23)) / double(1 << 23);
        signal[n] = float(0.5 * std::sin(2.0 * 3.14159265358979 * frequency * double(n) / rate) + noise * hiss);
    }
    return signal;
}

// The library alone, set to one model: what the plug-in must sound like in steady state.
class LoneModel {
public:
    LoneModel(int rate, int speaker, int microphone, int position) : handle(CreateInstanceU())
    {
        SetSampleRateU(handle, rate);
        SetParameterA(handle, 0, float(speaker));
        SetParameterA(handle, 1, float(microphone));
        SetParameterA(handle, 2, float(position));
    }
    ~LoneModel() { DestroyInstanceU(handle); }
    LoneModel(const LoneModel&) = delete;
    LoneModel& operator=(const LoneModel&) = delete;

    std::vector<float> Run(const float* in, std::size_t count)
    {
        std::vector<float> out(in, in + count);
        int32_t sounding = 0;
        CalcA(handle, int32_t(count), out.data(), nullptr, nullptr, nullptr, nullptr, &sounding);
        return out;
    }
    std::vector<float> Run(const std::vector<float>& in) { return Run(in.data(), in.size()); }

private:
    void* handle;
};

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
