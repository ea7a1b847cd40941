#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <thread>
#include <vector>

#include "engine/CQuorvexBus.h"
#include "engine/CQuorvexMeter.h"
#include "support/TestAmps.h"

namespace tarnlow {
namespace {

using testing::WordAt;

TEST(Bus, LoadsKeepTheBitsAndAppend)
{
    const int32_t table[4] = {0x7FC00001, std::bit_cast<int32_t>(-0.0f), 5, 6};  // a NaN payload survives
    CQuorvexBus bus;
    bus.Load32(table, 4, false, false);
    bus.Load32(table + 2, 2, false, true);
    EXPECT_EQ(bus.GetCount(), 6);
    EXPECT_EQ(bus.GetHistoryLength(), 2);
    EXPECT_EQ(bus.GetPlainLength(), 4);
    EXPECT_EQ(WordAt(bus, 0), table[0]);
    EXPECT_EQ(WordAt(bus, 1), table[1]);
    EXPECT_EQ(WordAt(bus, 5), 6);
}

TEST(Bus, CopiesAreDeepAndCarryEveryCounter)
{
    const int32_t table[6] = {100, 101, 102, 103, 104, 105};
    CQuorvexBus source(4);
    source.Load32(table, 2, false, true);
    source.Load32(table, 2, true, false);
    source.phase = 1;
    CQuorvexBus copy(source), assigned(3);
    assigned.Load32(table, 6, false, false);
    assigned = source;
    for (const CQuorvexBus* bus : {&copy, &assigned}) {
        EXPECT_EQ(
            std::vector<int32_t>({bus->count, bus->historyLength, bus->doubledLength, bus->phase, bus->tag}),
            std::vector<int32_t>({6, 2, 2, 1, 4}));
        EXPECT_NE(bus->ints.data, source.ints.data);
    }
    source.SetElement(0, -1);
    EXPECT_EQ(WordAt(copy, 0), 100);
    CQuorvexBus& alias = assigned;
    const int32_t* storage = assigned.ints.data;
    assigned = alias;
    EXPECT_EQ(assigned.ints.data, storage);
    EXPECT_EQ(WordAt(assigned, 0), 100);
    source = CQuorvexBus();
    EXPECT_EQ(source.ints.data, nullptr);
    EXPECT_EQ(source.GetCount(), 0);
    EXPECT_EQ(source.form, -1);
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

// A writer raising the peak step by step beside a reader that polls: the largest value
// written is taken by exactly one read, either during the run or at the final poll.
TEST(Meter, PeakReaderBesideAWriterLosesNoPeak)
{
    CQuorvexMeter meter("Peak", 2, 0.0f, true);
    constexpr int steps = 200000;
    // Release/acquire: the flags order the writer's run against the reader's polls; the
    // meter's own word is what is under test.
    std::atomic<bool> readerStarted{false}, writing{true};
    std::thread writer([&] {
        while (!readerStarted.load(std::memory_order_acquire)) std::this_thread::yield();
        for (int i = 1; i <= steps; ++i) meter.Store(float(i));
        writing.store(false, std::memory_order_release);
    });
    float largest = 0.0f;
    int takenAtTop = 0;
    readerStarted.store(true, std::memory_order_release);
    for (bool last = false; !last;) {
        last = !writing.load(std::memory_order_acquire);
        if (last) writer.join();
        const float taken = meter.Read();
        largest = std::max(largest, taken);
        takenAtTop += taken == float(steps) ? 1 : 0;
    }
    EXPECT_EQ(largest, float(steps));
    EXPECT_EQ(takenAtTop, 1);
}

}  // namespace
}  // namespace tarnlow
