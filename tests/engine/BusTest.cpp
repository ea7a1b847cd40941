#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <numeric>
#include <vector>

#include "engine/CQuorvexBus.h"

namespace tarnlow {
namespace {

int32_t IntAt(const CQuorvexBus& bus, int32_t index)
{
    return *static_cast<int32_t*>(bus.GetElement(index));
}

std::vector<int32_t> Sequence(int32_t length, int32_t first)
{
    std::vector<int32_t> words(static_cast<std::size_t>(length));
    std::iota(words.begin(), words.end(), first);
    return words;
}

TEST(BusLoad, LongTableKeepsItsFloatBits)
{
    std::vector<int32_t> table(655);
    for (std::size_t i = 0; i < table.size(); ++i) table[i] = std::bit_cast<int32_t>(0.001f * float(i) - 0.25f);
    table[654] = std::bit_cast<int32_t>(-0.0f);
    table[3] = 0x7FC00001;  // a NaN payload survives as it is
    CQuorvexBus bus;
    bus.Load32(table.data(), 655, false, false);
    EXPECT_EQ(bus.GetCount(), 655);
    EXPECT_EQ(bus.GetPlainLength(), 655);
    EXPECT_EQ(IntAt(bus, 654), std::bit_cast<int32_t>(-0.0f));
    EXPECT_EQ(IntAt(bus, 3), 0x7FC00001);
    EXPECT_EQ(*static_cast<float*>(bus.GetElement(100)), 0.001f * 100.0f - 0.25f);
}

TEST(BusLoad, LoadsAppendAndCountTheirFlags)
{
    const auto first = Sequence(10, 0);
    const auto second = Sequence(20, 1000);
    CQuorvexBus bus;
    bus.Load32(first.data(), 10, false, false);
    bus.Load32(second.data(), 20, false, true);
    EXPECT_EQ(bus.GetCount(), 30);
    EXPECT_EQ(IntAt(bus, 10), 1000);
    EXPECT_EQ(IntAt(bus, 29), 1019);
    EXPECT_EQ(bus.GetHistoryLength(), 20);
    EXPECT_EQ(bus.GetPlainLength(), 10);

    const std::vector<int64_t> wide = {int64_t(1) << 40, -2, 3};
    CQuorvexBus wideBus;
    wideBus.Load64(wide.data(), 3, false, false);
    EXPECT_EQ(*static_cast<int64_t*>(wideBus.GetElement(0)), int64_t(1) << 40);
    wideBus.SetElement(2, -5);  // sign-extended into the 64-bit word
    EXPECT_EQ(*static_cast<int64_t*>(wideBus.GetElement(2)), -5);
}

TEST(BusLoad, NullEmptyOrNegativeLoadsOnlySetTheForm)
{
    CQuorvexBus fresh;
    EXPECT_EQ(fresh.form, -1);
    fresh.Load32(nullptr, 5, true, true);
    EXPECT_EQ(fresh.form, 0);
    EXPECT_EQ(fresh.GetCount(), 0);
    EXPECT_EQ(fresh.ints.data, nullptr);

    const auto table = Sequence(4, 7);
    CQuorvexBus bus;
    bus.Load32(table.data(), 4, false, false);
    int32_t* const storage = bus.ints.data;
    bus.Load64(table.data(), 0, true, true);
    EXPECT_EQ(bus.form, 1);
    bus.Load32(table.data(), -3, true, true);
    EXPECT_EQ(bus.form, 0);
    EXPECT_EQ(bus.GetCount(), 4);
    EXPECT_EQ(bus.GetDoubledLength(), 0);
    EXPECT_EQ(bus.GetHistoryLength(), 0);
    EXPECT_EQ(bus.ints.data, storage);
}

TEST(BusDoubled, RegionFlipCopyAndCompare)
{
    const auto table = Sequence(4, 10);
    CQuorvexBus bus;
    bus.Load32(table.data(), 4, true, false);
    EXPECT_EQ(bus.GetCount(), 8);
    EXPECT_EQ(bus.GetDoubledLength(), 4);
    EXPECT_EQ(bus.GetDoubledRegion(), bus.GetElement(0));
    EXPECT_EQ(IntAt(bus, 7), 13);
    EXPECT_FALSE(bus.DoubledDiffers());

    EXPECT_EQ(bus.FlipDoubled(), 0);
    EXPECT_EQ(IntAt(bus, 1), 0);
    EXPECT_EQ(bus.FlipDoubled(), 4);
    EXPECT_EQ(IntAt(bus, 1), 4);
    EXPECT_EQ(bus.FlipDoubled(), 0);
    EXPECT_EQ(IntAt(bus, 1), 0);

    EXPECT_TRUE(bus.DoubledDiffers());  // the header word differs from its twin
    bus.CopyDoubled();
    EXPECT_FALSE(bus.DoubledDiffers());
    EXPECT_EQ(IntAt(bus, 5), 0);

    // Behind a plain part the region starts after it.
    CQuorvexBus mixed;
    mixed.Load32(table.data(), 3, false, false);
    mixed.Load32(table.data(), 2, true, false);
    EXPECT_EQ(mixed.GetDoubledRegion(), mixed.GetElement(3));

    // A bus too short for the header word flips its phase and writes nothing.
    CQuorvexBus empty;
    EXPECT_EQ(empty.FlipDoubled(), 0);
    EXPECT_EQ(empty.phase, 1);
}

TEST(BusDoubled, WideFormComparesWideWordsAndCopiesOnlyFromThe32BitWords)
{
    const std::vector<int64_t> table = {int64_t(1) << 33, -4};
    CQuorvexBus wide;
    wide.Load64(table.data(), 2, true, false);
    EXPECT_FALSE(wide.DoubledDiffers());
    wide.SetElement(3, 8);
    EXPECT_TRUE(wide.DoubledDiffers());
    wide.CopyDoubled();  // the 32-bit array holds nothing at these indices: nothing moves
    EXPECT_EQ(wide.wides.data[3], 8);
    EXPECT_EQ(wide.wides.data[2], int64_t(1) << 33);
}

TEST(BusCopy, CopiesAreDeepAndCarryAllCounters)
{
    const auto table = Sequence(6, 100);
    CQuorvexBus source(4);
    source.Load32(table.data(), 2, false, true);
    source.Load32(table.data(), 2, true, false);
    source.phase = 1;
    CQuorvexBus copy(source);
    EXPECT_EQ(copy.count, 6);
    EXPECT_EQ(copy.historyLength, 2);
    EXPECT_EQ(copy.doubledLength, 2);
    EXPECT_EQ(copy.phase, 1);
    EXPECT_EQ(copy.tag, 4);
    EXPECT_EQ(copy.form, 0);

    CQuorvexBus assigned(3);
    const auto other = Sequence(6, 0);
    assigned.Load32(other.data(), 6, false, false);
    assigned = source;
    EXPECT_EQ(assigned.tag, 4);
    EXPECT_EQ(assigned.phase, 1);
    EXPECT_EQ(assigned.GetHistoryLength(), 2);
    EXPECT_EQ(assigned.GetDoubledLength(), 2);
    source.SetElement(0, -1);
    EXPECT_EQ(IntAt(copy, 0), 100);
    EXPECT_EQ(IntAt(assigned, 0), 100);
    EXPECT_NE(assigned.ints.data, source.ints.data);
}

TEST(BusCopy, AssigningEmptyEmptiesAndSelfAssignmentKeeps)
{
    const auto table = Sequence(5, 1);
    CQuorvexBus full;
    full.Load32(table.data(), 5, false, false);
    full.Load64(std::vector<int64_t>{1, 2}.data(), 2, false, false);
    full = CQuorvexBus();
    EXPECT_EQ(full.ints.data, nullptr);
    EXPECT_EQ(full.wides.data, nullptr);
    EXPECT_EQ(full.GetCount(), 0);
    EXPECT_EQ(full.form, -1);

    CQuorvexBus bus;
    bus.Load32(table.data(), 5, false, false);
    const int32_t* storage = bus.ints.data;
    CQuorvexBus& alias = bus;
    bus = alias;
    EXPECT_EQ(bus.ints.data, storage);
    EXPECT_EQ(IntAt(bus, 4), 5);
}

}  // namespace
}  // namespace tarnlow
