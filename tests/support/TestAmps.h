#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "engine/CQuorvexAmp.h"
#include "engine/FlushToZero.h"

namespace tarnlow::testing {

// One call on the model, in the order the frame made it.
struct ModelEvent {
    enum Kind { process, update } kind;
    int32_t count;   // samples of a Process call
    bool immediate;  // of an Update call
};

// A mono amp at 44100 Hz whose model multiplies by `factor` (2 unless changed) and overrides
// only ProcessSample and the three-argument Update, as a model of the frame is expected to.
// It logs what the frame asks of it, counts resets and, in the first word of its state if
// it has one, the samples processed in that generation; it owns parameter records named
// by the test (stepped in two, meter kind 1), public names first.
class RecordingAmp : public CQuorvexAmp {
public:
    using CQuorvexAmp::Update;

    explicit RecordingAmp(const std::vector<std::string>& names = {})
    {
        sampleRate = 44100;
        events.reserve(4096);
        parameterCount = int32_t(names.size());
        if (!names.empty()) parameters = new CQuorvexParameter[names.size()];
        for (std::size_t i = 0; i < names.size(); ++i)
            parameters[i].Init(0x74737430u + uint32_t(i), names[i].c_str(), names[i].c_str(), 1, 0.0f, 2,
                               true, 1);
    }
    ~RecordingAmp() override { delete[] parameters; }

    float ProcessSample(float x) override { return x * factor; }
    void Process(float** inputs, float** outputs, int32_t count, bool inputIsSingle, bool outputIsSingle,
                 float** sideInputs, int32_t sideCount) override
    {
        events.push_back({ModelEvent::process, count, false});
        if (busState->GetCount() > 0) *static_cast<int32_t*>(busState->GetElement(0)) += count;
        controlWordInProcess = ReadFloatControl();
        CQuorvexAmp::Process(inputs, outputs, count, inputIsSingle, outputIsSingle, sideInputs, sideCount);
    }
    void Update(bool immediate, int32_t, int32_t) override { events.push_back({ModelEvent::update, 0, immediate}); }
    void Reset() override
    {
        ++resets;
        CQuorvexAmp::Reset();
    }

    float factor = 2.0f;
    int resets = 0;
    std::vector<ModelEvent> events;
    FloatControlWord controlWordInProcess = 0;
};

inline int32_t WordAt(const CQuorvexBus& bus, int32_t index)
{
    return *static_cast<int32_t*>(bus.GetElement(index));
}

// One mono channel in place, the way the exported entry calls an amp.
inline void RunMono(CQuorvexAmp& amp, std::vector<float>& buffer, int32_t count, float gain = 1.0f)
{
    float* channels[1] = {buffer.data()};
    amp.ProcessBlock(channels, channels, count, gain, nullptr, 0);
}

// A group of channels in place.
inline void RunGroup(CQuorvexAmp& amp, std::vector<std::vector<float>*> buffers, int32_t count, float gain = 1.0f)
{
    std::vector<float*> channels;
    for (std::vector<float>* buffer : buffers) channels.push_back(buffer->data());
    amp.ProcessBlock(channels.data(), channels.data(), count, gain, nullptr, 0);
}

}  // namespace tarnlow::testing
