// The model classes as built, and the edge cases of their network and control update.

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <tuple>

#include "ModelRegistry.h"

namespace tarnlow::testing {
namespace {

constexpr float nan = std::numeric_limits<float>::quiet_NaN();

std::vector<float> Noise(std::size_t length, unsigned variant)
{
    std::mt19937 generator(variant);
    std::uniform_real_distribution<float> uniform(-1.0f, 1.0f);
    std::vector<float> samples(length);
    for (float& sample : samples) sample = uniform(generator);
    return samples;
}

bool SameBits(float a, float b) { return std::bit_cast<uint32_t>(a) == std::bit_cast<uint32_t>(b); }

// A model driven through Process and Update directly, on the state the amp was built with.
struct DirectRig {
    explicit DirectRig(std::string_view name) : model(FindModel(name)), amp(model.create()) { amp->Initialise(); }

    float* State() { return static_cast<float*>(amp->busState->GetElement(0)); }
    float* Constants() { return static_cast<float*>(amp->busConstants->GetElement(0)); }
    float* BranchWords(int branch) { return State() + model.stateRegions.branchWords[std::size_t(branch)]; }
    float* Ambience() { return State() + model.stateRegions.ambienceGain; }  // gain, then its target
    void Set(float type, float position, int immediateUpdates = 0, int regularUpdates = 0)
    {
        amp->parameters[0].StoreValue(type);
        amp->parameters[1].StoreValue(position);
        for (int update = 0; update < immediateUpdates; ++update) amp->Update(true, 0, 0);
        for (int update = 0; update < regularUpdates; ++update) amp->Update(false, 0, 0);
    }
    // In control periods of 16 samples with a regular update after each, as the frame runs it.
    std::vector<float> Run(std::vector<float> samples)
    {
        for (std::size_t at = 0; at < samples.size(); at += controlPeriod) {
            float* chunk = samples.data() + at;
            amp->Process(&chunk, &chunk, int(std::min<std::size_t>(controlPeriod, samples.size() - at)), false, false,
                         nullptr, 0);
            amp->Update(false, 0, 0);
        }
        return samples;
    }
    std::vector<float> ChainWords(int chain)
    {
        const float* first = State() + model.stateRegions.chains[std::size_t(chain)];
        return std::vector<float>(first, first + model.chains[std::size_t(chain)].stateLength);
    }
    bool ChainTouched(int chain)
    {
        const std::vector<float> words = ChainWords(chain);
        return std::any_of(words.begin(), words.end(), [](float word) { return word != 0.0f; });
    }
    // The one chain an impulse reaches (-1 none, -2 several).
    int ChainAnImpulseReaches()
    {
        std::vector<float> signal(16, 0.0f);
        signal[0] = 1.0f;
        for (float sample : Run(signal)) EXPECT_TRUE(std::isfinite(sample));
        int touched = -1;
        for (int chain = 0; chain < chainCount; ++chain)
            if (ChainTouched(chain)) touched = touched == -1 ? chain : -2;
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
        const int s = int(model.speaker), b = int(model.band);
        EXPECT_EQ(model.modelNameOf(*amp), std::string(speakers[s]) + "n" + bands[b] + "a");
        EXPECT_EQ((std::array{amp->GetInputCount(), amp->GetOutputCount(), amp->GetLatency(), amp->sampleRate,
                              amp->modelOption, amp->parameterCount}),
                  (std::array{1, 1, 0, rates[b], 1, 2}));
        for (int id = 0; id < 2; ++id) {
            const CQuorvexParameter& p = amp->parameters[id];
            EXPECT_EQ(p.name + "|" + p.shortName, id == 0 ? "MicrophoneType|MicrophoneType"
                                                           : "MicrophonePosition|MicrophonePosition");
            EXPECT_EQ(std::tuple(p.tag, p.stepCount, p.value, p.valueKind, p.optionFlag, p.meterKind),
                      std::tuple(typeTags[s] + uint32_t(id), 2 + id, 0.5f * float(id), 1, true, -1));
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
    const float third = 0.33333334f, twoThirds = 0.6666667f;
    const struct {
        float type, position;
        int chain;
    } cases[] = {{0.0f, 0.0f, 0},   {std::nextafter(0.5f, 0.0f), 0.5f, 1}, {0.5f, 0.5f, 4},  // 0.5 is branch 1
                 {1.0f, third, 4},  {0.0f, std::nextafter(third, 0.0f), 0}, {0.0f, twoThirds, 2},
                 {0.0f, std::nextafter(twoThirds, 0.0f), 1}, {1.0f, 1.0f, 5}, {1.0f, 0.0f, 3}};
    for (const char* name : {"4x12n96a", "1x12n44a"}) {
        for (const auto& c : cases) {
            DirectRig rig(name);
            rig.State()[rig.model.stateRegions.typeValue] = c.type;
            for (int branch : {0, 1}) rig.BranchWords(branch)[positionValueWord] = c.position;
            EXPECT_EQ(rig.ChainAnImpulseReaches(), c.chain) << name << " type " << c.type << " position " << c.position;
        }
    }
}

TEST(ModelNetwork, EmptyCallSettlesTinyStatesOnItsRoadOnly)
{
    DirectRig rig("4x12n96a");  // two pre-sections; type 0, position 0 picks chain 0
    const StateRegions& at = rig.model.stateRegions;
    float* state = rig.State();
    const int lastOfChain0 = at.chains[0] + rig.model.chains[0].stateLength - 1;
    const int lastLineWord = at.diffusers[0] + bandCatalogue[int(Band::k96)].lineLengths[0];
    // word, value before, value after: below 1e-30 on the picked road goes to zero.
    const struct {
        int word;
        float before, after;
    } words[] = {{at.preStates, 9e-31f, 0.0f},      {at.preStates + 1, 2e-30f, 2e-30f},
                 {at.preStates + 2, -5e-31f, 0.0f}, {at.chains[0], -1e-31f, 0.0f},
                 {at.chains[0] + 1, nan, nan},      {lastOfChain0, 1e-35f, 0.0f},
                 {at.chains[5], 1e-31f, 1e-31f},  // chain 1,2 is not picked
                 {at.ambienceState + 1, 3e-31f, 0.0f},
                 {lastLineWord, 1e-31f, 1e-31f}};  // the lines have no such test
    for (const auto& w : words) state[w.word] = w.before;
    float sentinel = 7.0f, *channel = &sentinel;
    rig.amp->Process(&channel, &channel, 0, false, false, nullptr, 0);
    EXPECT_EQ(sentinel, 7.0f);
    for (const auto& w : words) EXPECT_TRUE(SameBits(state[w.word], w.after)) << w.word << ": " << state[w.word];
}

TEST(ModelNetwork, SilenceAfterAnImpulseSettlesEverySectionToExactZero)
{
    DirectRig rig("1x12n44a");
    rig.amp->parameters[1].StoreValue(1.0f);  // position 2: the ambience path is loud
    std::vector<float> block(4096, 0.0f);
    block[0] = 1.0f;
    const auto zero = [&](int first, int count) {
        return std::all_of(rig.State() + first, rig.State() + first + count, [](float w) { return SameBits(w, 0.0f); });
    };
    bool settled = false;
    for (int blocks = 0; !settled && blocks < 400; ++blocks) {
        float* channel = block.data();
        rig.amp->ProcessBlock(&channel, &channel, int32_t(block.size()), 1.0f, nullptr, 0);
        std::fill(block.begin(), block.end(), 0.0f);
        settled = zero(rig.model.stateRegions.ambienceState, 2);
        for (int chain = 0; chain < chainCount; ++chain)
            settled = settled && zero(rig.model.stateRegions.chains[chain], rig.model.chains[chain].stateLength);
    }
    EXPECT_TRUE(settled);
    EXPECT_TRUE(rig.amp->IsSilent());
}

TEST(ModelNetwork, ChainLeftAloneIsFrozenAndResumesFromItsWords)
{
    DirectRig rig("2x12n48a");
    rig.Set(0.0f, 0.0f, 1);
    rig.Run(Noise(160, 1));
    const std::vector<float> chain0 = rig.ChainWords(0);
    ASSERT_TRUE(rig.ChainTouched(0));
    ASSERT_FALSE(rig.ChainTouched(1));

    rig.Set(0.0f, 0.5f, 0, 1);  // a change with no reset
    rig.Run(Noise(160, 2));
    EXPECT_TRUE(rig.ChainTouched(1));
    EXPECT_EQ(rig.ChainWords(0), chain0);

    // Back to chain 0: it goes on from the words it held, not from zero.
    rig.Set(0.0f, 0.0f, 0, 1);
    DirectRig cleared("2x12n48a");
    std::memcpy(cleared.State(), rig.State(), rig.model.initialState.size_bytes());
    std::fill_n(cleared.State() + rig.model.stateRegions.chains[0], chain0.size(), 0.0f);
    cleared.Set(0.0f, 0.0f);
    const std::vector<float> chain1 = rig.ChainWords(1);
    EXPECT_NE(rig.Run(Noise(16, 3)), cleared.Run(Noise(16, 3)));
    EXPECT_EQ(rig.ChainWords(1), chain1);
}

// The gains, values and targets an immediate update writes reach the output, which
// ReferenceTest compares with the plain network for every model and setting; what it must
// leave alone does not.
TEST(ModelControl, ImmediateUpdateLeavesTheOtherBranch)
{
    for (const ModelEntry& model : AllModels()) {
        for (int setting = 0; setting < 6; ++setting) {
            DirectRig rig(model.name);
            const int branch = setting / 3;
            for (int b = 0; b < 2; ++b) std::fill_n(rig.BranchWords(b), 3, 123.0f);
            rig.Set(float(branch), float(setting % 3) * 0.5f, 1);
            EXPECT_EQ(std::vector<float>(rig.BranchWords(1 - branch), rig.BranchWords(1 - branch) + 3),
                      std::vector<float>(3, 123.0f)) << model.name << " setting " << setting;
        }
    }
}

TEST(ModelControl, GainsGlideWithTheBandsSmoothingFactor)
{
    DirectRig rig("4x10Bassn96a");
    std::fill_n(rig.Constants() + rig.model.constantRegions.gainTables[0], 4, 1.0f);
    rig.BranchWords(0)[positionGainWord] = 0.0f;
    rig.Set(0.0f, 0.0f, 0, 1);
    EXPECT_EQ(rig.BranchWords(0)[positionGainWord], 1.0f - 0.9947777f);
    rig.Set(0.0f, 0.0f, 0, 190);
    EXPECT_NEAR(rig.BranchWords(0)[positionGainWord], 0.632f, 0.003f);  // one time constant, 31.8 ms

    // Type 1 for a while and back: branch 0 goes on from where it stood, as if never left.
    DirectRig straight("4x10Bassn96a"), detour("4x10Bassn96a");
    for (DirectRig* r : {&straight, &detour}) { r->Set(0.0f, 0.5f, 1); r->Set(0.0f, 1.0f, 0, 10); }
    const std::vector<float> held(detour.BranchWords(0), detour.BranchWords(0) + 3);
    detour.Set(1.0f, 1.0f, 0, 5);
    EXPECT_EQ(std::vector<float>(detour.BranchWords(0), detour.BranchWords(0) + 3), held);
    detour.Set(0.0f, 1.0f, 0, 1);
    straight.amp->Update(false, 0, 0);
    EXPECT_TRUE(SameBits(detour.BranchWords(0)[positionGainWord], straight.BranchWords(0)[positionGainWord]));

    // The ambience gain climbs steadily over about a tenth of a second.
    DirectRig room("4x12n96a");
    room.Set(0.0f, 0.5f, 1);
    EXPECT_NEAR(room.Ambience()[0], 1.6436267e-16f, 1e-22f);
    room.Set(0.0f, 1.0f);
    for (int update = 0; update < 96000 / 10 / controlPeriod; ++update) {
        const float previous = room.Ambience()[0];
        room.amp->Update(false, 0, 0);
        ASSERT_GT(room.Ambience()[0], previous) << update;
    }
    EXPECT_GT(room.Ambience()[0], 0.95f * room.Ambience()[1]);
    EXPECT_LT(room.Ambience()[0], room.Ambience()[1]);
    EXPECT_NEAR(room.Ambience()[1], 0.31089395f, 1e-7f);
}

TEST(ModelControl, NotANumberPositionIsTheFirstPositionAndNotANumberTypeIsBranchOne)
{
    DirectRig rig("4x10n48a");
    rig.Set(0.0f, nan, 1);
    EXPECT_TRUE(SameBits(rig.BranchWords(0)[positionValueWord], 0.0f));
    EXPECT_EQ(rig.BranchWords(0)[positionGainTargetWord], rig.Constants()[rig.model.constantRegions.gainTables[0]]);
    EXPECT_EQ(rig.Ambience()[1], rig.Constants()[rig.model.constantRegions.ambienceGainTable]);
    EXPECT_EQ(rig.ChainAnImpulseReaches(), 0);

    // A type that is not a number fails "below 0.5" in both places: branch 1 throughout.
    DirectRig typed("4x10n48a");
    typed.Set(nan, 1.0f, 1);
    EXPECT_TRUE(std::isnan(typed.State()[typed.model.stateRegions.typeValue]));
    EXPECT_EQ(typed.BranchWords(1)[positionValueWord], 1.0f);
    EXPECT_EQ(typed.BranchWords(0)[positionValueWord], 0.0f);
    EXPECT_EQ(typed.ChainAnImpulseReaches(), 5);
}

}  // namespace
}  // namespace tarnlow::testing
