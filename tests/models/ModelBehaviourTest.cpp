// The model classes as built, and the edge cases of their network and control update.

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>

#include "ModelRegistry.h"

namespace tarnlow::testing {
namespace {

std::vector<float> Noise(std::size_t length, unsigned variant)
{
    std::mt19937 generator(variant);
    std::uniform_real_distribution<float> uniform(-1.0f, 1.0f);
    std::vector<float> samples(length);
    for (float& sample : samples) sample = uniform(generator);
    return samples;
}

bool SameBits(float a, float b)
{
    return std::bit_cast<uint32_t>(a) == std::bit_cast<uint32_t>(b);
}

// A model driven through Process and Update directly, on the state the amp was built with.
struct DirectRig {
    explicit DirectRig(std::string_view name) : model(FindModel(name)), amp(model.create()) { amp->Initialise(); }

    float* State() { return static_cast<float*>(amp->busState->GetElement(0)); }
    float* Constants() { return static_cast<float*>(amp->busConstants->GetElement(0)); }
    float* BranchWords(int branch) { return State() + model.stateRegions.branchWords[std::size_t(branch)]; }
    void Set(float type, float position)
    {
        amp->parameters[0].StoreValue(type);
        amp->parameters[1].StoreValue(position);
    }
    void Process(const float* input, float* output, int count)
    {
        float* in = const_cast<float*>(input);
        amp->Process(&in, &output, count, false, false, nullptr, 0);
    }
    // In control periods of 16 samples with a regular update after each, as the frame runs it.
    std::vector<float> Run(const std::vector<float>& input)
    {
        std::vector<float> output(input.size());
        for (std::size_t at = 0; at < input.size(); at += controlPeriod) {
            const int count = int(std::min<std::size_t>(controlPeriod, input.size() - at));
            Process(input.data() + at, output.data() + at, count);
            amp->Update(false, 0, 0);
        }
        return output;
    }
    std::vector<float> ChainWords(int chain)
    {
        const float* first = State() + model.stateRegions.chains[std::size_t(chain)];
        return std::vector<float>(first, first + model.chains[std::size_t(chain)].stateLength);
    }
    bool ChainTouched(int chain)
    {
        for (float word : ChainWords(chain)) {
            if (word != 0.0f) return true;
        }
        return false;
    }
    int OnlyTouchedChain()
    {
        int touched = -1;
        for (int chain = 0; chain < chainCount; ++chain) {
            if (ChainTouched(chain)) touched = touched == -1 ? chain : -2;
        }
        return touched;
    }

    const ModelEntry& model;
    std::unique_ptr<CQuorvexAmp> amp;
};

TEST(ModelClasses, ConstructedAsCatalogued)
{
    const uint32_t typeTags[5] = {0x63313031, 0x63323031, 0x63343031, 0x63343031, 0x63343031};
    const int32_t rates[6] = {44100, 48000, 88200, 96000, 176400, 192000};
    const char* speakers[5] = {"1x12", "2x12", "4x12", "4x10", "4x10Bass"};
    const char* bands[6] = {"44", "48", "88", "96", "176", "192"};
    for (const ModelEntry& model : AllModels()) {
        SCOPED_TRACE(model.name);
        std::unique_ptr<CQuorvexAmp> amp = model.create();
        EXPECT_EQ(model.modelNameOf(*amp), std::string(speakers[int(model.speaker)]) + "n" + bands[int(model.band)] + "a");
        EXPECT_EQ(amp->GetInputCount(), 1);
        EXPECT_EQ(amp->GetOutputCount(), 1);
        EXPECT_EQ(amp->GetLatency(), 0);
        EXPECT_EQ(amp->sampleRate, rates[int(model.band)]);
        EXPECT_EQ(amp->modelOption, 1);
        ASSERT_EQ(amp->parameterCount, 2);
        const CQuorvexParameter& type = amp->parameters[0];
        const CQuorvexParameter& position = amp->parameters[1];
        EXPECT_EQ(type.name, "MicrophoneType");
        EXPECT_EQ(type.shortName, "MicrophoneType");
        EXPECT_EQ(type.tag, typeTags[int(model.speaker)]);
        EXPECT_EQ(type.stepCount, 2);
        EXPECT_EQ(type.value, 0.0f);
        EXPECT_EQ(position.name, "MicrophonePosition");
        EXPECT_EQ(position.shortName, "MicrophonePosition");
        EXPECT_EQ(position.tag, typeTags[int(model.speaker)] + 1);
        EXPECT_EQ(position.stepCount, 3);
        EXPECT_EQ(position.value, 0.5f);
        for (const CQuorvexParameter* parameter : {&type, &position}) {
            EXPECT_EQ(parameter->valueKind, 1);
            EXPECT_TRUE(parameter->optionFlag);
            EXPECT_EQ(parameter->meterKind, -1);
        }
        // Each table loaded once and bit for bit, so the state still holds position 0.
        ASSERT_EQ(amp->busConstants->GetCount(), int32_t(model.constants.size()));
        ASSERT_EQ(amp->busState->GetCount(), int32_t(model.initialState.size()));
        EXPECT_EQ(std::memcmp(amp->busConstants->GetElement(0), model.constants.data(), model.constants.size_bytes()), 0);
        EXPECT_EQ(std::memcmp(amp->busState->GetElement(0), model.initialState.data(), model.initialState.size_bytes()), 0);
    }
}

TEST(ModelNetwork, BranchAndChainFollowTheirThresholds)
{
    struct Case {
        float typeValue, positionValue;
        int chain;
    };
    const Case cases[] = {
        {0.0f, 0.0f, 0},
        {std::nextafter(0.5f, 0.0f), 0.5f, 1},
        {0.5f, 0.5f, 4},  // 0.5 itself is branch 1
        {1.0f, 0.33333334f, 4},
        {0.0f, std::nextafter(0.33333334f, 0.0f), 0},
        {0.0f, 0.6666667f, 2},
        {0.0f, std::nextafter(0.6666667f, 0.0f), 1},
        {1.0f, 1.0f, 5},
        {1.0f, 0.0f, 3},
    };
    for (const char* name : {"4x12n96a", "1x12n44a"}) {
        for (const Case& c : cases) {
            SCOPED_TRACE(std::string(name) + " type " + std::to_string(c.typeValue) + " position " +
                         std::to_string(c.positionValue));
            DirectRig rig(name);
            rig.State()[rig.model.stateRegions.typeValue] = c.typeValue;
            rig.BranchWords(0)[positionValueWord] = c.positionValue;
            rig.BranchWords(1)[positionValueWord] = c.positionValue;
            std::vector<float> signal(16, 0.0f);
            signal[0] = 1.0f;
            rig.Process(signal.data(), signal.data(), 16);
            EXPECT_EQ(rig.OnlyTouchedChain(), c.chain);
        }
    }
}

TEST(ModelNetwork, EmptyCallSettlesTinyStatesOnItsRoadOnly)
{
    DirectRig rig("4x12n96a");  // two pre-sections; type 0, position 0 picks chain 0
    const StateRegions& at = rig.model.stateRegions;
    float* state = rig.State();
    const int chain0 = at.chains[0];
    const int lastOfChain0 = chain0 + rig.model.chains[0].stateLength - 1;
    const int lastLineWord = at.diffusers[0] + bandCatalogue[int(Band::k96)].lineLengths[0];
    state[at.preStates + 0] = 9e-31f;
    state[at.preStates + 1] = 2e-30f;  // not below the limit
    state[at.preStates + 2] = -5e-31f;
    state[chain0] = -1e-31f;
    state[chain0 + 1] = std::numeric_limits<float>::quiet_NaN();
    state[lastOfChain0] = 1e-35f;
    state[at.chains[5]] = 1e-31f;  // chain 1,2 is not picked
    state[at.ambienceState + 1] = 3e-31f;
    state[lastLineWord] = 1e-31f;  // the lines have no such test

    float sentinel = 7.0f;
    rig.Process(&sentinel, &sentinel, 0);

    EXPECT_EQ(sentinel, 7.0f);
    EXPECT_TRUE(SameBits(state[at.preStates + 0], 0.0f));
    EXPECT_EQ(state[at.preStates + 1], 2e-30f);
    EXPECT_TRUE(SameBits(state[at.preStates + 2], 0.0f));
    EXPECT_TRUE(SameBits(state[chain0], 0.0f));
    EXPECT_TRUE(std::isnan(state[chain0 + 1]));
    EXPECT_TRUE(SameBits(state[lastOfChain0], 0.0f));
    EXPECT_EQ(state[at.chains[5]], 1e-31f);
    EXPECT_TRUE(SameBits(state[at.ambienceState + 1], 0.0f));
    EXPECT_EQ(state[lastLineWord], 1e-31f);
}

TEST(ModelNetwork, SilenceSettlesEverySectionToExactZero)
{
    const ModelEntry& model = FindModel("1x12n44a");
    std::unique_ptr<CQuorvexAmp> amp = model.create();
    amp->Initialise();
    amp->parameters[1].StoreValue(1.0f);  // position 2: the ambience path is loud
    std::vector<float> block(4096, 0.0f);
    block[0] = 1.0f;
    const StateRegions& at = model.stateRegions;
    int blocks = 0;
    bool settled = false;
    while (!settled && blocks < 400) {
        float* channel = block.data();
        amp->ProcessBlock(&channel, &channel, int32_t(block.size()), 1.0f, nullptr, 0);
        std::fill(block.begin(), block.end(), 0.0f);
        ++blocks;
        const float* state = static_cast<const float*>(amp->busState->GetElement(0));
        settled = true;
        for (int chain = 0; chain < chainCount; ++chain) {
            for (int i = 0; i < model.chains[std::size_t(chain)].stateLength; ++i)
                settled = settled && std::bit_cast<uint32_t>(state[at.chains[std::size_t(chain)] + i]) == 0;
        }
        settled = settled && std::bit_cast<uint32_t>(state[at.ambienceState]) == 0 &&
                  std::bit_cast<uint32_t>(state[at.ambienceState + 1]) == 0;
    }
    EXPECT_TRUE(settled);
    EXPECT_TRUE(amp->IsSilent());
    std::printf("%s at position 2 settled to zero within %d samples after an impulse\n", model.name.c_str(), blocks * 4096);
}

TEST(ModelNetwork, ChainLeftAloneIsFrozenAndResumesFromItsWords)
{
    DirectRig rig("2x12n48a");
    rig.Set(0.0f, 0.0f);
    rig.amp->Update(true, 0, 0);
    rig.Run(Noise(160, 1));
    const std::vector<float> chain0 = rig.ChainWords(0);
    ASSERT_TRUE(rig.ChainTouched(0));
    ASSERT_FALSE(rig.ChainTouched(1));

    rig.Set(0.0f, 0.5f);  // a change with no reset
    rig.amp->Update(false, 0, 0);
    rig.Run(Noise(160, 2));
    EXPECT_TRUE(rig.ChainTouched(1));
    EXPECT_EQ(std::memcmp(rig.ChainWords(0).data(), chain0.data(), chain0.size() * sizeof(float)), 0);

    // Back to chain 0: it goes on from the words it held, not from zero.
    rig.Set(0.0f, 0.0f);
    rig.amp->Update(false, 0, 0);
    DirectRig cleared("2x12n48a");
    std::memcpy(cleared.State(), rig.State(), rig.model.initialState.size_bytes());
    std::fill_n(cleared.State() + rig.model.stateRegions.chains[0], chain0.size(), 0.0f);
    cleared.Set(0.0f, 0.0f);
    const std::vector<float> chain1 = rig.ChainWords(1);
    const std::vector<float> input = Noise(16, 3);
    const std::vector<float> resumed = rig.Run(input);
    const std::vector<float> fromZero = cleared.Run(input);
    EXPECT_NE(resumed, fromZero);
    EXPECT_EQ(std::memcmp(rig.ChainWords(1).data(), chain1.data(), chain1.size() * sizeof(float)), 0);
}

TEST(ModelNetwork, InPlaceEqualsSeparateBuffers)
{
    for (const char* name : {"4x10n88a", "4x12n44a"}) {
        SCOPED_TRACE(name);
        const ModelEntry& model = FindModel(name);
        const std::vector<float> input = Noise(1000, 4);
        std::vector<float> inPlace = input, separate(input.size(), -3.0f), kept = input;
        for (std::vector<float>* buffer : {&inPlace, &separate}) {
            std::unique_ptr<CQuorvexAmp> amp = model.create();
            amp->Initialise();
            amp->parameters[0].StoreValue(1.0f);
            amp->parameters[1].StoreValue(1.0f);
            float* in = buffer == &inPlace ? inPlace.data() : kept.data();
            float* out = buffer->data();
            amp->ProcessBlock(&in, &out, int32_t(input.size()), 1.0f, nullptr, 0);
        }
        EXPECT_EQ(std::memcmp(inPlace.data(), separate.data(), input.size() * sizeof(float)), 0);
        EXPECT_EQ(kept, input);
    }
}

TEST(ModelNetwork, HostBlockLengthsDoNotChangeTheOutput)
{
    std::mt19937 lengths(5);
    int index = 0;
    for (const ModelEntry& model : AllModels()) {
        SCOPED_TRACE(model.name);
        const int setting = index++ % 6;
        const std::vector<float> input = Noise(6000, 6);
        std::vector<float> whole = input, pieces = input;
        std::unique_ptr<CQuorvexAmp> one = model.create();
        std::unique_ptr<CQuorvexAmp> many = model.create();
        for (CQuorvexAmp* amp : {one.get(), many.get()}) {
            amp->Initialise();
            amp->parameters[0].StoreValue(float(setting / 3));
            amp->parameters[1].StoreValue(float(setting % 3) * 0.5f);
        }
        float* channel = whole.data();
        one->ProcessBlock(&channel, &channel, int32_t(whole.size()), 1.0f, nullptr, 0);
        for (std::size_t at = 0; at < pieces.size();) {
            const std::size_t length = std::min<std::size_t>(lengths() % 40, pieces.size() - at);  // 0 included
            channel = pieces.data() + at;
            many->ProcessBlock(&channel, &channel, int32_t(length), 1.0f, nullptr, 0);
            at += length;
        }
        EXPECT_EQ(std::memcmp(whole.data(), pieces.data(), whole.size() * sizeof(float)), 0);
    }
}

TEST(ModelControl, ImmediateUpdateTakesEveryTargetAndLeavesTheOtherBranch)
{
    for (const ModelEntry& model : AllModels()) {
        for (int setting = 0; setting < 6; ++setting) {
            SCOPED_TRACE(model.name + " setting " + std::to_string(setting));
            DirectRig rig(model.name);
            const int branch = setting / 3, position = setting % 3;
            for (int b = 0; b < 2; ++b) std::fill_n(rig.BranchWords(b), 3, 123.0f);
            rig.State()[model.stateRegions.ambienceGain] = 123.0f;
            rig.Set(float(branch), float(position) * 0.5f);
            rig.amp->Update(true, 0, 0);

            const float gain = rig.Constants()[model.constantRegions.gainTables[std::size_t(branch)] + position];
            const float ambience = rig.Constants()[model.constantRegions.ambienceGainTable + position];
            const float* words = rig.BranchWords(branch);
            EXPECT_EQ(rig.State()[model.stateRegions.typeValue], float(branch));
            EXPECT_TRUE(SameBits(words[positionGainWord], gain) && SameBits(words[positionGainTargetWord], gain));
            EXPECT_EQ(words[positionValueWord], float(position) * 0.5f);
            EXPECT_TRUE(SameBits(rig.State()[model.stateRegions.ambienceGain], ambience));
            EXPECT_TRUE(SameBits(rig.State()[model.stateRegions.ambienceGain + 1], ambience));
            const float* other = rig.BranchWords(1 - branch);
            EXPECT_TRUE(other[0] == 123.0f && other[1] == 123.0f && other[2] == 123.0f);

            // A regular update with the gain already at its target leaves it exactly there.
            rig.amp->Update(false, 0, 0);
            EXPECT_TRUE(SameBits(words[positionGainWord], gain));
            EXPECT_TRUE(SameBits(rig.State()[model.stateRegions.ambienceGain], ambience));
        }
    }
}

TEST(ModelControl, GainGlidesWithTheBandsSmoothingFactor)
{
    DirectRig rig("4x10Bassn96a");
    std::fill_n(rig.Constants() + rig.model.constantRegions.gainTables[0], 4, 1.0f);
    rig.BranchWords(0)[positionGainWord] = 0.0f;
    rig.Set(0.0f, 0.0f);
    rig.amp->Update(false, 0, 0);
    EXPECT_EQ(rig.BranchWords(0)[positionGainWord], 1.0f - 0.9947777f);
    EXPECT_NEAR(rig.BranchWords(0)[positionGainWord], 0.0052223f, 1e-7f);
    for (int update = 1; update < 191; ++update) rig.amp->Update(false, 0, 0);
    EXPECT_NEAR(rig.BranchWords(0)[positionGainWord], 0.632f, 0.003f);  // one time constant, 31.8 ms

    // Type 1 for a while and back: branch 0 goes on from where it stood, as if never left.
    DirectRig straight("4x10Bassn96a"), detour("4x10Bassn96a");
    for (DirectRig* r : {&straight, &detour}) {
        r->Set(0.0f, 0.5f);
        r->amp->Update(true, 0, 0);
        r->Set(0.0f, 1.0f);
        for (int update = 0; update < 10; ++update) r->amp->Update(false, 0, 0);
    }
    const std::vector<float> held(detour.BranchWords(0), detour.BranchWords(0) + 3);
    detour.Set(1.0f, 1.0f);
    for (int update = 0; update < 5; ++update) detour.amp->Update(false, 0, 0);
    EXPECT_EQ(std::vector<float>(detour.BranchWords(0), detour.BranchWords(0) + 3), held);
    detour.Set(0.0f, 1.0f);
    detour.amp->Update(false, 0, 0);
    straight.amp->Update(false, 0, 0);
    EXPECT_TRUE(SameBits(detour.BranchWords(0)[positionGainWord], straight.BranchWords(0)[positionGainWord]));
}

TEST(ModelControl, AmbienceClimbsOverAboutATenthOfASecond)
{
    DirectRig rig("4x12n96a");
    rig.Set(0.0f, 0.5f);
    rig.amp->Update(true, 0, 0);
    const float* ambience = rig.State() + rig.model.stateRegions.ambienceGain;
    EXPECT_NEAR(ambience[0], 1.6436267e-16f, 1e-22f);
    rig.Set(0.0f, 1.0f);
    const int updatesIn100ms = 96000 / 10 / controlPeriod;
    float previous = ambience[0];
    for (int update = 0; update < updatesIn100ms; ++update) {
        rig.amp->Update(false, 0, 0);
        ASSERT_GT(ambience[0], previous);
        previous = ambience[0];
    }
    EXPECT_GT(ambience[0], 0.95f * ambience[1]);
    EXPECT_LT(ambience[0], ambience[1]);
    EXPECT_NEAR(ambience[1], 0.31089395f, 1e-7f);
}

TEST(ModelControl, NotANumberPositionCountsAsTheFirstPosition)
{
    const float nan = std::numeric_limits<float>::quiet_NaN();
    DirectRig rig("4x10n48a");
    rig.Set(0.0f, nan);
    rig.amp->Update(true, 0, 0);
    EXPECT_TRUE(SameBits(rig.BranchWords(0)[positionValueWord], 0.0f));
    EXPECT_EQ(rig.BranchWords(0)[positionGainTargetWord], rig.Constants()[rig.model.constantRegions.gainTables[0]]);
    EXPECT_EQ(rig.State()[rig.model.stateRegions.ambienceGain + 1], rig.Constants()[rig.model.constantRegions.ambienceGainTable]);
    std::vector<float> signal(16, 0.0f);
    signal[0] = 1.0f;
    rig.Process(signal.data(), signal.data(), 16);
    EXPECT_EQ(rig.OnlyTouchedChain(), 0);
    for (float sample : signal) EXPECT_TRUE(std::isfinite(sample));

    // A type that is not a number fails "below 0.5" in both places: branch 1 throughout.
    DirectRig typed("4x10n48a");
    typed.Set(nan, 1.0f);
    typed.amp->Update(true, 0, 0);
    EXPECT_TRUE(std::isnan(typed.State()[typed.model.stateRegions.typeValue]));
    EXPECT_EQ(typed.BranchWords(1)[positionValueWord], 1.0f);
    EXPECT_EQ(typed.BranchWords(0)[positionValueWord], 0.0f);
    typed.Process(signal.data(), signal.data(), 16);
    EXPECT_EQ(typed.OnlyTouchedChain(), 5);
}

}  // namespace
}  // namespace tarnlow::testing
