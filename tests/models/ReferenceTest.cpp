// The models against a plain sample-by-sample writing of the network: in single precision
// with flush-to-zero the two agree bit for bit (4x12 with its polarity turned), and the same
// network in double precision bounds the error that single precision costs.

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <complex>
#include <numbers>

#include "engine/FlushToZero.h"
#include "ModelRegistry.h"
#include "ReferenceNetwork.h"

namespace tarnlow::testing {
namespace {

constexpr int responseLength = 16384;

std::vector<std::complex<double>> Spectrum(const std::vector<double>& response, const std::vector<double>& frequencies,
                                           double rate)
{
    std::vector<std::complex<double>> spectrum;
    for (double frequency : frequencies) {
        const std::complex<double> step = std::polar(1.0, -2.0 * std::numbers::pi * frequency / rate);
        std::complex<double> phasor = 1.0, sum = 0.0;
        for (double sample : response) {
            sum += sample * phasor;
            phasor *= step;
        }
        spectrum.push_back(sum);
    }
    return spectrum;
}

TEST(ModelReference, SinglePrecisionMatchesThePlainNetworkBitForBit)
{
    std::vector<float> impulse(responseLength, 0.0f);
    impulse[0] = 1.0f;
    for (const ModelEntry& model : AllModels()) {
        const bool inverted = model.speaker == Speaker::k4x12;
        EXPECT_EQ(model.outputGain < 0.0f, inverted) << model.name;
        for (int setting = 0; setting < 6; ++setting) {
            SCOPED_TRACE(model.name + " setting " + std::to_string(setting));
            const std::vector<float> response =
                DirectImpulseResponse(model, float(setting / 3), float(setting % 3) * 0.5f, responseLength);
            std::vector<float> plain;
            {
                const FlushToZeroScope flushToZero;
                plain = ReferenceNetwork<float>(model, setting / 3, setting % 3).Run(impulse);
            }
            int differing = 0;
            for (int i = 0; i < responseLength; ++i) {
                const float expected = inverted ? -plain[std::size_t(i)] : plain[std::size_t(i)];
                differing += std::bit_cast<uint32_t>(response[std::size_t(i)]) != std::bit_cast<uint32_t>(expected);
            }
            EXPECT_EQ(differing, 0);
        }
    }
}

TEST(ModelReference, SinglePrecisionStaysCloseToDoublePrecision)
{
    std::vector<double> frequencies;
    for (int k = 0; k < 48; ++k) frequencies.push_back(20.0 * std::pow(500.0, k / 47.0));  // 20 Hz .. 10 kHz

    std::vector<double> impulse(responseLength, 0.0);
    impulse[0] = 1.0;
    double worstDecibels = 0.0, worstSampleError = 0.0;
    std::string worstModel;
    for (const ModelEntry& model : AllModels()) {
        const double sign = model.outputGain < 0.0f ? -1.0 : 1.0;
        const double rate = bandCatalogue[std::size_t(model.band)].sampleRate;
        for (int setting = 0; setting < 6; ++setting) {
            const std::vector<float> single =
                DirectImpulseResponse(model, float(setting / 3), float(setting % 3) * 0.5f, responseLength);
            std::vector<double> precise = ReferenceNetwork<double>(model, setting / 3, setting % 3).Run(impulse);
            double peak = 0.0, sampleError = 0.0;
            for (int i = 0; i < responseLength; ++i) {
                precise[std::size_t(i)] *= sign;
                peak = std::max(peak, std::fabs(precise[std::size_t(i)]));
                sampleError = std::max(sampleError, std::fabs(double(single[std::size_t(i)]) - precise[std::size_t(i)]));
            }
            const std::vector<double> widened(single.begin(), single.end());
            const auto singleSpectrum = Spectrum(widened, frequencies, rate);
            const auto preciseSpectrum = Spectrum(precise, frequencies, rate);
            // Single-precision rounding noise sits at a fixed level below the response's
            // peak, so the comparison covers where the response is within 60 dB of it; a
            // roll-off 90 dB down measures the noise, not the network.
            double spectrumPeak = 0.0;
            for (const auto& bin : preciseSpectrum) spectrumPeak = std::max(spectrumPeak, std::abs(bin));
            double decibels = 0.0;
            for (std::size_t k = 0; k < frequencies.size(); ++k) {
                if (std::abs(preciseSpectrum[k]) < spectrumPeak * 1e-3) continue;
                decibels = std::max(decibels, std::fabs(20.0 * std::log10(std::abs(singleSpectrum[k]) / std::abs(preciseSpectrum[k]))));
            }
            const std::string where = model.name + " setting " + std::to_string(setting);
            EXPECT_LT(decibels, 0.005) << where;
            EXPECT_LT(sampleError / peak, 1e-5) << where;
            if (decibels > worstDecibels) {
                worstDecibels = decibels;
                worstModel = where;
            }
            worstSampleError = std::max(worstSampleError, sampleError / peak);
        }
    }
    std::printf("float vs double, 20 Hz - 10 kHz within 60 dB of the peak: largest magnitude error %.3g dB (%s); "
                "largest sample error %.3g of the peak\n",
                worstDecibels, worstModel.c_str(), worstSampleError);
}

}  // namespace
}  // namespace tarnlow::testing
