#include "room/CQuorvexAmpRoom.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <utility>

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
    explicit TestRoom(int ampCount)
    {
        for (int i = 0; i < ampCount; ++i)
            amps.push_back(new RecordingAmp({"MicrophoneType", "MicrophonePosition"}));
        selectedAmp.store(amps.front());
        Initialise();
    }
    RecordingAmp* Amp(int i) const { return static_cast<RecordingAmp*>(amps[std::size_t(i)]); }
};

TEST(NativeRoom, BandsFallToTheBandBelowTheirBordersAndBuildFiveModelsWithTheResetFlagsOneShort)
{
    const int32_t borders[] = {INT32_MIN, 46050, 68100, 92100, 136100, 184100, INT32_MAX};
    const RateBand bands[] = {RateBand::Band44, RateBand::Band48,  RateBand::Band88,
                              RateBand::Band96, RateBand::Band176, RateBand::Band192};
    for (int b = 0; b < 6; ++b) {
        EXPECT_EQ(BandForRate(borders[b]).band, bands[b]) << borders[b];
        EXPECT_EQ(BandForRate(borders[b + 1] - 1).band, bands[b]) << borders[b + 1];
    }
    for (const auto& [rate, modelRate] : {std::pair{0, 44100}, {88000, 88200}, {384000, 192000}}) {
        CQuorvexAmpRoomNative room(rate);
        ASSERT_EQ(room.GetAmpCount(), 5);
        for (int i = 0; i < 5; ++i) EXPECT_EQ(room.amps[std::size_t(i)]->sampleRate, modelRate) << rate;
    }
    CQuorvexAmpRoomNative room(48000);
    EXPECT_EQ(room.GetParameterCount(), 11);
    // Ids 1 + 2i and 2 + 2i are amp i's microphone type and position, set to words of 32 bits;
    // the type's tag tells the cabinet.
    const uint32_t typeTags[] = {FourCC("c101"), FourCC("c201"), FourCC("c401"), FourCC("c401"), FourCC("c401")};
    for (int i = 0; i < 10; ++i) {
        const CQuorvexParameter* expected = &room.amps[std::size_t(i / 2)]->parameters[i % 2];
        EXPECT_TRUE(room.GetParameterAt(1 + i) == expected && expected->wordBits == 32) << i;
        EXPECT_EQ(expected->tag, typeTags[i / 2] + uint32_t(i % 2)) << i;
    }
    EXPECT_EQ(room.resetFlagCount, 10);
    for (int32_t id = 0; id < 10; ++id) EXPECT_TRUE(room.NeedsReset(id)) << id;
    // The 4x10Bass position has no entry of its own and reads as not resetting.
    EXPECT_FALSE(room.NeedsReset(10));
    EXPECT_FALSE(room.NeedsReset(-1));
}

TEST(AmpRoom, FlatIdsAndTheSwitchRecordAndStoresThatReachOnlyTheirRecord)
{
    TestRoom room(5);
    EXPECT_EQ(room.GetParameterAt(0), room.ampSwitch);
    EXPECT_EQ(room.ampSwitch->name + "|" + room.ampSwitch->shortName, "Amp Switch|AmpSwtch");
    EXPECT_TRUE(room.ampSwitch->tag == FourCC("sw1 ") && room.ampSwitch->stepCount == 5);
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
    for (const auto& [value, index] : {std::pair{0.124f, 0}, {0.125f, 1}, {0.625f, 3}, {1.0f, 4}}) {
        TestRoom room(5);
        room.SetParameter(0, value);
        EXPECT_EQ(room.SelectedAmp(), room.amps[std::size_t(index)]) << value;
        EXPECT_EQ(room.ampSwitch->value, value);
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
    EXPECT_DEATH(room.SetParameter(INT32_MAX, 0.5f), "");
}

}  // namespace
}  // namespace tarnlow
