// The models against two independent answers: the speaker lab's impulse responses (golden
// files) and a plain sample-by-sample writing of the network. In single precision with
// flush-to-zero both agree bit for bit (the plain network is taken with positive output gain,
// so the 4x12 is turned); the same network in double bounds what single precision costs.

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <complex>
#include <cstring>
#include <fstream>
#include <numbers>
#include <iterator>

#include "ModelRegistry.h"
#include "ReferenceNetwork.h"
#include "engine/FlushToZero.h"

namespace tarnlow::testing {
namespace {

constexpr int responseLength = 16384;

int DifferingSamples(const std::vector<float>& actual, const float* expected, float sign = 1.0f)
{
    int differing = 0;
    for (std::size_t i = 0; i < actual.size(); ++i)
        differing += std::bit_cast<uint32_t>(actual[i]) != std::bit_cast<uint32_t>(sign * expected[i]);
    return differing;
}

TEST(ModelReference, ImpulseResponsesMatchTheLabsGoldenFilesBitForBit)
{
    const std::string folder = std::string(TARNLOW_TEST_DATA_DIR) + "/models/golden/";
    std::ifstream manifest(folder + "manifest.txt");
    ASSERT_TRUE(manifest.good()) << "no manifest in " << folder;
    int files = 0;
    std::string name;
    for (int length = 0; manifest >> name >> length; ++files) {
        std::ifstream file(folder + name + ".f32", std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        ASSERT_EQ(bytes.size(), 6 * length * sizeof(float)) << name;
        std::vector<float> golden(bytes.size() / sizeof(float));
        std::memcpy(golden.data(), bytes.data(), bytes.size());
        for (int setting = 0; setting < 6; ++setting) {
            const std::vector<float> response =
                ImpulseResponseOf(FindModel(name), float(setting / 3), float(setting % 3) * 0.5f, length, false);
            EXPECT_EQ(DifferingSamples(response, &golden[std::size_t(setting * length)]), 0) << name << " " << setting;
        }
    }
    EXPECT_GE(files, 7);
}

// Bit for bit against the plain network in single precision; within a bound of it in double.
TEST(ModelReference, SinglePrecisionMatchesThePlainNetworkAndStaysCloseToDouble)
{
    std::vector<double> frequencies;  // 20 Hz .. 10 kHz
    for (int k = 0; k < 48; ++k) frequencies.push_back(20.0 * std::pow(500.0, k / 47.0));
    const auto magnitudes = [&](const auto& response, double rate) {
        std::vector<double> result;
        for (double frequency : frequencies) {
            const std::complex<double> step = std::polar(1.0, -2.0 * std::numbers::pi * frequency / rate);
            std::complex<double> phasor = 1.0, sum = 0.0;
            for (std::size_t i = 0; i < response.size(); ++i, phasor *= step) sum += double(response[i]) * phasor;
            result.push_back(std::abs(sum));
        }
        return result;
    };
    std::vector<float> impulse(responseLength, 0.0f);
    impulse[0] = 1.0f;
    for (const ModelEntry& model : AllModels()) {
        const bool inverted = model.speaker == Speaker::k4x12;
        EXPECT_EQ(model.outputGain < 0.0f, inverted) << model.name;
        for (int setting = 0; setting < 6; ++setting) {
            SCOPED_TRACE(model.name + " setting " + std::to_string(setting));
            const std::vector<float> response =
                ImpulseResponseOf(model, float(setting / 3), float(setting % 3) * 0.5f, responseLength, true);
            std::vector<double> precise = ReferenceNetwork<double>(model, setting / 3, setting % 3)
                                              .Run(std::vector<double>(impulse.begin(), impulse.end()));
            {
                const FlushToZeroScope flushToZero;
                const std::vector<float> plain = ReferenceNetwork<float>(model, setting / 3, setting % 3).Run(impulse);
                EXPECT_EQ(DifferingSamples(response, plain.data(), inverted ? -1.0f : 1.0f), 0);
            }
            double peak = 0.0, sampleError = 0.0;
            for (std::size_t i = 0; i < precise.size(); ++i) {
                precise[i] *= inverted ? -1.0 : 1.0;
                peak = std::max(peak, std::fabs(precise[i]));
                sampleError = std::max(sampleError, std::fabs(double(response[i]) - precise[i]));
            }
            const double rate = bandCatalogue[std::size_t(model.band)].sampleRate;
            const std::vector<double> single = magnitudes(response, rate), exact = magnitudes(precise, rate);
            // Single-precision rounding noise sits at a fixed level below the response's peak,
            // so only where the response is within 60 dB of it does the comparison measure
            // the network rather than the noise.
            const double spectrumPeak = *std::max_element(exact.begin(), exact.end());
            double decibels = 0.0;
            for (std::size_t k = 0; k < frequencies.size(); ++k) {
                if (exact[k] >= spectrumPeak * 1e-3)
                    decibels = std::max(decibels, std::fabs(20.0 * std::log10(single[k] / exact[k])));
            }
            EXPECT_LT(decibels, 0.005);
            EXPECT_LT(sampleError / peak, 1e-5);
        }
    }
}

}  // namespace
}  // namespace tarnlow::testing
