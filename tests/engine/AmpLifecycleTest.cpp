#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "EngineTestAmps.h"

namespace tarnlow {
namespace {

using test::ParameterAmp;
using test::RecordingAmp;

int32_t WordZero(const CQuorvexBus& bus)
{
    return *static_cast<int32_t*>(bus.GetElement(0));
}

TEST(AmpConstruction, EmbeddedBusesTagsAndAliases)
{
    RecordingAmp amp;
    const int32_t tags[5] = {1, 0, 0, 3, 4};
    for (int k = 0; k < 5; ++k) {
        EXPECT_EQ(amp.embeddedBuses[k].tag, tags[k]) << "kind " << k;
        EXPECT_EQ(amp.GetBus(k), &amp.embeddedBuses[k]);
        EXPECT_EQ(amp.GetBus(k, 5), &amp.embeddedBuses[k]);  // bank ignored
    }
    EXPECT_EQ(amp.busAux, &amp.embeddedBuses[0]);
    EXPECT_EQ(amp.busState, &amp.embeddedBuses[4]);
    EXPECT_EQ(amp.busAuxAlias, amp.busAux);
    EXPECT_EQ(amp.busStatusAlias, amp.busStatus);
    EXPECT_EQ(amp.busExtraAlias, amp.busExtra);
    EXPECT_EQ(amp.GetBus(5), nullptr);
    EXPECT_EQ(amp.GetBus(-1, 0), nullptr);
    EXPECT_EQ(amp.GetBusCount(7), 0);
    EXPECT_EQ(amp.silenceCount.load(), 1000000000);
}

TEST(AmpChains, BaseProcessReachesProcessSampleOnOutputZero)
{
    RecordingAmp amp;
    std::vector<float> source = {0.5f, -0.25f};
    std::vector<float> target = {9.0f, 9.0f, 9.0f};
    float* in[1] = {source.data()};
    float* out[1] = {target.data()};
    amp.Process(in, out, 2, false, false, nullptr, 0);
    EXPECT_EQ(target, (std::vector<float>{1.0f, -0.5f, 9.0f}));
    EXPECT_EQ(source, (std::vector<float>{0.5f, -0.25f}));
    amp.Process(in, in, 2, false, false, nullptr, 0);
    EXPECT_EQ(source, (std::vector<float>{1.0f, -0.5f}));
    EXPECT_EQ(amp.sampleCalls, 4);

    amp.ProcessBuffer(source.data(), 0);
    amp.ProcessBuffer(source.data(), -4);
    EXPECT_EQ(amp.sampleCalls, 4);
}

// Overrides nothing of the audio chain, and the top of the control chain only.
class BareModel : public CQuorvexAmp {
public:
    void Update() override { ++updates; }
    int updates = 0;
};

TEST(AmpChains, BaseSampleIsSilenceAndEveryUpdateReachesTheOverride)
{
    BareModel amp;
    std::vector<float> buffer = {1.0f, 2.0f};
    float* group[1] = {buffer.data()};
    amp.Process(group, group, 2, false, false, nullptr, 0);
    EXPECT_EQ(buffer, (std::vector<float>{0.0f, 0.0f}));

    CQuorvexAmp& base = amp;
    base.Update(true);
    base.Update(true, 0);
    base.Update(true, 0, 0);
    base.Update(true, 0, 0, 0.1f, 0.5f, true);
    EXPECT_EQ(amp.updates, 4);
    EXPECT_EQ(base.GetLatency(), 0);
    EXPECT_EQ(base.GetInputCount(), 1);
    EXPECT_EQ(base.GetOutputCount(), 1);
}

TEST(AmpInitialise, SilenceLimitFollowsTheNominalRateInSinglePrecision)
{
    const int32_t rates[6] = {44100, 48000, 88200, 96000, 176400, 192000};
    const int32_t limits[6] = {4410, 4800, 8820, 9600, 17640, 19200};
    for (int i = 0; i < 6; ++i) {
        RecordingAmp amp(rates[i]);
        amp.Initialise();
        EXPECT_EQ(amp.silenceLimit, limits[i]) << rates[i];
    }
    // Rate and product in single precision both round up here, to 100000016 and
    // 10000002, where double arithmetic would give 10000001.
    RecordingAmp odd(100000013);
    odd.Initialise();
    EXPECT_EQ(odd.silenceLimit, 10000002);
}

TEST(AmpInitialise, BanksTemplatePreloadsAndStatus)
{
    RecordingAmp amp;
    const std::vector<int32_t> constants = {10, 11, 12, 13};
    const std::vector<int32_t> state = {20, 21};
    const int32_t status[2] = {0, 0};
    amp.constantsData = constants.data();
    amp.constantsLength = 4;
    amp.stateData = state.data();
    amp.stateLength = 2;
    amp.busStatus->Load32(status, 2, false, false);
    amp.SetDefaultStatus(6);
    amp.silenceCount.store(12);
    amp.Initialise();

    EXPECT_EQ(amp.GetBusCount(3), 4);
    EXPECT_EQ(*static_cast<int32_t*>(amp.busConstants->GetElement(3)), 13);
    ASSERT_EQ(amp.stateBanks.size(), 2u);
    for (const CQuorvexBus& bank : amp.stateBanks) {
        EXPECT_EQ(bank.GetCount(), 2);
        EXPECT_EQ(*static_cast<int32_t*>(bank.GetElement(1)), 21);
        EXPECT_NE(bank.ints.data, amp.embeddedBuses[4].ints.data);
    }
    EXPECT_EQ(amp.stateTemplate.GetCount(), 2);
    EXPECT_EQ(amp.stateTemplate.tag, 4);
    EXPECT_EQ(WordZero(*amp.busStatus), 6);
    EXPECT_EQ(amp.busState, &amp.embeddedBuses[4]);  // aimed at a bank by the first block
    EXPECT_EQ(amp.silenceCount.load(), 12);
    EXPECT_TRUE(amp.statusBanks.empty());
    EXPECT_EQ(amp.meterCount, 0);
    EXPECT_TRUE(amp.delayLines[0].empty());
}

TEST(AmpInitialise, LatencyFillsEveryDelayLineWithZeros)
{
    RecordingAmp amp(44100, 100);
    amp.delayFlushPending.store(true);
    amp.Initialise();
    for (int c = 0; c < maxChannels; ++c) {
        ASSERT_EQ(amp.delayLines[c].size(), 100u);
        EXPECT_EQ(amp.delayLines[c][99], 0.0f);
        EXPECT_EQ(amp.delayPositions[c], 0);
    }
    EXPECT_FALSE(amp.delayFlushPending.load());
}

TEST(AmpMeters, MeterParametersBecomeMetersAndLookupIsBounded)
{
    ParameterAmp amp({"Gain", "_meterLevel", "_meter", "_mete"});
    amp.parameters[1].meterKind = 1;
    amp.parameters[1].StoreValue(0.4f);
    amp.Initialise();
    ASSERT_EQ(amp.meterCount, 2);
    EXPECT_EQ(amp.GetMeter(0)->name, "Level");
    EXPECT_EQ(amp.GetMeter(0)->kind, 1);
    EXPECT_EQ(amp.GetMeter(0)->value, 0.4f);
    EXPECT_FALSE(amp.GetMeter(0)->peakMode);
    EXPECT_EQ(amp.GetMeter(1)->name, "");
    EXPECT_EQ(amp.GetMeter(-1), nullptr);
    EXPECT_EQ(amp.GetMeter(2), nullptr);
    amp.meterCount = 3;  // a count that disagrees with the vector meets the checked access
    EXPECT_THROW(amp.GetMeter(2), std::out_of_range);
    amp.meterCount = 2;
}

TEST(AmpMeters, MultiMonoFrameHasSixteenBanksAndEightMetersPerParameter)
{
    ParameterAmp amp({"_meterIn"}, true);
    const int32_t status[1] = {0};
    amp.busStatus->Load32(status, 1, false, false);
    amp.SetDefaultStatus(2);
    amp.Initialise();
    EXPECT_EQ(amp.stateBanks.size(), 16u);
    ASSERT_EQ(amp.statusBanks.size(), 8u);
    for (const CQuorvexBus& bank : amp.statusBanks) EXPECT_EQ(WordZero(bank), 2);
    EXPECT_EQ(WordZero(*amp.busStatus), 0);
    ASSERT_EQ(amp.meterCount, 8);
    EXPECT_EQ(amp.GetMeter(0)->name, "In 1");
    EXPECT_EQ(amp.GetMeter(7)->name, "In 8");
    EXPECT_EQ(amp.GetBus(1, 3), &amp.statusBanks[3]);
    EXPECT_EQ(amp.GetBus(1), amp.busStatus);
    amp.SetChannels(3, 3);
    EXPECT_TRUE(amp.GetMeter(2)->enabled);
    EXPECT_FALSE(amp.GetMeter(3)->enabled);
}

TEST(AmpMeters, OutputPeakMetersComeLastAndFollowTheOutputCount)
{
    ParameterAmp amp({"_meterA"}, false, true);
    amp.Initialise();
    ASSERT_EQ(amp.meterCount, 9);
    EXPECT_EQ(amp.GetMeter(0)->name, "A");
    EXPECT_EQ(amp.GetMeter(1)->name, "Output Peak Meter 1");
    EXPECT_EQ(amp.GetMeter(8)->name, "Output Peak Meter 8");
    EXPECT_EQ(amp.GetMeter(8)->kind, 2);
    EXPECT_TRUE(amp.GetMeter(8)->peakMode);
    amp.SetChannels(2, 2);
    int enabled = 0;
    for (int m = 1; m < 9; ++m) enabled += amp.GetMeter(m)->enabled ? 1 : 0;
    EXPECT_EQ(enabled, 2);
    EXPECT_TRUE(amp.GetMeter(2)->enabled);
    EXPECT_TRUE(amp.GetMeter(0)->enabled);
}

TEST(AmpParameters, PublicLookupRunsOverTheArrayWithBounds)
{
    ParameterAmp amp({"Speaker", "Position", "_hidden"});
    EXPECT_EQ(amp.GetPublicParameterCount(), 2);
    EXPECT_EQ(amp.GetPublicParameter(1), &amp.parameters[1]);
    EXPECT_EQ(amp.GetPublicParameter(2), nullptr);
    EXPECT_EQ(amp.GetPublicParameter(-1), nullptr);

    ParameterAmp badlyOrdered({"_first", "Second"});  // a hidden entry within the count
    EXPECT_EQ(badlyOrdered.GetPublicParameterCount(), 1);
    EXPECT_EQ(badlyOrdered.GetPublicParameter(0), nullptr);

    RecordingAmp none;
    EXPECT_EQ(none.GetPublicParameter(0), nullptr);

    amp.SetParameterWordBits(32);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(amp.parameters[i].wordBits, 32);
}

TEST(AmpNotes, PitchVelocityAndGate)
{
    RecordingAmp amp(44100);
    amp.NoteOn(69, 127);
    EXPECT_EQ(amp.notePitch, 440.0f / 44100.0f);
    EXPECT_EQ(amp.noteVelocity, 1.0f);
    EXPECT_TRUE(amp.noteGate);
    amp.NoteOn(81, 200);
    EXPECT_EQ(amp.notePitch, 880.0f / 44100.0f);
    EXPECT_EQ(amp.noteVelocity, 1.0f);
    amp.NoteOn(60, -5);
    EXPECT_EQ(amp.noteVelocity, 0.0f);
    EXPECT_EQ(amp.notePitch, float(std::pow(2.0, double(-9.0f / 12.0f))) * 440.0f / 44100.0f);
    amp.NoteOn(64, 64);
    amp.NoteOff();
    EXPECT_FALSE(amp.noteGate);
    EXPECT_EQ(amp.noteVelocity, 64.0f / 127.0f);
}

}  // namespace
}  // namespace tarnlow
