#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>
#include <thread>

#include "engine/CQuorvexMeter.h"

namespace tarnlow {
namespace {

TEST(Meter, ConstructorKeepsItsArgumentsAndEnables)
{
    const CQuorvexMeter meter("Level", 2, 0.75f, true);
    EXPECT_EQ(meter.name, "Level");
    EXPECT_EQ(meter.kind, 2);
    EXPECT_EQ(meter.value, 0.75f);
    EXPECT_TRUE(meter.peakMode);
    EXPECT_TRUE(meter.enabled);
}

TEST(Meter, PeakModeKeepsTheMaximumAndTheReadClearsIt)
{
    CQuorvexMeter meter("Peak", 0, 0.0f, true);
    meter.Store(0.5f);
    meter.Store(0.25f);
    EXPECT_EQ(meter.Read(), 0.5f);
    EXPECT_EQ(meter.Read(), 0.0f);
    EXPECT_FALSE(std::signbit(meter.Read()));
}

TEST(Meter, PeakModeStoresNoNegativeNaNOrEqualValue)
{
    CQuorvexMeter meter("Peak", 0, 0.0f, true);
    meter.Store(-0.5f);
    EXPECT_EQ(meter.Read(), 0.0f);
    meter.Store(std::numeric_limits<float>::quiet_NaN());
    EXPECT_EQ(meter.Read(), 0.0f);
    meter.Store(0.3f);
    meter.Store(std::numeric_limits<float>::quiet_NaN());
    EXPECT_EQ(meter.Read(), 0.3f);
}

TEST(Meter, PlainModeKeepsTheLastValueAcrossReads)
{
    CQuorvexMeter meter("Plain", 1, 0.0f, false);
    meter.Store(0.5f);
    meter.Store(0.25f);
    EXPECT_EQ(meter.Read(), 0.25f);
    EXPECT_EQ(meter.Read(), 0.25f);
    meter.Store(-1.0f);
    EXPECT_EQ(meter.Read(), -1.0f);
}

// A writer raising the peak step by step beside a reader that polls: the largest value
// written is taken by exactly one read, either during the run or at the final poll.
TEST(Meter, PeakReaderBesideAWriterLosesNoPeak)
{
    CQuorvexMeter meter("Peak", 2, 0.0f, true);
    constexpr int steps = 200000;
    std::atomic<bool> readerStarted{false};
    std::atomic<bool> writing{true};
    std::thread writer([&] {
        while (!readerStarted.load(std::memory_order_acquire)) std::this_thread::yield();
        for (int i = 1; i <= steps; ++i) meter.Store(float(i));
        writing.store(false, std::memory_order_release);
    });
    float largest = 0.0f;
    int takenAtTop = 0;
    readerStarted.store(true, std::memory_order_release);
    while (writing.load(std::memory_order_acquire)) {
        const float taken = meter.Read();
        largest = std::max(largest, taken);
        takenAtTop += taken == float(steps) ? 1 : 0;
    }
    writer.join();
    const float last = meter.Read();
    takenAtTop += last == float(steps) ? 1 : 0;
    largest = std::max(largest, last);
    EXPECT_EQ(largest, float(steps));
    EXPECT_EQ(takenAtTop, 1);
}

}  // namespace
}  // namespace tarnlow
