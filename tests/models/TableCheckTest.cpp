// Checks of the thirty generated tables: lengths and regions, and the invariants that every
// filter record must keep for the network to be what it claims.

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

// Published catalogue lengths, by speaker (1x12 2x12 4x12 4x10 4x10Bass) and band.
constexpr int publishedConstants[5][6] = {{655, 655, 655, 655, 655, 655}, {664, 664, 663, 663, 663, 663},
                                          {662, 662, 663, 663, 663, 663}, {653, 653, 653, 653, 653, 653},
                                          {650, 650, 650, 649, 650, 650}};
constexpr int publishedStates[5][6] = {{1254, 1342, 2243, 2417, 4218, 4568}, {1256, 1344, 2245, 2419, 4220, 4570},
                                       {1257, 1345, 2246, 2420, 4221, 4571}, {1254, 1342, 2243, 2417, 4218, 4568},
                                       {1254, 1342, 2243, 2417, 4218, 4568}};

// Published ambience data per band: h0, h2, then the record c0..c4.
constexpr float publishedAmbience[6][7] = {
    {1.6461275e-16f, 0.31136698f, 0.013900747f, 0.05532497f, 0.055048347f, 0.40159842f, 0.067163535f},
    {1.6450072e-16f, 0.31115508f, 0.011915664f, 0.047424342f, 0.04718722f, 0.3695676f, 0.057515427f},
    {1.6437948e-16f, 0.31092572f, 0.003815854f, 0.015187099f, 0.015111163f, 0.20256865f, 0.01839895f},
    {1.6436267e-16f, 0.31089395f, 0.0032464403f, 0.012920832f, 0.012856228f, 0.18621489f, 0.015651081f},
    {1.6431674e-16f, 0.31080705f, 0.0010017077f, 0.0039867968f, 0.0039668633f, 0.10159015f, 0.0048272722f},
    {1.6431865e-16f, 0.31081066f, 0.00084891671f, 0.0033786886f, 0.0033617951f, 0.093354017f, 0.0040910346f}};

bool SameBits(float a, float b)
{
    return std::bit_cast<uint32_t>(a) == std::bit_cast<uint32_t>(b);
}

TEST(ModelTables, LengthsAndPlansFollowTheCatalogue)
{
    ASSERT_EQ(AllModels().size(), 30u);
    for (const ModelEntry& model : AllModels()) {
        SCOPED_TRACE(model.name);
        const int s = int(model.speaker);
        const int b = int(model.band);
        EXPECT_EQ(int(model.constants.size()), publishedConstants[s][b]);
        EXPECT_EQ(int(model.initialState.size()), publishedStates[s][b]);
        EXPECT_EQ(model.constantRegions.length, publishedConstants[s][b]);
        EXPECT_EQ(model.stateRegions.length, publishedStates[s][b]);
        EXPECT_EQ(model.tablePreSectionCount, s == 0 || s >= 3 ? 0 : s);
        EXPECT_EQ(WalkConstants(model).end, int(model.constants.size()));
        for (int chain = 0; chain < chainCount; ++chain) {
            EXPECT_EQ(model.tableChainPlans[chain], model.plans[chain]) << "chain " << chain;
            EXPECT_EQ(WalkConstants(model).chain[chain], model.constantRegions.chains[chain]);
            int poles = 0;
            for (char letter : ExpandPlan(model.tableChainPlans[chain])) poles += letter == 'F' || letter == 'f' ? 1 : 2;
            EXPECT_EQ(poles, 22) << "chain " << chain;
        }
    }
}

TEST(ModelTables, RegionsOfThe4x12At96)
{
    const ModelEntry& model = FindModel("4x12n96a");
    const ConstantRegions& c = model.constantRegions;
    EXPECT_EQ(c.preRecords, 0);
    EXPECT_EQ(c.gainTables[0], 10);
    EXPECT_EQ(c.chains[0], 14);
    EXPECT_EQ(c.chains[1], 121);
    EXPECT_EQ(c.chains[2], 228);
    EXPECT_EQ(c.gainTables[1], 335);
    EXPECT_EQ(c.chains[3], 339);
    EXPECT_EQ(c.chains[4], 443);
    EXPECT_EQ(c.chains[5], 547);
    EXPECT_EQ(c.ambienceRecord, 654);
    EXPECT_EQ(c.ambienceGainTable, 659);
    const StateRegions& s = model.stateRegions;
    EXPECT_EQ(s.preStates, 0);
    EXPECT_EQ(s.typeValue, 4);
    EXPECT_EQ(s.branchWords[0], 5);
    EXPECT_EQ(s.chains[0], 8);
    EXPECT_EQ(s.chains[1], 50);
    EXPECT_EQ(s.chains[2], 92);
    EXPECT_EQ(s.branchWords[1], 134);
    EXPECT_EQ(s.chains[3], 137);
    EXPECT_EQ(s.chains[4], 179);
    EXPECT_EQ(s.chains[5], 220);
    EXPECT_EQ(s.diffusers[0], 262);
    EXPECT_EQ(s.diffusers[1], 647);
    EXPECT_EQ(s.diffusers[2], 1118);
    EXPECT_EQ(s.diffusers[3], 1666);
    EXPECT_EQ(s.ambienceState, 2416);
    EXPECT_EQ(s.ambienceGain, 2418);
}

// z-domain view of the records, computed in double from the stored floats.
struct ZSecondOrder {
    double b0, b1, b2, a1, a2;
};
ZSecondOrder ToZ(const float* c, RecordKind kind)
{
    const double c0 = c[0], c1 = c[1];
    const double c2 = kind == RecordKind::reduced ? 0.0 : c[2];
    const double c3 = kind == RecordKind::reduced ? c[2] : c[3];
    const double c4 = kind == RecordKind::reduced ? c[3] : c[4];
    return {c0, c1 - 2 * c0, c2 - c1 + c0, c3 - 2, c4 - c3 + 1};
}
double PoleRadius(double a1, double a2)
{
    const std::complex<double> root = std::sqrt(std::complex<double>(a1 * a1 - 4 * a2));
    return std::max(std::abs((-a1 + root) / 2.0), std::abs((-a1 - root) / 2.0));
}

struct RecordFigures {
    double largestRadius = 0, largestTapResidual = 0, largestAllPassResidual = 0;
    double smallestThroughGain = 10, largestThroughGain = 0;
    double lowestRealPole = 1, highestRealPole = -1;
};

// Every record of one chain against the invariants of the signal flow.
void CheckChain(const float* record, std::string_view plan, RecordFigures& figures)
{
    constexpr double radiusLimit = 0.99956 + 1e-6;
    for (char letter : ExpandPlan(plan)) {
        SCOPED_TRACE(std::string("stage ") + letter);
        const StageRecords kinds = RecordsOf(letter);
        const float* tap = record;
        const float* through = record + RecordLength(kinds.tap);
        record = through + (kinds.hasThrough ? RecordLength(kinds.through) : 0);

        if (kinds.tap == RecordKind::firstOrder) {
            EXPECT_TRUE(SameBits(tap[0], tap[1])) << "first-order tap has a z^-1 term";
            const double pole = 1.0 - double(tap[2]);
            EXPECT_GE(pole, -0.99 - 1e-6);
            EXPECT_LE(pole, 0.999 + 1e-6);
            figures.lowestRealPole = std::min(figures.lowestRealPole, pole);
            figures.highestRealPole = std::max(figures.highestRealPole, pole);
            if (kinds.hasThrough) {
                EXPECT_TRUE(SameBits(tap[2], through[2])) << "tap and through share the denominator";
                const double b0 = through[0], b1 = double(through[1]) - through[0], a1 = double(through[2]) - 1.0;
                const double g = b1;
                const double residual = std::fabs(b0 - g * a1);
                EXPECT_LE(residual, 4e-6) << "first-order through is not an all-pass times g";
                figures.largestAllPassResidual = std::max(figures.largestAllPassResidual, residual);
                EXPECT_GE(g, 0.29);
                EXPECT_LE(g, 1.13);
                figures.smallestThroughGain = std::min(figures.smallestThroughGain, g);
                figures.largestThroughGain = std::max(figures.largestThroughGain, g);
            }
            continue;
        }

        const ZSecondOrder z = ToZ(tap, kinds.tap);
        if (kinds.tap == RecordKind::reduced) {
            EXPECT_TRUE(SameBits(tap[0], tap[1])) << "reduced tap needs c0 == c1";
        }
        const double scale = std::max({std::fabs(double(tap[0])), std::fabs(double(tap[1])),
                                       kinds.tap == RecordKind::reduced ? 0.0 : std::fabs(double(tap[2])), 1e-30});
        const double tapResidual = std::fabs(z.b2) / scale;
        EXPECT_LE(tapResidual, 1e-6) << "tap has a z^-2 term";
        figures.largestTapResidual = std::max(figures.largestTapResidual, tapResidual);
        const double radius = PoleRadius(z.a1, z.a2);
        EXPECT_LE(radius, radiusLimit);
        figures.largestRadius = std::max(figures.largestRadius, radius);

        if (kinds.hasThrough) {
            const int tapDenominator = kinds.tap == RecordKind::reduced ? 2 : 3;
            EXPECT_TRUE(SameBits(tap[tapDenominator], through[3]) && SameBits(tap[tapDenominator + 1], through[4]))
                << "tap and through share the denominator";
            const ZSecondOrder t = ToZ(through, RecordKind::secondOrder);
            const double g = t.b2;
            const double residual = std::max(std::fabs(t.b0 - g * t.a2), std::fabs(t.b1 - g * t.a1));
            EXPECT_LE(residual, 4e-6) << "through is not an all-pass times g";
            figures.largestAllPassResidual = std::max(figures.largestAllPassResidual, residual);
            EXPECT_GE(g, 0.29);
            EXPECT_LE(g, 1.13);
            figures.smallestThroughGain = std::min(figures.smallestThroughGain, g);
            figures.largestThroughGain = std::max(figures.largestThroughGain, g);
        }
    }
}

TEST(ModelTables, ChainRecordsKeepTheInvariants)
{
    RecordFigures figures;
    for (const ModelEntry& model : AllModels()) {
        const ConstantWalk walk = WalkConstants(model);
        for (int chain = 0; chain < chainCount; ++chain) {
            SCOPED_TRACE(model.name + " chain " + std::to_string(chain));
            CheckChain(model.constants.data() + walk.chain[chain], model.tableChainPlans[chain], figures);
        }
    }
    std::printf("largest pole radius %.6f, real poles %.4f..%.4f, through gains %.4f..%.4f, "
                "largest tap z^-2 residual %.2e, largest all-pass residual %.2e\n",
                figures.largestRadius, figures.lowestRealPole, figures.highestRealPole,
                figures.smallestThroughGain, figures.largestThroughGain, figures.largestTapResidual,
                figures.largestAllPassResidual);
}

TEST(ModelTables, InitialStateIsZeroBesideTheSixGainWords)
{
    for (const ModelEntry& model : AllModels()) {
        SCOPED_TRACE(model.name);
        const ConstantWalk walk = WalkConstants(model);
        const StateRegions& at = model.stateRegions;
        const std::span<const float> state = model.initialState;
        for (int branch = 0; branch < 2; ++branch) {
            const float entry0 = model.constants[std::size_t(walk.gainTable[branch])];
            EXPECT_TRUE(SameBits(state[std::size_t(at.branchWords[branch])], entry0));
            EXPECT_TRUE(SameBits(state[std::size_t(at.branchWords[branch] + 1)], entry0));
        }
        const float ambience0 = model.constants[std::size_t(walk.ambienceGainTable)];
        EXPECT_TRUE(SameBits(state[std::size_t(at.ambienceGain)], ambience0));
        EXPECT_TRUE(SameBits(state[std::size_t(at.ambienceGain + 1)], ambience0));
        ASSERT_EQ(at.ambienceGain + 2, int(state.size()));

        int nonZero = 0;
        for (int i = 0; i < int(state.size()); ++i) {
            const bool gainWord = i == at.branchWords[0] || i == at.branchWords[0] + 1 || i == at.branchWords[1] ||
                                  i == at.branchWords[1] + 1 || i == at.ambienceGain || i == at.ambienceGain + 1;
            if (!gainWord && std::bit_cast<uint32_t>(state[std::size_t(i)]) != 0) ++nonZero;
        }
        EXPECT_EQ(nonZero, 0);
    }
}

TEST(ModelTables, GainTablesRepeatTheirLastEntryAndPeakAtMinusOneDecibel)
{
    float smallest = 1.0f;
    for (const ModelEntry& model : AllModels()) {
        SCOPED_TRACE(model.name);
        const ConstantWalk walk = WalkConstants(model);
        float peak = 0.0f;
        for (int branch = 0; branch < 2; ++branch) {
            const float* gains = model.constants.data() + walk.gainTable[branch];
            EXPECT_TRUE(SameBits(gains[3], gains[2]));
            for (int k = 0; k < 3; ++k) {
                peak = std::max(peak, gains[k]);
                smallest = std::min(smallest, gains[k]);
            }
        }
        EXPECT_EQ(peak, 0.89125097f);
        const float* ambience = model.constants.data() + walk.ambienceGainTable;
        EXPECT_TRUE(SameBits(ambience[1], ambience[0]));
        EXPECT_TRUE(SameBits(ambience[3], ambience[2]));
    }
    EXPECT_GE(smallest, 0.65376663f);
    std::printf("smallest position gain of all models %.8g\n", smallest);
}

TEST(ModelTables, AmbienceDataDependsOnTheBandAlone)
{
    for (const ModelEntry& model : AllModels()) {
        SCOPED_TRACE(model.name);
        const ConstantWalk walk = WalkConstants(model);
        const float* published = publishedAmbience[int(model.band)];
        const float* gains = model.constants.data() + walk.ambienceGainTable;
        EXPECT_TRUE(SameBits(gains[0], published[0]) && SameBits(gains[2], published[1]));
        const float* record = model.constants.data() + walk.ambienceRecord;
        for (int k = 0; k < 5; ++k) EXPECT_TRUE(SameBits(record[k], published[2 + k])) << "c" << k;
    }
}

TEST(ModelTables, PreSectionsOfThe2x12AreTheFirstOfThe4x12)
{
    const char* bands[] = {"44", "48", "88", "96", "176", "192"};
    for (const char* band : bands) {
        SCOPED_TRACE(band);
        const ModelEntry& two = FindModel(std::string("2x12n") + band + "a");
        const ModelEntry& four = FindModel(std::string("4x12n") + band + "a");
        for (int k = 0; k < 5; ++k) EXPECT_TRUE(SameBits(two.constants[std::size_t(k)], four.constants[std::size_t(k)]));
    }
    const float published96[10] = {0.54411602f, 0.0037068091f, 0.00030953941f, 0.012986255f, 0.00056712289f,
                                   0.64737588f, 0.0022246134f, 2.2424267e-05f, 0.0018009233f, 3.4667086e-05f};
    const ModelEntry& four96 = FindModel("4x12n96a");
    for (int k = 0; k < 10; ++k) EXPECT_TRUE(SameBits(four96.constants[std::size_t(k)], published96[k])) << k;
}

}  // namespace
}  // namespace tarnlow::testing
