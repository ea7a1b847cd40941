#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "engine/CQuorvexMeter.h"
#include "support/TestAmps.h"

namespace tarnlow {
namespace {

using testing::RecordingAmp;

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

TEST(Meter, PeakModeKeepsTheLargestUntilReadAndPlainModeTheLast)
{
    CQuorvexMeter peak("Peak", 0, 0.0f, true), plain("Plain", 1, 0.0f, false);
    for (const float v : {0.5f, 0.25f, -0.75f, std::numeric_limits<float>::quiet_NaN()}) {
        peak.Store(v);
        plain.Store(v == 0.5f ? v : -1.0f);
    }
    EXPECT_EQ(peak.Read(), 0.5f);
    EXPECT_EQ(peak.Read(), 0.0f);  // no negative value, no NaN, no -0
    EXPECT_FALSE(std::signbit(peak.Read()));
    EXPECT_EQ(plain.Read(), -1.0f);
    EXPECT_EQ(plain.Read(), -1.0f);
}

}  // namespace
}  // namespace tarnlow
