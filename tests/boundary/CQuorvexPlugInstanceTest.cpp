#include "boundary/CQuorvexPlugInstance.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "support/HostCalls.h"

namespace tarnlow {
namespace {

std::vector<int32_t> StateWords(CQuorvexAmp* amp)
{
    const CQuorvexBus& bank = amp->stateBanks[std::size_t(amp->activeBank.load())];
    return std::vector<int32_t>(bank.ints.data, bank.ints.data + bank.count);
}

void RunNoise(CQuorvexPlugInstance& instance, int samples)
{
    std::vector<float> buffer = testing::Noise(std::size_t(samples), 1);
    float* channels[1] = {buffer.data()};
    instance.ProcessBlock(channels, channels, samples, 1.0f, nullptr, 0);
}

TEST(PlugInstance, NewInstanceRunsAt44100UnsupportedAndZeroAndNegativeRatesAreRatesOfTheLowestBand)
{
    CQuorvexPlugInstance instance(0);
    EXPECT_EQ(instance.currentRate, 44100);
    EXPECT_EQ(instance.GetStatusText(), "WARNING: Sample rate not supported");
    CQuorvexAmpRoom* room = instance.GetRoom();
    instance.SetSampleRate(44100);  // the same rate changes nothing
    EXPECT_EQ(instance.GetRoom(), room);
    instance.SetSampleRate(0);
    EXPECT_FALSE(instance.IsSampleRateSupported());
    EXPECT_EQ(instance.GetRoom()->SelectedAmp()->sampleRate, 44100);
    instance.SetSampleRate(-1);
    EXPECT_EQ(instance.rooms.size(), 3u);
    EXPECT_EQ(instance.rooms.begin()->first, -1);  // keys compare as signed
    RunNoise(instance, 64);
    EXPECT_FALSE(instance.IsSilent());
    instance.SetSampleRate(48000);
    EXPECT_EQ(instance.GetStatusText(), "");
}

TEST(PlugInstance, SettingsMoveToANewRoomAndTheOldRoomKeepsItsState)
{
    CQuorvexPlugInstance instance(0);
    instance.SetSampleRate(48000);
    instance.SetParameter(0, 0.5f);
    instance.SetParameter(6, 1.0f);
    RunNoise(instance, 1000);
    CQuorvexAmpRoom* room48 = instance.GetRoom();
    const std::vector<int32_t> before = StateWords(room48->SelectedAmp());
    instance.SetAllChannels(2, 1);
    instance.SetBypass(true);
    instance.SetBpm(90.0f);
    instance.SetSampleRate(96000);
    CQuorvexAmpRoom* room = instance.GetRoom();
    EXPECT_EQ(instance.rooms.size(), 3u);
    EXPECT_EQ(room->GetParameterAt(0)->value, 0.5f);
    EXPECT_EQ(room->SelectedAmp(), room->amps[2]);
    EXPECT_EQ(room->GetParameterAt(6)->value, 1.0f);
    EXPECT_EQ(room->SelectedAmp()->hostBpm, 90.0f);
    for (std::size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(room->amps[i]->IsBypassed(), i == 2) << i;  // only the selected amp's flag crosses
        EXPECT_EQ(room->amps[i]->outputCount, 2) << i;        // both counts from the input side
    }
    instance.SetParameter(2, 1.0f);
    instance.SetSampleRate(48000);
    EXPECT_EQ(instance.GetRoom(), room48);
    EXPECT_EQ(room48->GetParameterAt(2)->value, 1.0f);
    EXPECT_EQ(StateWords(room48->SelectedAmp()), before);
    EXPECT_FALSE(room48->SelectedAmp()->bankFlipPending.load());
}

TEST(PlugInstance, AChangedValueResetsTheSelectedAmpWhereTheIdsFlagSaysSo)
{
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const struct {
        int32_t id;
        float value;
        bool resets;
    } steps[] = {{2, 0.5f, false},                                   // the position's default
                 {1, -0.0f, false},                                  // equals 0.0
                 {1, 1.0f, true},   {1, nan, true}, {1, nan, true},  // NaN equals nothing, itself too
                 {7, 1.0f, true},                                    // the 4x10 type while the 1x12 runs
                 {10, 1.0f, false}};                                 // the last id has no reset flag
    CQuorvexPlugInstance instance(0);
    CQuorvexAmp* selected = instance.GetRoom()->SelectedAmp();
    for (const auto& step : steps) {
        RunNoise(instance, 64);  // takes any pending flip
        instance.parameterResetSeen = false;
        instance.SetParameter(step.id, step.value);
        EXPECT_EQ(instance.parameterResetSeen, step.resets) << step.id << " " << step.value;
        EXPECT_EQ(selected->bankFlipPending.load(), step.resets) << step.id << " " << step.value;
        const float stored = instance.GetRoom()->GetParameterAt(step.id)->value;
        EXPECT_TRUE(stored == step.value || (std::isnan(stored) && std::isnan(step.value))) << step.id;
    }
}

TEST(PlugInstance, QueriesByFlatIdAndTheFixedAnswersOfTheUnusedSurface)
{
    CQuorvexPlugInstance instance(0);
    EXPECT_EQ(instance.GetParameterName(1, 8), "Micropho");
    EXPECT_EQ(instance.GetParameterName(0, -5), "AmpSwtch");
    EXPECT_EQ(instance.GetParameterName(-1, 20) + instance.GetParameterName(-1, 3), "-Invalid-INV");
    EXPECT_EQ(instance.GetParameterName(-1, -1), "-- Invalid parameter --");
    EXPECT_EQ(instance.GetParameterTag(-1) + instance.GetParameterKind(-2), -2);
    EXPECT_EQ(instance.GetParameterValue(-1), -1.0f);
    EXPECT_EQ(instance.ParameterValueToText(2, 3, 0.5f), "0.5");
    EXPECT_EQ(instance.ParameterValueToText(2, -1, 0.7f), "1.000");  // stepped first
    float value = -1.0f;
    EXPECT_TRUE(instance.ParameterTextToValue(4, "0.25", value));
    EXPECT_EQ(value, 0.25f);
    EXPECT_EQ(instance.GetMeterName(0, false), "-- Invalid meter --");
    EXPECT_EQ(instance.ReadMeter(0, true) + float(instance.GetMeterKind(0, false)), -2.0f);
    EXPECT_EQ(instance.GetIoHint(2), -1);
    EXPECT_EQ(instance.GetIoHint(3), 0);
    EXPECT_EQ(instance.GetBusCount(9, 0), 0);
    instance.SetBpm(-1.0f);
    EXPECT_FALSE(instance.HasHostBpm());
}

}  // namespace
}  // namespace tarnlow
