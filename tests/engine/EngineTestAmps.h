#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "engine/CQuorvexAmp.h"
#include "engine/FlushToZero.h"

namespace tarnlow::test {

// One call on the model, in the order the frame made it.
struct ModelEvent {
    enum Kind { process, update } kind;
    int32_t count;      // samples of a Process call
    bool immediate;     // of an Update call
    int32_t bank;       // of an Update call
    int32_t counter;    // controlCounter when the call was made
};

// A mono amp whose model doubles every sample and overrides only ProcessSample and the
// three-argument Update, as a model of the frame is expected to. It records what the
// frame asks of it; Process is overridden only to log the call and passes straight on.
class RecordingAmp : public CQuorvexAmp {
public:
    using CQuorvexAmp::Update;

    explicit RecordingAmp(int32_t rate = 44100, int32_t latency = 0, bool multiMonoSwitch = false,
                          bool outputPeakMetersSwitch = false)
        : CQuorvexAmp(multiMonoSwitch, outputPeakMetersSwitch), latency(latency)
    {
        sampleRate = rate;
        modelOption = 1;
        events.reserve(4096);
    }

    float ProcessSample(float x) override
    {
        ++sampleCalls;
        return x * factor;
    }

    void Process(float** inputs, float** outputs, int32_t count, bool inputIsSingle, bool outputIsSingle,
                 float** sideInputs, int32_t sideCount) override
    {
        events.push_back({ModelEvent::process, count, false, 0, controlCounter});
        controlWordInProcess = ReadFloatControl();
        lastInputIsSingle = inputIsSingle;
        lastOutputIsSingle = outputIsSingle;
        CQuorvexAmp::Process(inputs, outputs, count, inputIsSingle, outputIsSingle, sideInputs, sideCount);
    }

    void Update(bool immediate, int32_t, int32_t bank) override
    {
        events.push_back({ModelEvent::update, 0, immediate, bank, controlCounter});
    }

    int32_t GetLatency() override { return latency; }

    int32_t CountOf(ModelEvent::Kind kind) const
    {
        int32_t n = 0;
        for (const ModelEvent& e : events) n += e.kind == kind ? 1 : 0;
        return n;
    }

    int32_t ImmediateUpdates() const
    {
        int32_t n = 0;
        for (const ModelEvent& e : events) n += e.kind == ModelEvent::update && e.immediate ? 1 : 0;
        return n;
    }

    int32_t latency;
    float factor = 2.0f;
    int64_t sampleCalls = 0;
    std::vector<ModelEvent> events;
    FloatControlWord controlWordInProcess = 0;
    bool lastInputIsSingle = false;
    bool lastOutputIsSingle = false;
};

// A recording amp with a parameter array, named by the test, that it owns as a model does.
class ParameterAmp : public RecordingAmp {
public:
    explicit ParameterAmp(const std::vector<std::string>& names, bool multiMonoSwitch = false,
                          bool outputPeakMetersSwitch = false)
        : RecordingAmp(44100, 0, multiMonoSwitch, outputPeakMetersSwitch)
    {
        parameterCount = int32_t(names.size());
        parameters = new CQuorvexParameter[names.size()];
        for (std::size_t i = 0; i < names.size(); ++i) parameters[i].name = names[i];
    }
    ~ParameterAmp() override { delete[] parameters; }
};

// One mono channel in place, the way the exported entry calls an amp.
inline void RunMono(CQuorvexAmp& amp, std::vector<float>& buffer, int32_t count, float gain = 1.0f)
{
    float* channels[1] = {buffer.data()};
    amp.ProcessBlock(channels, channels, count, gain, nullptr, 0);
}

}  // namespace tarnlow::test
