// What a host may do without the library aborting or throwing. The two kept ends (a flat id
// above 10, a speaker switch value that names no amp) and hostile samples are tested in
// ExportsTest; here every other road is swept: selectors -2 to 2 with extreme values at every
// band and odd rates, and the committed fuzz inputs replayed through the fuzzer's own decoder.

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "HostCallSequence.h"
#include "support/HostCalls.h"

namespace {

using tarnlow::testing::Calc;
using tarnlow::testing::CountNonFinite;
using tarnlow::testing::Instance;
using tarnlow::testing::Noise;

constexpr float nan = std::numeric_limits<float>::quiet_NaN();
constexpr float inf = std::numeric_limits<float>::infinity();
constexpr float maxFloat = std::numeric_limits<float>::max();
constexpr float denormMin = std::numeric_limits<float>::denorm_min();

TEST(HostContract, ExtremeControlValuesNeitherThrowNorAbortNorPoisonTheOutput)
{
    const float extremes[] = {nan,   inf,         -inf, maxFloat,   -maxFloat, 1e20f, denormMin,
                              -0.0f, 0.49999997f, 0.5f, 1.0000001f, -1.0f,     7.0f};
    uint32_t seed = 0;
    for (int32_t rate : {44000, 48000, 88000, 96000, 176000, 192000, 44100, 0, -1, INT_MIN, INT_MAX, 1}) {
        Instance instance;
        ASSERT_NO_THROW(SetSampleRateU(instance.handle, rate)) << rate;
        float storedSwitch = 0.0f;
        for (int32_t selector = -2; selector <= 2; ++selector) {
            for (float value : extremes) {
                // Only the switch can throw, and only for a changed value that names no amp.
                const float sent = selector == 0    ? float(std::floor(double(value) + 0.5) * 0.25)
                                   : selector == -2 ? value
                                                    : storedSwitch;
                const bool changesSwitch = (selector == 0 || selector == -2) && !(sent == storedSwitch);
                const double amp = std::floor(4.0 * double(sent) + 0.5);
                const bool throws = changesSwitch && !(amp >= 0.0 && amp <= 4.0);
                const std::string where = std::to_string(rate) + " Hz, selector " + std::to_string(selector) +
                                          ", value " + std::to_string(value);
                if (throws) {
                    EXPECT_THROW(SetParameterA(instance.handle, selector, value), std::out_of_range) << where;
                    // Back to a value that names an amp, as a host that caught it would.
                    EXPECT_NO_THROW(SetParameterA(instance.handle, 0, 1.0f)) << where;
                    storedSwitch = 0.25f;
                } else {
                    EXPECT_NO_THROW(SetParameterA(instance.handle, selector, value)) << where;
                    if (changesSwitch) storedSwitch = sent;
                }
                std::vector<float> block = Noise(700, ++seed);
                EXPECT_EQ(Calc(instance.handle, block), 1) << where;
                EXPECT_EQ(CountNonFinite(block), 0) << where;
                EXPECT_NO_THROW(ResetA(instance.handle));
            }
        }
    }
}

// Every input the fuzzer ever failed on (fuzz/regressions) and the starting inputs
// (fuzz/corpus), through the same decoder and checks, without libFuzzer.
TEST(HostContract, CommittedFuzzInputsKeepEveryRule)
{
    const std::filesystem::path root = TARNLOW_FUZZ_DIR;
    int32_t files = 0, starters = 0, calls = 0;
    for (const char* folder : {"regressions", "corpus"}) {
        if (!std::filesystem::is_directory(root / folder)) continue;
        for (const auto& entry : std::filesystem::directory_iterator(root / folder)) {
            if (!entry.is_regular_file() || entry.path().filename().string()[0] == '.') continue;
            std::ifstream stream(entry.path(), std::ios::binary);
            const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(stream)), {});
            const auto outcome = tarnlow::fuzzing::RunHostCalls(bytes.data(), bytes.size());
            EXPECT_TRUE(outcome.passed) << entry.path().filename() << ": " << outcome.failure;
            calls += outcome.calls;
            ++files;
            starters += std::string(folder) == "corpus" ? 1 : 0;
        }
    }
    ASSERT_GT(starters, 0) << "no starting inputs in " << (root / "corpus");
    EXPECT_GT(calls, files);  // the inputs do decode into calls
}

}  // namespace
