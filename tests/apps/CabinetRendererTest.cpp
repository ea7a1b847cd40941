#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "render/CabinetRenderer.h"
#include "support/HostCalls.h"

namespace tarnlow::render {
namespace {

using tarnlow::testing::GuitarLike;

std::vector<float> Mono(const CabinetChoice& cabinet, int rate, std::vector<float> signal)
{
    CabinetInstance(cabinet, rate).Process(signal.data(), signal.size());
    return signal;
}

TEST(CabinetRenderer, EachChannelRunsAloneAsAMonoInstanceWouldHoweverTheFileIsCut)
{
    constexpr int rate = 48000;
    constexpr std::size_t frames = 10000;  // more than two library blocks
    const CabinetChoice cabinet{3, 1, 1};
    const std::vector<float> left = GuitarLike(frames, rate, 110.0), right = GuitarLike(frames, rate, 330.0);
    std::vector<float> interleaved(frames * 3, 0.0f);  // a silent third channel must stay silent: no crosstalk
    for (std::size_t n = 0; n < frames; ++n) {
        interleaved[3 * n] = left[n];
        interleaved[3 * n + 1] = right[n];
    }
    std::vector<float> mono = left;
    for (const auto& [samples, channels] : {std::pair{interleaved.data(), 3}, std::pair{mono.data(), 1}}) {
        MultiChannelCabinet multi(cabinet, rate, channels);
        std::size_t done = 0;
        for (const std::size_t piece : {1u, 15u, 17u, 4096u, 333u, 0u}) {
            multi.Process(samples + channels * done, piece == 0 ? frames - done : piece);
            done += piece;
        }
    }
    const std::vector<float> leftAlone = Mono(cabinet, rate, left), rightAlone = Mono(cabinet, rate, right);
    EXPECT_EQ(mono, leftAlone);
    for (std::size_t n = 0; n < frames; ++n) {
        ASSERT_EQ(interleaved[3 * n], leftAlone[n]) << n;
        ASSERT_EQ(interleaved[3 * n + 1], rightAlone[n]) << n;
        ASSERT_EQ(interleaved[3 * n + 2], 0.0f) << n;
    }
}

TEST(CabinetRenderer, AnImpulseResponseIsEachModelsOwnAnswerToAClick)
{
    std::vector<float> click(3000, 0.0f);
    click[0] = 1.0f;
    EXPECT_EQ(ImpulseResponse({4, 0, 2}, 96000, click.size()), Mono({4, 0, 2}, 96000, click));
    EXPECT_NE(ImpulseResponse({4, 0, 2}, 48000, click.size()), Mono({4, 0, 2}, 96000, click)) << "another band";
    EXPECT_TRUE(ImpulseResponse({4, 0, 2}, 96000, 0).empty());
    std::vector<std::vector<float>> responses;
    for (int speaker = 0; speaker < 5; ++speaker)
        for (int microphone = 0; microphone < 2; ++microphone)
            for (int position = 0; position < 3; ++position)
                responses.push_back(ImpulseResponse({speaker, microphone, position}, 48000, 2048));
    for (std::size_t a = 0; a < responses.size(); ++a) {
        double energy = 0.0;
        for (const float sample : responses[a]) {
            ASSERT_TRUE(std::isfinite(sample));
            energy += double(sample) * sample;
        }
        EXPECT_GT(energy, 0.0) << a;
        for (std::size_t b = a + 1; b < responses.size(); ++b) EXPECT_NE(responses[a], responses[b]) << a << " " << b;
    }
}

}  // namespace
}  // namespace tarnlow::render
