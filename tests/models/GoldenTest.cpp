// The models against impulse responses computed by the speaker lab from the same tables, in
// single precision with flush-to-zero: every sample must agree bit for bit.

#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "ModelRegistry.h"
#include "ReferenceNetwork.h"

namespace tarnlow::testing {
namespace {

const std::string goldenFolder = std::string(TARNLOW_TEST_DATA_DIR) + "/models/golden/";

std::vector<float> ReadFloats(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::vector<float> samples(bytes.size() / sizeof(float));
    std::memcpy(samples.data(), bytes.data(), samples.size() * sizeof(float));
    return samples;
}

TEST(ModelGolden, ImpulseResponsesMatchTheLabBitForBit)
{
    std::ifstream manifest(goldenFolder + "manifest.txt");
    ASSERT_TRUE(manifest.good()) << "no manifest in " << goldenFolder;
    int files = 0;
    std::string line;
    while (std::getline(manifest, line)) {
        std::istringstream fields(line);
        std::string name;
        int length = 0;
        if (!(fields >> name >> length)) continue;
        SCOPED_TRACE(name);
        ++files;
        const std::vector<float> golden = ReadFloats(goldenFolder + name + ".f32");
        ASSERT_EQ(golden.size(), std::size_t(6 * length));
        const ModelEntry& model = FindModel(name);
        for (int setting = 0; setting < 6; ++setting) {
            const int type = setting / 3;
            const int position = setting % 3;
            const std::vector<float> response = ModelImpulseResponse(model, float(type), float(position) * 0.5f, length);
            int differing = 0;
            int first = -1;
            for (int i = 0; i < length; ++i) {
                const float expected = golden[std::size_t(setting * length + i)];
                if (std::bit_cast<uint32_t>(response[std::size_t(i)]) != std::bit_cast<uint32_t>(expected)) {
                    if (first < 0) first = i;
                    ++differing;
                }
            }
            EXPECT_EQ(differing, 0) << "type " << type << " position " << position << ": first at sample " << first
                                    << ", model " << (first < 0 ? 0.0f : response[std::size_t(first)]) << " lab "
                                    << (first < 0 ? 0.0f : golden[std::size_t(setting * length + first)]);
        }
    }
    EXPECT_GE(files, 7);
}

}  // namespace
}  // namespace tarnlow::testing
