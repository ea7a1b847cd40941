// The wavefront network (Process) against the section-by-section network (ProcessPlain):
// for every model and setting, on noise and on an impulse followed by a long silence, in
// blocks of every length the frame may give (0 to 16), every output sample and every state
// word must agree bit for bit, with every set of instructions the kernels come in that the
// processor runs.

#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "ModelRegistry.h"
#include "engine/FlushToZero.h"
#include "models/NetworkWavefront.h"

namespace tarnlow::testing {
namespace {

struct Pair {
    explicit Pair(const ModelEntry& entry) : model(entry), fast(entry.create()), plain(entry.create())
    {
        fast->Initialise();
        plain->Initialise();
    }
    void Set(float type, float position)
    {
        for (CQuorvexAmp* amp : {fast.get(), plain.get()}) {
            amp->parameters[0].StoreValue(type);
            amp->parameters[1].StoreValue(position);
        }
    }
    void Update(bool immediate)
    {
        fast->Update(immediate, 0, 0);
        plain->Update(immediate, 0, 0);
    }
    // Runs both in place over the same input; returns how many output samples differ.
    int Run(std::vector<float> input, std::mt19937& blockLengths)
    {
        std::vector<float> plainOutput = input;
        std::uniform_int_distribution<int> length(0, controlPeriod);
        int differing = 0;
        for (std::size_t at = 0; at < input.size();) {
            const int count = std::min<int>(length(blockLengths), int(input.size() - at));
            float* fastChunk = input.data() + at;
            float* plainChunk = plainOutput.data() + at;
            fast->Process(&fastChunk, &fastChunk, count, false, false, nullptr, 0);
            model.processPlain(*plain, plainChunk, plainChunk, count);
            Update(false);
            at += std::size_t(count);
        }
        for (std::size_t i = 0; i < input.size(); ++i) {
            differing += std::bit_cast<uint32_t>(input[i]) != std::bit_cast<uint32_t>(plainOutput[i]);
        }
        return differing;
    }
    int DifferingStateWords() const
    {
        const float* a = static_cast<const float*>(fast->busState->GetElement(0));
        const float* b = static_cast<const float*>(plain->busState->GetElement(0));
        int differing = 0;
        for (int32_t word = 0; word < model.stateRegions.length; ++word) {
            differing += std::bit_cast<uint32_t>(a[word]) != std::bit_cast<uint32_t>(b[word]);
        }
        return differing;
    }

    const ModelEntry& model;
    std::unique_ptr<CQuorvexAmp> fast;
    std::unique_ptr<CQuorvexAmp> plain;
};

// Uniform noise with exact zeros of both signs and a few large values sprinkled in.
std::vector<float> Noise(std::size_t length, unsigned variant)
{
    std::mt19937 generator(variant);
    std::uniform_real_distribution<float> uniform(-1.0f, 1.0f);
    std::vector<float> samples(length);
    for (std::size_t i = 0; i < length; ++i) {
        samples[i] = uniform(generator);
        if (i % 97 == 5) samples[i] = 0.0f;
        if (i % 89 == 7) samples[i] = -0.0f;
        if (i % 1013 == 11) samples[i] *= 1000.0f;
    }
    return samples;
}

std::vector<float> ImpulseThenSilence(std::size_t length)
{
    std::vector<float> samples(length, 0.0f);
    samples[0] = 1.0f;
    return samples;
}

using speaker_network::KernelSet;

// Models made while it stands run kernels no wider than the given set.
struct KernelLimit {
    explicit KernelLimit(KernelSet limit) { speaker_network::LimitKernels(limit); }
    ~KernelLimit() { speaker_network::LimitKernels(KernelSet::widest); }
};

class ModelWavefrontKernels : public ::testing::TestWithParam<KernelSet> {};

TEST_P(ModelWavefrontKernels, MatchThePlainNetworkForEveryModelAndSetting)
{
    const FlushToZeroScope flushToZero;
    const KernelLimit kernels(GetParam());
    if (speaker_network::KernelsInUse() != GetParam()) GTEST_SKIP() << "the processor lacks these instructions";
    const std::vector<float> noise = Noise(12000, 7);
    // Long enough for every section to settle to exactly zero through the small-value test.
    const std::vector<float> impulse = ImpulseThenSilence(40000);
    int runs = 0;
    for (const ModelEntry& model : AllModels()) {
        for (int setting = 0; setting < 6; ++setting) {
            SCOPED_TRACE(model.name + " setting " + std::to_string(setting));
            std::mt19937 blockLengths(unsigned(setting * 31 + runs));
            Pair pair(model);
            pair.Set(float(setting / 3), float(setting % 3) * 0.5f);
            pair.Update(true);
            EXPECT_EQ(pair.Run(noise, blockLengths), 0) << "noise";
            EXPECT_EQ(pair.Run(impulse, blockLengths), 0) << "impulse";
            EXPECT_EQ(pair.DifferingStateWords(), 0);
            ++runs;
        }
    }
    EXPECT_EQ(runs, 180);
}

INSTANTIATE_TEST_SUITE_P(Widths, ModelWavefrontKernels,
                         ::testing::Values(KernelSet::widest, KernelSet::eightLanes, KernelSet::baseline),
                         [](const ::testing::TestParamInfo<KernelSet>& info) {
                             switch (info.param) {
                             case KernelSet::widest: return "ManyRegisters";
                             case KernelSet::eightLanes: return "EightLanes";
                             default: return "Baseline";
                             }
                         });

// The wide kernels take each vector's words as one window of the state table; a network
// whose words spread wider falls back to the baseline kernel, still exact but slow.
TEST(ModelWavefront, EveryNetworkTakesItsWordsByWindows)
{
    for (const ModelEntry& model : AllModels()) {
        for (int32_t chain = 0; chain < chainCount; ++chain) {
            const speaker_network::PackedNetwork network = speaker_network::PackNetwork(
                model.chains[chain], model.tablePreSectionCount,
                model.constants.data() + model.constantRegions.preRecords, model.stateRegions.preStates,
                model.constants.data() + model.constantRegions.chains[chain], model.stateRegions.chains[chain]);
            EXPECT_TRUE(network.wordsInWindows) << model.name << " chain " << chain;
        }
    }
}

// Whole host blocks go to the model, which cuts them into pieces as the frame does and runs
// several pieces in one go. Against the plain form cut by hand, with settings changing
// between blocks without a reset (so that chains change inside runs, and a chain left alone
// must resume from its frozen words, while the gains glide), on noise and on an impulse left
// to settle through the small-value test at the ends of pieces.
TEST(ModelWavefront, RunsOfPiecesMatchThePlainNetworkPieceByPiece)
{
    const FlushToZeroScope flushToZero;
    std::vector<float> input = Noise(3000, 13);
    input.push_back(1.0f);
    input.resize(input.size() + 30000, 0.0f);
    for (const ModelEntry& model : AllModels()) {
        SCOPED_TRACE(model.name);
        std::mt19937 random(17);
        Pair pair(model);
        pair.Set(0.0f, 0.5f);
        pair.Update(true);
        std::vector<float> fastOutput = input;
        std::vector<float> plainOutput = input;
        int32_t plainCounter = 0;
        for (std::size_t at = 0; at < input.size();) {
            const int32_t block = std::min<int32_t>(std::uniform_int_distribution<int32_t>(0, 200)(random),
                                                    int32_t(input.size() - at));
            if (at < 3000 && random() % 3 == 0) pair.Set(float(random() % 2), float(random() % 3) * 0.5f);
            EXPECT_TRUE(pair.fast->ProcessPieces(fastOutput.data() + at, fastOutput.data() + at, block, 0, 0));
            for (int32_t done = 0; done < block;) {
                const int32_t length = std::min(block - done, controlPeriod - plainCounter);
                float* piece = plainOutput.data() + at + std::size_t(done);
                model.processPlain(*pair.plain, piece, piece, length);
                plainCounter += length;
                done += length;
                if (plainCounter == controlPeriod) {
                    pair.plain->Update(false, 0, 0);
                    plainCounter = 0;
                }
            }
            at += std::size_t(block);
        }
        EXPECT_EQ(pair.fast->controlCounter, plainCounter);
        EXPECT_EQ(std::memcmp(fastOutput.data(), plainOutput.data(), sizeof(float) * input.size()), 0);
        EXPECT_EQ(pair.DifferingStateWords(), 0);
    }
}

// Non-finite input stays in the sections until a reset; it must travel alike in both forms.
TEST(ModelWavefront, CarriesNonFiniteInputLikeThePlainNetwork)
{
    const FlushToZeroScope flushToZero;
    const ModelEntry& model = FindModel("4x12n48a");
    for (const float odd : {std::numeric_limits<float>::infinity(), -std::numeric_limits<float>::infinity(),
                            std::numeric_limits<float>::quiet_NaN()}) {
        for (int setting = 0; setting < 6; ++setting) {
            std::mt19937 blockLengths(3);
            Pair pair(model);
            pair.Set(float(setting / 3), float(setting % 3) * 0.5f);
            pair.Update(true);
            std::vector<float> input = Noise(200, 2);
            input[37] = odd;
            EXPECT_EQ(pair.Run(input, blockLengths), 0) << odd << " setting " << setting;
            EXPECT_EQ(pair.DifferingStateWords(), 0) << odd << " setting " << setting;
        }
    }
}

}  // namespace
}  // namespace tarnlow::testing
