#include <gtest/gtest.h>

#include <atomic>
#include <bit>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "EngineTestAmps.h"

namespace tarnlow {
namespace {

using test::ModelEvent;
using test::ParameterAmp;
using test::RecordingAmp;
using test::RunMono;
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

TEST(ControlBlocks, PeriodRunsOnAcrossHostBlocks)
{
    RecordingAmp amp;
    amp.Initialise();
    std::vector<float> buffer(40, 1.0f);
    RunMono(amp, buffer, 40);
    EXPECT_EQ(TakeTrace(amp), (Steps{"I", "16", "U", "16", "U", "8"}));
    EXPECT_EQ(amp.controlCounter, 8);
    RunMono(amp, buffer, 10);
    EXPECT_EQ(TakeTrace(amp), (Steps{"8", "U", "2"}));
    EXPECT_EQ(amp.controlCounter, 2);
    RunMono(amp, buffer, 14);  // the update follows the sample that completes the period
    EXPECT_EQ(TakeTrace(amp), (Steps{"14", "U"}));
    RunMono(amp, buffer, 16);
    EXPECT_EQ(TakeTrace(amp), (Steps{"16", "U"}));
    EXPECT_EQ(amp.controlCounter, 0);

    // A reset's immediate update does not restart the period.
    RunMono(amp, buffer, 6);
    amp.Reset();
    amp.events.clear();
    RunMono(amp, buffer, 16);
    EXPECT_EQ(TakeTrace(amp), (Steps{"I", "10", "U", "6"}));
}

TEST(ControlBlocks, SixteenBlocksOfOneGiveOneUpdateAfterTheLast)
{
    RecordingAmp amp;
    amp.Initialise();
    std::vector<float> buffer(1, 1.0f);
    for (int block = 0; block < 16; ++block) RunMono(amp, buffer, 1);
    Steps expected = {"I"};
    expected.insert(expected.end(), 16, "1");
    expected.push_back("U");
    EXPECT_EQ(TakeTrace(amp), expected);
    EXPECT_EQ(amp.controlCounter, 0);
}

// Publishes through a `_meter` parameter: each chunk reads what the meter held when it
// began, then writes its own running number.
class MeteringAmp : public ParameterAmp {
public:
    MeteringAmp() : ParameterAmp({"Level", "_meterOut"}) { parameters[1].StoreValue(-1.0f); }

    void Process(float** inputs, float** outputs, int32_t count, bool inputIsSingle, bool outputIsSingle,
                 float** sideInputs, int32_t sideCount) override
    {
        seenAtChunk.push_back(meters[0]->value);
        parameters[1].StoreValue(float(seenAtChunk.size()));
        RecordingAmp::Process(inputs, outputs, count, inputIsSingle, outputIsSingle, sideInputs, sideCount);
    }

    std::vector<float> seenAtChunk;
};

TEST(ControlBlocks, MeterParametersAreCopiedAfterEveryChunk)
{
    MeteringAmp amp;
    amp.Initialise();
    ASSERT_EQ(amp.meterCount, 1);
    std::vector<float> buffer(40, 1.0f);
    RunMono(amp, buffer, 40);
    EXPECT_EQ(amp.seenAtChunk, (std::vector<float>{-1.0f, 1.0f, 2.0f}));
    EXPECT_EQ(amp.GetMeter(0)->Read(), 3.0f);

    amp.parameters[1].StoreValue(9.0f);  // no chunk, no copy
    RunMono(amp, buffer, 0);
    EXPECT_EQ(amp.GetMeter(0)->Read(), 3.0f);
}

// Leaves its buffers as they are: whatever changes them is the frame's doing.
class UntouchingAmp : public RecordingAmp {
public:
    void Process(float**, float**, int32_t, bool, bool, float**, int32_t) override {}
};

TEST(ControlGain, UnityLeavesBitsAloneAndOtherGainsMultiply)
{
    UntouchingAmp amp;
    amp.Initialise();
    const float signallingNaN = std::bit_cast<float>(0x7F800001u);
    std::vector<float> buffer = {1e-40f, signallingNaN, -0.0f, 0.3f};
    const std::vector<float> original = buffer;
    RunMono(amp, buffer, 4, 1.0f);
    for (std::size_t i = 0; i < buffer.size(); ++i)
        EXPECT_EQ(std::bit_cast<uint32_t>(buffer[i]), std::bit_cast<uint32_t>(original[i])) << i;

    RunMono(amp, buffer, 4, 2.0f);
    EXPECT_EQ(buffer[3], 0.6f);
    EXPECT_EQ(buffer[0], 0.0f);  // the denormal product flushed

    buffer = {1.0f, -2.0f, 0.5f};
    RunMono(amp, buffer, 3, std::numeric_limits<float>::quiet_NaN());
    for (const float sample : buffer) EXPECT_TRUE(std::isnan(sample));

    // Through the passed output array: the mean lands in the first output, the gain halves
    // both, and the fan-out copies the first over the second.
    amp.SetChannels(2, 2);
    std::vector<float> a = {1.0f, 2.0f}, b = {3.0f, 5.0f}, outA(2, 4.0f), outB(2, 8.0f);
    float* in[2] = {a.data(), b.data()};
    float* out[2] = {outA.data(), outB.data()};
    amp.ProcessBlock(in, out, 2, 0.5f, nullptr, 0);
    EXPECT_EQ(outA, (std::vector<float>{1.0f, 1.75f}));
    EXPECT_EQ(outB, outA);
}

// --- Reset and the state banks ----------------------------------------------------------

// Its state is one word that counts the samples processed in that generation.
class CountingAmp : public RecordingAmp {
public:
    CountingAmp()
    {
        const int32_t initial = 0;
        busState->Load32(&initial, 1, false, false);
    }
    void Process(float** inputs, float** outputs, int32_t count, bool inputIsSingle, bool outputIsSingle,
                 float** sideInputs, int32_t sideCount) override
    {
        *static_cast<int32_t*>(busState->GetElement(0)) += count;
        RecordingAmp::Process(inputs, outputs, count, inputIsSingle, outputIsSingle, sideInputs, sideCount);
    }
    int32_t Word(int bank) const { return *static_cast<int32_t*>(stateBanks[std::size_t(bank)].GetElement(0)); }
};

TEST(ControlReset, TwoResetsBeforeABlockGiveOneFlip)
{
    CountingAmp amp;
    amp.Initialise();
    std::vector<float> buffer(5, 1.0f);
    RunMono(amp, buffer, 5);
    amp.Reset();
    EXPECT_TRUE(amp.bankFlipPending.load());
    EXPECT_EQ(amp.Word(1), 0);
    amp.stateBanks[1].SetElement(0, 77);  // the second reset must not copy over this
    amp.Reset();
    EXPECT_EQ(amp.Word(1), 77);
    EXPECT_EQ(amp.silenceCount.load(), 1000000000);
    EXPECT_TRUE(amp.delayFlushPending.load());

    RunMono(amp, buffer, 5);
    RunMono(amp, buffer, 5);
    EXPECT_EQ(amp.activeBank.load(), 1);
    EXPECT_EQ(amp.Word(1), 87);
    EXPECT_EQ(amp.Word(0), 5);
}

TEST(ControlReset, ResetDuringBypassFlipsOnTheFirstActiveBlockFromTheTemplate)
{
    CountingAmp amp;
    amp.Initialise();
    std::vector<float> buffer(4, 1.0f);
    RunMono(amp, buffer, 4);
    RunMono(amp, buffer, 4);
    amp.Reset();
    RunMono(amp, buffer, 4);
    ASSERT_EQ(amp.Word(1), 4);  // bank 0 held 8; this generation starts at 0

    amp.SetBypass(true);
    amp.Reset();
    for (int block = 0; block < 5; ++block) RunMono(amp, buffer, 4);
    EXPECT_TRUE(amp.bankFlipPending.load());
    EXPECT_EQ(amp.activeBank.load(), 1);

    amp.SetBypass(false);
    amp.events.clear();
    RunMono(amp, buffer, 3);
    EXPECT_EQ(amp.activeBank.load(), 0);
    EXPECT_EQ(amp.Word(0), 3);
    ASSERT_FALSE(amp.events.empty());
    EXPECT_TRUE(amp.events[0].immediate);
}

TEST(ControlReset, BeforeInitialiseOnlyRearms)
{
    CountingAmp amp;
    amp.silenceCount.store(3);
    amp.Reset();
    EXPECT_FALSE(amp.bankFlipPending.load());
    EXPECT_EQ(amp.silenceCount.load(), 1000000000);
    EXPECT_TRUE(amp.delayFlushPending.load());
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

    void Process(float**, float** outputs, int32_t count, bool, bool, float**, int32_t) override
    {
        auto* state = static_cast<int32_t*>(busState->GetElement(0));
        if (busState != lastBank) {
            ++flips;
            for (int32_t i = 0; i < words; ++i) faults += state[i] != 0 ? 1 : 0;
            lastBank = busState;
        }
        for (int32_t i = 1; i < words; ++i) faults += state[i] != state[0] ? 1 : 0;
        for (int32_t i = 0; i < words; ++i) ++state[i];
        for (int32_t i = 0; i < count; ++i) outputs[0][i] = 1.0f;
    }

    void Update(bool, int32_t, int32_t) override {}

    const CQuorvexBus* lastBank = nullptr;
    int64_t flips = 0;
    int64_t faults = 0;
};

TEST(ControlReset, ResetFromAnotherThreadWhileBlocksRun)
{
    GenerationCheckingAmp amp;
    amp.Initialise();
    std::atomic<bool> running{true};
    std::atomic<int64_t> resets{0};
    std::thread control([&] {
        while (running.load(std::memory_order_acquire)) {
            amp.Reset();
            resets.fetch_add(1, std::memory_order_release);
            std::this_thread::yield();
        }
    });
    // Blocks run until the control thread has reset often enough beside them, however the
    // threads are scheduled; the deadline only guards against a stalled thread.
    std::vector<float> buffer(37, 0.0f);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    int64_t blocks = 0;
    while ((blocks < 20000 || resets.load(std::memory_order_acquire) < 2000) &&
           std::chrono::steady_clock::now() < deadline) {
        RunMono(amp, buffer, 37);
        ++blocks;
    }
    running.store(false, std::memory_order_release);
    control.join();
    RunMono(amp, buffer, 37);  // takes a flip that may still wait
    EXPECT_EQ(amp.faults, 0);
    EXPECT_GT(amp.flips, 1);
    EXPECT_LE(amp.flips, resets.load() + 1);
}

// --- Status word, tempo, bank updates ---------------------------------------------------

TEST(ControlStatus, WordFollowsTheFlagSetLast)
{
    RecordingAmp amp;
    const int32_t table[2] = {0, 0};
    amp.busStatus->Load32(table, 2, false, false);
    amp.Initialise();
    const auto word = [&amp] { return *static_cast<int32_t*>(amp.busStatus->GetElement(0)); };
    amp.SetBypass(true);
    EXPECT_EQ(word(), 3);
    amp.SetSuspended(true);
    EXPECT_EQ(word(), 1);
    amp.SetSuspended(false);
    EXPECT_EQ(word(), 3);
    amp.SetDefaultStatus(5);
    EXPECT_EQ(word(), 3);
    amp.SetBypass(false);
    EXPECT_EQ(word(), 5);
    EXPECT_FALSE(amp.IsBypassed());

    RecordingAmp bare;  // no status words: only the flags change
    bare.SetBypass(true);
    bare.SetSuspended(true);
    EXPECT_TRUE(bare.IsBypassed());
    EXPECT_TRUE(bare.IsSuspended());
    EXPECT_EQ(bare.busStatus->ints.data, nullptr);
}

TEST(ControlTempo, OnlyMinusOneMeansNoTempo)
{
    RecordingAmp amp;
    amp.SetBpm(-1.0f);
    EXPECT_EQ(amp.hostBpm, 120.0f);
    EXPECT_FALSE(amp.hostBpmValid);
    amp.SetBpm(120.0f);
    EXPECT_TRUE(amp.hostBpmValid);
    amp.SetBpm(std::nextafter(-1.0f, 0.0f));
    EXPECT_EQ(amp.hostBpm, std::nextafter(-1.0f, 0.0f));
    amp.SetBpm(std::numeric_limits<float>::quiet_NaN());
    EXPECT_TRUE(std::isnan(amp.hostBpm));
    EXPECT_TRUE(amp.hostBpmValid);
}

// Notes the note data and the status bus that its control update sees.
class NoteAmp : public RecordingAmp {
public:
    using RecordingAmp::RecordingAmp;
    void Update(bool immediate, int32_t sideCount, int32_t bank, float pitch, float velocity, bool gate) override
    {
        seenPitch = pitch;
        seenGate = gate;
        seenStatus = busStatus;
        RecordingAmp::Update(immediate, sideCount, bank, pitch, velocity, gate);
    }
    float seenPitch = 0.0f;
    bool seenGate = false;
    const CQuorvexBus* seenStatus = nullptr;
};

TEST(ControlUpdate, UpdateBankPassesNoteAndBankAndAimsTheMultiMonoStatus)
{
    NoteAmp amp;
    amp.Initialise();
    amp.NoteOn(69, 127);
    amp.UpdateBank(false, 0, 2);
    EXPECT_EQ(amp.seenPitch, 440.0f / 44100.0f);
    EXPECT_TRUE(amp.seenGate);
    ASSERT_EQ(amp.events.size(), 1u);
    EXPECT_EQ(amp.events[0].bank, 2);
    EXPECT_EQ(amp.seenStatus, amp.busStatus);

    NoteAmp multi(44100, 0, true, false);
    const int32_t table[1] = {0};
    multi.busStatus->Load32(table, 1, false, false);
    multi.Initialise();
    multi.SetSuspended(true);
    for (const CQuorvexBus& bank : multi.statusBanks) EXPECT_EQ(*static_cast<int32_t*>(bank.GetElement(0)), 1);
    EXPECT_EQ(*static_cast<int32_t*>(multi.busStatus->GetElement(0)), 0);
    CQuorvexBus* const embedded = multi.busStatus;
    multi.UpdateBank(true, 0, 4);
    EXPECT_EQ(multi.seenStatus, &multi.statusBanks[4]);
    EXPECT_EQ(multi.busStatus, embedded);
    EXPECT_EQ(multi.busStatusAlias, embedded);
}

}  // namespace
}  // namespace tarnlow
