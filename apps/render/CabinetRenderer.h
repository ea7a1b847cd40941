#pragma once

// The audio side of tarnlow-render: library instances, one per channel, fed through the
// exported interface only. Knows nothing of files.

#include <cstddef>
#include <vector>

#include "render/RenderOptions.h"

namespace tarnlow::render {

// One library instance set to one model at one rate. Move-only.
class CabinetInstance {
public:
    CabinetInstance(const CabinetChoice& cabinet, int sampleRate);
    ~CabinetInstance();
    CabinetInstance(CabinetInstance&& other) noexcept;
    CabinetInstance& operator=(CabinetInstance&& other) noexcept;
    CabinetInstance(const CabinetInstance&) = delete;
    CabinetInstance& operator=(const CabinetInstance&) = delete;

    // In place, any length: the library takes at most `maxBlock` samples per call.
    void Process(float* samples, std::size_t count);

    static constexpr std::size_t maxBlock = 4096;

private:
    void* handle = nullptr;
};

// Interleaved audio of any channel count, each channel through its own instance.
class MultiChannelCabinet {
public:
    MultiChannelCabinet(const CabinetChoice& cabinet, int sampleRate, int channels);

    // Processes `frames` interleaved frames in place.
    void Process(float* interleaved, std::size_t frames);

    int Channels() const { return int(instances.size()); }

private:
    std::vector<CabinetInstance> instances;
    std::vector<float> channelScratch;
};

// The model's answer to a unit impulse at sample 0, `length` samples long.
std::vector<float> ImpulseResponse(const CabinetChoice& cabinet, int sampleRate, std::size_t length);

}  // namespace tarnlow::render
