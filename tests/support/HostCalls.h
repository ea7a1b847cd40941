#pragma once

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "tarnlow.h"

namespace tarnlow::testing {

// Uniform noise in [-level, level), the same for the same seed.
inline std::vector<float> Noise(std::size_t length, uint32_t seed, float level = 0.5f)
{
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> uniform(-level, level);
    std::vector<float> samples(length);
    for (float& v : samples) v = uniform(random);
    return samples;
}

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

// CalcA in place on the first `count` samples (all if negative); returns the out-flag,
// -7 if none was written.
inline int32_t Calc(void* instance, std::vector<float>& buffer, int32_t count = -1)
{
    int32_t flag = -7;
    CalcA(instance, count < 0 ? int32_t(buffer.size()) : count, buffer.data(), nullptr, nullptr, nullptr,
          nullptr, &flag);
    return flag;
}

inline long CountNonFinite(const std::vector<float>& samples)
{
    long count = 0;
    for (const float v : samples) count += std::isfinite(v) ? 0 : 1;
    return count;
}

// An instance made through the exported interface, at `rate` unless 0, destroyed with the scope.
struct Instance {
    explicit Instance(int32_t rate = 0) : handle(CreateInstanceU())
    {
        if (rate != 0) SetSampleRateU(handle, rate);
    }
    ~Instance() { DestroyInstanceU(handle); }
    Instance(const Instance&) = delete;
    Instance& operator=(const Instance&) = delete;
    void* handle;
};

}  // namespace tarnlow::testing
