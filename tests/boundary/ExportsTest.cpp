// The exported functions, compiled into this test so that it can look behind a handle.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <stdexcept>
#include <vector>

#include "boundary/CQuorvexPlugInstance.h"
#include "tarnlow.h"

namespace tarnlow {
namespace {

struct Instance {
    Instance() : handle(CreateInstanceU()) {}
    ~Instance() { DestroyInstanceU(handle); }
    CQuorvexPlugInstance* operator->() const { return static_cast<CQuorvexPlugInstance*>(handle); }
    float Value(int32_t id) const { return (*this)->GetRoom()->GetParameterAt(id)->value; }
    void* handle;
};

int32_t Calc(void* handle, std::vector<float>& buffer, int32_t flag = -7)
{
    CalcA(handle, int32_t(buffer.size()), buffer.data(), nullptr, nullptr, nullptr, nullptr, &flag);
    return flag;
}

std::vector<float> Noise(std::size_t length, uint32_t seed)
{
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> uniform(-0.5f, 0.5f);
    std::vector<float> samples(length);
    for (float& v : samples) v = uniform(random);
    return samples;
}

TEST(Exports, PlugInfoTable)
{
    const int32_t expected[] = {1, 1, 2, 1, 32767, 0};
    for (int32_t selector = 1; selector <= 6; ++selector) {
        int32_t out = -1;
        EXPECT_EQ(GetPlugInfoU(selector, &out, 4), 1);
        EXPECT_EQ(out, expected[selector - 1]);
    }
    int32_t untouched[2] = {-5, -5};
    EXPECT_EQ(GetPlugInfoU(5, untouched, 8), 0);
    EXPECT_EQ(untouched[0], -5);
    EXPECT_EQ(GetPlugInfoU(0, untouched, 4), 0);
    EXPECT_EQ(GetPlugInfoU(7, untouched, 4), 0);
    EXPECT_EQ(GetPlugInfoU(-1, nullptr, 4), 0);
    EXPECT_EQ(untouched[0], -5);
}

TEST(Exports, SampleRateAnswers)
{
    Instance instance;
    EXPECT_EQ(SetSampleRateU(instance.handle, 44100), 0);  // the current rate: nothing changes
    EXPECT_EQ(instance->rooms.size(), 1u);
    const struct {
        int32_t rate;
        int32_t answer;
    } cases[] = {{44000, 1}, {48000, 1}, {88000, 1}, {96000, 1}, {176000, 1}, {192000, 1},
                 {88200, 0}, {176400, 0}, {44100, 0}, {32000, 0}, {0, 0}, {-44100, 0}};
    for (const auto& c : cases) EXPECT_EQ(SetSampleRateU(instance.handle, c.rate), c.answer) << c.rate;
    EXPECT_EQ(SetSampleRateU(nullptr, 48000), 0);
}

TEST(Exports, DestroyMatchesOnlyRegisteredHandles)
{
    void* first = CreateInstanceU();
    void* second = CreateInstanceU();
    DestroyInstanceU(first);
    DestroyInstanceU(first);  // no longer registered: nothing happens
    int stranger = 0;
    DestroyInstanceU(&stranger);
    DestroyInstanceU(nullptr);
    std::vector<float> buffer(32, 0.25f);
    Calc(second, buffer);  // the other instance is untouched
    DestroyInstanceU(second);
}

TEST(Exports, NullInstanceIsIgnored)
{
    std::vector<float> buffer(8, 0.5f);
    int32_t flag = -3;
    EXPECT_EQ(CalcA(nullptr, 8, buffer.data(), nullptr, nullptr, nullptr, nullptr, &flag), 0);
    EXPECT_EQ(flag, -3);
    EXPECT_EQ(buffer[0], 0.5f);
    ResetA(nullptr);
    SetParameterA(nullptr, 0, 2.0f);
}

TEST(Exports, SpeakerSelectorRoundsHalfUpInQuarters)
{
    Instance instance;
    SetParameterA(instance.handle, 0, 2.4f);
    EXPECT_EQ(instance.Value(0), 0.5f);
    EXPECT_EQ(instance->GetRoom()->SelectedAmp(), instance->GetRoom()->amps[2]);
    SetParameterA(instance.handle, 0, 2.5f);
    EXPECT_EQ(instance.Value(0), 0.75f);
    SetParameterA(instance.handle, 0, -0.5f);
    EXPECT_EQ(instance.Value(0), 0.0f);
    SetParameterA(instance.handle, 0, 1.5f);
    EXPECT_EQ(instance.Value(0), 0.5f);
}

TEST(Exports, PositionSelectorSpreadsHalvesOverFiveSpeakers)
{
    Instance instance;
    SetParameterA(instance.handle, 2, 0.5f);  // rounds to 1
    for (int32_t id : {2, 4, 6, 8, 10}) EXPECT_EQ(instance.Value(id), 0.5f) << id;
    SetParameterA(instance.handle, 2, 2.0f);
    for (int32_t id : {2, 4, 6, 8, 10}) EXPECT_EQ(instance.Value(id), 1.0f) << id;
    for (int32_t id : {1, 3, 5, 7, 9}) EXPECT_EQ(instance.Value(id), 0.0f) << id;
}

TEST(Exports, TypeSelectorSendsTheValueUnchanged)
{
    Instance instance;
    SetParameterA(instance.handle, 1, 0.3f);
    for (int32_t id : {1, 3, 5, 7, 9}) EXPECT_EQ(instance.Value(id), 0.3f) << id;
    EXPECT_EQ(instance.Value(0), 0.0f);
}

TEST(Exports, NegativeSelectorsSkipTheIdsBelowZero)
{
    Instance instance;
    SetParameterA(instance.handle, -1, 0.75f);
    for (int32_t id : {1, 3, 5, 7}) EXPECT_EQ(instance.Value(id), 0.75f) << id;
    EXPECT_EQ(instance.Value(9), 0.0f);
    SetParameterA(instance.handle, -2, 0.25f);
    EXPECT_EQ(instance.Value(0), 0.25f);
    EXPECT_EQ(instance->GetRoom()->SelectedAmp(), instance->GetRoom()->amps[1]);
    for (int32_t id : {2, 4, 6}) EXPECT_EQ(instance.Value(id), 0.25f) << id;
    EXPECT_EQ(instance.Value(8), 0.5f);
    SetParameterA(instance.handle, std::numeric_limits<int32_t>::min(), 1.0f);  // names nothing
}

TEST(Exports, SpeakerOutsideTheRangeThrowsAfterStoring)
{
    Instance instance;
    SetParameterA(instance.handle, 0, 1.0f);
    for (float bad : {4.5f, 6.0f, -0.6f, -2.0f, std::nanf(""), std::numeric_limits<float>::infinity(), 3.0e38f}) {
        try {
            SetParameterA(instance.handle, 0, bad);
            ADD_FAILURE() << "no exception for " << bad;
        } catch (const std::out_of_range& error) {
            EXPECT_STREQ(error.what(), "invalid vector<T> subscript");
        }
        EXPECT_EQ(instance->GetRoom()->SelectedAmp(), instance->GetRoom()->amps[1]);
    }
    EXPECT_EQ(instance.Value(0), float(std::floor(double(3.0e38f) + 0.5) * 0.25));  // stored all the same
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
    EXPECT_DEATH(SetParameterA(instance.handle, 11, 1.0f), "");
    EXPECT_DEATH(SetParameterA(instance.handle, std::numeric_limits<int32_t>::max(), 1.0f), "");
}

TEST(Exports, CountZeroStillWritesTheFlag)
{
    Instance instance;
    std::vector<float> empty;
    float untouched = 0.75f;
    int32_t flag = -1;
    EXPECT_EQ(CalcA(instance.handle, 0, &untouched, nullptr, nullptr, nullptr, nullptr, &flag), 0);
    EXPECT_EQ(untouched, 0.75f);
    EXPECT_EQ(flag, 0);  // a new amp counts as silent until it has sounded
    EXPECT_EQ(CalcA(instance.handle, -5, &untouched, nullptr, nullptr, nullptr, nullptr, &flag), 0);
    EXPECT_EQ(untouched, 0.75f);
}

TEST(Exports, OutFlagFollowsTheSilenceMeasure)
{
    Instance instance;
    SetSampleRateU(instance.handle, 48000);
    std::vector<float> zeros(512, 0.0f);
    EXPECT_EQ(Calc(instance.handle, zeros), 0);
    std::vector<float> impulse(512, 0.0f);
    impulse[0] = 1.0f;
    EXPECT_EQ(Calc(instance.handle, impulse), 1);
    // The tail rings on; 0.1 s of output below 1e-20 makes the instance silent again.
    int32_t flag = 1;
    int blocks = 0;
    while (flag == 1 && blocks < 48000 * 60 / 512) {
        std::vector<float> block(512, 0.0f);
        flag = Calc(instance.handle, block);
        ++blocks;
    }
    EXPECT_EQ(flag, 0);
}

TEST(Exports, ResetStartsFromCleanState)
{
    const std::vector<float> input = Noise(4000, 3);
    Instance fresh;
    SetParameterA(fresh.handle, 0, 2.0f);
    std::vector<float> expected = input;
    Calc(fresh.handle, expected);

    Instance used;
    SetParameterA(used.handle, 0, 2.0f);
    std::vector<float> warmup = Noise(3000, 9);
    Calc(used.handle, warmup);
    ResetA(used.handle);
    std::vector<float> actual = input;
    Calc(used.handle, actual);
    EXPECT_EQ(std::memcmp(actual.data(), expected.data(), sizeof(float) * actual.size()), 0);
}

TEST(Exports, NotANumberStaysUntilReset)
{
    Instance instance;
    std::vector<float> poisoned(64, 0.0f);
    poisoned[3] = std::nanf("");
    Calc(instance.handle, poisoned);
    std::vector<float> later(256, 0.1f);
    Calc(instance.handle, later);
    EXPECT_TRUE(std::isnan(later.back()));
    ResetA(instance.handle);
    std::vector<float> clean(256, 0.1f);
    Calc(instance.handle, clean);
    for (float v : clean) ASSERT_TRUE(std::isfinite(v));
}

TEST(Exports, HostBlockLengthsDoNotChangeTheOutput)
{
    const std::vector<float> input = Noise(20000, 5);
    for (int speaker = 0; speaker < 5; ++speaker) {
        Instance whole;
        Instance pieces;
        for (const Instance* i : {&whole, &pieces}) {
            SetSampleRateU(i->handle, 96000);
            SetParameterA(i->handle, 0, float(speaker));
            SetParameterA(i->handle, 2, 2.0f);
        }
        std::vector<float> expected = input;
        Calc(whole.handle, expected);
        std::vector<float> actual = input;
        std::mt19937 random(static_cast<unsigned>(speaker));
        std::uniform_int_distribution<int32_t> length(0, 700);
        int32_t flag = 0;
        for (std::size_t done = 0; done < actual.size();) {
            const int32_t count = std::min<int32_t>(length(random), int32_t(actual.size() - done));
            CalcA(pieces.handle, count, actual.data() + done, nullptr, nullptr, nullptr, nullptr, &flag);
            done += std::size_t(count);
        }
        EXPECT_EQ(std::memcmp(actual.data(), expected.data(), sizeof(float) * actual.size()), 0) << speaker;
    }
}

}  // namespace
}  // namespace tarnlow
