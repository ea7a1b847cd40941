// The exported functions, compiled into this test so that it can look behind a handle.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <vector>

#include "boundary/CQuorvexPlugInstance.h"
#include "support/HostCalls.h"

namespace tarnlow {
namespace {

using testing::Calc;
using testing::Instance;
using testing::Noise;

CQuorvexAmpRoom* RoomOf(const Instance& instance)
{
    return static_cast<CQuorvexPlugInstance*>(instance.handle)->GetRoom();
}

constexpr float inf = std::numeric_limits<float>::infinity();

float Value(const Instance& instance, int32_t id)
{
    return RoomOf(instance)->GetParameterAt(id)->value;
}

TEST(Exports, PlugInfoAndSampleRateAnswers)
{
    const int32_t expected[] = {1, 1, 2, 1, 32767, 0};
    for (int32_t selector = 1, out = -1; selector <= 6; ++selector) {
        EXPECT_EQ(GetPlugInfoU(selector, &out, 4), 1);
        EXPECT_EQ(out, expected[selector - 1]);
    }
    int32_t untouched[2] = {-5, -5};
    EXPECT_EQ(GetPlugInfoU(5, untouched, 8) + GetPlugInfoU(0, untouched, 4) + GetPlugInfoU(7, untouched, 4),
              0);
    EXPECT_EQ(untouched[0], -5);

    // 1 only for the six round rates; the 44.1 kHz family runs but answers 0.
    Instance instance;
    const int32_t cases[][2] = {{44100, 0},  {44000, 1}, {48000, 1},  {88000, 1}, {96000, 1}, {176000, 1},
                                {192000, 1}, {88200, 0}, {176400, 0}, {32000, 0}, {0, 0},     {-44100, 0}};
    for (const auto& [rate, answer] : cases) EXPECT_EQ(SetSampleRateU(instance.handle, rate), answer) << rate;
    EXPECT_EQ(SetSampleRateU(nullptr, 48000), 0);
}

TEST(Exports, UnknownHandlesAreIgnored)
{
    void* first = CreateInstanceU();
    Instance second;
    DestroyInstanceU(first);
    DestroyInstanceU(first);  // no longer registered: nothing happens
    int stranger = 0;
    DestroyInstanceU(&stranger);
    DestroyInstanceU(nullptr);
    std::vector<float> buffer(32, 0.25f);
    EXPECT_EQ(Calc(nullptr, buffer), -7);  // no flag written, no sample touched
    EXPECT_EQ(buffer[0], 0.25f);
    EXPECT_EQ(Calc(second.handle, buffer), 1);  // the other instance is untouched
    ResetA(nullptr);
    SetParameterA(nullptr, 0, 2.0f);
}

TEST(Exports, SelectorsSpreadOverTheFlatIds)
{
    // The speaker goes half up, in quarters; the type as it comes; the position half up, in
    // halves. Negative selectors skip the ids below zero.
    const struct {
        int32_t selector;
        float value;
        std::vector<int32_t> ids;
        float stored;
    } cases[] = {{0, 2.4f, {0}, 0.5f},
                 {0, 2.5f, {0}, 0.75f},
                 {0, -0.5f, {0}, 0.0f},
                 {1, 0.3f, {1, 3, 5, 7, 9}, 0.3f},
                 {2, 0.5f, {2, 4, 6, 8, 10}, 0.5f},
                 {2, -0.5f, {2, 4, 6, 8, 10}, 0.0f},
                 {2, 2.0f, {2, 4, 6, 8, 10}, 1.0f},
                 {-1, 0.75f, {1, 3, 5, 7}, 0.75f},
                 {-2, 0.25f, {0, 2, 4, 6}, 0.25f}};
    for (const auto& c : cases) {
        Instance instance;
        SetParameterA(instance.handle, c.selector, c.value);
        for (int32_t id = 0; id <= 10; ++id) {
            const bool reached = std::find(c.ids.begin(), c.ids.end(), id) != c.ids.end();
            const float untouched = id == 0 || id % 2 == 1 ? 0.0f : 0.5f;
            EXPECT_EQ(Value(instance, id), reached ? c.stored : untouched)
                << c.selector << " " << c.value << " " << id;
        }
        EXPECT_EQ(RoomOf(instance)->SelectedAmp(),
                  RoomOf(instance)->amps[std::size_t(std::lround(Value(instance, 0) * 4))]);
    }
    Instance instance;
    SetParameterA(instance.handle, std::numeric_limits<int32_t>::min(), 1.0f);  // names nothing
}

TEST(Exports, SpeakerOutsideTheRangeThrowsAfterStoring)
{
    Instance instance;
    SetParameterA(instance.handle, 0, 1.0f);
    for (float bad : {4.5f, -0.6f, -2.0f, std::nanf(""), inf, -inf, 3.0e38f}) {
        try {
            SetParameterA(instance.handle, 0, bad);
            ADD_FAILURE() << "no exception for " << bad;
        } catch (const std::out_of_range& error) {
            EXPECT_STREQ(error.what(), "invalid vector<T> subscript");
        }
        EXPECT_EQ(RoomOf(instance)->SelectedAmp(), RoomOf(instance)->amps[1]);
    }
    EXPECT_EQ(Value(instance, 0), float(std::floor(double(3.0e38f) + 0.5) * 0.25));  // stored all the same
    // The same bad value again equals what is stored, so nothing is sent and nothing throws.
    EXPECT_NO_THROW(SetParameterA(instance.handle, 0, 3.0e38f));
    EXPECT_THROW(SetParameterA(instance.handle, 0, 4.9f), std::out_of_range);
    EXPECT_NO_THROW(SetParameterA(instance.handle, 0, 4.6f));  // rounds to the stored 1.25
}

TEST(ExportsDeathTest, SelectorsOfThreeOrMoreEndTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Instance instance;
    EXPECT_DEATH(SetParameterA(instance.handle, 3, 1.0f), "");
    EXPECT_DEATH(SetParameterA(instance.handle, std::numeric_limits<int32_t>::max(), 1.0f), "");
}

TEST(Exports, OutFlagFollowsTheSilenceMeasure)
{
    Instance instance(48000);
    float untouched = 0.75f;
    for (const int32_t count : {0, -5}) {  // a new amp counts as silent until it has sounded
        int32_t flag = -1;
        EXPECT_EQ(CalcA(instance.handle, count, &untouched, nullptr, nullptr, nullptr, nullptr, &flag), 0);
        EXPECT_EQ(flag, 0);
    }
    EXPECT_EQ(untouched, 0.75f);
    std::vector<float> block(512, 0.0f);
    EXPECT_EQ(Calc(instance.handle, block), 0);
    block[0] = 1.0f;
    EXPECT_EQ(Calc(instance.handle, block), 1);
    // The tail rings on; 0.1 s of output at or below 1e-20 makes the instance silent again.
    int32_t flag = 1;
    for (int blocks = 0; flag == 1 && blocks < 48000 * 60 / 512; ++blocks) {
        std::fill(block.begin(), block.end(), 0.0f);
        flag = Calc(instance.handle, block);
    }
    EXPECT_EQ(flag, 0);
}

// A hostile sample stays in the state of its room (a NaN poisons what follows) until
// ResetA, after which the output is exactly that of a fresh instance.
TEST(Exports, ResetStartsFromCleanStateAfterHostileSamples)
{
    const std::vector<float> input = Noise(2000, 3);
    for (int32_t speaker = 0; speaker < 5; ++speaker) {
        Instance fresh(96000);
        SetParameterA(fresh.handle, 0, float(speaker));
        std::vector<float> expected = input;
        Calc(fresh.handle, expected);
        for (const float sample : {std::nanf(""), inf, -inf, std::numeric_limits<float>::max(), 1e30f}) {
            Instance used(96000);
            SetParameterA(used.handle, 0, float(speaker));
            std::vector<float> block = Noise(300, 9), later(256, 0.1f), actual = input;
            block[17] = sample;
            const int32_t flag = Calc(used.handle, block);
            EXPECT_TRUE(flag == 0 || flag == 1);
            Calc(used.handle, later);
            EXPECT_TRUE(!std::isnan(sample) || std::isnan(later.back())) << speaker;
            ResetA(used.handle);
            Calc(used.handle, actual);
            EXPECT_EQ(std::memcmp(actual.data(), expected.data(), sizeof(float) * actual.size()), 0)
                << "speaker " << speaker << " after " << sample;
        }
    }
}

}  // namespace
}  // namespace tarnlow
