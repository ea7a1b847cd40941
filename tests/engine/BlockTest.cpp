#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <vector>

#include "EngineTestAmps.h"

namespace tarnlow {
namespace {

using test::ModelEvent;
using test::RecordingAmp;
using test::RunMono;
using Samples = std::vector<float>;

// A model that passes its input through unchanged.
class PassAmp : public RecordingAmp {
public:
    explicit PassAmp(int32_t latency = 0) : RecordingAmp(44100, latency) { factor = 1.0f; }
};

// --- Channel check and flush-to-zero ----------------------------------------------------

#if defined(TARNLOW_FLOAT_CONTROL_SSE)
// Denormals-are-zero on, flush-to-zero off, rounding toward zero: nothing a block may keep.
constexpr FloatControlWord hostWord = 0x1F80 | 0x0040 | 0x6000;

// Puts the usual control word back after the test has run blocks under `hostWord`.
struct HostWordScope {
    FloatControlWord saved = ReadFloatControl();
    HostWordScope() { WriteFloatControl(hostWord); }
    ~HostWordScope() { WriteFloatControl(saved); }
};

TEST(BlockChannels, RefusedLayoutTouchesNothing)
{
    RecordingAmp amp;
    amp.Initialise();
    amp.Reset();
    Samples a = {1.0f, 2.0f}, b = {3.0f, 4.0f}, c = {5.0f, 6.0f};
    float* group[3] = {a.data(), b.data(), c.data()};
    const bool silentBefore = amp.IsSilent();
    const int32_t layouts[4][2] = {{2, 3}, {0, 1}, {1, 0}, {-1, -1}};
    HostWordScope host;
    for (const auto& layout : layouts) {
        amp.SetChannels(layout[0], layout[1]);
        amp.ProcessBlock(group, group, 2, 0.5f, nullptr, 0);
        EXPECT_EQ(ReadFloatControl(), hostWord);
    }
    EXPECT_TRUE(amp.events.empty());
    EXPECT_EQ(a, (Samples{1.0f, 2.0f}));
    EXPECT_EQ(c, (Samples{5.0f, 6.0f}));
    EXPECT_EQ(amp.silenceCount.load(), 1000000000);
    EXPECT_EQ(amp.IsSilent(), silentBefore);
    EXPECT_TRUE(amp.bankFlipPending.load());
}

TEST(BlockFlushToZero, OnInsideTheModelAndRestoredOnEveryRoad)
{
    RecordingAmp amp;
    amp.Initialise();
    Samples buffer(20, 0.5f);
    {
        HostWordScope host;
        RunMono(amp, buffer, 20);
        EXPECT_EQ(ReadFloatControl(), hostWord);
        EXPECT_EQ(amp.controlWordInProcess, hostWord | 0x8000);
        amp.SetBypass(true);
        RunMono(amp, buffer, 20);
        EXPECT_EQ(ReadFloatControl(), hostWord);
        amp.SetBypass(false);
        RunMono(amp, buffer, 0);
        EXPECT_EQ(ReadFloatControl(), hostWord);
    }
    // Under the usual word too, a denormal product inside the model comes out as zero.
    amp.factor = 1e-10f;
    Samples tiny = {1e-30f, 1.0f};
    RunMono(amp, tiny, 2);
    EXPECT_EQ(std::bit_cast<uint32_t>(tiny[0]) & 0x7FFFFFFFu, 0u);
    EXPECT_EQ(tiny[1], 1e-10f);
}
#endif

// --- Flip and bank ----------------------------------------------------------------------

TEST(BlockFlip, FirstBlockUpdatesImmediatelyBeforeProcess)
{
    RecordingAmp amp;
    amp.Initialise();
    Samples buffer(8, 1.0f);
    RunMono(amp, buffer, 8);
    ASSERT_GE(amp.events.size(), 2u);
    EXPECT_EQ(amp.events[0].kind, ModelEvent::update);
    EXPECT_TRUE(amp.events[0].immediate);
    EXPECT_EQ(amp.events[1].kind, ModelEvent::process);

    amp.events.clear();  // loud output: no immediate update on the next block
    RunMono(amp, buffer, 4);
    EXPECT_EQ(amp.CountOf(ModelEvent::update), 0);
    EXPECT_FALSE(amp.IsSilent());
}

TEST(BlockFlip, CountZeroConsumesTheFlipAndUpdatesButRunsNoChunk)
{
    RecordingAmp amp;
    amp.Initialise();
    Samples buffer(4, 1.0f);
    RunMono(amp, buffer, 4);
    amp.Reset();
    amp.events.clear();
    RunMono(amp, buffer, 0);
    EXPECT_EQ(amp.activeBank.load(), 1);
    EXPECT_FALSE(amp.bankFlipPending.load());
    EXPECT_EQ(amp.busState, &amp.stateBanks[1]);
    ASSERT_EQ(amp.events.size(), 1u);
    EXPECT_TRUE(amp.events[0].immediate);
    EXPECT_EQ(amp.silenceCount.load(), 1000000000);
    EXPECT_EQ(amp.controlCounter, 4);
}

// Notes where the model's data pointers aim while it runs.
class PointerAmp : public RecordingAmp {
public:
    void Process(float**, float** outputs, int32_t count, bool, bool, float**, int32_t) override
    {
        seenState = stateData;
        seenConstants = constantsData;
        for (int32_t i = 0; i < count; ++i) outputs[0][i] = 1.0f;
    }
    const void* seenState = nullptr;
    const void* seenConstants = nullptr;
};

TEST(BlockFlip, DataPointersAimAtTheActiveBankForTheBlockOnly)
{
    PointerAmp amp;
    const int32_t table[2] = {1, 2};
    amp.busConstants->Load32(table, 2, false, false);
    amp.busState->Load32(table, 2, false, false);
    amp.Initialise();
    const int marker = 0;
    amp.stateData = &marker;
    Samples buffer(3, 0.0f);
    RunMono(amp, buffer, 3);
    EXPECT_EQ(amp.seenState, amp.stateBanks[0].GetElement(0));
    EXPECT_EQ(amp.seenConstants, amp.busConstants->GetElement(0));
    EXPECT_EQ(amp.stateData, &marker);
    EXPECT_EQ(amp.constantsData, nullptr);
    EXPECT_EQ(amp.busState, &amp.stateBanks[0]);
}

// --- Silence ----------------------------------------------------------------------------

TEST(BlockSilence, ThresholdIsStrictAtTenToTheMinusTwenty)
{
    PassAmp amp;
    amp.Initialise();
    Samples buffer = {1.0f};
    RunMono(amp, buffer, 1);
    ASSERT_EQ(amp.silenceCount.load(), 0);
    buffer = {1e-20f};
    RunMono(amp, buffer, 1);
    EXPECT_EQ(amp.silenceCount.load(), 1);
    buffer = {-1e-20f};
    RunMono(amp, buffer, 1);
    EXPECT_EQ(amp.silenceCount.load(), 2);
    buffer = {std::nextafter(1e-20f, 1.0f)};
    RunMono(amp, buffer, 1);
    EXPECT_EQ(amp.silenceCount.load(), 0);
}

TEST(BlockSilence, CountFollowsTheFramesAndStopsAtTheLimit)
{
    // The count after one block, frame by frame: a loud frame sets 0, a quiet one adds 1
    // below the limit.
    const auto expected = [](int32_t counted, const std::vector<bool>& loud) {
        for (const bool frameLoud : loud) counted = frameLoud ? 0 : counted < 4410 ? counted + 1 : counted;
        return counted;
    };
    const std::pair<int32_t, std::vector<bool>> cases[] = {
        {0, {false, false, false}},        {4408, {false, false, false, false}},
        {4410, {false, false}},            {1000000000, {false, false}},
        {1000000000, {false, true, false}}, {3, {true, false, true, false, false}},
        {7, {true}},                       {7, {false, false, true}},
    };
    for (const auto& [start, loud] : cases) {
        PassAmp amp;
        amp.Initialise();
        amp.SetChannels(2, 2);
        amp.SetBypass(true);  // keeps the channels apart
        Samples left, right;  // a loud frame is loud in the second channel only
        for (const bool frameLoud : loud) {
            left.push_back(1e-21f);
            right.push_back(frameLoud ? -0.5f : 0.0f);
        }
        amp.silenceCount.store(start);
        float* group[2] = {left.data(), right.data()};
        amp.ProcessBlock(group, group, int32_t(loud.size()), 1.0f, nullptr, 0);
        EXPECT_EQ(amp.silenceCount.load(), expected(start, loud)) << start << ", " << loud.size();
    }
}

TEST(BlockSilence, SilentBlockClearsOneSamplePerChannelAtItsOwnIndex)
{
    PassAmp amp;
    amp.Initialise();
    amp.SetChannels(2, 2);
    amp.SetBypass(true);
    Samples left(4, 1e-21f), right(4, -1e-21f);
    float* group[2] = {left.data(), right.data()};
    amp.ProcessBlock(group, group, 4, 1.0f, nullptr, 0);
    EXPECT_TRUE(amp.IsSilent());
    EXPECT_EQ(left, (Samples{0.0f, 1e-21f, 1e-21f, 1e-21f}));
    EXPECT_EQ(right, (Samples{-1e-21f, 0.0f, -1e-21f, -1e-21f}));

    // One sample on two channels: the second channel's index lies past the block.
    Samples shortLeft = {1e-21f, 7.0f}, shortRight = {1e-21f, 7.0f};
    float* shortGroup[2] = {shortLeft.data(), shortRight.data()};
    amp.ProcessBlock(shortGroup, shortGroup, 1, 1.0f, nullptr, 0);
    EXPECT_EQ(shortLeft[0], 0.0f);
    EXPECT_EQ(shortRight, (Samples{1e-21f, 7.0f}));
}

TEST(BlockSilence, SilenceNeedsTheLimitOfQuietFramesAndEachSilentBlockIsImmediate)
{
    PassAmp amp;  // 44100 Hz: 4410 quiet frames
    amp.Initialise();
    Samples zeros(4410, 0.0f);
    for (int block = 0; block < 3; ++block) RunMono(amp, zeros, 64);
    EXPECT_TRUE(amp.IsSilent());
    EXPECT_EQ(amp.silenceCount.load(), 1000000000);
    EXPECT_EQ(amp.ImmediateUpdates(), 3);

    Samples loud = {1.0f};
    RunMono(amp, loud, 1);
    RunMono(amp, zeros, 4409);
    EXPECT_FALSE(amp.IsSilent());
    RunMono(amp, zeros, 1);
    EXPECT_TRUE(amp.IsSilent());
    RunMono(amp, zeros, 100);
    EXPECT_EQ(amp.silenceCount.load(), 4410);
}

// --- Channel adaption -------------------------------------------------------------------

TEST(BlockChannels, OneToTwoRunsTheModelOnceAndFansOutAfterTheGain)
{
    RecordingAmp amp;
    amp.Initialise();
    amp.SetChannels(1, 2);
    Samples input = {1.0f, 2.0f, 3.0f}, left(3), right(3);
    float* in[1] = {input.data()};
    float* out[2] = {left.data(), right.data()};
    amp.ProcessBlock(in, out, 3, 0.5f, nullptr, 0);
    EXPECT_EQ(amp.sampleCalls, 3);
    EXPECT_EQ(left, input);  // doubled, then halved
    EXPECT_EQ(right, left);
}

TEST(BlockChannels, MonoModelGetsTheMeanOfSeveralInputs)
{
    RecordingAmp amp;
    amp.Initialise();
    amp.SetChannels(2, 2);
    Samples a = {1.0f, -1.0f}, b = {3.0f, 2.0f};
    float* pair[2] = {a.data(), b.data()};
    amp.ProcessBlock(pair, pair, 2, 1.0f, nullptr, 0);
    EXPECT_EQ(a, (Samples{4.0f, 1.0f}));
    EXPECT_EQ(b, a);
    EXPECT_EQ(amp.sampleCalls, 2);

    PassAmp down;
    down.Initialise();
    down.SetChannels(3, 1);
    Samples x = {1.0f, 0.1f}, y = {2.0f, 0.2f}, z = {4.0f, 0.7f};
    float* three[3] = {x.data(), y.data(), z.data()};
    down.ProcessBlock(three, three, 2, 1.0f, nullptr, 0);
    const float third = float(1.0 / 3.0);
    EXPECT_EQ(x[0], 7.0f * third);
    EXPECT_EQ(x[1], ((0.1f + 0.2f) + 0.7f) * third);
    EXPECT_EQ(y[0], 2.0f);
}

// Two inputs and two outputs; asked for a single output, it sums both into it.
class StereoModel : public RecordingAmp {
public:
    int32_t GetInputCount() override { return 2; }
    int32_t GetOutputCount() override { return 2; }
    void Process(float** inputs, float** outputs, int32_t count, bool inputIsSingle, bool outputIsSingle,
                 float**, int32_t) override
    {
        lastInputIsSingle = inputIsSingle;
        lastOutputIsSingle = outputIsSingle;
        for (int32_t i = 0; i < count; ++i) outputs[0][i] = inputs[0][i] + inputs[0][i];
    }
};

TEST(BlockChannels, WiderModelHearsOfSingleChannelsAndItsSumBecomesAMean)
{
    StereoModel amp;
    amp.Initialise();
    Samples buffer = {0.75f, -3.0f};
    RunMono(amp, buffer, 2);
    EXPECT_TRUE(amp.lastInputIsSingle);
    EXPECT_TRUE(amp.lastOutputIsSingle);
    EXPECT_EQ(buffer, (Samples{0.75f, -3.0f}));

    amp.SetChannels(2, 2);
    Samples a = {1.0f}, b = {2.0f};
    float* pair[2] = {a.data(), b.data()};
    amp.ProcessBlock(pair, pair, 1, 1.0f, nullptr, 0);
    EXPECT_FALSE(amp.lastInputIsSingle);
    EXPECT_FALSE(amp.lastOutputIsSingle);
}

// --- Bypass -----------------------------------------------------------------------------

TEST(BlockBypass, PassesTheDrySignalWithoutMixingOrModel)
{
    RecordingAmp amp;
    amp.Initialise();
    amp.SetChannels(2, 1);
    amp.SetBypass(true);
    Samples a = {1.0f, 2.0f}, b = {5.0f, 6.0f}, out(2);
    float* in[2] = {a.data(), b.data()};
    float* outs[1] = {out.data()};
    amp.ProcessBlock(in, outs, 2, 1.0f, nullptr, 0);
    EXPECT_EQ(out, a);

    amp.SetChannels(1, 3);
    Samples x(2), y(2);
    float* fan[3] = {a.data(), x.data(), y.data()};
    amp.ProcessBlock(in, fan, 2, 1.0f, nullptr, 0);
    EXPECT_EQ(x, a);
    EXPECT_EQ(y, a);
    EXPECT_TRUE(amp.events.empty());
}

TEST(BlockBypass, LatencyDelaysTheDrySignalInPlace)
{
    RecordingAmp amp(44100, 3);
    amp.Initialise();
    amp.SetBypass(true);
    Samples buffer = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    RunMono(amp, buffer, 10);
    EXPECT_EQ(buffer, (Samples{0, 0, 0, 1, 2, 3, 4, 5, 6, 7}));
    Samples next = {11, 12};
    RunMono(amp, next, 2);
    EXPECT_EQ(next, (Samples{8, 9}));
    EXPECT_TRUE(amp.events.empty());
}

TEST(BlockBypass, ActiveBlocksKeepTheLinesWarmAndResetFlushesThem)
{
    PassAmp amp(3);
    amp.Initialise();
    Samples active = {1, 2, 3, 4, 5, 6, 7, 8};
    RunMono(amp, active, 8);
    EXPECT_EQ(amp.delayPositions[0], 0);
    amp.SetBypass(true);
    Samples bypassed = {9, 10, 11, 12};
    RunMono(amp, bypassed, 4);
    EXPECT_EQ(bypassed, (Samples{6, 7, 8, 9}));

    amp.Reset();
    Samples afterReset = {13, 14, 15, 16};
    RunMono(amp, afterReset, 4);
    EXPECT_EQ(afterReset, (Samples{0, 0, 0, 13}));
    EXPECT_FALSE(amp.delayFlushPending.load());
}

TEST(BlockBypass, ActiveBlockShorterThanTheLatencyKeepsTheLatestSamplesInOrder)
{
    PassAmp amp(4);
    amp.Initialise();
    Samples first = {1, 2, 3, 4, 5};
    RunMono(amp, first, 5);
    Samples shortBlock = {6, 7};
    RunMono(amp, shortBlock, 2);
    amp.SetBypass(true);
    Samples bypassed = {8, 9, 10, 11};
    RunMono(amp, bypassed, 4);
    EXPECT_EQ(bypassed, (Samples{4, 5, 6, 7}));
}

// --- Multi-mono road and output peaks ---------------------------------------------------

TEST(BlockMultiMono, ChannelsShareThePhaseAndUseTheirOwnBanks)
{
    RecordingAmp amp(44100, 0, true, false);
    const int32_t state[1] = {0};
    amp.busState->Load32(state, 1, false, false);
    amp.Initialise();
    amp.SetChannels(3, 3);
    Samples a(12, 1.0f), b(12, 2.0f), c(12, 3.0f);
    float* group[3] = {a.data(), b.data(), c.data()};
    amp.ProcessBlock(group, group, 5, 1.0f, nullptr, 0);
    EXPECT_EQ(amp.controlCounter, 5);
    EXPECT_EQ(amp.sampleCalls, 15);
    EXPECT_EQ(c[4], 6.0f);
    const auto updateBanks = [&amp](bool immediate) {
        std::vector<int32_t> banks;
        for (const ModelEvent& e : amp.events) {
            if (e.kind == ModelEvent::update && e.immediate == immediate) banks.push_back(e.bank);
        }
        return banks;
    };
    EXPECT_EQ(updateBanks(true), (std::vector<int32_t>{0, 1, 2}));
    EXPECT_EQ(amp.busState, &amp.stateBanks[2]);

    amp.events.clear();  // across a period boundary each channel updates with its bank
    amp.ProcessBlock(group, group, 12, 1.0f, nullptr, 0);
    EXPECT_EQ(amp.controlCounter, 1);
    EXPECT_EQ(updateBanks(false), (std::vector<int32_t>{0, 1, 2}));

    amp.Reset();  // the second generation holds banks 8 to 15
    amp.ProcessBlock(group, group, 1, 1.0f, nullptr, 0);
    EXPECT_EQ(amp.busState, &amp.stateBanks[10]);
}

TEST(BlockOutputPeaks, EachOutputChannelStoresItsBlockMaximumInTheLastEight)
{
    test::ParameterAmp amp({"_meterIn"}, false, true);  // meter 0, then the eight peaks
    amp.Initialise();
    amp.SetChannels(1, 2);
    Samples input = {0.25f, -0.75f, 0.5f}, left(3), right(3);
    float* in[1] = {input.data()};
    float* out[2] = {left.data(), right.data()};
    amp.ProcessBlock(in, out, 3, 1.0f, nullptr, 0);
    EXPECT_EQ(amp.GetMeter(1)->Read(), 1.5f);
    EXPECT_EQ(amp.GetMeter(2)->Read(), 1.5f);
    EXPECT_EQ(amp.GetMeter(3)->Read(), 0.0f);
    EXPECT_EQ(amp.GetMeter(0)->value, 0.0f);
    amp.ProcessBlock(in, out, 0, 1.0f, nullptr, 0);
    EXPECT_EQ(amp.GetMeter(1)->Read(), 0.0f);
}

}  // namespace
}  // namespace tarnlow
