#include <gtest/gtest.h>

#include <atomic>
#include <bit>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/TestAmps.h"

namespace tarnlow {
namespace {

using testing::ModelEvent;
using testing::RecordingAmp;
using testing::RunGroup;
using testing::RunMono;
using testing::WordAt;
using Samples = std::vector<float>;
using Steps = std::vector<std::string>;

// A model that passes its input through unchanged.
class PassAmp : public RecordingAmp {
public:
    explicit PassAmp(int32_t latency = 0) : RecordingAmp({}, latency) { factor = 1.0f; }
};

// The model's calls in order: "I" immediate update, "U" period update, a number for a
// Process call of that many samples. Clears the log.
Steps TakeTrace(RecordingAmp& amp)
{
    Steps trace;
    for (const ModelEvent& e : amp.events)
        trace.push_back(e.kind == ModelEvent::process ? std::to_string(e.count) : e.immediate ? "I" : "U");
    amp.events.clear();
    return trace;
}

#if defined(TARNLOW_FLOAT_CONTROL_SSE)
TEST(BlockFrame, FlushToZeroInsideTheModelOnlyAndARefusedLayoutTouchesNothing)
{
    RecordingAmp amp;
    amp.Initialise();
    // Denormals-are-zero on, flush-to-zero off, rounding toward zero: nothing a block may
    // keep. Set after Initialise, whose arithmetic would raise the inexact flag.
    constexpr FloatControlWord hostWord = 0x1F80 | 0x0040 | 0x6000;
    const FloatControlWord saved = ReadFloatControl();
    WriteFloatControl(hostWord);
    Samples a = {1.0f, 2.0f}, b = {3.0f, 4.0f}, c = {5.0f, 6.0f};
    for (const auto& [in, out] : {std::pair{2, 3}, {0, 1}, {1, 0}, {-1, -1}}) {
        amp.SetChannels(in, out);
        RunGroup(amp, {&a, &b, &c}, 2, 0.5f);
    }
    const FloatControlWord afterRefused = ReadFloatControl();
    const bool untouched = amp.events.empty() && a == Samples{1.0f, 2.0f} && c == Samples{5.0f, 6.0f} &&
                           amp.silenceCount.load() == 1000000000;
    amp.SetChannels(1, 1);
    RunMono(amp, a, 2);
    const FloatControlWord afterActive = ReadFloatControl();
    amp.SetBypass(true);
    RunMono(amp, a, 2);
    amp.SetBypass(false);
    RunMono(amp, a, 0);
    const FloatControlWord afterOthers = ReadFloatControl();
    WriteFloatControl(saved);
    EXPECT_TRUE(untouched);
    EXPECT_EQ(afterRefused, hostWord);
    EXPECT_EQ(amp.controlWordInProcess, hostWord | 0x8000);
    EXPECT_EQ(afterActive, hostWord);
    EXPECT_EQ(afterOthers, hostWord);

    // Under the usual word too, a denormal product inside the model comes out as zero.
    amp.factor = 1e-10f;
    Samples tiny = {1e-30f, 1.0f};
    RunMono(amp, tiny, 2);
    EXPECT_EQ(std::bit_cast<uint32_t>(tiny[0]) & 0x7FFFFFFFu, 0u);
    EXPECT_EQ(tiny[1], 1e-10f);
}
#endif

TEST(BlockControl, PeriodOfSixteenRunsOnAcrossHostBlocks)
{
    RecordingAmp amp;
    amp.Initialise();
    Samples buffer(40, 1.0f);
    const std::pair<int32_t, Steps> blocks[] = {
        {40, {"I", "16", "U", "16", "U", "8"}},  // the first block updates at once, before Process
        {10, {"8", "U", "2"}},
        {14, {"14", "U"}},  // the update follows the sample that completes the period
        {1, {"1"}},
    };
    for (const auto& [count, steps] : blocks) {
        RunMono(amp, buffer, count);
        EXPECT_EQ(TakeTrace(amp), steps) << count;
    }
    amp.Reset();  // its immediate update does not restart the period
    RunMono(amp, buffer, 16);
    EXPECT_EQ(TakeTrace(amp), (Steps{"I", "15", "U", "1"}));
    amp.Reset();  // a block of none takes the flip and updates, but runs no piece
    RunMono(amp, buffer, 0);
    EXPECT_EQ(TakeTrace(amp), Steps{"I"});
    EXPECT_FALSE(amp.bankFlipPending.load());
    EXPECT_EQ(amp.busState, &amp.stateBanks[0]);
    EXPECT_EQ(amp.silenceCount.load(), 1000000000);
    EXPECT_EQ(amp.controlCounter, 1);
}

// Leaves its buffers alone: whatever changes them is the frame's doing. Each piece notes
// where the data pointers aim and what its meter held when it began, then writes its own
// running number to the meter parameter.
class ObservingAmp : public RecordingAmp {
public:
    ObservingAmp() : RecordingAmp({"Level", "_meterOut"}) { parameters[1].StoreValue(-1.0f); }
    void Process(float**, float**, int32_t, bool, bool, float**, int32_t) override
    {
        seenState = stateData;
        seenConstants = constantsData;
        seenMeter.push_back(meters[0]->value);
        parameters[1].StoreValue(float(seenMeter.size()));
    }
    const void* seenState = nullptr;
    const void* seenConstants = nullptr;
    Samples seenMeter;
};

TEST(BlockControl, DataPointersAimAtTheActiveBankAndMetersAreCopiedAfterEveryPiece)
{
    ObservingAmp amp;
    const int32_t table[2] = {1, 2};
    amp.busConstants->Load32(table, 2, false, false);
    amp.busState->Load32(table, 2, false, false);
    amp.Initialise();
    const int marker = 0;
    amp.stateData = &marker;
    Samples buffer(40, 1.0f);
    RunMono(amp, buffer, 40);
    EXPECT_EQ(amp.seenState, amp.stateBanks[0].GetElement(0));
    EXPECT_EQ(amp.seenConstants, amp.busConstants->GetElement(0));
    EXPECT_EQ(amp.stateData, &marker);  // for the block only
    EXPECT_EQ(amp.constantsData, nullptr);
    EXPECT_EQ(amp.seenMeter, (Samples{-1.0f, 1.0f, 2.0f}));
    EXPECT_EQ(amp.GetMeter(0)->Read(), 3.0f);
    amp.parameters[1].StoreValue(9.0f);  // no piece, no copy
    RunMono(amp, buffer, 0);
    EXPECT_EQ(amp.GetMeter(0)->Read(), 3.0f);
}

TEST(BlockGain, UnityLeavesTheBitsAndOtherGainsMultiplyThroughThePassedOutputs)
{
    ObservingAmp amp;
    amp.Initialise();
    Samples buffer = {1e-40f, std::bit_cast<float>(0x7F800001u), -0.0f, 0.3f};
    const Samples original = buffer;
    RunMono(amp, buffer, 4, 1.0f);
    for (std::size_t i = 0; i < buffer.size(); ++i)
        EXPECT_EQ(std::bit_cast<uint32_t>(buffer[i]), std::bit_cast<uint32_t>(original[i])) << i;
    RunMono(amp, buffer, 4, 2.0f);
    EXPECT_EQ(buffer[3], 0.6f);
    EXPECT_EQ(buffer[0], 0.0f);  // the denormal product flushed
    RunMono(amp, buffer, 4, std::numeric_limits<float>::quiet_NaN());
    EXPECT_TRUE(std::isnan(buffer[3]));
    // The mean lands in the first output, the gain halves both, the fan-out copies it.
    amp.SetChannels(2, 2);
    Samples a = {1.0f, 2.0f}, b = {3.0f, 5.0f}, outA(2, 4.0f), outB(2, 8.0f);
    RunGroup(amp, {&a, &b}, 2, 0.5f, {&outA, &outB});
    EXPECT_EQ(outA, (Samples{1.0f, 1.75f}));
    EXPECT_EQ(outB, outA);
}

TEST(BlockSilence, StrictThresholdPerFrameUpToTheLimit)
{
    PassAmp amp;
    amp.Initialise();
    for (const auto& [sample, count] :
         {std::pair{1.0f, 0}, {1e-20f, 1}, {-1e-20f, 2}, {std::nextafter(1e-20f, 1.0f), 0}}) {
        Samples one = {sample};
        RunMono(amp, one, 1);
        EXPECT_EQ(amp.silenceCount.load(), count) << sample;
    }
    // A frame is loud if any channel is; the count stops at the limit (4410 at 44100 Hz).
    amp.SetChannels(2, 2);
    amp.SetBypass(true);  // keeps the channels apart
    const std::pair<int32_t, Samples> cases[] = {
        {4408, {0, 0, 0}}, {1000000000, {0, -0.5f, 0}}, {3, {1, 0, 1, 0, 0}}};
    const int32_t expected[] = {4410, 1, 2};
    for (int k = 0; k < 3; ++k) {
        Samples quiet(cases[k].second.size(), 1e-21f), other = cases[k].second;
        amp.silenceCount.store(cases[k].first);
        RunGroup(amp, {&quiet, &other}, int32_t(other.size()));
        EXPECT_EQ(amp.silenceCount.load(), expected[k]) << k;
    }
    // A silent block clears one sample per channel, at the channel's own index if the block has it.
    amp.Reset();  // silent again
    Samples left(4, 1e-21f), right(4, -1e-21f), shortLeft = {1e-21f, 7.0f}, shortRight = shortLeft;
    RunGroup(amp, {&left, &right}, 4);
    EXPECT_TRUE(amp.IsSilent());
    EXPECT_EQ(left, (Samples{0.0f, 1e-21f, 1e-21f, 1e-21f}));
    EXPECT_EQ(right, (Samples{-1e-21f, 0.0f, -1e-21f, -1e-21f}));
    RunGroup(amp, {&shortLeft, &shortRight}, 1);
    EXPECT_EQ(shortLeft[0], 0.0f);
    EXPECT_EQ(shortRight, (Samples{1e-21f, 7.0f}));
}

TEST(BlockSilence, SilenceNeedsTheLimitOfQuietFramesAndEachSilentBlockIsImmediate)
{
    PassAmp amp;
    amp.Initialise();
    Samples zeros(4410, 0.0f), loud = {1.0f};
    for (int block = 0; block < 3; ++block) RunMono(amp, zeros, 64);
    EXPECT_TRUE(amp.IsSilent());
    EXPECT_EQ(amp.UpdateBanks(true).size(), 3u);
    RunMono(amp, loud, 1);
    RunMono(amp, zeros, 4409);
    EXPECT_FALSE(amp.IsSilent());
    RunMono(amp, zeros, 1);
    EXPECT_TRUE(amp.IsSilent());
    RunMono(amp, zeros, 100);
    EXPECT_EQ(amp.silenceCount.load(), 4410);
}

TEST(BlockChannels, OneToManyFansOutAfterTheGainAndManyToOneTakesTheMean)
{
    RecordingAmp amp;
    amp.Initialise();
    amp.SetChannels(1, 2);
    Samples input = {1.0f, 2.0f, 3.0f}, left(3), right(3);
    RunGroup(amp, {&input}, 3, 0.5f, {&left, &right});
    EXPECT_EQ(amp.sampleCalls, 3);  // the model runs once
    EXPECT_EQ(left, input);
    EXPECT_EQ(right, left);

    PassAmp down;
    down.Initialise();
    down.SetChannels(3, 1);
    Samples x = {1.0f, 0.1f}, y = {2.0f, 0.2f}, z = {4.0f, 0.7f};
    RunGroup(down, {&x, &y, &z}, 2);
    const float third = float(1.0 / 3.0);  // in single precision, in channel order
    EXPECT_EQ(x, (Samples{7.0f * third, ((0.1f + 0.2f) + 0.7f) * third}));
    EXPECT_EQ(y[0], 2.0f);
}

TEST(BlockBypass, DrySignalDelayedByTheLatencyWithLinesKeptWarm)
{
    RecordingAmp dry;
    dry.Initialise();
    dry.SetBypass(true);
    Samples a = {1.0f, 2.0f}, b = {5.0f, 6.0f}, out(2), x(2), y(2);
    dry.SetChannels(2, 1);
    RunGroup(dry, {&a, &b}, 2, 1.0f, {&out});  // no mixing
    dry.SetChannels(1, 3);
    RunGroup(dry, {&a}, 2, 1.0f, {&a, &x, &y});
    EXPECT_EQ(out, a);
    EXPECT_EQ(x, a);
    EXPECT_EQ(y, a);
    EXPECT_TRUE(dry.events.empty());

    PassAmp amp(4);
    amp.Initialise();
    Samples first = {1, 2, 3, 4, 5}, shortBlock = {6, 7}, bypassed = {8, 9, 10, 11, 12},
            afterReset = {13, 14, 15, 16, 17};
    RunMono(amp, first, 5);
    RunMono(amp, shortBlock, 2);  // shorter than the latency: the latest samples stay in order
    amp.SetBypass(true);
    RunMono(amp, bypassed, 5);
    EXPECT_EQ(bypassed, (Samples{4, 5, 6, 7, 8}));
    amp.Reset();  // flushes the lines
    RunMono(amp, afterReset, 5);
    EXPECT_EQ(afterReset, (Samples{0, 0, 0, 0, 13}));
}

TEST(BlockMultiMono, ChannelsShareThePhaseAndUseTheirOwnStateAndStatusBanks)
{
    RecordingAmp amp({}, 0, true);
    const int32_t status[1] = {0};
    amp.busStatus->Load32(status, 1, false, false);
    amp.Initialise();
    amp.SetChannels(3, 3);
    amp.SetSuspended(true);  // written to every status bank, not to the embedded bus
    for (const CQuorvexBus& bank : amp.statusBanks) EXPECT_EQ(WordAt(bank, 0), 1);
    EXPECT_EQ(WordAt(*amp.busStatus, 0), 0);
    Samples a(12, 1.0f), b(12, 2.0f), c(12, 3.0f);
    RunGroup(amp, {&a, &b, &c}, 5);
    EXPECT_EQ(amp.sampleCalls, 15);
    EXPECT_EQ(c[4], 6.0f);
    EXPECT_EQ(amp.UpdateBanks(true), (std::vector<int32_t>{0, 1, 2}));
    amp.UpdateBank(true, 0, 4);  // aims the status at the bank for the call only
    EXPECT_EQ(amp.events.back().status, &amp.statusBanks[4]);
    EXPECT_EQ(amp.busStatus, &amp.embeddedBuses[1]);
    EXPECT_EQ(amp.busStatusAlias, amp.busStatus);
    amp.events.clear();  // across a period boundary each channel updates with its bank
    RunGroup(amp, {&a, &b, &c}, 12);
    EXPECT_EQ(amp.controlCounter, 1);
    EXPECT_EQ(amp.UpdateBanks(false), (std::vector<int32_t>{0, 1, 2}));
    amp.Reset();  // the second generation holds banks 8 to 15
    RunGroup(amp, {&a, &b, &c}, 1);
    EXPECT_EQ(amp.busState, &amp.stateBanks[10]);
}

TEST(BlockOutputPeaks, EachOutputChannelStoresItsBlockMaximum)
{
    RecordingAmp amp({"_meterIn"}, 0, false, true);  // meter 0, then the eight peaks
    amp.Initialise();
    amp.SetChannels(1, 2);
    Samples input = {0.25f, -0.75f, 0.5f}, left(3), right(3);
    RunGroup(amp, {&input}, 3, 1.0f, {&left, &right});
    EXPECT_EQ(amp.GetMeter(1)->Read(), 1.5f);
    EXPECT_EQ(amp.GetMeter(2)->Read(), 1.5f);
    EXPECT_EQ(amp.GetMeter(3)->Read(), 0.0f);
    EXPECT_EQ(amp.GetMeter(0)->value, 0.0f);
}

TEST(BlockReset, TwoResetsGiveOneFlipAndBypassDefersIt)
{
    RecordingAmp amp;  // its one state word counts the samples of its generation
    const int32_t initial = 0;
    amp.busState->Load32(&initial, 1, false, false);
    amp.silenceCount.store(3);
    amp.Reset();  // before Initialise it only re-arms
    EXPECT_FALSE(amp.bankFlipPending.load());
    EXPECT_EQ(amp.silenceCount.load(), 1000000000);
    amp.Initialise();
    Samples buffer(5, 1.0f);
    RunMono(amp, buffer, 5);
    amp.Reset();
    EXPECT_TRUE(amp.bankFlipPending.load() && amp.delayFlushPending.load());
    EXPECT_EQ(amp.silenceCount.load(), 1000000000);
    amp.stateBanks[1].SetElement(0, 77);  // the second reset must not copy over this
    amp.Reset();
    RunMono(amp, buffer, 5);
    RunMono(amp, buffer, 5);
    EXPECT_EQ(WordAt(amp.stateBanks[1], 0), 87);
    EXPECT_EQ(WordAt(amp.stateBanks[0], 0), 5);

    amp.SetBypass(true);  // a reset while bypassed flips on the first active block
    amp.Reset();
    for (int block = 0; block < 5; ++block) RunMono(amp, buffer, 4);
    EXPECT_TRUE(amp.bankFlipPending.load());
    amp.SetBypass(false);
    amp.events.clear();
    RunMono(amp, buffer, 3);
    EXPECT_EQ(amp.activeBank.load(), 0);
    EXPECT_EQ(WordAt(amp.stateBanks[0], 0), 3);  // from the template, not from the 5 of before
    EXPECT_TRUE(!amp.events.empty() && amp.events[0].immediate);
}

// A state of many words that every Process call raises together. A bank written by the
// control thread while in use would show unequal words, and a flip must land on a bank
// that is exactly the template.
class GenerationCheckingAmp : public CQuorvexAmp {
public:
    static constexpr int32_t words = 64;
    GenerationCheckingAmp()
    {
        sampleRate = 48000;
        const std::vector<int32_t> zeros(words, 0);
        busState->Load32(zeros.data(), words, false, false);
    }
    void Process(float**, float**, int32_t, bool, bool, float**, int32_t) override
    {
        auto* state = static_cast<int32_t*>(busState->GetElement(0));
        if (busState != lastBank) {
            ++flips;
            for (int32_t i = 0; i < words; ++i) faults += state[i] != 0 ? 1 : 0;
            lastBank = busState;
        }
        for (int32_t i = 0; i < words; ++i) faults += state[i] != state[0] ? 1 : 0;
        for (int32_t i = 0; i < words; ++i) ++state[i];
    }
    void Update(bool, int32_t, int32_t) override {}
    const CQuorvexBus* lastBank = nullptr;
    int64_t flips = 0;
    int64_t faults = 0;
};

TEST(BlockReset, ResetFromAnotherThreadWhileBlocksRun)
{
    GenerationCheckingAmp amp;
    amp.Initialise();
    // Release/acquire on both words: they only pace and end the loops; the hand-over of
    // the banks is what is under test.
    std::atomic<bool> running{true};
    std::atomic<int64_t> resets{0};
    std::thread control([&] {
        while (running.load(std::memory_order_acquire)) {
            amp.Reset();
            resets.fetch_add(1, std::memory_order_release);
            std::this_thread::yield();
        }
    });
    // Blocks run until the control thread has reset often enough beside them; the deadline
    // only guards against a stalled thread.
    Samples buffer(37, 1.0f);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    for (int64_t blocks = 0; (blocks < 20000 || resets.load(std::memory_order_acquire) < 2000) &&
                             std::chrono::steady_clock::now() < deadline;
         ++blocks)
        RunMono(amp, buffer, 37);
    running.store(false, std::memory_order_release);
    control.join();
    RunMono(amp, buffer, 37);  // takes a flip that may still wait
    EXPECT_EQ(amp.faults, 0);
    EXPECT_GT(amp.flips, 1);
    EXPECT_LE(amp.flips, resets.load() + 1);
}

TEST(BlockStatus, StatusWordFollowsTheFlagSetLastAndOnlyMinusOneMeansNoTempo)
{
    RecordingAmp amp;
    const int32_t table[2] = {0, 0};
    amp.busStatus->Load32(table, 2, false, false);
    amp.Initialise();
    amp.SetBypass(true);
    EXPECT_EQ(WordAt(*amp.busStatus, 0), 3);
    amp.SetSuspended(true);
    EXPECT_EQ(WordAt(*amp.busStatus, 0), 1);
    amp.SetSuspended(false);
    amp.SetDefaultStatus(5);
    EXPECT_EQ(WordAt(*amp.busStatus, 0), 3);
    amp.SetBypass(false);
    EXPECT_EQ(WordAt(*amp.busStatus, 0), 5);

    amp.SetBpm(-1.0f);
    EXPECT_EQ(amp.hostBpm, 120.0f);
    EXPECT_FALSE(amp.hostBpmValid);
    amp.SetBpm(std::nextafter(-1.0f, 0.0f));
    EXPECT_TRUE(amp.hostBpmValid);
    amp.SetBpm(std::numeric_limits<float>::quiet_NaN());
    EXPECT_TRUE(std::isnan(amp.hostBpm) && amp.hostBpmValid);
}

}  // namespace
}  // namespace tarnlow
