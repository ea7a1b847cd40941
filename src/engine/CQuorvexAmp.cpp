#include "engine/CQuorvexAmp.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>

#include "engine/Failure.h"
#include "engine/FlushToZero.h"

namespace tarnlow {

namespace {

// The re-armed value of the silence count: far above any limit, so that the first block
// after construction or a reset takes its controls at once.
constexpr int32_t silenceRearmed = 1000000000;

// A frame counts as silent while no output sample is above this, strictly.
constexpr float silenceThreshold = 1e-20f;

// Seconds of silent frames after which an amp reports silence.
constexpr float silenceSeconds = 0.1f;

// The status words of SetBypass and SetSuspended.
constexpr int32_t statusBypassed = 3;
constexpr int32_t statusSuspended = 1;

bool LayoutServed(int32_t channelsIn, int32_t channelsOut)
{
    if (channelsIn < 1 || channelsOut < 1) return false;
    return channelsIn == channelsOut || channelsIn == 1 || channelsOut == 1;
}

// The input that feeds output channel `channel` in a served layout: the same channel for
// N to N, the one input for 1 to N, and the first for N to 1.
int32_t InputOf(int32_t channel, int32_t channelsIn, int32_t channelsOut)
{
    return channelsIn == channelsOut ? channel : 0;
}

// The frame's own tables (delay lines, pointer copies, peak meters) hold eight channels.
// More is the caller's breach; the frame does not run past its storage for it.
int32_t WithinFrame(int32_t channels)
{
    return std::clamp(channels, int32_t(0), maxChannels);
}

// A host buffer copy that tolerates the same buffer on both sides.
void CopySamples(float* to, const float* from, int32_t count)
{
    if (count <= 0 || to == from) return;
    std::memmove(to, from, sizeof(float) * std::size_t(count));
}

void ScaleSamples(float* buffer, int32_t count, float factor)
{
    for (int32_t i = 0; i < count; ++i) buffer[i] *= factor;
}

// 1.0 / n as one single-precision factor, computed from the integer.
float Reciprocal(int32_t n)
{
    return float(1.0 / double(n));
}

bool FrameIsSilent(float* const* outputs, int32_t channels, int32_t index)
{
    for (int32_t c = 0; c < channels; ++c) {
        if (std::fabs(outputs[c][index]) > silenceThreshold) return false;
    }
    return true;
}

// Stores a status word where a model on the audio thread may read it. A model that reads
// it does so through std::atomic_ref with relaxed order as well: the word carries no
// other data.
void StoreWordZero(CQuorvexBus& bus, int32_t word)
{
    if (bus.form == 0) {
        if (bus.ints.size > 0) std::atomic_ref<int32_t>(bus.ints.data[0]).store(word, std::memory_order_relaxed);
    } else if (bus.wides.size > 0) {
        std::atomic_ref<int64_t>(bus.wides.data[0]).store(int64_t(word), std::memory_order_relaxed);
    }
}

}  // namespace

CQuorvexAmp::CQuorvexAmp() : CQuorvexAmp(multiMonoEnabled, outputPeakMetersEnabled) {}

CQuorvexAmp::CQuorvexAmp(bool multiMonoSwitch, bool outputPeakMetersSwitch)
    : embeddedBuses{CQuorvexBus(1), CQuorvexBus(0), CQuorvexBus(0), CQuorvexBus(3), CQuorvexBus(4)},
      multiMono(multiMonoSwitch),
      outputPeakMeters(outputPeakMetersSwitch)
{
    busAux = &embeddedBuses[0];
    busStatus = &embeddedBuses[1];
    busExtra = &embeddedBuses[2];
    busConstants = &embeddedBuses[3];
    busState = &embeddedBuses[4];
    busStatusAlias = busStatus;
    busAuxAlias = busAux;
    busExtraAlias = busExtra;
}

CQuorvexAmp::~CQuorvexAmp()
{
    for (CQuorvexMeter* meter : meters) delete meter;
    // The members follow in reverse order of declaration: delay lines, template, banks,
    // embedded buses, meter vector.
}

// --- Audio chain --------------------------------------------------------------------------

void CQuorvexAmp::ProcessChannels(float** inputs, float** outputs, int32_t count, bool, bool)
{
    CopySamples(outputs[0], inputs[0], count);
    ProcessBuffer(outputs[0], count);
}

void CQuorvexAmp::Process(float** inputs, float** outputs, int32_t count, bool inputIsSingle,
                          bool outputIsSingle, float**, int32_t)
{
    ProcessChannels(inputs, outputs, count, inputIsSingle, outputIsSingle);
}

void CQuorvexAmp::ProcessBuffer(float* buffer, int32_t count)
{
    for (int32_t i = 0; i < count; ++i) buffer[i] = ProcessSample(buffer[i]);
}

bool CQuorvexAmp::ProcessPieces(float*, float*, int32_t, int32_t, int32_t)
{
    return false;
}

float CQuorvexAmp::ProcessSample(float)
{
    return 0.0f;
}

// --- Control chain ------------------------------------------------------------------------
// Update() and Update(bool) call each other: a model overrides one level of the chain.

void CQuorvexAmp::Update()
{
    Update(false);
}

void CQuorvexAmp::Update(bool)
{
    Update();
}

void CQuorvexAmp::Update(bool immediate, int32_t)
{
    Update(immediate);
}

void CQuorvexAmp::Update(bool immediate, int32_t sideCount, int32_t)
{
    Update(immediate, sideCount);
}

void CQuorvexAmp::Update(bool immediate, int32_t sideCount, int32_t bank, float, float, bool)
{
    Update(immediate, sideCount, bank);
}

int32_t CQuorvexAmp::GetLatency()
{
    return 0;
}

int32_t CQuorvexAmp::GetInputCount()
{
    return 1;
}

int32_t CQuorvexAmp::GetOutputCount()
{
    return 1;
}

// --- Set-up -------------------------------------------------------------------------------

void CQuorvexAmp::Initialise()
{
    for (int32_t c = 0; c < maxChannels; ++c) {
        const int32_t latency = GetLatency();
        if (latency > 0) delayLines[c].insert(delayLines[c].begin(), std::size_t(latency), 0.0f);
        delayPositions[c] = 0;
    }
    delayFlushPending.store(false, std::memory_order_relaxed);

    const auto addMeter = [this](std::string name, int32_t kind, float value, bool peakMode) {
        auto meter = std::make_unique<CQuorvexMeter>(std::move(name), kind, value, peakMode);
        meters.push_back(meter.get());
        meter.release();
    };
    const int32_t metersPerParameter = multiMono ? maxChannels : 1;
    for (int32_t i = 0; parameters != nullptr && i < parameterCount; ++i) {
        const CQuorvexParameter& parameter = parameters[i];
        if (!parameter.IsMeter()) continue;
        meterParameterIndices.push_back(i);
        const std::string shown = parameter.name.substr(6);  // without "_meter"
        for (int32_t c = 0; c < metersPerParameter; ++c) {
            addMeter(multiMono ? shown + " " + std::to_string(c + 1) : shown, parameter.meterKind,
                     parameter.LoadValue(), false);
        }
    }
    if (outputPeakMeters) {
        for (int32_t c = 0; c < maxChannels; ++c)
            addMeter("Output Peak Meter " + std::to_string(c + 1), 2, 0.0f, true);
    }
    meterCount = int32_t(meters.size());

    if (constantsLength != -1) embeddedBuses[3].Load32(constantsData, constantsLength, false, false);
    if (stateLength != -1) embeddedBuses[4].Load32(stateData, stateLength, false, false);

    stateTemplate = embeddedBuses[4];
    const int32_t bankCount = multiMono ? 2 * maxChannels : 2;
    stateBanks.reserve(stateBanks.size() + std::size_t(bankCount));
    for (int32_t b = 0; b < bankCount; ++b) stateBanks.push_back(embeddedBuses[4]);

    // Single-precision product first, then the rounding in double: the limit is 0.1 s of
    // samples at the model's nominal rate, 4410 at 44100 Hz up to 19200 at 192000 Hz.
    const float scaled = float(sampleRate) * silenceSeconds;
    silenceLimit = int32_t(std::floor(double(scaled) + 0.5));

    activeBank.store(0, std::memory_order_relaxed);

    if (multiMono) {
        statusBanks.reserve(statusBanks.size() + std::size_t(maxChannels));
        for (int32_t c = 0; c < maxChannels; ++c) statusBanks.push_back(embeddedBuses[1]);
    }
    if (embeddedBuses[1].GetCount() > 0) {
        if (multiMono) {
            for (CQuorvexBus& bank : statusBanks) bank.SetElement(0, defaultStatus);
        } else {
            embeddedBuses[1].SetElement(0, defaultStatus);
        }
    }
}

void CQuorvexAmp::SetChannels(int32_t channelsIn, int32_t channelsOut)
{
    // Judged by ProcessBlock on every block, not here.
    inputCount = channelsIn;
    outputCount = channelsOut;
    const int32_t meterTotal = int32_t(meters.size());
    if (outputPeakMeters) {
        for (int32_t c = 0; c < maxChannels; ++c) {
            const int32_t index = meterTotal - maxChannels + c;
            if (index >= 0) meters[std::size_t(index)]->enabled = c < channelsOut;
        }
    }
    if (multiMono && meterTotal != int32_t(outputPeakMeters)) {
        for (int32_t c = 0; c < maxChannels && c < meterTotal; ++c)
            meters[std::size_t(c)]->enabled = c < channelsOut;
    }
}

void CQuorvexAmp::NoteOn(int32_t note, int32_t velocity)
{
    // The order of operations and the precision of each step are fixed: a float exponent,
    // a double power rounded to float, then float arithmetic.
    const float exponent = float(note - 69) / 12.0f;
    const float ratio = float(std::pow(2.0, double(exponent)));
    notePitch = ratio * 440.0f / float(sampleRate);
    noteVelocity = std::clamp(float(velocity) / 127.0f, 0.0f, 1.0f);
    noteGate = true;
}

void CQuorvexAmp::NoteOff()
{
    noteGate = false;
}

int32_t CQuorvexAmp::GetPublicParameterCount() const
{
    int32_t publicCount = 0;
    for (int32_t i = 0; parameters != nullptr && i < parameterCount; ++i) {
        if (!parameters[i].IsHidden()) ++publicCount;
    }
    return publicCount;
}

CQuorvexParameter* CQuorvexAmp::GetPublicParameter(int32_t index) const
{
    // The index runs over the array itself: public parameters come first in a model.
    if (index < 0 || index >= GetPublicParameterCount()) return nullptr;
    if (parameters[index].IsHidden()) return nullptr;
    return &parameters[index];
}

CQuorvexMeter* CQuorvexAmp::GetMeter(int32_t index)
{
    if (index < 0 || index >= meterCount) return nullptr;
    return CheckedAt(meters, std::size_t(index));
}

void CQuorvexAmp::SetParameterWordBits(int32_t bits)
{
    for (int32_t i = 0; parameters != nullptr && i < parameterCount; ++i) parameters[i].wordBits = bits;
}

// --- Audio --------------------------------------------------------------------------------

void CQuorvexAmp::ProcessBlock(float** inputs, float** outputs, int32_t count, float gain,
                               float** sideInputs, int32_t sideCount)
{
    const int32_t channelsIn = inputCount;
    const int32_t channelsOut = outputCount;
    // A refused layout touches nothing, the control register included.
    if (!LayoutServed(channelsIn, channelsOut)) return;

    // Covers everything the model does in this block; restored on every road from here.
    const FlushToZeroScope flushToZero;

    if (bypassed.load(std::memory_order_relaxed)) {
        ProcessBypassed(inputs, outputs, channelsIn, channelsOut, count, GetLatency());
    } else {
        ProcessActive(inputs, outputs, channelsIn, channelsOut, count, gain, sideInputs, sideCount);
    }
    if (outputPeakMeters) StoreOutputPeaks(outputs, channelsOut, count);
    MeasureSilence(outputs, channelsOut, count);
}

bool CQuorvexAmp::IsSilent() const noexcept
{
    return silenceCount.load(std::memory_order_relaxed) >= silenceLimit;
}

void CQuorvexAmp::ProcessBypassed(float** inputs, float** outputs, int32_t channelsIn,
                                  int32_t channelsOut, int32_t count, int32_t latency)
{
    // The model is not called, and a pending flip waits for the next active block.
    if (latency <= 0) {
        // N to 1 passes the first input alone: unlike the active road, bypass doesn't mix.
        for (int32_t c = 0; c < channelsOut; ++c)
            CopySamples(outputs[c], inputs[InputOf(c, channelsIn, channelsOut)], count);
        return;
    }

    // Exchange first, flush after: a Reset that lands during the flush arms the next one.
    // Relaxed: the lines belong to the audio thread, the flag publishes nothing.
    if (delayFlushPending.load(std::memory_order_relaxed) &&
        delayFlushPending.exchange(false, std::memory_order_relaxed)) {
        for (int32_t c = 0; c < maxChannels; ++c) {
            std::fill(delayLines[c].begin(), delayLines[c].end(), 0.0f);
            delayPositions[c] = 0;
        }
    }

    // Each line is as long as the latency that Initialise read; the ring runs on the
    // line's own length, so a latency that changed since cannot overrun it.
    const int32_t channels = WithinFrame(channelsOut);
    for (int32_t c = 0; c < channels; ++c) {
        const float* source = inputs[InputOf(c, channelsIn, channelsOut)];
        float* destination = outputs[c];
        const int32_t ringLength = int32_t(delayLines[c].size());
        if (ringLength == 0) {
            CopySamples(destination, source, count);
            continue;
        }
        float* ring = delayLines[c].data();
        int32_t position = delayPositions[c];
        for (int32_t i = 0; i < count; ++i) {
            const float incoming = source[i];  // read before the write: safe in place
            destination[i] = ring[position];
            ring[position] = incoming;
            if (++position >= ringLength) position = 0;
        }
        delayPositions[c] = position;
    }
}

void CQuorvexAmp::KeepDelayLinesWarm(float** inputs, int32_t channelsIn, int32_t channelsOut,
                                     int32_t count, int32_t latency)
{
    if (latency <= 0 || count <= 0) return;
    const int32_t channels = WithinFrame(channelsOut);
    for (int32_t c = 0; c < channels; ++c) {
        const int32_t ringLength = int32_t(delayLines[c].size());
        if (ringLength == 0) continue;
        // The last ringLength input samples go in from the current position on, which
        // leaves the position where it was. A block shorter than the ring gives what it
        // has, and the position moves on by that much: the ring still holds the latest
        // input samples in order, and nothing before the buffer is read.
        const int32_t taken = std::min(count, ringLength);
        const float* source = inputs[InputOf(c, channelsIn, channelsOut)] + (count - taken);
        float* ring = delayLines[c].data();
        int32_t position = delayPositions[c];
        for (int32_t i = 0; i < taken; ++i) {
            ring[position] = source[i];
            if (++position >= ringLength) position = 0;
        }
        delayPositions[c] = position;
    }
}

void CQuorvexAmp::ProcessActive(float** inputs, float** outputs, int32_t channelsIn,
                                int32_t channelsOut, int32_t count, float gain, float** sideInputs,
                                int32_t sideCount)
{
    KeepDelayLinesWarm(inputs, channelsIn, channelsOut, count, GetLatency());

    bool immediate = false;
    // Acquire pairs with Reset's release: the fresh bank is complete before it is read.
    // The toggled activeBank is stored before the flag clears (release), so a Reset that
    // sees the flag clear also sees which bank is now in use.
    if (bankFlipPending.load(std::memory_order_acquire)) {
        const int32_t previous = activeBank.load(std::memory_order_relaxed);
        activeBank.store(previous == 0 ? 1 : 0, std::memory_order_relaxed);
        bankFlipPending.store(false, std::memory_order_release);
        immediate = true;
    }
    if (silenceCount.load(std::memory_order_relaxed) >= silenceLimit) immediate = true;

    const int32_t modelIn = GetInputCount();
    const int32_t modelOut = GetOutputCount();

    if (multiMono && channelsIn == channelsOut) {
        ProcessMultiMono(inputs, outputs, channelsIn, count, gain, sideInputs, sideCount, immediate);
        return;
    }

    float** inputGroup = inputs;
    bool inputIsSingle = false;
    if (channelsIn == 1 && modelIn > 1) {
        inputIsSingle = true;
    } else if (channelsIn > 1 && modelIn == 1) {
        // The mean of all inputs in outputs[0]. The input group becomes `outputs` with
        // channelsIn entries, so that array must be readable that far.
        float* mix = outputs[0];
        CopySamples(mix, inputs[0], count);
        for (int32_t k = 1; k < channelsIn; ++k) {
            const float* addend = inputs[k];
            for (int32_t i = 0; i < count; ++i) mix[i] += addend[i];
        }
        ScaleSamples(mix, count, Reciprocal(channelsIn));
        inputGroup = outputs;
    }
    const bool outputIsSingle = channelsOut == 1 && modelOut > 1;

    const int32_t generation = activeBank.load(std::memory_order_relaxed);
    busState = &FatalAt(stateBanks, std::size_t(generation));
    const void* keptConstants = constantsData;
    const void* keptState = stateData;
    if (busConstants->GetCount() > 0) constantsData = busConstants->GetElement(0);
    if (busState->GetCount() > 0) stateData = busState->GetElement(0);
    if (immediate) Update(true, sideCount, 0, notePitch, noteVelocity, noteGate);

    RunControlBlocks(inputGroup, outputs, channelsIn, channelsOut, modelIn, modelOut, count, gain,
                     sideInputs, sideCount, 0, inputIsSingle, outputIsSingle);
    // busState stays on the bank, so that an Update from outside the block sees it.
    constantsData = keptConstants;
    stateData = keptState;

    // After RunControlBlocks, so the gain reaches the copies too.
    if (modelOut == 1 && channelsOut > 1) {
        for (int32_t c = 1; c < channelsOut; ++c) CopySamples(outputs[c], outputs[0], count);
    }
    // The model summed its outputs into the one buffer; this makes the sum a mean.
    if (outputIsSingle) ScaleSamples(outputs[0], count, Reciprocal(modelOut));
}

void CQuorvexAmp::ProcessMultiMono(float** inputs, float** outputs, int32_t channelCount,
                                   int32_t count, float gain, float** sideInputs, int32_t sideCount,
                                   bool immediate)
{
    const int32_t keptCounter = controlCounter;
    const int32_t generation = activeBank.load(std::memory_order_relaxed);
    for (int32_t c = 0; c < channelCount; ++c) {
        CopySamples(outputs[c], inputs[c], count);
        busState = &FatalAt(stateBanks, std::size_t(c + generation * maxChannels));
        const void* keptConstants = constantsData;
        const void* keptState = stateData;
        if (busConstants->GetCount() > 0) constantsData = busConstants->GetElement(0);
        if (busState->GetCount() > 0) stateData = busState->GetElement(0);
        if (immediate) Update(true, sideCount, c, notePitch, noteVelocity, noteGate);
        RunControlBlocks(&outputs[c], &outputs[c], 1, 1, 1, 1, count, gain, sideInputs, sideCount, c,
                         false, false);
        constantsData = keptConstants;
        stateData = keptState;
        // Every channel starts from the same phase of the period; the last one's advance
        // is what stays.
        if (c < channelCount - 1) controlCounter = keptCounter;
    }
}

void CQuorvexAmp::StoreOutputPeaks(float** outputs, int32_t channelCount, int32_t count)
{
    const int32_t firstMeter = int32_t(meters.size()) - maxChannels;
    const int32_t channels = WithinFrame(channelCount);
    for (int32_t c = 0; c < channels; ++c) {
        if (firstMeter + c < 0) continue;
        const float* samples = outputs[c];
        float peak = 0.0f;
        for (int32_t i = 0; i < count; ++i) peak = std::max(peak, std::fabs(samples[i]));
        meters[std::size_t(firstMeter + c)]->Store(peak);
    }
}

void CQuorvexAmp::MeasureSilence(float** outputs, int32_t channelsOut, int32_t count)
{
    if (count <= 0) return;
    const int64_t limit = silenceLimit;
    // Relaxed: Reset may re-arm the count while the block runs, and the store below can
    // overwrite that; the flip it armed still arrives through bankFlipPending.
    int64_t counted = silenceCount.load(std::memory_order_relaxed);

    // Frame by frame, a loud frame sets the count to 0 and a silent one adds 1 while the
    // count is below the limit. Only the frames after the last loud one therefore matter,
    // and the search for it starts at the end, where ordinary audio stops it at once.
    int32_t lastLoud = count - 1;
    while (lastLoud >= 0 && FrameIsSilent(outputs, channelsOut, lastLoud)) --lastLoud;
    const int64_t quietFrames = int64_t(count) - 1 - lastLoud;
    if (lastLoud >= 0) {
        counted = std::min(quietFrames, std::max(limit, int64_t(0)));
    } else if (counted < limit) {
        counted = std::min(counted + quietFrames, limit);
    }

    if (counted >= limit) {
        // One sample per channel, at the channel's own index, and only that sample: the
        // clearing is not widened to the buffer. A block too short for the index is left.
        for (int32_t c = 0; c < channelsOut && c < count; ++c) outputs[c][c] = 0.0f;
    }
    silenceCount.store(int32_t(counted), std::memory_order_relaxed);
}

void CQuorvexAmp::RunControlBlocks(float** inputs, float** outputs, int32_t channelsIn,
                                   int32_t channelsOut, int32_t, int32_t, int32_t count, float gain,
                                   float** sideInputs, int32_t sideCount, int32_t bank,
                                   bool inputIsSingle, bool outputIsSingle)
{
    float* inputTable[maxChannels] = {};
    float* outputTable[maxChannels] = {};
    float* sideTable[maxChannels] = {};
    const int32_t inputEntries = WithinFrame(channelsIn);
    const int32_t outputEntries = WithinFrame(channelsOut);
    const int32_t sideEntries = WithinFrame(sideCount);
    std::copy_n(inputs, inputEntries, inputTable);
    std::copy_n(outputs, outputEntries, outputTable);
    std::copy_n(sideInputs, sideEntries, sideTable);

    // Only this frame moves the counter, and it keeps it within the period; should
    // anything else have put it outside, the period starts again rather than stall.
    if (controlCounter < 0 || controlCounter >= controlPeriod) controlCounter = 0;

    const bool monoPieces = inputEntries == 1 && outputEntries == 1 && sideEntries == 0 && !inputIsSingle &&
                            !outputIsSingle && count > 0;
    int32_t done = monoPieces && ProcessPieces(inputTable[0], outputTable[0], count, sideCount, bank) ? count : 0;
    while (done < count) {
        const int32_t n = std::min(count - done, controlPeriod - controlCounter);
        Process(inputTable, outputTable, n, inputIsSingle, outputIsSingle, sideTable, sideCount);
        for (int32_t c = 0; c < inputEntries; ++c) inputTable[c] += n;
        for (int32_t c = 0; c < outputEntries; ++c) outputTable[c] += n;
        for (int32_t c = 0; c < sideEntries; ++c) sideTable[c] += n;
        controlCounter += n;
        done += n;
        if (controlCounter == controlPeriod) {
            Update(false, sideCount, bank, notePitch, noteVelocity, noteGate);
            controlCounter = 0;
        }
        CopyMeterParameters(bank);
    }

    // Exactly 1.0 is skipped, so the usual gain leaves the output bit for bit; a NaN is
    // not equal to 1.0 and multiplies.
    if (!(gain == 1.0f) && count > 0) {
        for (int32_t c = 0; c < channelsOut; ++c) ScaleSamples(outputs[c], count, gain);
    }
}

void CQuorvexAmp::CopyMeterParameters(int32_t bank)
{
    const int32_t step = multiMono ? maxChannels : 1;
    const int32_t meterTotal = int32_t(meters.size());
    int32_t m = 0;
    for (const int32_t index : meterParameterIndices) {
        const int32_t meter = m + bank;
        if (meter >= 0 && meter < meterTotal)
            meters[std::size_t(meter)]->Store(parameters[index].LoadValue());
        m += step;
    }
}

// --- Control ------------------------------------------------------------------------------

void CQuorvexAmp::Reset()
{
    // Acquire pairs with the audio thread's release of the cleared flag: once it reads
    // clear, activeBank is the bank in use and the other one is free to write. The
    // release store of the flag publishes the written bank to the audio thread's acquire.
    // Before Initialise there are no banks, and only the re-arming below happens.
    if (!bankFlipPending.load(std::memory_order_acquire)) {
        const int32_t bankCount = multiMono ? 2 * maxChannels : 2;
        if (int32_t(stateBanks.size()) >= bankCount) {
            const int32_t idle = activeBank.load(std::memory_order_relaxed) == 0 ? 1 : 0;
            const int32_t banksPerGeneration = multiMono ? maxChannels : 1;
            for (int32_t b = 0; b < banksPerGeneration; ++b)
                stateBanks[std::size_t(idle * banksPerGeneration + b)] = stateTemplate;
            bankFlipPending.store(true, std::memory_order_release);
        }
    }
    silenceCount.store(silenceRearmed, std::memory_order_relaxed);
    delayFlushPending.store(true, std::memory_order_relaxed);
}

void CQuorvexAmp::WriteStatusWord(int32_t word)
{
    if (multiMono) {
        for (CQuorvexBus& bank : statusBanks) StoreWordZero(bank, word);
    } else {
        StoreWordZero(embeddedBuses[1], word);
    }
}

void CQuorvexAmp::SetBypass(bool flag)
{
    if (embeddedBuses[1].GetCount() > 0) {
        WriteStatusWord(flag ? statusBypassed
                             : suspended.load(std::memory_order_relaxed) ? statusSuspended : defaultStatus);
    }
    bypassed.store(flag, std::memory_order_relaxed);
}

bool CQuorvexAmp::IsBypassed() const noexcept
{
    return bypassed.load(std::memory_order_relaxed);
}

void CQuorvexAmp::SetSuspended(bool flag)
{
    // With both flags set the word is that of the one set last; clearing one falls back
    // to the other.
    if (embeddedBuses[1].GetCount() > 0) {
        WriteStatusWord(flag ? statusSuspended
                             : bypassed.load(std::memory_order_relaxed) ? statusBypassed : defaultStatus);
    }
    suspended.store(flag, std::memory_order_relaxed);
}

bool CQuorvexAmp::IsSuspended() const noexcept
{
    return suspended.load(std::memory_order_relaxed);
}

void CQuorvexAmp::SetBpm(float value)
{
    // Only an explicit -1 means "no tempo from the host"; anything else, NaN included, is
    // taken as the host's tempo.
    if (value == -1.0f) {
        hostBpm = 120.0f;
        hostBpmValid = false;
    } else {
        hostBpm = value;
        hostBpmValid = true;
    }
}

void CQuorvexAmp::SetDefaultStatus(int32_t value)
{
    defaultStatus = value;
}

void CQuorvexAmp::UpdateBank(bool immediate, int32_t sideCount, int32_t bank)
{
    if (!multiMono) {
        Update(immediate, sideCount, bank, notePitch, noteVelocity, noteGate);
        return;
    }
    CQuorvexBus* const keptStatus = busStatus;
    CQuorvexBus* const keptAlias = busStatusAlias;
    busStatus = &FatalAt(statusBanks, std::size_t(bank));
    busStatusAlias = busStatus;
    Update(immediate, sideCount, bank, notePitch, noteVelocity, noteGate);
    busStatus = keptStatus;
    busStatusAlias = keptAlias;
}

CQuorvexBus* CQuorvexAmp::GetBus(int32_t kind, int32_t bank)
{
    if (multiMono && kind == 1) return &FatalAt(statusBanks, std::size_t(bank));
    return GetBus(kind);
}

CQuorvexBus* CQuorvexAmp::GetBus(int32_t kind)
{
    switch (kind) {
    case 0: return busAux;
    case 1: return busStatus;
    case 2: return busExtra;
    case 3: return busConstants;
    case 4: return busState;
    default: return nullptr;
    }
}

// An unknown kind has no bus; its reads answer 0.

int32_t CQuorvexAmp::GetBusCount(int32_t kind)
{
    const CQuorvexBus* bus = GetBus(kind);
    return bus != nullptr ? bus->GetCount() : 0;
}

int32_t CQuorvexAmp::GetBusDoubledLength(int32_t kind)
{
    const CQuorvexBus* bus = GetBus(kind);
    return bus != nullptr ? bus->GetDoubledLength() : 0;
}

int32_t CQuorvexAmp::GetBusHistoryLength(int32_t kind)
{
    const CQuorvexBus* bus = GetBus(kind);
    return bus != nullptr ? bus->GetHistoryLength() : 0;
}

}  // namespace tarnlow
