// What a host may do without the library aborting or throwing. The two kept ends (a flat id
// above 10, a speaker switch value that names no amp) are tested in ExportsTest; here every
// other road is swept: selectors -2 to 2 with extreme values at every band and odd rates,
// and the committed fuzz inputs replayed through the fuzzer's own decoder.

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "HostCallSequence.h"
#include "tarnlow.h"

namespace {

constexpr float nan = std::numeric_limits<float>::quiet_NaN();
constexpr float inf = std::numeric_limits<float>::infinity();
constexpr float extremeValues[] = {nan,
                                   inf,
                                   -inf,
                                   std::numeric_limits<float>::max(),
                                   -std::numeric_limits<float>::max(),
                                   1e20f,
                                   -1e20f,
                                   std::numeric_limits<float>::denorm_min(),
                                   -std::numeric_limits<float>::denorm_min(),
                                   -0.0f,
                                   0.49999997f,
                                   0.5f,
                                   1.0000001f,
                                   -1.0f,
                                   7.0f};

// Whether a speaker switch value, as stored, names one of the five amps.
bool NamesAnAmp(float switchValue)
{
    const double index = std::floor(4.0 * double(switchValue) + 0.5);
    return index >= 0.0 && index <= 4.0;
}

TEST(HostContract, ExtremeControlValuesNeitherThrowNorAbortNorPoisonTheOutput)
{
    const int32_t rates[] = {44000, 48000, 88000, 96000, 176000, 192000, 44100, 0, -1, INT_MIN, INT_MAX, 1};
    std::mt19937 random(4);
    std::uniform_real_distribution<float> uniform(-0.5f, 0.5f);
    std::vector<float> block(700);
    for (int32_t rate : rates) {
        void* instance = CreateInstanceU();
        ASSERT_NO_THROW(SetSampleRateU(instance, rate)) << rate;
        float storedSwitch = 0.0f;
        for (int32_t selector = -2; selector <= 2; ++selector) {
            for (float value : extremeValues) {
                // Only the switch can throw, and only for a changed value naming no amp.
                const float sent = selector == 0 ? float(std::floor(double(value) + 0.5) * 0.25)
                                                 : selector == -2 ? value : storedSwitch;
                const bool changesSwitch = (selector == 0 || selector == -2) && !(sent == storedSwitch);
                const bool throws = changesSwitch && !NamesAnAmp(sent);
                const std::string where =
                    std::to_string(rate) + " Hz, selector " + std::to_string(selector) + ", value " + std::to_string(value);
                if (throws) {
                    EXPECT_THROW(SetParameterA(instance, selector, value), std::out_of_range) << where;
                    // Back to a value that names an amp, as a host that caught it would.
                    EXPECT_NO_THROW(SetParameterA(instance, 0, 1.0f)) << where;
                    storedSwitch = 0.25f;
                } else {
                    EXPECT_NO_THROW(SetParameterA(instance, selector, value)) << where;
                    if (changesSwitch) storedSwitch = sent;
                }
                for (float& v : block) v = uniform(random);
                int32_t flag = -1;
                EXPECT_NO_THROW(CalcA(instance, int32_t(block.size()), block.data(), nullptr, nullptr, nullptr, nullptr, &flag));
                EXPECT_EQ(flag, 1) << where;
                long nonFinite = 0;
                for (float v : block) nonFinite += std::isfinite(v) ? 0 : 1;
                EXPECT_EQ(nonFinite, 0) << where;
                EXPECT_NO_THROW(ResetA(instance));
            }
        }
        DestroyInstanceU(instance);
    }
}

TEST(HostContract, HostileSamplesStayInTheirRoomUntilReset)
{
    const float hostile[] = {nan, inf, -inf, std::numeric_limits<float>::max(), 1e30f};
    for (float sample : hostile) {
        for (int32_t speaker = 0; speaker < 5; ++speaker) {
            void* instance = CreateInstanceU();
            SetSampleRateU(instance, 96000);
            SetParameterA(instance, 0, float(speaker));
            std::vector<float> block(300, 0.25f);
            block[17] = sample;
            int32_t flag = -1;
            EXPECT_NO_THROW(CalcA(instance, int32_t(block.size()), block.data(), nullptr, nullptr, nullptr, nullptr, &flag));
            EXPECT_TRUE(flag == 0 || flag == 1);
            ResetA(instance);
            std::vector<float> clean(2000, 0.25f);
            CalcA(instance, int32_t(clean.size()), clean.data(), nullptr, nullptr, nullptr, nullptr, &flag);
            long nonFinite = 0;
            for (float v : clean) nonFinite += std::isfinite(v) ? 0 : 1;
            EXPECT_EQ(nonFinite, 0) << "speaker " << speaker << " after " << sample;
            EXPECT_EQ(flag, 1);
            DestroyInstanceU(instance);
        }
    }
}

std::vector<std::filesystem::path> FilesIn(const std::filesystem::path& folder)
{
    std::vector<std::filesystem::path> files;
    if (!std::filesystem::is_directory(folder)) return files;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        if (entry.is_regular_file() && entry.path().filename().string()[0] != '.') files.push_back(entry.path());
    return files;
}

// Every input the fuzzer ever failed on (fuzz/regressions) and the starting inputs
// (fuzz/corpus), through the same decoder and checks, without libFuzzer.
TEST(HostContract, CommittedFuzzInputsKeepEveryRule)
{
    const std::filesystem::path root = TARNLOW_FUZZ_DIR;
    std::vector<std::filesystem::path> files = FilesIn(root / "regressions");
    const std::vector<std::filesystem::path> starters = FilesIn(root / "corpus");
    ASSERT_FALSE(starters.empty()) << "no starting inputs in " << (root / "corpus");
    files.insert(files.end(), starters.begin(), starters.end());
    int32_t calls = 0;
    for (const auto& path : files) {
        std::ifstream stream(path, std::ios::binary);
        const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
        const tarnlow::fuzzing::HostCallOutcome outcome = tarnlow::fuzzing::RunHostCalls(bytes.data(), bytes.size());
        EXPECT_TRUE(outcome.passed) << path.filename() << ": " << outcome.failure;
        calls += outcome.calls;
    }
    EXPECT_GT(calls, int32_t(files.size()));  // the inputs do decode into calls
}

}  // namespace
