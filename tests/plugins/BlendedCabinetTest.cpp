#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "BlendedCabinet.h"
#include "PluginTestSignals.h"

namespace tarnlow::lv2 {
namespace {

using testing::GuitarLike;
using testing::LargestStep;
using testing::LoneModel;

constexpr int rate = 48000;

// Drives a BlendedCabinet the way the plug-in's run() does without a worker.
struct Host {
    explicit Host(int32_t sampleRate = rate) : cabinet(sampleRate) { cabinet.Restart(); }

    void Want(const CabinetSettings& settings)
    {
        const BlendedCabinet::Step step = cabinet.Plan(settings);
        if (step == BlendedCabinet::Step::ApplyNow) cabinet.ApplyImmediately(settings);
        if (step != BlendedCabinet::Step::Prepare) return;
        const PrepareJob job = cabinet.BeginPreparing(settings);
        cabinet.PrepareStandby(job);
        cabinet.AdoptStandby(job.pair);
    }

    std::vector<float> Run(const float* in, std::size_t count, std::size_t block, float blend = 0.0f, float levelDb = 0.0f)
    {
        std::vector<float> out(count);
        for (std::size_t done = 0; done < count; done += block)
            cabinet.Process(in + done, out.data() + done, uint32_t(std::min(block, count - done)), blend, levelDb);
        return out;
    }

    BlendedCabinet cabinet;
};

CabinetSettings WithSecond(CabinetSettings settings, int microphone2, int position2)
{
    return {settings.speaker, settings.microphone, settings.position, microphone2, position2, true};
}

TEST(CabinetSettings, ControlsAreRoundedAndClampedNaNTakesTheDefaultAndTheSecondMicrophoneNeedsABlend)
{
    const float nan = std::numeric_limits<float>::quiet_NaN();
    EXPECT_EQ(SettingsFrom({2.5f, 0.4f, 1.6f}), (CabinetSettings{3, 0, 2}));
    EXPECT_EQ(SettingsFrom({-7.0f, 9.0f, std::numeric_limits<float>::infinity()}), (CabinetSettings{0, 1, 2}));
    EXPECT_EQ(SettingsFrom({nan, nan, nan, nan, nan, nan, nan}), (CabinetSettings{2, 0, 0}));
    const CabinetSettings unused = SettingsFrom({.microphone2 = 0.0f, .position2 = 2.0f, .blend = 0.0f});
    EXPECT_FALSE(unused.secondInUse);
    EXPECT_EQ(SettingsFrom({.microphone2 = 1.0f, .position2 = 1.0f, .blend = -0.5f}), unused);
    EXPECT_EQ(SettingsFrom({.microphone2 = 1.0f, .position2 = 1.0f, .blend = 0.01f}), WithSecond({}, 1, 1));
}

TEST(BlendedCabinet, SteadyOutputIsTheLibrarysOwnAtAnyRateAndBlockSize)
{
    for (const auto& [sampleRate, block] : {std::pair{48000, 64}, {22050, 1000}, {44100, 6000}, {192000, 512}}) {
        Host host(sampleRate);
        const std::vector<float> input = GuitarLike(6000, sampleRate);
        EXPECT_EQ(host.Run(input.data(), input.size(), std::size_t(block)), LoneModel(sampleRate, {2, 0, 0}, input))
            << sampleRate << " " << block;
        EXPECT_EQ(host.cabinet.CrossfadeLength(), uint32_t(std::lround(0.02 * sampleRate)));
    }
    // A model other than the default, asked for before the first sample, plays from the start.
    Host host;
    host.Want({4, 1, 2});
    EXPECT_FALSE(host.cabinet.ChangeUnderWay());
    const std::vector<float> input = GuitarLike(6000, rate);
    EXPECT_EQ(host.Run(input.data(), input.size(), 256), LoneModel(rate, {4, 1, 2}, input));
}

TEST(BlendedCabinet, ChangesCrossfadeWithoutAClickWhereTheLibraryAloneSwitchesHard)
{
    const std::vector<float> input = GuitarLike(12000, rate, 110.0, 0.0);
    const std::vector<float> before = LoneModel(rate, {2, 0, 0}, input);
    // Change where the old model's output is loudest, where a hard switch clicks most.
    std::size_t change = 4000;
    for (std::size_t n = 4000; n < 4500; ++n)
        if (std::fabs(before[n]) > std::fabs(before[change])) change = n;

    Host host;
    std::vector<float> output = host.Run(input.data(), change, 64);
    host.Want({0, 1, 1});
    EXPECT_TRUE(host.cabinet.ChangeUnderWay());
    const std::vector<float> rest = host.Run(input.data() + change, input.size() - change, 64);
    output.insert(output.end(), rest.begin(), rest.end());
    EXPECT_FALSE(host.cabinet.ChangeUnderWay());

    // After 20 ms only the new model sounds, exactly as one started at the change.
    const std::size_t fade = host.cabinet.CrossfadeLength();
    const std::vector<float> after = LoneModel(rate, {0, 1, 1}, input.data() + change, input.size() - change);
    for (std::size_t n = change + fade; n < input.size(); ++n) ASSERT_EQ(output[n], after[n - change]) << n;

    // The library alone switches hard: the new model restarts from clean state at once.
    std::vector<float> switched(before.begin(), before.begin() + std::ptrdiff_t(change));
    switched.insert(switched.end(), after.begin(), after.end());
    const float music = std::max(LargestStep(before, 1000, change), LargestStep(after, 1000, after.size()));
    const float clicked = LargestStep(switched, change - 10, change + 10);
    EXPECT_LT(LargestStep(output, change - 10, change + fade + 10), 1.5f * music);
    EXPECT_GT(clicked, 4.0f * music) << "the hard switch should click: " << clicked << " vs " << music;
}

TEST(BlendedCabinet, BlendingInTheSecondMicrophoneIsAChangeWithoutAClick)
{
    const std::vector<float> input = GuitarLike(9600, rate, 110.0, 0.0);
    Host host;
    std::vector<float> output = host.Run(input.data(), 4800, 64);
    host.Want(SettingsFrom({.microphone2 = 1.0f, .position2 = 2.0f, .blend = 1.0f}));
    EXPECT_TRUE(host.cabinet.ChangeUnderWay());
    const std::vector<float> rest = host.Run(input.data() + 4800, 4800, 64, 1.0f);
    output.insert(output.end(), rest.begin(), rest.end());
    const std::vector<float> steady = LoneModel(rate, {2, 0, 0}, input);
    EXPECT_LT(LargestStep(output, 4790, 6000), 1.5f * LargestStep(steady, 1000, 4800));
    EXPECT_NE(std::vector<float>(output.end() - 100, output.end()), std::vector<float>(steady.end() - 100, steady.end()));
}

TEST(BlendedCabinet, OneChangeAtATimeTheLatestWinsAndACalledOffJobStartsNothing)
{
    const std::vector<float> input = GuitarLike(4800, rate);
    Host host;
    host.Run(input.data(), 100, 100);
    host.Want({0, 0, 0});
    EXPECT_EQ(host.cabinet.Plan({1, 0, 0}), BlendedCabinet::Step::Nothing) << "wait for the crossfade";
    host.Run(input.data(), 500, 100);
    EXPECT_TRUE(host.cabinet.ChangeUnderWay());
    host.Run(input.data(), 500, 100);
    EXPECT_EQ(host.cabinet.Plan({1, 0, 0}), BlendedCabinet::Step::Prepare);
    EXPECT_EQ(host.cabinet.Plan({0, 0, 0}), BlendedCabinet::Step::Nothing);

    const PrepareJob job = host.cabinet.BeginPreparing({3, 0, 0});
    EXPECT_EQ(host.cabinet.Plan({4, 0, 0}), BlendedCabinet::Step::Nothing) << "one job at a time";
    host.cabinet.CancelPreparing();
    EXPECT_EQ(host.cabinet.Plan({3, 0, 0}), BlendedCabinet::Step::Prepare) << "a refused job is asked for again";
    host.cabinet.AdoptStandby(job.pair);
    EXPECT_EQ(host.cabinet.Playing(), (CabinetSettings{0, 0, 0}));
    EXPECT_FALSE(host.cabinet.ChangeUnderWay());
}

TEST(BlendedCabinet, LevelScalesTheOutputGlidesWhenMovedAndIsHeldAtTheEndsOfItsScale)
{
    const std::vector<float> input = GuitarLike(14400, rate);
    const std::vector<float> plain = LoneModel(rate, {2, 0, 0}, input);
    Host host;
    const std::vector<float> quiet = host.Run(input.data(), 4800, 128, 0.0f, -6.0f);
    for (std::size_t n = 0; n < quiet.size(); ++n) ASSERT_NEAR(quiet[n], std::pow(10.0f, -6.0f / 20.0f) * plain[n], 1e-6f) << n;

    const std::vector<float> loud = host.Run(input.data() + 4800, 9600, 128, 0.0f, 12.0f);
    const std::vector<float> plainRest(plain.begin() + 4800, plain.end());
    const float top = std::pow(10.0f, 12.0f / 20.0f);
    // The glide over 10 ms adds next to nothing to the steps the louder music has anyway.
    EXPECT_LT(LargestStep(loud, 0, 960), 1.1f * top * LargestStep(plainRest, 0, 960));
    // Fifteen time constants later the glide has arrived.
    for (std::size_t n = 7200; n < loud.size(); ++n) ASSERT_NEAR(loud[n], top * plainRest[n], 1e-5f) << n;
    EXPECT_NEAR(Host().Run(input.data(), 480, 480, 0.0f, 40.0f)[100], top * plain[100], 1e-5f);
}

TEST(BlendedCabinet, ASecondMicrophoneAtTheSamePlaceChangesNothingAtAnyBlend)
{
    // Both microphones see the same speaker with no latency, so the blend is phase coherent.
    const std::vector<float> input = GuitarLike(4800, rate);
    for (const float blend : {0.25f, 1.0f}) {
        Host host;
        host.Want(WithSecond({1, 1, 2}, 1, 2));
        EXPECT_EQ(host.Run(input.data(), input.size(), 256, blend), LoneModel(rate, {1, 1, 2}, input)) << blend;
    }
}

TEST(BlendedCabinet, TheSecondMicrophoneIsMatchedInLoudness)
{
    // White-noise loudness: each model's power as the plug-in hears it.
    const std::vector<float> noise = GuitarLike(rate, rate, 0.0, 0.5);
    const auto decibelsFrom = [&](const std::vector<float>& signal, const std::vector<float>& reference) {
        return std::fabs(20.0 * std::log10(testing::Rms(signal) / testing::Rms(reference)));
    };
    const std::vector<float> first = LoneModel(rate, {4, 0, 0}, noise);
    double widest = 0.0;
    CabinetSettings blended = WithSecond({4, 0, 0}, 0, 0);
    for (int microphone = 0; microphone < microphoneCount; ++microphone) {
        for (int position = 0; position < positionCount; ++position) {
            const double raw = decibelsFrom(LoneModel(rate, {4, microphone, position}, noise), first);
            if (raw > widest) {
                widest = raw;
                blended = WithSecond(blended, microphone, position);
            }
        }
    }
    Host host;
    host.Want(blended);
    const double matched = decibelsFrom(host.Run(noise.data(), noise.size(), 512, 1.0f), first);
    EXPECT_LT(matched, 0.25) << "unmatched the two microphones differ by " << widest << " dB";
    EXPECT_GT(widest, matched);
}

}  // namespace
}  // namespace tarnlow::lv2
