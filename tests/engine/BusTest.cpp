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

namespace tarnlow {
namespace {

int32_t IntAt(const CQuorvexBus& bus, int32_t index)
{
    return *static_cast<int32_t*>(bus.GetElement(index));
}

TEST(Bus, LoadsKeepTheBitsAppendAndCountTheirParts)
{
    std::vector<int32_t> table(655);
    for (std::size_t i = 0; i < table.size(); ++i)
        table[i] = std::bit_cast<int32_t>(0.001f * float(i) - 0.25f);
    table[3] = 0x7FC00001;  // a NaN payload survives as it is
    table[654] = std::bit_cast<int32_t>(-0.0f);
    CQuorvexBus bus;
    bus.Load32(table.data(), 655, false, false);
    bus.Load32(table.data() + 100, 20, false, true);
    EXPECT_EQ(bus.GetCount(), 675);
    EXPECT_EQ(bus.GetHistoryLength(), 20);
    EXPECT_EQ(bus.GetPlainLength(), 655);
    EXPECT_EQ(IntAt(bus, 3), 0x7FC00001);
    EXPECT_EQ(IntAt(bus, 654), table[654]);
    EXPECT_EQ(*static_cast<float*>(bus.GetElement(655)), 0.001f * 100.0f - 0.25f);

    const std::vector<int64_t> wide = {int64_t(1) << 40, -2, 3};
    CQuorvexBus wideBus;
    wideBus.Load64(wide.data(), 3, false, false);
    EXPECT_EQ(*static_cast<int64_t*>(wideBus.GetElement(0)), int64_t(1) << 40);
    wideBus.SetElement(2, -5);  // sign-extended into the 64-bit word
    EXPECT_EQ(*static_cast<int64_t*>(wideBus.GetElement(2)), -5);

    // A null, empty or negative load only sets the form.
    const int32_t* const storage = bus.ints.data;
    bus.Load64(table.data(), 0, true, true);
    EXPECT_EQ(bus.form, 1);
    bus.Load32(table.data(), -3, true, true);
    bus.Load32(nullptr, 5, true, true);
    EXPECT_EQ(bus.form, 0);
    EXPECT_EQ(bus.GetCount(), 675);
    EXPECT_EQ(bus.GetDoubledLength(), 0);
    EXPECT_EQ(bus.ints.data, storage);
}

TEST(Bus, DoubledRegionFlipsCopiesAndCompares)
{
    const int32_t table[4] = {10, 11, 12, 13};
    CQuorvexBus bus;
    bus.Load32(table, 4, true, false);
    EXPECT_EQ(bus.GetCount(), 8);
    EXPECT_EQ(IntAt(bus, 7), 13);
    EXPECT_FALSE(bus.DoubledDiffers());
    // Element 1 is the header word: the offset within the region of the live half.
    for (const int32_t offset : {0, 4, 0}) {
        EXPECT_EQ(bus.FlipDoubled(), offset);
        EXPECT_EQ(IntAt(bus, 1), offset);
    }
    EXPECT_TRUE(bus.DoubledDiffers());
    bus.CopyDoubled();
    EXPECT_FALSE(bus.DoubledDiffers());
    EXPECT_EQ(IntAt(bus, 5), 0);

    CQuorvexBus mixed;  // behind a plain part the region starts after it
    mixed.Load32(table, 3, false, false);
    mixed.Load32(table, 2, true, false);
    EXPECT_EQ(mixed.GetDoubledRegion(), mixed.GetElement(3));
    EXPECT_EQ(mixed.FlipDoubled(), 3);

    CQuorvexBus empty;  // too short for the header word: flips its phase, writes nothing
    EXPECT_EQ(empty.FlipDoubled(), 0);
    EXPECT_EQ(empty.phase, 1);
}

TEST(Bus, CopiesAreDeepAndCarryEveryCounter)
{
    const int32_t table[6] = {100, 101, 102, 103, 104, 105};
    CQuorvexBus source(4);
    source.Load32(table, 2, false, true);
    source.Load32(table, 2, true, false);
    source.phase = 1;
    CQuorvexBus copy(source);
    CQuorvexBus assigned(3);
    assigned.Load32(table, 6, false, false);
    assigned = source;
    for (const CQuorvexBus* bus : {&copy, &assigned}) {
        EXPECT_EQ(bus->count, 6);
        EXPECT_EQ(bus->historyLength, 2);
        EXPECT_EQ(bus->doubledLength, 2);
        EXPECT_EQ(bus->phase, 1);
        EXPECT_EQ(bus->tag, 4);
        EXPECT_NE(bus->ints.data, source.ints.data);
    }
    source.SetElement(0, -1);
    EXPECT_EQ(IntAt(copy, 0), 100);
    EXPECT_EQ(IntAt(assigned, 0), 100);

    CQuorvexBus& alias = assigned;
    const int32_t* storage = assigned.ints.data;
    assigned = alias;
    EXPECT_EQ(assigned.ints.data, storage);
    EXPECT_EQ(IntAt(assigned, 0), 100);

    source.Load64(std::vector<int64_t>{1, 2}.data(), 2, false, false);
    source = CQuorvexBus();
    EXPECT_EQ(source.ints.data, nullptr);
    EXPECT_EQ(source.wides.data, nullptr);
    EXPECT_EQ(source.GetCount(), 0);
    EXPECT_EQ(source.form, -1);
}

TEST(Meter, PeakModeKeepsTheLargestUntilReadAndPlainModeTheLast)
{
    CQuorvexMeter peak("Peak", 0, 0.0f, true);
    for (const float v : {0.5f, 0.25f, -0.75f, std::numeric_limits<float>::quiet_NaN()}) peak.Store(v);
    EXPECT_EQ(peak.Read(), 0.5f);
    EXPECT_EQ(peak.Read(), 0.0f);
    EXPECT_FALSE(std::signbit(peak.Read()));
    peak.Store(-0.5f);  // no negative value, no NaN
    peak.Store(std::numeric_limits<float>::quiet_NaN());
    EXPECT_EQ(peak.Read(), 0.0f);

    CQuorvexMeter plain("Plain", 1, 0.0f, false);
    plain.Store(0.5f);
    plain.Store(-1.0f);
    EXPECT_EQ(plain.Read(), -1.0f);
    EXPECT_EQ(plain.Read(), -1.0f);
}

// A writer raising the peak step by step beside a reader that polls: the largest value
// written is taken by exactly one read, either during the run or at the final poll.
TEST(Meter, PeakReaderBesideAWriterLosesNoPeak)
{
    CQuorvexMeter meter("Peak", 2, 0.0f, true);
    constexpr int steps = 200000;
    // Release/acquire: the start flag and the end flag order the writer's run against the
    // reader's polls; the meter's own word is what is under test.
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
