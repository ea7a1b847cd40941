#include "room/CQuorvexAmpRoom.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <stdexcept>
#include <string>

#include "support/TestAmps.h"

namespace tarnlow {
namespace {

using testing::RecordingAmp;

// A room over recording amps; it brings no reset flags of its own, so Initialise makes
// the default ones.
class TestRoom : public CQuorvexAmpRoom {
public:
    explicit TestRoom(int ampCount, std::vector<std::string> names = {"MicrophoneType", "MicrophonePosition"})
    {
        for (int i = 0; i < ampCount; ++i) amps.push_back(new RecordingAmp(names));
        if (!amps.empty()) selectedAmp.store(amps.front());
        Initialise();
    }
    RecordingAmp* Amp(int i) const { return static_cast<RecordingAmp*>(amps[std::size_t(i)]); }
    int TotalResets() const
    {
        int total = 0;
        for (int i = 0; i < GetAmpCount(); ++i) total += Amp(i)->resets;
        return total;
    }
};

void ExpectInvalidSubscript(const std::function<void()>& call)
{
    try {
        call();
        ADD_FAILURE() << "no exception";
    } catch (const std::out_of_range& error) {
        EXPECT_STREQ(error.what(), "invalid vector<T> subscript");
    }
}

TEST(AmpRoom, FlatIdsOfFiveAmps)
{
    TestRoom room(5);
    EXPECT_TRUE(room.hasAmpSwitch);
    EXPECT_EQ(room.GetParameterCount(), 11);
    EXPECT_EQ(room.GetParameterAt(0), room.ampSwitch);
    EXPECT_EQ(room.ampSwitch->name, "Amp Switch");
    EXPECT_EQ(room.ampSwitch->shortName, "AmpSwtch");
    EXPECT_EQ(room.ampSwitch->tag, 0x73773120u);
    EXPECT_EQ(room.ampSwitch->stepCount, 5);
    EXPECT_EQ(room.GetParameterAt(1), &room.Amp(0)->parameters[0]);
    EXPECT_EQ(room.GetParameterAt(4), &room.Amp(1)->parameters[1]);
    EXPECT_EQ(room.GetParameterAt(10), &room.Amp(4)->parameters[1]);
    EXPECT_EQ(room.GetParameterAt(-1), nullptr);
    EXPECT_EQ(room.GetParameterAt(std::numeric_limits<int32_t>::min()), nullptr);
    // Default flags without a concrete room: only the switch resets.
    EXPECT_TRUE(room.NeedsReset(0));
    EXPECT_FALSE(room.NeedsReset(1));
}

TEST(AmpRoom, SwitchPicksAmpsByRoundedPosition)
{
    TestRoom room(5);
    room.SetParameter(0, 0.5f);
    EXPECT_EQ(room.SelectedAmp(), room.amps[2]);
    EXPECT_EQ(room.GetParameterAt(0)->value, 0.5f);
    room.SetParameter(0, 0.124f);
    EXPECT_EQ(room.SelectedAmp(), room.amps[0]);
    room.SetParameter(0, 0.125f);
    EXPECT_EQ(room.SelectedAmp(), room.amps[1]);
    room.SetParameter(0, 1.0f);
    EXPECT_EQ(room.SelectedAmp(), room.amps[4]);
}

TEST(AmpRoom, SwitchToTheSameAmpResetsNothing)
{
    TestRoom room(5);
    room.SetParameter(0, 0.25f);
    const int resets = room.TotalResets();
    room.SetParameter(0, 0.3f);
    EXPECT_EQ(room.SelectedAmp(), room.amps[1]);
    EXPECT_EQ(room.TotalResets(), resets);
}

TEST(AmpRoom, SwitchValueNamingNoAmpThrowsAfterStoring)
{
    TestRoom room(5);
    room.SetParameter(0, 0.25f);
    ExpectInvalidSubscript([&] { room.SetParameter(0, 1.25f); });
    EXPECT_EQ(room.SelectedAmp(), room.amps[1]);
    EXPECT_EQ(room.GetParameterAt(0)->value, 1.25f);
    // Negative, not-a-number and infinite values name no amp either.
    for (float bad : {-0.2f, std::nanf(""), std::numeric_limits<float>::infinity(),
                      -std::numeric_limits<float>::infinity(), 3.0e38f}) {
        ExpectInvalidSubscript([&] { room.SetParameter(0, bad); });
        EXPECT_EQ(room.SelectedAmp(), room.amps[1]);
    }
}

TEST(AmpRoom, HandOverCarriesBypassSuspensionAndTempo)
{
    TestRoom room(5);
    RecordingAmp* first = room.Amp(0);
    first->SetBypass(true);
    first->SetSuspended(true);
    first->SetBpm(-1.0f);
    EXPECT_FALSE(first->hostBpmValid);
    room.SetParameter(0, 0.75f);
    RecordingAmp* next = room.Amp(3);
    EXPECT_EQ(room.SelectedAmp(), next);
    EXPECT_TRUE(next->IsBypassed());
    EXPECT_TRUE(next->IsSuspended());
    EXPECT_EQ(next->hostBpm, 120.0f);
    EXPECT_TRUE(next->hostBpmValid);  // 120 arrives as a tempo from the host
    EXPECT_EQ(next->resets, 1);
    EXPECT_TRUE(next->bankFlipPending.load());
    // The amp left behind keeps its records and gets no reset.
    EXPECT_EQ(first->resets, 0);
}

TEST(AmpRoom, SelectAmpLeavesTheSwitchValue)
{
    TestRoom room(5);
    room.SelectAmp(3);
    EXPECT_EQ(room.SelectedAmp(), room.amps[3]);
    EXPECT_EQ(room.ampSwitch->value, 0.0f);
    ExpectInvalidSubscript([&] { room.SelectAmp(5); });
}

TEST(AmpRoom, ParameterStoresReachOnlyTheirRecord)
{
    TestRoom room(5);
    room.SetParameter(6, 0.75f);
    EXPECT_EQ(room.Amp(2)->parameters[1].value, 0.75f);
    EXPECT_EQ(room.Amp(2)->parameters[0].value, 0.0f);
    EXPECT_EQ(room.Amp(0)->parameters[1].value, 0.0f);
    EXPECT_EQ(room.TotalResets(), 0);
    room.SetParameter(-3, 0.5f);  // names nothing
    for (int i = 0; i < 5; ++i) EXPECT_EQ(room.Amp(i)->parameters[0].value, 0.0f);
}

TEST(AmpRoomDeathTest, IdsPastTheLastEndTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    TestRoom room(5);
    EXPECT_DEATH(room.GetParameterAt(11), "");
    EXPECT_DEATH(room.SetParameter(11, 0.5f), "");
    EXPECT_DEATH(room.GetParameterAt(std::numeric_limits<int32_t>::max()), "");
}

TEST(AmpRoom, OneAmpHasNoSwitch)
{
    TestRoom room(1);
    EXPECT_FALSE(room.hasAmpSwitch);
    EXPECT_EQ(room.ampSwitch, nullptr);
    EXPECT_EQ(room.GetParameterCount(), 2);
    EXPECT_EQ(room.GetParameterAt(0), &room.Amp(0)->parameters[0]);
    room.SetParameter(0, 1.0f);
    EXPECT_EQ(room.Amp(0)->parameters[0].value, 1.0f);
    EXPECT_FALSE(room.NeedsReset(0));
}

TEST(AmpRoom, TwoAndThreeAmpSwitchThresholds)
{
    TestRoom two(2);
    two.SetParameter(0, 0.5f);
    EXPECT_EQ(two.SelectedAmp(), two.amps[0]);
    two.SetParameter(0, std::nextafter(0.5f, 1.0f));
    EXPECT_EQ(two.SelectedAmp(), two.amps[1]);
    two.SetParameter(0, 7.0f);  // no range check in the two-way rule
    EXPECT_EQ(two.SelectedAmp(), two.amps[1]);

    TestRoom three(3);
    three.SetParameter(0, 0.33f);
    EXPECT_EQ(three.SelectedAmp(), three.amps[1]);
    three.SetParameter(0, std::nextafter(0.33f, 0.0f));
    EXPECT_EQ(three.SelectedAmp(), three.amps[0]);
    three.SetParameter(0, 0.66f);
    EXPECT_EQ(three.SelectedAmp(), three.amps[2]);
}

TEST(AmpRoom, CommonParametersShowOnceAndReachEveryAmp)
{
    TestRoom room(3, {"Drive", "_commonGain", "_meterOut"});
    // Public: one per amp; then the one common record with its plain name.
    EXPECT_EQ(room.GetParameterCount(), 1 + 3 + 1);
    CQuorvexParameter* common = room.GetParameterAt(4);
    ASSERT_NE(common, nullptr);
    EXPECT_EQ(common->name, "Gain");
    room.SetParameter(4, 0.6f);
    EXPECT_EQ(common->value, 0.6f);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(room.Amp(i)->parameters[1].value, 0.6f);
}

TEST(AmpRoom, MetersAreNumberedAcrossAmps)
{
    TestRoom room(3, {"Drive", "_meterA", "_meterB"});
    EXPECT_EQ(room.GetMeterCount(), 6);
    EXPECT_EQ(room.GetMeterAt(2), room.Amp(1)->GetMeter(0));
    EXPECT_EQ(room.GetMeterAt(5), room.Amp(2)->GetMeter(1));
    EXPECT_EQ(room.GetMeterAt(6), nullptr);
    EXPECT_EQ(room.GetMeterAt(-1), nullptr);
    EXPECT_EQ(room.GetMeterAt(0)->name, "A");
}

TEST(AmpRoom, StatusTextWarnsOnlyForUnsupportedRates)
{
    TestRoom room(5);
    room.Amp(1)->SetBpm(-1.0f);
    EXPECT_EQ(room.GetStatusText(), "");
    room.rateSupported = false;
    EXPECT_EQ(room.GetStatusText(), "WARNING: Sample rate not supported");
}

TEST(AmpRoom, SetAllChannelsReachesEveryAmp)
{
    TestRoom room(3);
    room.SetAllChannels(2, 3);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(room.Amp(i)->inputCount, 2);
        EXPECT_EQ(room.Amp(i)->outputCount, 3);
    }
}

}  // namespace
}  // namespace tarnlow
