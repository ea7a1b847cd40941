#include "room/CQuorvexAmpRoom.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <string>
#include <vector>

#include "room/CQuorvexAmpRoomNative.h"
#include "room/RateBands.h"
#include "support/TestAmps.h"

namespace tarnlow {
namespace {

using testing::RecordingAmp;

// A room over recording amps; it brings no reset flags of its own, so Initialise makes
// the default ones.
class TestRoom : public CQuorvexAmpRoom {
public:
    explicit TestRoom(int ampCount,
                      const std::vector<std::string>& names = {"MicrophoneType", "MicrophonePosition"})
    {
        for (int i = 0; i < ampCount; ++i) amps.push_back(new RecordingAmp(names));
        selectedAmp.store(amps.front());
        Initialise();
    }
    RecordingAmp* Amp(int i) const { return static_cast<RecordingAmp*>(amps[std::size_t(i)]); }
};

TEST(NativeRoom, BandsFallToTheBandBelowTheirBordersAndBuildFiveModels)
{
    const int32_t borders[] = {INT32_MIN, 46050, 68100, 92100, 136100, 184100, INT32_MAX};
    const RateBand bands[] = {RateBand::Band44, RateBand::Band48,  RateBand::Band88,
                              RateBand::Band96, RateBand::Band176, RateBand::Band192};
    for (int b = 0; b < 6; ++b) {
        EXPECT_EQ(BandForRate(borders[b]).band, bands[b]) << borders[b];
        EXPECT_EQ(BandForRate(borders[b + 1] - 1).band, bands[b]) << borders[b + 1];
    }
    const int32_t cases[][2] = {{0, 44100},     {44000, 44100},   {88000, 88200},
                                {96000, 96000}, {176000, 176400}, {384000, 192000}};
    for (const auto& [rate, modelRate] : cases) {
        CQuorvexAmpRoomNative room(rate);
        ASSERT_EQ(room.GetAmpCount(), 5);
        EXPECT_EQ(room.SelectedAmp(), room.amps[0]);
        for (int i = 0; i < 5; ++i) EXPECT_EQ(room.amps[std::size_t(i)]->sampleRate, modelRate) << rate;
    }
}

TEST(NativeRoom, SpeakerOrderTagsAndTheResetFlagsOneShortOfTheIds)
{
    CQuorvexAmpRoomNative room(48000);
    EXPECT_EQ(room.GetParameterCount(), 11);
    const uint32_t typeTags[] = {FourCC("c101"), FourCC("c201"), FourCC("c401"), FourCC("c401"),
                                 FourCC("c401")};
    for (int i = 0; i < 5; ++i) {
        const CQuorvexParameter* type = room.GetParameterAt(1 + 2 * i);
        const CQuorvexParameter* position = room.GetParameterAt(2 + 2 * i);
        EXPECT_EQ(type->tag, typeTags[i]) << i;
        EXPECT_EQ(type->name + position->name, "MicrophoneTypeMicrophonePosition");
        EXPECT_EQ(position->value, 0.5f);
        EXPECT_EQ(position->wordBits, 32);
    }
    EXPECT_EQ(room.ampSwitch->wordBits, 32);
    EXPECT_EQ(room.resetFlagCount, 10);
    for (int32_t id = 0; id < 10; ++id) EXPECT_TRUE(room.NeedsReset(id)) << id;
    // The 4x10Bass position has no entry of its own and reads as not resetting.
    EXPECT_FALSE(room.NeedsReset(10));
    EXPECT_FALSE(room.NeedsReset(-1));
}

TEST(AmpRoom, FlatIdsSwitchRecordAndStoresThatReachOnlyTheirRecord)
{
    TestRoom room(5);
    EXPECT_EQ(room.GetParameterCount(), 11);
    EXPECT_EQ(room.GetParameterAt(0), room.ampSwitch);
    EXPECT_EQ(room.ampSwitch->name + "|" + room.ampSwitch->shortName, "Amp Switch|AmpSwtch");
    EXPECT_EQ(room.ampSwitch->tag, FourCC("sw1 "));
    EXPECT_EQ(room.ampSwitch->stepCount, 5);
    EXPECT_EQ(room.GetParameterAt(4), &room.Amp(1)->parameters[1]);
    EXPECT_EQ(room.GetParameterAt(10), &room.Amp(4)->parameters[1]);
    EXPECT_EQ(room.GetParameterAt(-1), nullptr);
    EXPECT_TRUE(room.NeedsReset(0));  // default flags: only the switch resets
    EXPECT_FALSE(room.NeedsReset(1));
    room.SetParameter(6, 0.75f);
    room.SetParameter(-3, 0.5f);  // names nothing
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(room.Amp(i)->parameters[0].value, 0.0f);
        EXPECT_EQ(room.Amp(i)->parameters[1].value, i == 2 ? 0.75f : 0.0f);
        EXPECT_EQ(room.Amp(i)->resets, 0);
    }
}

TEST(AmpRoom, SwitchPicksTheAmpByRoundedPosition)
{
    const struct {
        int amps;
        float value;
        int index;
    } cases[] = {{5, 0.124f, 0},
                 {5, 0.125f, 1},
                 {5, 0.5f, 2},
                 {5, 1.0f, 4},
                 {2, 0.5f, 0},
                 {2, std::nextafter(0.5f, 1.0f), 1},
                 {2, 7.0f, 1},  // no range check in the two-way rule
                 {3, std::nextafter(0.33f, 0.0f), 0},
                 {3, 0.33f, 1},
                 {3, 0.66f, 2}};
    for (const auto& c : cases) {
        TestRoom room(c.amps);
        room.SetParameter(0, c.value);
        EXPECT_EQ(room.SelectedAmp(), room.amps[std::size_t(c.index)]) << c.amps << " amps, " << c.value;
        EXPECT_EQ(room.ampSwitch->value, c.value);
    }
}

TEST(AmpRoom, HardSwitchHandsOverBypassSuspensionAndTempoAndResetsOnlyTheNewAmp)
{
    TestRoom room(5);
    RecordingAmp* first = room.Amp(0);
    first->SetBypass(true);
    first->SetSuspended(true);
    first->SetBpm(-1.0f);
    room.SetParameter(0, 0.75f);
    RecordingAmp* next = room.Amp(3);
    EXPECT_EQ(room.SelectedAmp(), next);
    EXPECT_TRUE(next->IsBypassed() && next->IsSuspended());
    EXPECT_EQ(next->hostBpm, 120.0f);
    EXPECT_TRUE(next->hostBpmValid);  // 120 arrives as a tempo from the host
    EXPECT_EQ(next->resets, 1);
    EXPECT_TRUE(next->bankFlipPending.load());
    EXPECT_EQ(first->resets, 0);
    room.SetParameter(0, 0.8f);  // the same amp again: no reset
    EXPECT_EQ(next->resets, 1);
    room.SelectAmp(1);  // selects without touching the switch value
    EXPECT_EQ(room.SelectedAmp(), room.amps[1]);
    EXPECT_EQ(room.ampSwitch->value, 0.8f);
}

TEST(AmpRoomDeathTest, IdsPastTheLastEndTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    TestRoom room(5);
    EXPECT_DEATH(room.GetParameterAt(11), "");
    EXPECT_DEATH(room.SetParameter(11, 0.5f), "");
    EXPECT_DEATH(room.GetParameterAt(INT32_MAX), "");
}

TEST(AmpRoom, OneAmpHasNoSwitchAndCommonRecordsShowOnceAndReachEveryAmp)
{
    TestRoom single(1);
    EXPECT_EQ(single.ampSwitch, nullptr);
    EXPECT_EQ(single.GetParameterCount(), 2);
    EXPECT_EQ(single.GetParameterAt(0), &single.Amp(0)->parameters[0]);
    EXPECT_FALSE(single.NeedsReset(0));

    TestRoom room(3, {"Drive", "_commonGain", "_meterOut", "_meterB"});
    EXPECT_EQ(room.GetParameterCount(), 1 + 3 + 1);  // the switch, one public record per amp, the common one
    CQuorvexParameter* common = room.GetParameterAt(4);
    EXPECT_EQ(common->name, "Gain");
    room.SetParameter(4, 0.6f);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(room.Amp(i)->parameters[1].value, 0.6f);
    EXPECT_EQ(room.GetMeterCount(), 6);  // meters are numbered across the amps
    EXPECT_EQ(room.GetMeterAt(2), room.Amp(1)->GetMeter(0));
    EXPECT_EQ(room.GetMeterAt(5), room.Amp(2)->GetMeter(1));
    EXPECT_EQ(room.GetMeterAt(6), nullptr);
    EXPECT_EQ(room.GetMeterAt(-1), nullptr);
    EXPECT_EQ(room.GetMeterAt(0)->name, "Out");
}

}  // namespace
}  // namespace tarnlow
