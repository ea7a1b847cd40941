#include "room/CQuorvexAmpRoomNative.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "room/RateBands.h"

namespace tarnlow {
namespace {

// The model name stands behind the base fields of each speaker class; the room is
// checked through the rate the models were made for and the tags of their records.
int32_t ModelRate(const CQuorvexAmpRoom& room, int index)
{
    return room.amps[std::size_t(index)]->sampleRate;
}

TEST(RateBands, BordersFallToTheBandBelow)
{
    struct Case {
        int32_t rate;
        RateBand band;
    };
    const Case cases[] = {
        {46049, RateBand::Band44},   {46050, RateBand::Band48},   {68099, RateBand::Band48},
        {68100, RateBand::Band88},   {92099, RateBand::Band88},   {92100, RateBand::Band96},
        {136099, RateBand::Band96},  {136100, RateBand::Band176}, {184099, RateBand::Band176},
        {184100, RateBand::Band192}, {32000, RateBand::Band44},   {22050, RateBand::Band44},
        {0, RateBand::Band44},       {-1, RateBand::Band44},      {INT32_MIN, RateBand::Band44},
        {384000, RateBand::Band192}, {INT32_MAX, RateBand::Band192},
    };
    for (const Case& c : cases) EXPECT_EQ(BandForRate(c.rate).band, c.band) << c.rate;
}

TEST(NativeRoom, SupportedOnlyAtTheRoundRates)
{
    for (int32_t rate : {44000, 48000, 88000, 96000, 176000, 192000})
        EXPECT_TRUE(CQuorvexAmpRoomNative(rate).rateSupported) << rate;
    for (int32_t rate : {44100, 88200, 176400, 32000, 22050, 384000, 0, -1, 96001})
        EXPECT_FALSE(CQuorvexAmpRoomNative(rate).rateSupported) << rate;
}

TEST(NativeRoom, BuildsTheFiveModelsOfTheBand)
{
    const struct {
        int32_t rate;
        int32_t modelRate;
    } cases[] = {{44100, 44100}, {44000, 44100}, {48000, 48000}, {88000, 88200},
                 {96000, 96000}, {176000, 176400}, {192000, 192000}, {384000, 192000}};
    for (const auto& c : cases) {
        CQuorvexAmpRoomNative room(c.rate);
        ASSERT_EQ(room.GetAmpCount(), 5);
        EXPECT_EQ(room.SelectedAmp(), room.amps[0]);
        EXPECT_EQ(room.GetParameterCount(), 11);
        EXPECT_EQ(room.wordBitsForParameters, 32);
        for (int i = 0; i < 5; ++i) EXPECT_EQ(ModelRate(room, i), c.modelRate) << c.rate;
    }
}

TEST(NativeRoom, SpeakerOrderShowsInTheTags)
{
    CQuorvexAmpRoomNative room(48000);
    const uint32_t typeTags[] = {FourCC("c101"), FourCC("c201"), FourCC("c401"), FourCC("c401"), FourCC("c401")};
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(room.GetParameterAt(1 + 2 * i)->tag, typeTags[i]);
        EXPECT_EQ(room.GetParameterAt(1 + 2 * i)->name, "MicrophoneType");
        EXPECT_EQ(room.GetParameterAt(2 + 2 * i)->name, "MicrophonePosition");
        EXPECT_EQ(room.GetParameterAt(2 + 2 * i)->value, 0.5f);
        EXPECT_EQ(room.GetParameterAt(2 + 2 * i)->wordBits, 32);
    }
    EXPECT_EQ(room.ampSwitch->wordBits, 32);
}

TEST(NativeRoom, ResetFlagsAreOneShortOfTheIds)
{
    CQuorvexAmpRoomNative room(96000);
    EXPECT_EQ(room.resetFlagCount, 10);
    for (int32_t id = 0; id < 10; ++id) EXPECT_TRUE(room.NeedsReset(id)) << id;
    // The 4x10Bass position has no entry of its own and reads as not resetting.
    EXPECT_FALSE(room.NeedsReset(10));
    EXPECT_FALSE(room.NeedsReset(-1));
}

}  // namespace
}  // namespace tarnlow
