#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "parameters/CQuorvexParameter.h"

namespace tarnlow {

// The thirty speaker models are the five speakers at six bands of sample rate. Everything
// about a model that is not a table number lives here as compile-time data: the plans of its
// six chains, the first index of every region of its two tables, and the constants of its
// band. The models check these against their generated tables when they are compiled.

enum class Speaker : int32_t { k1x12, k2x12, k4x12, k4x10, k4x10Bass };
enum class Band : int32_t { k44, k48, k88, k96, k176, k192 };

inline constexpr int32_t speakerCount = 5;
inline constexpr int32_t bandCount = 6;
inline constexpr int32_t chainCount = 6;     // branch * 3 + position
inline constexpr int32_t allPassLineCount = 4;
inline constexpr int32_t maxChainStages = 12;
inline constexpr int32_t polesPerChain = 22;

// Stages of a chain plan, by their letters: F, S, Z, f; and the final taps T, U.
enum class StageKind : uint8_t { firstOrder, secondOrder, reduced, tapOnly };
enum class FinalTapKind : uint8_t { secondOrder, reduced };

inline constexpr int32_t secondOrderRecordLength = 5;
inline constexpr int32_t reducedRecordLength = 4;
inline constexpr int32_t firstOrderRecordLength = 3;

struct StageLayout {
    StageKind kind = StageKind::secondOrder;
    int32_t recordOffset = 0;  // from the chain's first constant
    int32_t stateOffset = 0;   // from the chain's first state word
};

struct ChainLayout {
    std::array<StageLayout, maxChainStages> stages{};
    int32_t stageCount = 0;  // stages before the final tap, one tap buffer each
    FinalTapKind finalKind = FinalTapKind::secondOrder;
    int32_t finalRecordOffset = 0;
    int32_t finalStateOffset = 0;
    int32_t recordLength = 0;
    int32_t stateLength = 0;
    int32_t poleCount = 0;
    bool valid = false;  // the plan text was well formed
};

struct StageSize {
    int32_t records;
    int32_t words;
    int32_t poles;
};

constexpr StageSize SizeOfStage(StageKind kind)
{
    switch (kind) {
    case StageKind::firstOrder: return {2 * firstOrderRecordLength, 2, 1};
    case StageKind::secondOrder: return {2 * secondOrderRecordLength, 4, 2};
    case StageKind::reduced: return {reducedRecordLength + secondOrderRecordLength, 4, 2};
    case StageKind::tapOnly: return {firstOrderRecordLength, 1, 1};
    }
    return {0, 0, 0};
}

// Reads a plan written as in the tables, "F2 S9 T" or "F f S5 Z S3 T": stage letters with an
// optional repeat count, separated by single blanks, ending in one final tap.
constexpr ChainLayout ParseChainPlan(std::string_view plan)
{
    ChainLayout layout;
    std::size_t at = 0;
    bool finished = false;
    while (at < plan.size()) {
        if (finished) return layout;  // something after the final tap
        const char letter = plan[at++];
        int32_t repeat = 0;
        bool hasRepeat = false;
        while (at < plan.size() && plan[at] >= '0' && plan[at] <= '9') {
            repeat = repeat * 10 + (plan[at++] - '0');
            hasRepeat = true;
        }
        if (!hasRepeat) repeat = 1;
        if (repeat < 1) return layout;
        if (at < plan.size()) {
            if (plan[at] != ' ' || at + 1 == plan.size()) return layout;
            ++at;
        }
        if (letter == 'T' || letter == 'U') {
            if (hasRepeat) return layout;
            layout.finalKind = letter == 'T' ? FinalTapKind::secondOrder : FinalTapKind::reduced;
            layout.finalRecordOffset = layout.recordLength;
            layout.finalStateOffset = layout.stateLength;
            layout.recordLength += letter == 'T' ? secondOrderRecordLength : reducedRecordLength;
            layout.stateLength += 2;
            layout.poleCount += 2;
            finished = true;
            continue;
        }
        StageKind kind;
        switch (letter) {
        case 'F': kind = StageKind::firstOrder; break;
        case 'S': kind = StageKind::secondOrder; break;
        case 'Z': kind = StageKind::reduced; break;
        case 'f': kind = StageKind::tapOnly; break;
        default: return layout;
        }
        for (int32_t r = 0; r < repeat; ++r) {
            if (layout.stageCount == maxChainStages) return layout;
            const StageSize size = SizeOfStage(kind);
            layout.stages[layout.stageCount++] = {kind, layout.recordLength, layout.stateLength};
            layout.recordLength += size.records;
            layout.stateLength += size.words;
            layout.poleCount += size.poles;
        }
    }
    layout.valid = finished;
    return layout;
}

struct SpeakerInfo {
    std::string_view text;
    int32_t preSectionCount;
    uint32_t typeTag;
    uint32_t positionTag;
    bool invertsPolarity;
    std::array<std::string_view, chainCount> plans;  // chain b,p at b * 3 + p
    std::array<int32_t, bandCount> constantsLength;
    std::array<int32_t, bandCount> stateLength;
};

inline constexpr std::array<SpeakerInfo, speakerCount> speakerCatalogue = {{
    {"1x12", 0, FourCC("c101"), FourCC("c102"), false,
     {"F4 S8 T", "S10 T", "F2 S9 T", "F2 S9 T", "S10 T", "S10 T"},
     {655, 655, 655, 655, 655, 655},
     {1254, 1342, 2243, 2417, 4218, 4568}},
    {"2x12", 1, FourCC("c201"), FourCC("c202"), false,
     {"F2 S9 T", "F2 S9 T", "S10 T", "F4 S8 U", "F2 S9 T", "F2 S9 T"},
     {664, 664, 663, 663, 663, 663},
     {1256, 1344, 2245, 2419, 4220, 4570}},
    {"4x12", 2, FourCC("c401"), FourCC("c402"), true,
     {"F2 S9 T", "F2 S9 T", "F2 S9 T", "S9 Z T", "F f S9 T", "F2 S9 T"},
     {662, 662, 663, 663, 663, 663},
     {1257, 1345, 2246, 2420, 4221, 4571}},
    {"4x10", 0, FourCC("c401"), FourCC("c402"), false,
     {"F2 S9 T", "S10 T", "S10 T", "S10 T", "F2 S9 T", "F2 S9 T"},
     {653, 653, 653, 653, 653, 653},
     {1254, 1342, 2243, 2417, 4218, 4568}},
    {"4x10Bass", 0, FourCC("c401"), FourCC("c402"), false,
     {"S10 T", "S10 T", "S10 T", "F2 S9 T", "F2 S9 U", "S10 T"},
     {650, 650, 650, 649, 650, 650},
     {1254, 1342, 2243, 2417, 4218, 4568}},
}};

// Where a c2 of a speaker's design happens to be zero in some bands, a stage or final tap
// there is stored reduced, and the plan differs from the speaker's.
struct PlanException {
    Speaker speaker;
    Band band;
    int32_t chain;
    std::string_view plan;
};

inline constexpr std::array<PlanException, 5> planExceptions = {{
    {Speaker::k2x12, Band::k44, 3, "F4 S8 T"},
    {Speaker::k2x12, Band::k48, 3, "F4 S8 T"},
    {Speaker::k4x12, Band::k44, 4, "F f S5 Z S3 T"},
    {Speaker::k4x12, Band::k48, 4, "F f S5 Z S3 T"},
    {Speaker::k4x10Bass, Band::k96, 4, "F2 S6 Z S2 U"},
}};

constexpr std::string_view ChainPlanOf(Speaker speaker, Band band, int32_t chain)
{
    for (const PlanException& exception : planExceptions) {
        if (exception.speaker == speaker && exception.band == band && exception.chain == chain) {
            return exception.plan;
        }
    }
    return speakerCatalogue[static_cast<std::size_t>(speaker)].plans[static_cast<std::size_t>(chain)];
}

struct BandInfo {
    std::string_view text;
    int32_t sampleRate;
    std::array<int32_t, allPassLineCount> lineLengths;  // 4.0, 4.9, 5.7, 7.8 ms
    float directGain;
    float outputGainMagnitude;  // directGain * outputGainMagnitude is -10 dB in every band
    float smoothingFactor;      // exp(-2 pi 5 Hz * controlPeriod / rate), stored, not computed
};

inline constexpr std::array<BandInfo, bandCount> bandCatalogue = {{
    {"44", 44100, {176, 216, 251, 344}, 0.6137448f, 0.51524305f, 0.9886668f},
    {"48", 48000, {192, 235, 274, 374}, 0.6139337f, 0.51508456f, 0.9895828f},
    {"88", 88200, {353, 432, 503, 688}, 0.61413807f, 0.51491314f, 0.9943172f},
    {"96", 96000, {384, 470, 547, 749}, 0.61416644f, 0.51488936f, 0.9947777f},
    {"176", 176400, {706, 864, 1005, 1376}, 0.61424387f, 0.51482445f, 0.99715453f},
    {"192", 192000, {768, 941, 1094, 1498}, 0.61424065f, 0.51482713f, 0.99738544f},
}};

// First index of each region of the constant table.
struct ConstantRegions {
    int32_t preRecords = 0;
    std::array<int32_t, 2> gainTables{};
    std::array<int32_t, chainCount> chains{};
    int32_t ambienceRecord = 0;
    int32_t ambienceGainTable = 0;
    int32_t length = 0;
};

// First index of each region of the state table. A branch's three words are positionGain,
// positionGainTarget, positionValue in that order.
struct StateRegions {
    int32_t preStates = 0;
    int32_t typeValue = 0;
    std::array<int32_t, 2> branchWords{};
    std::array<int32_t, chainCount> chains{};
    std::array<int32_t, allPassLineCount> diffusers{};  // diffuserIndex, then the line
    int32_t ambienceState = 0;
    int32_t ambienceGain = 0;  // ambienceGainTarget follows
    int32_t length = 0;
};

inline constexpr int32_t positionGainWord = 0;
inline constexpr int32_t positionGainTargetWord = 1;
inline constexpr int32_t positionValueWord = 2;
inline constexpr int32_t gainTableLength = 4;

constexpr ConstantRegions LayOutConstants(int32_t preSectionCount,
                                          const std::array<ChainLayout, chainCount>& chains)
{
    ConstantRegions regions;
    int32_t at = preSectionCount * secondOrderRecordLength;
    for (int32_t branch = 0; branch < 2; ++branch) {
        regions.gainTables[branch] = at;
        at += gainTableLength;
        for (int32_t position = 0; position < 3; ++position) {
            regions.chains[branch * 3 + position] = at;
            at += chains[branch * 3 + position].recordLength;
        }
    }
    regions.ambienceRecord = at;
    at += secondOrderRecordLength;
    regions.ambienceGainTable = at;
    regions.length = at + gainTableLength;
    return regions;
}

constexpr StateRegions LayOutState(int32_t preSectionCount,
                                   const std::array<ChainLayout, chainCount>& chains,
                                   const std::array<int32_t, allPassLineCount>& lineLengths)
{
    StateRegions regions;
    int32_t at = preSectionCount * 2;
    regions.typeValue = at++;
    for (int32_t branch = 0; branch < 2; ++branch) {
        regions.branchWords[branch] = at;
        at += 3;
        for (int32_t position = 0; position < 3; ++position) {
            regions.chains[branch * 3 + position] = at;
            at += chains[branch * 3 + position].stateLength;
        }
    }
    for (int32_t line = 0; line < allPassLineCount; ++line) {
        regions.diffusers[line] = at;
        at += 1 + lineLengths[line];
    }
    regions.ambienceState = at;
    at += 2;
    regions.ambienceGain = at;
    regions.length = at + 2;
    return regions;
}

template <std::size_t size>
constexpr std::array<char, size> ComposeModelName(std::string_view speaker, std::string_view band)
{
    std::array<char, size> name{};
    std::size_t at = 0;
    for (char c : speaker) name[at++] = c;
    name[at++] = 'n';
    for (char c : band) name[at++] = c;
    name[at++] = 'a';
    return name;  // the rest stays NUL
}

// Everything a model class needs about itself at compile time.
template <Speaker speakerId, Band bandId>
struct ModelDescriptor {
    static constexpr Speaker speaker = speakerId;
    static constexpr Band band = bandId;
    static constexpr const SpeakerInfo& speakerInfo = speakerCatalogue[static_cast<std::size_t>(speakerId)];
    static constexpr const BandInfo& bandInfo = bandCatalogue[static_cast<std::size_t>(bandId)];

    static constexpr std::array<char, 16> name = ComposeModelName<16>(speakerInfo.text, bandInfo.text);
    static constexpr int32_t sampleRate = bandInfo.sampleRate;
    static constexpr uint32_t typeTag = speakerInfo.typeTag;
    static constexpr uint32_t positionTag = speakerInfo.positionTag;
    static constexpr int32_t preSectionCount = speakerInfo.preSectionCount;

    static constexpr std::array<std::string_view, chainCount> plans = {
        ChainPlanOf(speakerId, bandId, 0), ChainPlanOf(speakerId, bandId, 1),
        ChainPlanOf(speakerId, bandId, 2), ChainPlanOf(speakerId, bandId, 3),
        ChainPlanOf(speakerId, bandId, 4), ChainPlanOf(speakerId, bandId, 5)};
    static constexpr std::array<ChainLayout, chainCount> chains = {
        ParseChainPlan(plans[0]), ParseChainPlan(plans[1]), ParseChainPlan(plans[2]),
        ParseChainPlan(plans[3]), ParseChainPlan(plans[4]), ParseChainPlan(plans[5])};

    static constexpr std::array<int32_t, allPassLineCount> lineLengths = bandInfo.lineLengths;
    static constexpr ConstantRegions constantRegions = LayOutConstants(preSectionCount, chains);
    static constexpr StateRegions stateRegions = LayOutState(preSectionCount, chains, lineLengths);

    static constexpr int32_t constantsLength = speakerInfo.constantsLength[static_cast<std::size_t>(bandId)];
    static constexpr int32_t stateLength = speakerInfo.stateLength[static_cast<std::size_t>(bandId)];

    static constexpr float directGain = bandInfo.directGain;
    static constexpr float outputGain =
        speakerInfo.invertsPolarity ? -bandInfo.outputGainMagnitude : bandInfo.outputGainMagnitude;
    static constexpr float smoothingFactor = bandInfo.smoothingFactor;

    static constexpr bool ChainsAreSound()
    {
        for (const ChainLayout& chain : chains) {
            if (!chain.valid || chain.poleCount != polesPerChain) return false;
        }
        return true;
    }
    static_assert(ChainsAreSound(), "every chain plan is well formed and has 22 poles");
    static_assert(constantRegions.length == constantsLength,
                  "constant regions add up to the catalogue's table length");
    static_assert(stateRegions.length == stateLength,
                  "state regions add up to the catalogue's table length");

    // Compares the generated table's own description with this model's.
    static constexpr bool MatchesTableDescription(const std::string_view (&tablePlans)[chainCount],
                                                  int tablePreSectionCount)
    {
        if (tablePreSectionCount != preSectionCount) return false;
        for (int32_t chain = 0; chain < chainCount; ++chain) {
            if (tablePlans[chain] != plans[chain]) return false;
        }
        return true;
    }
};

}  // namespace tarnlow
