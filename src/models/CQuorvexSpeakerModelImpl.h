#pragma once

// Member definitions of CQuorvexSpeakerModel. Included only by the files that bind models to
// their tables, each of which instantiates the template for its own models.

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

#include "models/CQuorvexSpeakerModel.h"
#include "models/Sections.h"

namespace tarnlow {

namespace speaker_network {

inline constexpr float firstPositionLimit = 0.33333334f;   // the float of 1/3
inline constexpr float secondPositionLimit = 0.6666667f;   // the float of 2/3

template <StageKind kind>
inline void RunStage(float* signal, float* tap, int32_t count, const float* records,
                     float* words) noexcept
{
    if constexpr (kind == StageKind::firstOrder) {
        RunFirstOrderSection(tap, signal, count, records, words);
        RunFirstOrderSection(signal, signal, count, records + firstOrderRecordLength, words + 1);
    } else if constexpr (kind == StageKind::secondOrder) {
        RunSection(tap, signal, count, records, words);
        RunSection(signal, signal, count, records + secondOrderRecordLength, words + 2);
    } else if constexpr (kind == StageKind::reduced) {
        RunReducedSection(tap, signal, count, records, words);
        RunSection(signal, signal, count, records + reducedRecordLength, words + 2);
    } else {
        // No through section: the main signal goes on unfiltered.
        RunFirstOrderSection(tap, signal, count, records, words);
    }
}

inline void AddInto(float* signal, const float* tap, int32_t count) noexcept
{
    for (int32_t i = 0; i < count; ++i) signal[i] = signal[i] + tap[i];
}

template <class Descriptor, int32_t chain>
inline void RunChain(float* signal, float (*taps)[controlPeriod], int32_t count,
                     const float* constants, float* state) noexcept
{
    constexpr ChainLayout layout = Descriptor::chains[chain];
    const float* records = constants + Descriptor::constantRegions.chains[chain];
    float* words = state + Descriptor::stateRegions.chains[chain];

    [&]<std::size_t... stage>(std::index_sequence<stage...>) {
        (RunStage<layout.stages[stage].kind>(signal, taps[stage], count,
                                             records + layout.stages[stage].recordOffset,
                                             words + layout.stages[stage].stateOffset),
         ...);
    }(std::make_index_sequence<layout.stageCount>{});

    if constexpr (layout.finalKind == FinalTapKind::secondOrder) {
        RunSection(signal, signal, count, records + layout.finalRecordOffset, words + layout.finalStateOffset);
    } else {
        RunReducedSection(signal, signal, count, records + layout.finalRecordOffset,
                          words + layout.finalStateOffset);
    }

    // The last stage's tap first and the first stage's last: this order fixes the rounding.
    [&]<std::size_t... stage>(std::index_sequence<stage...>) {
        (AddInto(signal, taps[layout.stageCount - 1 - stage], count), ...);
    }(std::make_index_sequence<layout.stageCount>{});
}

// Schroeder all-pass of delay `length`. Its position is a plain integer kept in a float slot
// of the state table, so it is moved as bits, never converted.
template <int32_t length>
inline void RunAllPassLine(float* output, const float* input, int32_t count, float* words) noexcept
{
    int32_t position;
    std::memcpy(&position, words, sizeof position);
    float* line = words + 1;
    for (int32_t i = 0; i < count; ++i) {
        const float x = input[i];
        const float delayed = line[position];
        const float written = -allPassGain * delayed + x;
        line[position] = written;
        if (++position == length) position = 0;
        output[i] = delayed + allPassGain * written;
    }
    std::memcpy(words, &position, sizeof position);
}

// One read of a parameter for the control update, limited to -1..1. Each comparison takes
// its own read of the value, which a control thread may store in between; each read is
// bounded by Quantise on its own, so a change between them does no harm.
inline float ReadLimited(const CQuorvexParameter& parameter) noexcept
{
    if (parameter.Quantise(parameter.LoadValue()) > 1.0f) return 1.0f;
    if (parameter.Quantise(parameter.LoadValue()) < -1.0f) return -1.0f;
    return parameter.Quantise(parameter.LoadValue());
}

inline float InterpolateGain(const float* table, int32_t segment, float fraction) noexcept
{
    const float e0 = table[segment];
    const float e1 = table[segment + 1];
    return fraction * (e1 - e0) + e0;
}

}  // namespace speaker_network

template <class Descriptor>
template <std::size_t constantCount, std::size_t stateCount>
CQuorvexSpeakerModel<Descriptor>::CQuorvexSpeakerModel(const float (&constants)[constantCount],
                                                       const float (&initialState)[stateCount])
{
    static_assert(constantCount == static_cast<std::size_t>(Descriptor::constantsLength),
                  "constant table length differs from the catalogue");
    static_assert(stateCount == static_cast<std::size_t>(Descriptor::stateLength),
                  "state table length differs from the catalogue");
    static_assert(Descriptor::name.back() == '\0' && Descriptor::name.size() <= sizeof modelName);
    static_assert(Descriptor::preSectionCount <= speaker_network::maxPreSections &&
                      std::all_of(Descriptor::chains.begin(), Descriptor::chains.end(),
                                  [](const ChainLayout& chain) {
                                      return chain.stageCount >= 10 && chain.stageCount <= 12;
                                  }),
                  "the wavefront has kernels for 0 to 2 pre-sections and 10 to 12 stages");

    std::copy(Descriptor::name.begin(), Descriptor::name.end(), modelName);
    sampleRate = Descriptor::sampleRate;
    modelOption = 1;
    busConstants->Load32(constants, static_cast<int32_t>(constantCount), false, false);
    busState->Load32(initialState, static_cast<int32_t>(stateCount), false, false);
    parameterCount = 2;
    parameters = new CQuorvexParameter[2];
    parameters[0].Init(Descriptor::typeTag, "MicrophoneType", "MicrophoneType", 1, 0.0f, 2, true, -1);
    parameters[1].Init(Descriptor::positionTag, "MicrophonePosition", "MicrophonePosition", 1, 0.5f,
                       3, true, -1);
    for (int32_t chain = 0; chain < chainCount; ++chain) {
        networks[chain] = speaker_network::PackNetwork(
            Descriptor::chains[chain], Descriptor::preSectionCount,
            constants + Descriptor::constantRegions.preRecords, Descriptor::stateRegions.preStates,
            constants + Descriptor::constantRegions.chains[chain], Descriptor::stateRegions.chains[chain]);
    }
}

template <class Descriptor>
CQuorvexSpeakerModel<Descriptor>::~CQuorvexSpeakerModel()
{
    delete[] parameters;
    parameters = nullptr;
}

template <class Descriptor>
int32_t CQuorvexSpeakerModel<Descriptor>::GetInputCount()
{
    return 1;
}

template <class Descriptor>
int32_t CQuorvexSpeakerModel<Descriptor>::GetOutputCount()
{
    return 1;
}

template <class Descriptor>
void CQuorvexSpeakerModel<Descriptor>::Process(float** inputs, float** outputs, int32_t count,
                                               bool /*inputIsSingle*/, bool /*outputIsSingle*/,
                                               float** /*sideInputs*/, int32_t /*sideCount*/)
{
    speaker_network::NetworkRun run;
    const int32_t chain = ChainInUse();
    AddPiece(run, count, chain);
    RunNetworkOn(chain, run, inputs[0], outputs[0]);
}

template <class Descriptor>
bool CQuorvexSpeakerModel<Descriptor>::ProcessPieces(float* input, float* output, int32_t count,
                                                     int32_t sideCount, int32_t bank)
{
    using namespace speaker_network;
    // The pieces are cut and the Updates made in the frame's order; a piece's chain and
    // gains are read before the Update that follows it, and Update writes no word that
    // the network reads or writes otherwise, so the network may run the pieces afterwards.
    int32_t done = 0;
    while (done < count) {
        NetworkRun run;
        int32_t chain = -1;
        while (done + run.count < count && run.pieceCount < maxRunPieces) {
            const int32_t length = std::min(count - done - run.count, controlPeriod - controlCounter);
            const int32_t pieceChain = ChainInUse();
            if (run.count + length > maxRunLength || (run.pieceCount > 0 && pieceChain != chain)) break;
            AddPiece(run, length, pieceChain);
            chain = pieceChain;
            controlCounter += length;
            if (controlCounter == controlPeriod) {
                Update(false, sideCount, bank, notePitch, noteVelocity, noteGate);
                controlCounter = 0;
            }
            CopyMeterParameters(bank);
        }
        RunNetworkOn(chain, run, input + done, output + done);
        done += run.count;
    }
    return true;
}

template <class Descriptor>
int32_t CQuorvexSpeakerModel<Descriptor>::ChainInUse() const
{
    using namespace speaker_network;
    constexpr StateRegions stateAt = Descriptor::stateRegions;
    const float* state = static_cast<const float*>(busState->GetElement(0));
    const int32_t branch = state[stateAt.typeValue] < 0.5f ? 0 : 1;
    const float positionValue = state[stateAt.branchWords[branch] + positionValueWord];
    const int32_t position = positionValue < firstPositionLimit    ? 0
                             : positionValue >= secondPositionLimit ? 2
                                                                    : 1;
    return branch * 3 + position;
}

template <class Descriptor>
void CQuorvexSpeakerModel<Descriptor>::AddPiece(speaker_network::NetworkRun& run, int32_t length,
                                                int32_t chain) const
{
    using namespace speaker_network;
    constexpr StateRegions stateAt = Descriptor::stateRegions;
    const float* state = static_cast<const float*>(busState->GetElement(0));
    run.lengths[run.pieceCount] = length;
    run.positionGains[run.pieceCount] = state[stateAt.branchWords[chain / 3] + positionGainWord];
    run.ambienceGains[run.pieceCount] = state[stateAt.ambienceGain];
    ++run.pieceCount;
    run.count += length;
}

template <class Descriptor>
void CQuorvexSpeakerModel<Descriptor>::RunNetworkOn(int32_t chain, const speaker_network::NetworkRun& run,
                                                    const float* input, float* output)
{
    using namespace speaker_network;
    constexpr ConstantRegions constantAt = Descriptor::constantRegions;
    constexpr StateRegions stateAt = Descriptor::stateRegions;
    constexpr auto lineLengths = Descriptor::lineLengths;
    static_assert(std::all_of(lineLengths.begin(), lineLengths.end(),
                              [](int32_t length) { return length > maxRunLength; }),
                  "a run may not read a place of a line that it wrote");

    const float* constants = static_cast<const float*>(busConstants->GetElement(0));
    float* state = static_cast<float*>(busState->GetElement(0));
    const NetworkTail tail = {
        {state + stateAt.diffusers[0], state + stateAt.diffusers[1], state + stateAt.diffusers[2],
         state + stateAt.diffusers[3]},
        {lineLengths[0], lineLengths[1], lineLengths[2], lineLengths[3]},
        constants + constantAt.ambienceRecord,
        state + stateAt.ambienceState,
        Descriptor::directGain,
        Descriptor::outputGain,
    };
    RunNetwork(networks[chain], tail, input, output, run, state);
}

template <class Descriptor>
void CQuorvexSpeakerModel<Descriptor>::ProcessPlain(float** inputs, float** outputs, int32_t count)
{
    using namespace speaker_network;
    constexpr ConstantRegions constantAt = Descriptor::constantRegions;
    constexpr StateRegions stateAt = Descriptor::stateRegions;
    constexpr auto lineLengths = Descriptor::lineLengths;

    // The state bus may have been re-aimed at another bank since the last call.
    const float* constants = static_cast<const float*>(busConstants->GetElement(0));
    float* state = static_cast<float*>(busState->GetElement(0));

    float signal[controlPeriod];
    float taps[maxChainStages][controlPeriod];
    float ambience[controlPeriod];

    std::copy_n(inputs[0], count, signal);

    for (int32_t section = 0; section < Descriptor::preSectionCount; ++section) {
        RunSection(signal, signal, count, constants + constantAt.preRecords + section * secondOrderRecordLength,
                   state + stateAt.preStates + section * 2);
    }

    const int32_t chain = ChainInUse();
    const float positionGain = state[stateAt.branchWords[chain / 3] + positionGainWord];
    for (int32_t i = 0; i < count; ++i) signal[i] = signal[i] * positionGain;

    switch (chain) {
    case 0: RunChain<Descriptor, 0>(signal, taps, count, constants, state); break;
    case 1: RunChain<Descriptor, 1>(signal, taps, count, constants, state); break;
    case 2: RunChain<Descriptor, 2>(signal, taps, count, constants, state); break;
    case 3: RunChain<Descriptor, 3>(signal, taps, count, constants, state); break;
    case 4: RunChain<Descriptor, 4>(signal, taps, count, constants, state); break;
    default: RunChain<Descriptor, 5>(signal, taps, count, constants, state); break;
    }

    // The lines and the ambience section run at every position, so the lines stay filled.
    RunAllPassLine<lineLengths[0]>(ambience, signal, count, state + stateAt.diffusers[0]);
    RunAllPassLine<lineLengths[1]>(ambience, ambience, count, state + stateAt.diffusers[1]);
    RunAllPassLine<lineLengths[2]>(ambience, ambience, count, state + stateAt.diffusers[2]);
    RunAllPassLine<lineLengths[3]>(ambience, ambience, count, state + stateAt.diffusers[3]);
    RunSection(ambience, ambience, count, constants + constantAt.ambienceRecord,
               state + stateAt.ambienceState);

    const float ambienceGain = state[stateAt.ambienceGain];
    for (int32_t i = 0; i < count; ++i) {
        const float wet = ambience[i] * ambienceGain;
        const float direct = signal[i] * Descriptor::directGain;
        signal[i] = (direct + wet) * Descriptor::outputGain;
    }

    std::copy_n(signal, count, outputs[0]);
}

template <class Descriptor>
void CQuorvexSpeakerModel<Descriptor>::Update(bool immediate, int32_t /*sideCount*/, int32_t /*bank*/)
{
    using namespace speaker_network;
    constexpr ConstantRegions constantAt = Descriptor::constantRegions;
    constexpr StateRegions stateAt = Descriptor::stateRegions;

    const float* constants = static_cast<const float*>(busConstants->GetElement(0));
    float* state = static_cast<float*>(busState->GetElement(0));

    const float type = ReadLimited(parameters[0]);
    float position = ReadLimited(parameters[1]);
    // A position that is not a number would become a table index below; it counts as the
    // first position. Every number keeps its ordinary reading.
    if (std::isnan(position)) position = 0.0f;

    state[stateAt.typeValue] = type;

    const float scaled = 2.0f * position;
    int32_t segment = static_cast<int32_t>(scaled);
    if (scaled < 0.0f) segment -= 1;
    const float fraction = scaled - static_cast<float>(segment);
    const float smoothing = static_cast<float>(1 - static_cast<int32_t>(immediate)) * Descriptor::smoothingFactor;

    // Only the active branch moves; the other keeps its words until it is picked again.
    const int32_t branch = type < 0.5f ? 0 : 1;
    float* branchWords = state + stateAt.branchWords[branch];
    branchWords[positionValueWord] = position;
    const float target = InterpolateGain(constants + constantAt.gainTables[branch], segment, fraction);
    branchWords[positionGainTargetWord] = target;
    branchWords[positionGainWord] = target + (branchWords[positionGainWord] - target) * smoothing;

    float* ambienceWords = state + stateAt.ambienceGain;
    const float ambienceTarget = InterpolateGain(constants + constantAt.ambienceGainTable, segment, fraction);
    ambienceWords[1] = ambienceTarget;
    ambienceWords[0] = ambienceTarget + (ambienceWords[0] - ambienceTarget) * smoothing;
}

}  // namespace tarnlow

// Binds CQuorvexAmp_<speaker>n<band>a to its generated tables in tarnlow::tables: instantiates
// the network for it, checks the tables' own plans and pre-section count against the
// catalogue, and defines the constructor, which checks both table lengths.
#define TARNLOW_BIND_MODEL_TABLES(speaker, band)                                                   \
    template class CQuorvexSpeakerModel<ModelDescriptor<Speaker::k##speaker, Band::k##band>>;       \
    static_assert(ModelDescriptor<Speaker::k##speaker, Band::k##band>::MatchesTableDescription(     \
                      tables::model_##speaker##n##band##a::chainPlans,                              \
                      tables::model_##speaker##n##band##a::preSectionCount),                        \
                  "generated tables describe other chain plans or pre-sections");                   \
    CQuorvexAmp_##speaker##n##band##a::CQuorvexAmp_##speaker##n##band##a()                          \
        : CQuorvexSpeakerModel(tables::model_##speaker##n##band##a::constants,                              \
                       tables::model_##speaker##n##band##a::initialState)                           \
    {                                                                                               \
    }
