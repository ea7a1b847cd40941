#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "support/TestAmps.h"

namespace tarnlow {
namespace {

using testing::RecordingAmp;
using testing::WordAt;

TEST(AmpInitialise, SilenceLimitFollowsTheNominalRateInSinglePrecision)
{
    // 0.1 s of samples; at 100000013 Hz rate and product both round up in single precision,
    // to 100000016 and 10000002, where double arithmetic gives 10000001.
    for (const auto& [rate, limit] : {std::pair{44100, 4410}, {192000, 19200}, {100000013, 10000002}}) {
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
}

}  // namespace
}  // namespace tarnlow
