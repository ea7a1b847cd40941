#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <stdexcept>
#include <vector>

#include "support/TestAmps.h"

namespace tarnlow {
namespace {

using testing::RecordingAmp;
using testing::WordAt;

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
    for (int k = 0; k < 5; ++k) EXPECT_EQ(amp.GetBus(k, 5), &amp.embeddedBuses[k]);  // the bank is ignored
    EXPECT_EQ(amp.GetBus(5), nullptr);
    EXPECT_EQ(amp.GetBus(-1, 0), nullptr);
}

TEST(AmpInitialise, SilenceLimitFollowsTheNominalRateInSinglePrecision)
{
    // 0.1 s of samples; at 100000013 Hz rate and product both round up in single precision,
    // to 100000016 and 10000002, where double arithmetic gives 10000001.
    const int32_t cases[][2] = {{44100, 4410}, {88200, 8820}, {192000, 19200}, {100000013, 10000002}};
    for (const auto& [rate, limit] : cases) {
        RecordingAmp amp;
        amp.sampleRate = rate;
        amp.Initialise();
        EXPECT_EQ(amp.silenceLimit, limit) << rate;
    }
}

TEST(AmpInitialise, TwoDeepStateBanksATemplateAndTheDefaultStatus)
{
    RecordingAmp amp;
    const std::vector<int32_t> constants = {10, 11, 12, 13}, state = {20, 21};
    const int32_t status[2] = {0, 0};
    amp.constantsData = constants.data();
    amp.constantsLength = 4;
    amp.stateData = state.data();
    amp.stateLength = 2;
    amp.busStatus->Load32(status, 2, false, false);
    amp.SetDefaultStatus(6);
    amp.Initialise();
    EXPECT_EQ(WordAt(*amp.busConstants, 3), 13);
    ASSERT_EQ(amp.stateBanks.size(), 2u);
    for (const CQuorvexBus& bank : amp.stateBanks) {
        EXPECT_EQ(WordAt(bank, 1), 21);
        EXPECT_NE(bank.ints.data, amp.embeddedBuses[4].ints.data);
    }
    EXPECT_EQ(WordAt(amp.stateTemplate, 1), 21);
    EXPECT_EQ(WordAt(*amp.busStatus, 0), 6);
}

TEST(AmpMeters, MeterParametersBecomeMetersWithBoundedLookup)
{
    RecordingAmp amp({"Gain", "_meterLevel", "_meter", "_mete"});
    amp.parameters[1].meterKind = 2;
    amp.parameters[1].StoreValue(0.4f);
    amp.Initialise();
    ASSERT_EQ(amp.meterCount, 2);
    EXPECT_EQ(amp.GetMeter(0)->name, "Level");
    EXPECT_EQ(amp.GetMeter(0)->kind, 2);
    EXPECT_EQ(amp.GetMeter(0)->value, 0.4f);
    EXPECT_FALSE(amp.GetMeter(0)->peakMode);
    EXPECT_EQ(amp.GetMeter(1)->name, "");
    EXPECT_EQ(amp.GetMeter(-1), nullptr);
    EXPECT_EQ(amp.GetMeter(2), nullptr);
    amp.meterCount = 3;  // a count that disagrees with the vector meets the checked access
    EXPECT_THROW(amp.GetMeter(2), std::out_of_range);
    amp.meterCount = 2;

    RecordingAmp multi({"_meterIn"}, 0, true);  // one meter per channel, enabled up to the channel count
    multi.Initialise();
    ASSERT_EQ(multi.meterCount, 8);
    EXPECT_EQ(multi.GetMeter(7)->name, "In 8");
    multi.SetChannels(3, 3);
    EXPECT_TRUE(multi.GetMeter(2)->enabled);
    EXPECT_FALSE(multi.GetMeter(3)->enabled);
    RecordingAmp peaks({"_meterA"}, 0, false, true);  // the eight peak meters come last
    peaks.Initialise();
    ASSERT_EQ(peaks.meterCount, 9);
    EXPECT_EQ(peaks.GetMeter(8)->name, "Output Peak Meter 8");
    EXPECT_TRUE(peaks.GetMeter(8)->kind == 2 && peaks.GetMeter(8)->peakMode);
}

TEST(AmpParameters, PublicLookupStopsAtTheFirstHiddenRecord)
{
    RecordingAmp amp({"Speaker", "Position", "_hidden"});
    EXPECT_EQ(amp.GetPublicParameterCount(), 2);
    EXPECT_EQ(amp.GetPublicParameter(1), &amp.parameters[1]);
    EXPECT_EQ(amp.GetPublicParameter(2), nullptr);
    EXPECT_EQ(amp.GetPublicParameter(-1), nullptr);
    RecordingAmp badlyOrdered({"_first", "Second"});
    EXPECT_EQ(badlyOrdered.GetPublicParameterCount(), 1);
    EXPECT_EQ(badlyOrdered.GetPublicParameter(0), nullptr);
    EXPECT_EQ(RecordingAmp().GetPublicParameter(0), nullptr);
}

TEST(AmpNotes, PitchVelocityAndGate)
{
    RecordingAmp amp;
    amp.NoteOn(60, 200);
    EXPECT_EQ(amp.noteVelocity, 1.0f);  // clamped to 127
    EXPECT_EQ(amp.notePitch, float(std::pow(2.0, double(-9.0f / 12.0f))) * 440.0f / 44100.0f);
    amp.NoteOn(64, -5);
    EXPECT_EQ(amp.noteVelocity, 0.0f);
    EXPECT_TRUE(amp.noteGate);
    amp.NoteOff();
    EXPECT_FALSE(amp.noteGate);
}

}  // namespace
}  // namespace tarnlow
