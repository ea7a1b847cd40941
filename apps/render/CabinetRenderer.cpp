#include "render/CabinetRenderer.h"

#include <algorithm>
#include <cstdint>
#include <new>
#include <utility>

#include "tarnlow.h"

namespace tarnlow::render {

namespace {
enum Selector : int32_t { speakerSelector = 0, microphoneSelector = 1, positionSelector = 2 };
}

CabinetInstance::CabinetInstance(const CabinetChoice& cabinet, int sampleRate) : handle(CreateInstanceU())
{
    if (handle == nullptr) throw std::bad_alloc();
    // The answer only says whether the rate is one of the six round numbers; every rate
    // runs, on the nearest band.
    SetSampleRateU(handle, int32_t(sampleRate));
    SetParameterA(handle, speakerSelector, float(cabinet.speaker));
    SetParameterA(handle, microphoneSelector, float(cabinet.microphone));
    SetParameterA(handle, positionSelector, float(cabinet.position));
}

CabinetInstance::~CabinetInstance()
{
    DestroyInstanceU(handle);
}

CabinetInstance::CabinetInstance(CabinetInstance&& other) noexcept : handle(std::exchange(other.handle, nullptr)) {}

CabinetInstance& CabinetInstance::operator=(CabinetInstance&& other) noexcept
{
    if (this != &other) {
        DestroyInstanceU(handle);
        handle = std::exchange(other.handle, nullptr);
    }
    return *this;
}

void CabinetInstance::Process(float* samples, std::size_t count)
{
    int32_t sounding = 0;
    for (std::size_t done = 0; done < count;) {
        const std::size_t block = std::min(maxBlock, count - done);
        CalcA(handle, int32_t(block), samples + done, nullptr, nullptr, nullptr, nullptr, &sounding);
        done += block;
    }
}

MultiChannelCabinet::MultiChannelCabinet(const CabinetChoice& cabinet, int sampleRate, int channels)
    : channelScratch(CabinetInstance::maxBlock)
{
    instances.reserve(std::size_t(channels));
    for (int channel = 0; channel < channels; ++channel) instances.emplace_back(cabinet, sampleRate);
}

void MultiChannelCabinet::Process(float* interleaved, std::size_t frames)
{
    const std::size_t channels = instances.size();
    if (channels == 1) {
        instances[0].Process(interleaved, frames);
        return;
    }
    for (std::size_t start = 0; start < frames; start += channelScratch.size()) {
        const std::size_t block = std::min(channelScratch.size(), frames - start);
        float* const first = interleaved + start * channels;
        for (std::size_t channel = 0; channel < channels; ++channel) {
            for (std::size_t frame = 0; frame < block; ++frame)
                channelScratch[frame] = first[frame * channels + channel];
            instances[channel].Process(channelScratch.data(), block);
            for (std::size_t frame = 0; frame < block; ++frame)
                first[frame * channels + channel] = channelScratch[frame];
        }
    }
}

std::vector<float> ImpulseResponse(const CabinetChoice& cabinet, int sampleRate, std::size_t length)
{
    std::vector<float> response(length, 0.0f);
    if (length == 0) return response;
    response[0] = 1.0f;
    CabinetInstance(cabinet, sampleRate).Process(response.data(), response.size());
    return response;
}

}  // namespace tarnlow::render
