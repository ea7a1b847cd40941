#include "boundary/CQuorvexPlugInstance.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace tarnlow {
namespace {

std::vector<int32_t> StateWords(CQuorvexAmp* amp)
{
    const CQuorvexBus& bank = amp->stateBanks[std::size_t(amp->activeBank.load())];
    return std::vector<int32_t>(bank.ints.data, bank.ints.data + bank.count);
}

void RunNoise(CQuorvexPlugInstance& instance, int samples)
{
    std::vector<float> buffer(static_cast<std::size_t>(samples));
    uint32_t seed = 1;
    for (float& v : buffer) {
        seed = seed * 1664525u + 1013904223u;
        v = float(int32_t(seed >> 9) - (1 << 22)) / float(1 << 22);
    }
    float* channels[1] = {buffer.data()};
    instance.ProcessBlock(channels, channels, samples, 1.0f, nullptr, 0);
}

TEST(PlugInstance, NewInstanceRunsAt44100Unsupported)
{
    CQuorvexPlugInstance instance(0);
    EXPECT_EQ(instance.currentRate, 44100);
    EXPECT_EQ(instance.rooms.size(), 1u);
    EXPECT_FALSE(instance.IsSampleRateSupported());
    EXPECT_EQ(instance.GetStatusText(), "WARNING: Sample rate not supported");
    RunNoise(instance, 100);
    EXPECT_FALSE(instance.IsSilent());
}

TEST(PlugInstance, TheCurrentRateAgainChangesNothing)
{
    CQuorvexPlugInstance instance(0);
    instance.SetParameter(0, 0.5f);
    CQuorvexAmpRoom* room = instance.GetRoom();
    instance.SetSampleRate(44100);
    EXPECT_EQ(instance.GetRoom(), room);
    EXPECT_EQ(instance.rooms.size(), 1u);
}

TEST(PlugInstance, SettingsMoveToANewRoom)
{
    CQuorvexPlugInstance instance(0);
    instance.SetSampleRate(48000);
    instance.SetParameter(0, 0.5f);
    instance.SetParameter(6, 1.0f);
    instance.SetSampleRate(96000);
    CQuorvexAmpRoom* room = instance.GetRoom();
    EXPECT_EQ(instance.rooms.size(), 3u);
    EXPECT_EQ(room->GetParameterAt(0)->value, 0.5f);
    EXPECT_EQ(room->SelectedAmp(), room->amps[2]);
    EXPECT_EQ(room->GetParameterAt(6)->value, 1.0f);
    EXPECT_TRUE(instance.IsSampleRateSupported());
}

TEST(PlugInstance, ReturningKeepsTheOldRoomsFilterState)
{
    CQuorvexPlugInstance instance(0);
    instance.SetSampleRate(48000);
    RunNoise(instance, 1000);
    CQuorvexAmpRoom* room48 = instance.GetRoom();
    const std::vector<int32_t> before = StateWords(room48->SelectedAmp());
    instance.SetSampleRate(96000);
    instance.SetParameter(2, 1.0f);
    instance.SetSampleRate(48000);
    EXPECT_EQ(instance.GetRoom(), room48);
    EXPECT_EQ(room48->GetParameterAt(2)->value, 1.0f);
    EXPECT_EQ(StateWords(room48->SelectedAmp()), before);
    EXPECT_FALSE(room48->SelectedAmp()->bankFlipPending.load());
}

TEST(PlugInstance, ZeroAndNegativeRatesAreRealRatesOfTheLowestBand)
{
    CQuorvexPlugInstance instance(0);
    instance.SetSampleRate(0);
    EXPECT_FALSE(instance.IsSampleRateSupported());
    EXPECT_EQ(instance.GetRoom()->SelectedAmp()->sampleRate, 44100);
    instance.SetSampleRate(-1);
    EXPECT_EQ(instance.currentRate, -1);
    EXPECT_EQ(instance.rooms.size(), 3u);
    EXPECT_EQ(instance.rooms.begin()->first, -1);  // keys compare as signed
    RunNoise(instance, 64);
}

TEST(PlugInstance, AnEqualValueCausesNoReset)
{
    CQuorvexPlugInstance instance(0);
    CQuorvexAmp* amp = instance.GetRoom()->SelectedAmp();
    instance.SetParameter(2, 0.5f);  // the position's default
    EXPECT_FALSE(instance.parameterResetSeen);
    EXPECT_FALSE(amp->bankFlipPending.load());
    instance.SetParameter(1, -0.0f);  // equals 0.0
    EXPECT_FALSE(instance.parameterResetSeen);
    instance.SetParameter(1, 1.0f);
    EXPECT_TRUE(instance.parameterResetSeen);
    EXPECT_TRUE(amp->bankFlipPending.load());
}

TEST(PlugInstance, MicrophoneOfAnotherSpeakerResetsTheSelectedAmp)
{
    CQuorvexPlugInstance instance(0);
    CQuorvexAmp* selected = instance.GetRoom()->SelectedAmp();
    RunNoise(instance, 64);
    instance.SetParameter(7, 1.0f);  // 4x10 type while the 1x12 runs
    EXPECT_TRUE(selected->bankFlipPending.load());
}

TEST(PlugInstance, TheLastIdStoresWithoutReset)
{
    CQuorvexPlugInstance instance(0);
    CQuorvexAmp* selected = instance.GetRoom()->SelectedAmp();
    RunNoise(instance, 64);
    instance.SetParameter(10, 1.0f);
    EXPECT_EQ(instance.GetRoom()->GetParameterAt(10)->value, 1.0f);
    EXPECT_FALSE(selected->bankFlipPending.load());
    EXPECT_FALSE(instance.parameterResetSeen);
}

TEST(PlugInstance, BypassOfTheSelectedAmpCrossesRates)
{
    CQuorvexPlugInstance instance(0);
    instance.SetSampleRate(48000);
    instance.SetBypass(true);
    instance.SetBpm(90.0f);
    instance.SetSampleRate(96000);
    CQuorvexAmpRoom* room = instance.GetRoom();
    EXPECT_TRUE(instance.IsBypassed());
    EXPECT_EQ(room->SelectedAmp()->hostBpm, 90.0f);
    for (int i = 1; i < 5; ++i) EXPECT_FALSE(room->amps[std::size_t(i)]->IsBypassed());
}

TEST(PlugInstance, ChannelCountsCrossRatesFromTheInputSide)
{
    CQuorvexPlugInstance instance(0);
    instance.SetAllChannels(2, 1);
    instance.SetSampleRate(48000);
    for (CQuorvexAmp* amp : instance.GetRoom()->amps) {
        EXPECT_EQ(amp->inputCount, 2);
        EXPECT_EQ(amp->outputCount, 2);
    }
}

TEST(PlugInstance, ForwardingAnswersWithoutMetersOrHints)
{
    CQuorvexPlugInstance instance(0);
    EXPECT_EQ(instance.GetMeterCount(), 0);
    EXPECT_EQ(instance.GetMeterName(0, false), "-- Invalid meter --");
    EXPECT_EQ(instance.ReadMeter(0, true), -1.0f);
    EXPECT_TRUE(instance.GetMeterPeakMode(0, false));
    EXPECT_EQ(instance.GetMeterKind(0, false), -1);
    for (int32_t index : {0, 1, 2}) EXPECT_EQ(instance.GetIoHint(index), -1);
    EXPECT_EQ(instance.GetIoHint(3), 0);
    EXPECT_EQ(instance.GetIoHint(-1), 0);
    EXPECT_EQ(instance.GetLatency(), 0);
    EXPECT_EQ(instance.GetReserved(), 0);
    EXPECT_EQ(instance.GetParameterCount(), 11);
    EXPECT_EQ(instance.GetParameterValue(2), 0.5f);
    EXPECT_EQ(instance.GetParameterValue(-1), -1.0f);
    EXPECT_EQ(instance.GetBusCount(3, 0), instance.GetRoom()->SelectedAmp()->busConstants->GetCount());
    EXPECT_EQ(instance.GetBusCount(9, 0), 0);
    EXPECT_TRUE(instance.HasHostBpm());
    instance.SetBpm(-1.0f);
    EXPECT_FALSE(instance.HasHostBpm());
}

TEST(PlugInstance, ParameterQueriesByFlatId)
{
    CQuorvexPlugInstance instance(0);
    EXPECT_EQ(instance.GetParameterName(1, 8), "Micropho");
    EXPECT_EQ(instance.GetParameterName(1, 9), "Microphon");
    EXPECT_EQ(instance.GetParameterName(1, -1), "MicrophoneType");
    EXPECT_EQ(instance.GetParameterName(0, 8), "AmpSwtch");
    EXPECT_EQ(instance.GetParameterName(0, -5), "AmpSwtch");
    EXPECT_EQ(instance.GetParameterName(-1, 20), "-Invalid-");
    EXPECT_EQ(instance.GetParameterName(-1, 3), "INV");
    EXPECT_EQ(instance.GetParameterName(-1, -1), "-- Invalid parameter --");
    EXPECT_EQ(instance.GetParameterKind(2), 1);
    EXPECT_EQ(instance.GetParameterKind(-2), -1);
    EXPECT_EQ(instance.GetParameterTag(5), int32_t(FourCC("c401")));
    EXPECT_EQ(instance.GetParameterTag(-1), -1);
    EXPECT_EQ(instance.GetParameterStepCount(0), 5);
    EXPECT_EQ(instance.GetParameterStepCount(2), 3);
    instance.SetParameterName(3, "Mic");
    EXPECT_EQ(instance.GetRoom()->GetParameterFullName(3), "Mic");
    instance.SetParameterName(-1, "ignored");
    EXPECT_EQ(instance.ParameterValueToText(2, 3, 0.5f), "0.5");
    EXPECT_EQ(instance.ParameterValueToText(2, -1, 0.7f), "1.000");  // stepped first
    float value = -1.0f;
    EXPECT_TRUE(instance.ParameterTextToValue(4, "0.25", value));
    EXPECT_EQ(value, 0.25f);
    EXPECT_EQ(instance.GetRoom()->GetParameterUnit(1, 200), "");
    EXPECT_EQ(instance.GetRoom()->ParameterCurrentText(2, 20), "0.500");
}

}  // namespace
}  // namespace tarnlow
