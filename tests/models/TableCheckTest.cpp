// The thirty generated tables in one pass: lengths and regions against the catalogue, the
// invariants every filter record must keep, the fixed gain, ambience and pre-section data.

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <complex>
#include <string>

#include "ModelRegistry.h"
#include "ReferenceNetwork.h"

namespace tarnlow::testing {
namespace {

// Catalogue lengths, by speaker (1x12 2x12 4x12 4x10 4x10Bass) and band.
constexpr int publishedConstants[5][6] = {{655, 655, 655, 655, 655, 655}, {664, 664, 663, 663, 663, 663},
                                          {662, 662, 663, 663, 663, 663}, {653, 653, 653, 653, 653, 653},
                                          {650, 650, 650, 649, 650, 650}};
constexpr int publishedStates[5][6] = {{1254, 1342, 2243, 2417, 4218, 4568}, {1256, 1344, 2245, 2419, 4220, 4570},
                                       {1257, 1345, 2246, 2420, 4221, 4571}, {1254, 1342, 2243, 2417, 4218, 4568},
                                       {1254, 1342, 2243, 2417, 4218, 4568}};
// Ambience data per band: h0, h2, then the record c0..c4.
constexpr float publishedAmbience[6][7] = {
    {1.6461275e-16f, 0.31136698f, 0.013900747f, 0.05532497f, 0.055048347f, 0.40159842f, 0.067163535f},
    {1.6450072e-16f, 0.31115508f, 0.011915664f, 0.047424342f, 0.04718722f, 0.3695676f, 0.057515427f},
    {1.6437948e-16f, 0.31092572f, 0.003815854f, 0.015187099f, 0.015111163f, 0.20256865f, 0.01839895f},
    {1.6436267e-16f, 0.31089395f, 0.0032464403f, 0.012920832f, 0.012856228f, 0.18621489f, 0.015651081f},
    {1.6431674e-16f, 0.31080705f, 0.0010017077f, 0.0039867968f, 0.0039668633f, 0.10159015f, 0.0048272722f},
    {1.6431865e-16f, 0.31081066f, 0.00084891671f, 0.0033786886f, 0.0033617951f, 0.093354017f, 0.0040910346f}};
constexpr float published4x12PreSections96[10] = {0.54411602f, 0.0037068091f, 0.00030953941f, 0.012986255f,
                                                  0.00056712289f, 0.64737588f, 0.0022246134f, 2.2424267e-05f,
                                                  0.0018009233f, 3.4667086e-05f};

bool SameBits(float a, float b) { return std::bit_cast<uint32_t>(a) == std::bit_cast<uint32_t>(b); }

// The structure the kernels rely on and the stability of every section; the records'
// further invariants (all-pass throughs, their gains, no z^-2 term in a tap) are checked by
// the lab on every record it emits, and `lab emit --check` keeps these files its output.
void CheckChain(const float* record, std::string_view plan)
{
    for (char letter : ExpandPlan(plan)) {
        SCOPED_TRACE(std::string("stage ") + letter);
        const StageRecords kinds = RecordsOf(letter);
        const float *tap = record, *through = record + RecordLength(kinds.tap);
        record = through + (kinds.hasThrough ? RecordLength(kinds.through) : 0);
        EXPECT_TRUE(kinds.tap == RecordKind::secondOrder || SameBits(tap[0], tap[1])) << "tap needs c0 == c1";
        if (kinds.tap == RecordKind::firstOrder) {
            const double pole = 1.0 - double(tap[2]);
            EXPECT_TRUE(pole >= -0.99 - 1e-6 && pole <= 0.999 + 1e-6) << pole;
            EXPECT_TRUE(!kinds.hasThrough || SameBits(tap[2], through[2])) << "tap and through share the denominator";
            continue;
        }
        // c3 = a1 + 2 and c4 = a1 + a2 + 1, of the denominator 1 + a1 z^-1 + a2 z^-2.
        const int denominator = kinds.tap == RecordKind::reduced ? 2 : 3;
        const double a1 = double(tap[denominator]) - 2.0, a2 = double(tap[denominator + 1]) - a1 - 1.0;
        const std::complex<double> root = std::sqrt(std::complex<double>(a1 * a1 - 4 * a2));
        EXPECT_LE(std::max(std::abs((-a1 + root) / 2.0), std::abs((-a1 - root) / 2.0)), 0.99956 + 1e-6);
        EXPECT_TRUE(!kinds.hasThrough ||
                    (SameBits(tap[denominator], through[3]) && SameBits(tap[denominator + 1], through[4])))
            << "tap and through share the denominator";
    }
}

// The models' compile-time checks tie each table's plans, pre-sections and lengths to the
// catalogue in src/ and its regions to those lengths; here the tables meet the published
// lengths and an independent walk of their plans.
TEST(ModelTables, EveryTableKeepsTheCatalogueAndTheRecordInvariants)
{
    ASSERT_EQ(AllModels().size(), 30u);
    for (const ModelEntry& model : AllModels()) {
        SCOPED_TRACE(model.name);
        const int s = int(model.speaker), b = int(model.band);
        EXPECT_EQ(int(model.constants.size()), publishedConstants[s][b]);
        EXPECT_EQ(int(model.initialState.size()), publishedStates[s][b]);
        EXPECT_EQ(model.tablePreSectionCount, s == 1 || s == 2 ? s : 0);
        const ConstantWalk walk = WalkConstants(model);
        EXPECT_EQ(walk.end, int(model.constants.size()));
        for (int chain = 0; chain < chainCount; ++chain) {
            SCOPED_TRACE("chain " + std::to_string(chain));
            EXPECT_EQ(walk.chain[chain], model.constantRegions.chains[chain]);
            CheckChain(model.constants.data() + walk.chain[chain], model.tableChainPlans[chain]);
        }

        // Gain tables repeat their last entry; the loudest setting sits at -1 dB.
        float peak = 0.0f;
        const StateRegions& at = model.stateRegions;
        std::vector<int> gainWords;
        for (int branch = 0; branch < 2; ++branch) {
            const float* gains = model.constants.data() + walk.gainTable[branch];
            EXPECT_TRUE(SameBits(gains[3], gains[2]));
            for (int k = 0; k < 3; ++k) EXPECT_GE(gains[k], 0.65376663f);
            peak = std::max({peak, gains[0], gains[1], gains[2]});
            gainWords.insert(gainWords.end(), {at.branchWords[branch], at.branchWords[branch] + 1});
            for (int word : {0, 1}) EXPECT_TRUE(SameBits(model.initialState[at.branchWords[branch] + word], gains[0]));
        }
        EXPECT_EQ(peak, 0.89125097f);

        // Ambience data depends on the band alone.
        const float* published = publishedAmbience[b];
        const float* ambienceGains = model.constants.data() + walk.ambienceGainTable;
        const float* ambienceRecord = model.constants.data() + walk.ambienceRecord;
        for (int k = 0; k < 4; ++k) EXPECT_TRUE(SameBits(ambienceGains[k], published[k / 2])) << k;
        for (int k = 0; k < 5; ++k) EXPECT_TRUE(SameBits(ambienceRecord[k], published[2 + k])) << "c" << k;

        // The initial state is zero beside the six gain words, the last two of which end it.
        gainWords.insert(gainWords.end(), {at.ambienceGain, at.ambienceGain + 1});
        ASSERT_EQ(at.ambienceGain + 2, int(model.initialState.size()));
        for (int word : {0, 1}) EXPECT_TRUE(SameBits(model.initialState[at.ambienceGain + word], published[0]));
        for (int i = 0; i < int(model.initialState.size()); ++i) {
            const bool gainWord = std::find(gainWords.begin(), gainWords.end(), i) != gainWords.end();
            EXPECT_TRUE(gainWord || std::bit_cast<uint32_t>(model.initialState[i]) == 0u) << "state word " << i;
        }

        // The 2x12's pre-section is the first of the 4x12's, whose pair is fixed at 96 kHz.
        if (model.speaker == Speaker::k2x12 || model.speaker == Speaker::k4x12) {
            const ModelEntry& four = FindModel("4x12" + model.name.substr(model.name.find('n')));
            for (int k = 0; k < 5; ++k) EXPECT_TRUE(SameBits(model.constants[k], four.constants[k]));
        }
    }
    const ModelEntry& four96 = FindModel("4x12n96a");
    for (int k = 0; k < 10; ++k) EXPECT_TRUE(SameBits(four96.constants[k], published4x12PreSections96[k])) << k;
    const StateRegions& s = four96.stateRegions;
    EXPECT_EQ((std::array{s.typeValue, s.branchWords[0], s.chains[0], s.branchWords[1], s.chains[3], s.chains[5],
                          s.diffusers[0], s.diffusers[3], s.ambienceState}),
              (std::array{4, 5, 8, 134, 137, 220, 262, 1666, 2416}));
}

}  // namespace
}  // namespace tarnlow::testing
