#pragma once

#include <string>
#include <vector>

#include "engine/CQuorvexAmp.h"

namespace tarnlow::testing {

// A small amp for frame and room tests: a gain of `scale`, a call log, and parameter
// records whose names the test chooses (public first, then hidden ones).
class RecordingAmp : public CQuorvexAmp {
public:
    explicit RecordingAmp(std::vector<std::string> names = {"MicrophoneType", "MicrophonePosition"},
                          float scale = 1.0f)
        : scale(scale)
    {
        sampleRate = 48000;
        parameterCount = int32_t(names.size());
        parameters = new CQuorvexParameter[names.size()];
        for (std::size_t i = 0; i < names.size(); ++i)
            parameters[i].Init(0x74737430u + uint32_t(i), names[i].c_str(), names[i].c_str(), 1, 0.0f, 2, true, 1);
    }
    ~RecordingAmp() override { delete[] parameters; }

    float ProcessSample(float x) override { return x * scale; }
    void Update(bool immediate, int32_t, int32_t) override
    {
        ++updates;
        if (immediate) ++immediateUpdates;
    }
    void Reset() override
    {
        ++resets;
        CQuorvexAmp::Reset();
    }

    float scale;
    int updates = 0;
    int immediateUpdates = 0;
    int resets = 0;
};

}  // namespace tarnlow::testing
