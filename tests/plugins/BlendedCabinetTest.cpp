#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <thread>
#include <vector>

#include "BlendedCabinet.h"
#include "PluginTestSignals.h"

namespace tarnlow::lv2 {
namespace {

using testing::GuitarLike;
using testing::LargestStep;
using testing::LoneModel;
using testing::Rms;

constexpr int rate = 48000;

CabinetSettings Model(int speaker, int microphone, int position)
{
    CabinetSettings settings;
    settings.speaker = speaker;
    settings.microphone = microphone;
    settings.position = position;
    return settings;
}

// Drives a BlendedCabinet the way the plug-in's run() does without a worker.
struct Host {
    explicit Host(int32_t sampleRate = rate) : cabinet(sampleRate) { cabinet.Restart(); }

    void Want(const CabinetSettings& settings)
    {
        switch (cabinet.Plan(settings)) {
        case BlendedCabinet::Step::Nothing: break;
        case BlendedCabinet::Step::ApplyNow: cabinet.ApplyImmediately(settings); break;
        case BlendedCabinet::Step::Prepare: {
            const PrepareJob job = cabinet.BeginPreparing(settings);
            cabinet.PrepareStandby(job);
            cabinet.AdoptStandby(job.pair);
            break;
        }
        }
    }

    std::vector<float> Run(const float* in, std::size_t count, std::size_t block, float blend = 0.0f,
                           float levelDb = 0.0f)
    {
        std::vector<float> out(count);
        for (std::size_t done = 0; done < count; done += block) {
            const auto n = uint32_t(std::min(block, count - done));
            cabinet.Process(in + done, out.data() + done, n, blend, levelDb);
        }
        return out;
    }

    BlendedCabinet cabinet;
};

TEST(CabinetSettings, ControlsAreRoundedAndClampedAndNaNTakesTheDefault)
{
    ControlValues values;
    values.speaker = 2.5f;
    values.microphone = 0.4f;
    values.position = 1.6f;
    EXPECT_EQ(SettingsFrom(values), Model(3, 0, 2));
    values.speaker = -7.0f;
    values.microphone = 9.0f;
    values.position = std::numeric_limits<float>::infinity();
    EXPECT_EQ(SettingsFrom(values), Model(0, 1, 2));
    const float nan = std::numeric_limits<float>::quiet_NaN();
    values = ControlValues{nan, nan, nan, nan, nan, nan, nan};
    EXPECT_EQ(SettingsFrom(values), Model(2, 0, 0));
}

TEST(CabinetSettings, TheSecondMicrophoneCountsOnlyWhenBlendedIn)
{
    ControlValues values;
    values.microphone2 = 0.0f;
    values.position2 = 2.0f;
    values.blend = 0.0f;
    const CabinetSettings unused = SettingsFrom(values);
    EXPECT_FALSE(unused.secondInUse);
    values.microphone2 = 1.0f;
    values.position2 = 1.0f;
    EXPECT_EQ(SettingsFrom(values), unused);

    values.blend = 0.01f;
    const CabinetSettings used = SettingsFrom(values);
    EXPECT_TRUE(used.secondInUse);
    EXPECT_EQ(used.microphone2, 1);
    EXPECT_EQ(used.position2, 1);
    values.blend = -0.5f;
    EXPECT_FALSE(SettingsFrom(values).secondInUse);
}

TEST(BlendedCabinet, SteadyOutputIsTheLibrarysOwnInAnyBlockSize)
{
    const std::vector<float> input = GuitarLike(6000, rate);
    for (const std::size_t block : {std::size_t(1), std::size_t(64), std::size_t(1000), std::size_t(6000)}) {
        Host host;
        host.Want(Model(2, 0, 0));
        EXPECT_EQ(host.Run(input.data(), input.size(), block), LoneModel(rate, 2, 0, 0).Run(input)) << block;
    }
    // A model other than the default, asked for before the first sample, plays from the start.
    Host host;
    host.Want(Model(4, 1, 2));
    EXPECT_FALSE(host.cabinet.ChangeUnderWay());
    EXPECT_EQ(host.Run(input.data(), input.size(), 256), LoneModel(rate, 4, 1, 2).Run(input));
}

TEST(BlendedCabinet, AChangeCrossfadesWithoutAClickIntoAFreshModel)
{
    const std::vector<float> input = GuitarLike(12000, rate, 110.0, 0.0);
    const std::vector<float> before = LoneModel(rate, 2, 0, 0).Run(input);
    // Change where the old model's output is loudest, where a hard switch clicks most.
    std::size_t change = 4000;
    for (std::size_t n = 4000; n < 4500; ++n)
        if (std::fabs(before[n]) > std::fabs(before[change])) change = n;

    Host host;
    host.Want(Model(2, 0, 0));
    std::vector<float> output = host.Run(input.data(), change, 64);
    host.Want(Model(0, 1, 1));
    EXPECT_TRUE(host.cabinet.ChangeUnderWay());
    const std::vector<float> rest = host.Run(input.data() + change, input.size() - change, 64);
    output.insert(output.end(), rest.begin(), rest.end());
    EXPECT_FALSE(host.cabinet.ChangeUnderWay());

    // After 20 ms only the new model sounds, exactly as one started at the change.
    const std::size_t fade = host.cabinet.CrossfadeLength();
    EXPECT_EQ(fade, 960u);
    const std::vector<float> after = LoneModel(rate, 0, 1, 1).Run(input.data() + change, input.size() - change);
    for (std::size_t n = change + fade; n < input.size(); ++n) ASSERT_EQ(output[n], after[n - change]) << n;

    // The library alone switches hard: the new model restarts from clean state at once.
    std::vector<float> switched(before.begin(), before.begin() + std::ptrdiff_t(change));
    switched.insert(switched.end(), after.begin(), after.end());

    const float music = std::max(LargestStep(before, 1000, change), LargestStep(after, 1000, after.size()));
    const float crossfaded = LargestStep(output, change - 10, change + fade + 10);
    const float clicked = LargestStep(switched, change - 10, change + 10);
    EXPECT_LT(crossfaded, 1.5f * music) << "crossfade step " << crossfaded << ", music " << music;
    EXPECT_GT(clicked, 4.0f * music) << "the hard switch should click: " << clicked << " vs " << music;
}

TEST(BlendedCabinet, TheWorkerPreparesWhileTheAudioGoesOn)
{
    const std::vector<float> input = GuitarLike(9600, rate);
    Host host;
    host.Want(Model(1, 0, 0));
    std::vector<float> output = host.Run(input.data(), 2400, 32);

    BlendedCabinet& cabinet = host.cabinet;
    const CabinetSettings next = Model(3, 1, 2);
    ASSERT_EQ(cabinet.Plan(next), BlendedCabinet::Step::Prepare);
    const PrepareJob job = cabinet.BeginPreparing(next);
    EXPECT_EQ(cabinet.Plan(Model(4, 0, 0)), BlendedCabinet::Step::Nothing) << "one job at a time";

    std::thread worker([&cabinet, job] { cabinet.PrepareStandby(job); });
    std::size_t done = 2400;
    for (; done < 4800; done += 32) {
        const std::vector<float> block = host.Run(input.data() + done, 32, 32);
        output.insert(output.end(), block.begin(), block.end());
    }
    worker.join();
    // Nothing of the prepared model was heard before its response arrived.
    EXPECT_EQ(output, LoneModel(rate, 1, 0, 0).Run(input.data(), done));
    EXPECT_EQ(cabinet.Playing(), Model(1, 0, 0));

    cabinet.AdoptStandby(job.pair);
    EXPECT_EQ(cabinet.Playing(), next);
    const std::vector<float> rest = host.Run(input.data() + done, input.size() - done, 32);
    const std::vector<float> fresh = LoneModel(rate, 3, 1, 2).Run(input.data() + done, input.size() - done);
    const std::size_t fade = cabinet.CrossfadeLength();
    EXPECT_NE(rest[0], fresh[0]) << "the old model still fades out";
    for (std::size_t n = fade; n < rest.size(); ++n) ASSERT_EQ(rest[n], fresh[n]) << n;
}

TEST(BlendedCabinet, ChangesDuringACrossfadeWaitAndTheLatestWins)
{
    const std::vector<float> input = GuitarLike(4800, rate);
    Host host;
    host.Run(input.data(), 100, 100);
    host.Want(Model(0, 0, 0));
    EXPECT_EQ(host.cabinet.Plan(Model(1, 0, 0)), BlendedCabinet::Step::Nothing);
    host.Run(input.data(), 500, 100);
    EXPECT_TRUE(host.cabinet.ChangeUnderWay());
    host.Run(input.data(), 500, 100);
    EXPECT_EQ(host.cabinet.Plan(Model(1, 0, 0)), BlendedCabinet::Step::Prepare);
    EXPECT_EQ(host.cabinet.Plan(Model(0, 0, 0)), BlendedCabinet::Step::Nothing);
}

TEST(BlendedCabinet, ARefusedJobIsAskedForAgain)
{
    Host host;
    const std::vector<float> input = GuitarLike(64, rate);
    host.Run(input.data(), input.size(), 64);
    ASSERT_EQ(host.cabinet.Plan(Model(3, 0, 0)), BlendedCabinet::Step::Prepare);
    const PrepareJob job = host.cabinet.BeginPreparing(Model(3, 0, 0));
    host.cabinet.CancelPreparing();
    EXPECT_EQ(host.cabinet.Plan(Model(3, 0, 0)), BlendedCabinet::Step::Prepare);
    // A response for a job that was called off starts nothing.
    host.cabinet.AdoptStandby(job.pair);
    EXPECT_EQ(host.cabinet.Playing(), Model(2, 0, 0));
    EXPECT_FALSE(host.cabinet.ChangeUnderWay());
}

TEST(BlendedCabinet, LevelScalesTheOutputAndGlidesWhenMoved)
{
    const std::vector<float> input = GuitarLike(14400, rate);
    const std::vector<float> plain = LoneModel(rate, 2, 0, 0).Run(input);
    Host host;
    const std::vector<float> quiet = host.Run(input.data(), 4800, 128, 0.0f, -6.0f);
    const float gain = std::pow(10.0f, -6.0f / 20.0f);
    for (std::size_t n = 0; n < quiet.size(); ++n) ASSERT_NEAR(quiet[n], gain * plain[n], 1e-6f) << n;

    const std::vector<float> loud = host.Run(input.data() + 4800, 9600, 128, 0.0f, 12.0f);
    const std::vector<float> plainRest(plain.begin() + 4800, plain.end());
    const float top = std::pow(10.0f, 12.0f / 20.0f);
    // The glide over 10 ms adds next to nothing to the steps the louder music has anyway.
    EXPECT_LT(LargestStep(loud, 0, 960), 1.1f * top * LargestStep(plainRest, 0, 960));
    // Fifteen time constants later the glide has arrived.
    for (std::size_t n = 7200; n < loud.size(); ++n) ASSERT_NEAR(loud[n], top * plainRest[n], 1e-5f) << n;
    // Out of range is held at the ends of the scale.
    Host clamped;
    const std::vector<float> held = clamped.Run(input.data(), 480, 480, 0.0f, 40.0f);
    EXPECT_NEAR(held[100], top * plain[100], 1e-5f);
}

TEST(BlendedCabinet, ASecondMicrophoneAtTheSamePlaceChangesNothingAtAnyBlend)
{
    // Both microphones see the same speaker with no latency, so the blend is phase coherent.
    const std::vector<float> input = GuitarLike(4800, rate);
    const std::vector<float> single = LoneModel(rate, 1, 1, 2).Run(input);
    for (const float blend : {0.25f, 0.5f, 1.0f}) {
        Host host;
        CabinetSettings both = Model(1, 1, 2);
        both.secondInUse = true;
        both.microphone2 = 1;
        both.position2 = 2;
        host.Want(both);
        EXPECT_EQ(host.Run(input.data(), input.size(), 256, blend), single) << blend;
    }
}

TEST(BlendedCabinet, TheSecondMicrophoneIsMatchedInLoudness)
{
    // White-noise loudness: each model's power as the plug-in hears it.
    const std::vector<float> noise = GuitarLike(rate, rate, 0.0, 0.5);
    const int speaker = 4;
    const double first = Rms(LoneModel(rate, speaker, 0, 0).Run(noise));
    double widest = 0.0;
    CabinetSettings blended = Model(speaker, 0, 0);
    blended.secondInUse = true;
    for (int microphone = 0; microphone < microphoneCount; ++microphone) {
        for (int position = 0; position < positionCount; ++position) {
            const double raw = std::fabs(20.0 * std::log10(Rms(LoneModel(rate, speaker, microphone, position).Run(noise)) / first));
            if (raw > widest) {
                widest = raw;
                blended.microphone2 = microphone;
                blended.position2 = position;
            }
        }
    }
    Host host;
    host.Want(blended);
    const double matched = std::fabs(20.0 * std::log10(Rms(host.Run(noise.data(), noise.size(), 512, 1.0f)) / first));
    EXPECT_LT(matched, 0.25) << "unmatched the two microphones differ by " << widest << " dB";
    EXPECT_GT(widest, matched);
}

TEST(BlendedCabinet, BlendingInTheSecondMicrophoneIsAChangeWithoutAClick)
{
    const std::vector<float> input = GuitarLike(9600, rate, 110.0, 0.0);
    Host host;
    std::vector<float> output = host.Run(input.data(), 4800, 64);
    ControlValues values;
    values.microphone2 = 1.0f;
    values.position2 = 2.0f;
    values.blend = 1.0f;
    host.Want(SettingsFrom(values));
    EXPECT_TRUE(host.cabinet.ChangeUnderWay());
    const std::vector<float> rest = host.Run(input.data() + 4800, 4800, 64, 1.0f);
    output.insert(output.end(), rest.begin(), rest.end());
    const std::vector<float> steady = LoneModel(rate, 2, 0, 0).Run(input);
    EXPECT_LT(LargestStep(output, 4790, 6000), 1.5f * LargestStep(steady, 1000, 4800));
    EXPECT_NE(std::vector<float>(output.end() - 100, output.end()), std::vector<float>(steady.end() - 100, steady.end()));
}

TEST(BlendedCabinet, WorksAtEveryBandAndOddRates)
{
    for (const int32_t sampleRate : {22050, 44100, 88200, 96000, 192000}) {
        Host host(sampleRate);
        const std::vector<float> input = GuitarLike(2048, sampleRate);
        const std::vector<float> output = host.Run(input.data(), input.size(), 512);
        EXPECT_EQ(output, LoneModel(sampleRate, 2, 0, 0).Run(input)) << sampleRate;
        EXPECT_EQ(host.cabinet.CrossfadeLength(), uint32_t(std::lround(0.02 * sampleRate)));
    }
}

}  // namespace
}  // namespace tarnlow::lv2
