#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "engine/CQuorvexBus.h"
#include "engine/CQuorvexMeter.h"
#include "engine/FrameConstants.h"
#include "parameters/CQuorvexParameter.h"

namespace tarnlow {

// Base of every speaker model: parameter storage, meters, the channel and bypass frame,
// control-block timing and the two generations of state.
//
// Threads: ProcessBlock runs on the audio thread. Reset, SetBypass, SetSuspended and
// SetBpm may run on one control thread beside it; they touch only the state bank the
// audio thread is not using and hand it over through bankFlipPending.
class CQuorvexAmp {
public:
    CQuorvexAmp();
    CQuorvexAmp(const CQuorvexAmp&) = delete;
    CQuorvexAmp& operator=(const CQuorvexAmp&) = delete;
    virtual ~CQuorvexAmp();

    // Audio chain; a model overrides one level (the speaker models override Process).
    virtual void ProcessChannels(float** inputs, float** outputs, int32_t count, bool inputIsSingle,
                                 bool outputIsSingle);
    virtual void Process(float** inputs, float** outputs, int32_t count, bool inputIsSingle,
                         bool outputIsSingle, float** sideInputs, int32_t sideCount);
    virtual void ProcessBuffer(float* buffer, int32_t count);
    virtual float ProcessSample(float x);
    // A mono model that can take several pieces of the control period at once does the
    // frame's cutting itself: Process's work for each piece, Update(false, ...) after each
    // piece that completes a period, the meter parameters copied after every piece, with
    // the same results as the frame's own loop; it returns true. The frame's version
    // returns false and leaves everything to that loop.
    virtual bool ProcessPieces(float* input, float* output, int32_t count, int32_t sideCount, int32_t bank);

    // Control chain; Update() and Update(bool) call each other, so a model must override
    // one level (the speaker models override the three-argument one).
    virtual void Update();
    virtual void Update(bool immediate);
    virtual void Update(bool immediate, int32_t sideCount);
    virtual void Update(bool immediate, int32_t sideCount, int32_t bank);
    virtual void Update(bool immediate, int32_t sideCount, int32_t bank, float notePitch,
                        float noteVelocity, bool noteGate);

    virtual void Reset();  // control thread; allocates for the bank not in use
    virtual int32_t GetLatency();
    virtual int32_t GetInputCount();
    virtual int32_t GetOutputCount();

    // Set-up.
    void Initialise();
    void SetChannels(int32_t inputCount, int32_t outputCount);
    void NoteOn(int32_t note, int32_t velocity);
    void NoteOff();
    int32_t GetPublicParameterCount() const;
    CQuorvexParameter* GetPublicParameter(int32_t index) const;
    CQuorvexMeter* GetMeter(int32_t index);
    void SetParameterWordBits(int32_t bits);

    // Audio. Layouts served: N to N, 1 to N and N to 1 (at most maxChannels each); any
    // other is refused with nothing touched. Safe in place. Mixing N inputs down for a
    // mono model uses `outputs` as the input group afterwards, so that array must hold
    // inputCount readable entries even when outputCount is 1. A latent model needs
    // count >= GetLatency() for its delay lines to hold whole blocks.
    void ProcessBlock(float** inputs, float** outputs, int32_t count, float gain, float** sideInputs,
                      int32_t sideCount);
    // True once 0.1 s (at the model's nominal rate) of output frames stayed at or below
    // 1e-20, and from construction or a Reset until the first louder frame.
    bool IsSilent() const noexcept;

    // Control.
    void SetBypass(bool flag);
    bool IsBypassed() const noexcept;
    void SetSuspended(bool flag);
    bool IsSuspended() const noexcept;
    void SetBpm(float value);
    void SetDefaultStatus(int32_t value);
    void UpdateBank(bool immediate, int32_t sideCount, int32_t bank);
    CQuorvexBus* GetBus(int32_t kind, int32_t bank);
    CQuorvexBus* GetBus(int32_t kind);
    int32_t GetBusCount(int32_t kind);
    int32_t GetBusDoubledLength(int32_t kind);
    int32_t GetBusHistoryLength(int32_t kind);

protected:
    // The frame with the build-wide switches given here instead of taken from
    // FrameConstants.h. Only a test frame turns on what this build keeps off; the
    // switches never change after construction.
    CQuorvexAmp(bool multiMonoSwitch, bool outputPeakMetersSwitch);

    // Cuts a block at the boundaries of the control period: Process for each piece,
    // Update(false, ...) after each piece that completes a period, and the meter
    // parameters copied after every piece. The period runs on across host blocks.
    void RunControlBlocks(float** inputs, float** outputs, int32_t inputCount, int32_t outputCount,
                          int32_t modelIn, int32_t modelOut, int32_t count, float gain,
                          float** sideInputs, int32_t sideCount, int32_t bank, bool inputIsSingle,
                          bool outputIsSingle);
    void CopyMeterParameters(int32_t bank);
    // Each channel through the mono model by itself, in its own bank; all channels see
    // the same phase of the control period.
    void ProcessMultiMono(float** inputs, float** outputs, int32_t channelCount, int32_t count,
                          float gain, float** sideInputs, int32_t sideCount, bool immediate);
    // Each output channel's absolute maximum of the block into its output peak meter.
    void StoreOutputPeaks(float** outputs, int32_t channelCount, int32_t count);

public:
    CQuorvexParameter* parameters = nullptr;  // owned by the model, deleted by it
    int32_t parameterCount = 0;
    std::vector<CQuorvexMeter*> meters;
    int32_t meterCount = 0;
    int32_t defaultStatus = 0;
    int32_t sampleRate = 0;
    int32_t modelOption = 0;
    int32_t reservedIndex = -1;
    int32_t controlCounter = 0;  // audio thread only
    std::atomic<bool> bypassed{false};   // relaxed: read once per block, no data behind it
    std::atomic<bool> suspended{false};  // relaxed: no effect on audio
    CQuorvexBus* busAux;
    CQuorvexBus* busStatus;
    CQuorvexBus* busExtra;
    CQuorvexBus* busConstants;
    CQuorvexBus* busState;  // aimed at the active bank by ProcessBlock
    int32_t inputCount = 1;
    int32_t outputCount = 1;
    CQuorvexBus* busStatusAlias;
    CQuorvexBus* busAuxAlias;
    CQuorvexBus* busExtraAlias;
    const void* constantsData = nullptr;
    const void* stateData = nullptr;
    int32_t constantsLength = -1;
    int32_t stateLength = -1;
    float hostBpm = 120.0f;
    bool hostBpmValid = true;
    CQuorvexBus embeddedBuses[5];
    std::vector<CQuorvexBus> statusBanks;
    std::vector<CQuorvexBus> stateBanks;
    CQuorvexBus stateTemplate;
    // Written by the audio thread at a flip, read by Reset on the control thread after
    // it has seen bankFlipPending clear (acquire), which the audio thread stores after it.
    std::atomic<int32_t> activeBank{0};
    // The hand-over of a fresh state generation: Reset stores true with release after
    // writing the idle bank; the audio thread loads it with acquire before reading that
    // bank, and clears it with release after moving activeBank.
    std::atomic<bool> bankFlipPending{false};
    std::atomic<int32_t> silenceCount{1000000000};  // re-armed by Reset; relaxed
    int32_t silenceLimit = 0;
    float notePitch = 0.0f;
    float noteVelocity = 0.0f;
    bool noteGate = false;
    std::vector<float> delayLines[maxChannels];
    int32_t delayPositions[maxChannels] = {};
    std::atomic<bool> delayFlushPending{false};  // set by Reset, cleared by the audio thread

protected:
    // The build-wide switches as this amp sees them: multiMonoEnabled and
    // outputPeakMetersEnabled unless a test frame chose otherwise.
    const bool multiMono;
    const bool outputPeakMeters;

private:
    void ProcessBypassed(float** inputs, float** outputs, int32_t channelsIn, int32_t channelsOut,
                         int32_t count, int32_t latency);
    void KeepDelayLinesWarm(float** inputs, int32_t channelsIn, int32_t channelsOut, int32_t count,
                            int32_t latency);
    void ProcessActive(float** inputs, float** outputs, int32_t channelsIn, int32_t channelsOut,
                       int32_t count, float gain, float** sideInputs, int32_t sideCount);
    void MeasureSilence(float** outputs, int32_t channelsOut, int32_t count);
    void WriteStatusWord(int32_t word);

    // Indices into `parameters` of the meter parameters, in order, fixed by Initialise
    // like the meters they feed. The audio thread walks this list instead of the names,
    // which a control thread may rename.
    std::vector<int32_t> meterParameterIndices;
};

}  // namespace tarnlow
