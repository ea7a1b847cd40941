#include <gtest/gtest.h>

#include <algorithm>
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
    RunMono(amp, a, 0);
    const FloatControlWord afterEmpty = ReadFloatControl();
    WriteFloatControl(saved);
    EXPECT_TRUE(untouched);
    EXPECT_EQ(afterRefused, hostWord);
    EXPECT_EQ(amp.controlWordInProcess, hostWord | 0x8000);
    EXPECT_EQ(afterActive, hostWord);
    EXPECT_EQ(afterEmpty, hostWord);

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

// Leaves its buffers alone: whatever changes them is the frame's doing.
class UntouchingAmp : public RecordingAmp {
public:
    void Process(float**, float**, int32_t, bool, bool, float**, int32_t) override {}
};

TEST(BlockGain, UnityLeavesTheBitsAndOtherGainsMultiplyAndFlush)
{
    UntouchingAmp amp;
    amp.Initialise();
    Samples buffer = {1e-40f, std::bit_cast<float>(0x7F800001u), -0.0f, 0.3f};
    const Samples original = buffer;
    RunMono(amp, buffer, 4, 1.0f);
    for (std::size_t i = 0; i < buffer.size(); ++i)
        EXPECT_EQ(std::bit_cast<uint32_t>(buffer[i]), std::bit_cast<uint32_t>(original[i])) << i;
    RunMono(amp, buffer, 4, 2.0f);
    EXPECT_EQ(buffer[3], 0.6f);
    EXPECT_EQ(buffer[0], 0.0f);  // the denormal product flushed
}

TEST(BlockSilence, StrictThresholdUpToTheLimitAndEachSilentBlockIsImmediate)
{
    RecordingAmp amp;  // passes its input through unchanged
    amp.factor = 1.0f;
    amp.Initialise();
    for (const auto& [sample, count] :
         {std::pair{1.0f, 0}, {1e-20f, 1}, {-1e-20f, 2}, {std::nextafter(1e-20f, 1.0f), 0}}) {
        Samples one = {sample};
        RunMono(amp, one, 1);
        EXPECT_EQ(amp.silenceCount.load(), count) << sample;
    }
    Samples zeros(4410, 0.0f), loud = {1.0f}, tiny(4, 1e-21f);
    RunMono(amp, zeros, 4409);
    EXPECT_FALSE(amp.IsSilent());
    RunMono(amp, zeros, 1);  // 0.1 s at 44100 Hz
    EXPECT_TRUE(amp.IsSilent());
    RunMono(amp, zeros, 100);
    EXPECT_EQ(amp.silenceCount.load(), 4410);
    amp.events.clear();
    for (int block = 0; block < 3; ++block) RunMono(amp, zeros, 64);
    const Steps trace = TakeTrace(amp);
    EXPECT_EQ(std::count(trace.begin(), trace.end(), "I"), 3);
    RunMono(amp, loud, 1);
    EXPECT_FALSE(amp.IsSilent());
    amp.Reset();  // silent again; a silent block clears its first sample
    RunMono(amp, tiny, 4);
    EXPECT_EQ(tiny, (Samples{0.0f, 1e-21f, 1e-21f, 1e-21f}));
}

TEST(BlockReset, TwoResetsGiveOneFlipOntoTheTemplate)
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

    amp.events.clear();  // the flip lands on a bank fresh from the template
    amp.Reset();
    RunMono(amp, buffer, 3);
    EXPECT_EQ(amp.activeBank.load(), 0);
    EXPECT_EQ(WordAt(amp.stateBanks[0], 0), 3);
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
        const bool flip = busState != lastBank;
        flips += flip ? 1 : 0;
        lastBank = busState;
        for (int32_t i = 0; i < words; ++i) faults += (state[i] != state[0] || (flip && state[i] != 0)) ? 1 : 0;
        for (int32_t i = 0; i < words; ++i) ++state[i];
    }
    void Update(bool, int32_t, int32_t) override {}
    const CQuorvexBus* lastBank = nullptr;
    int64_t flips = 0, faults = 0;
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
        for (; running.load(std::memory_order_acquire); std::this_thread::yield()) {
            amp.Reset();
            resets.fetch_add(1, std::memory_order_release);
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

}  // namespace
}  // namespace tarnlow
