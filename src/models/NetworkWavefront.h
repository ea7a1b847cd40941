#pragma once

#include <cstdint>

#include "engine/FrameConstants.h"
#include "models/ModelCatalogue.h"

namespace tarnlow::speaker_network {

// The pre-sections and one chain of a model run as a wavefront: every section works in the
// same step, each on its own sample. A unit is two lanes, tap and through: a pre-section is
// a through lane beside an idle one, a stage is its tap and through sections, the final tap
// is a tap lane beside an idle one. Unit u handles sample t - u in step t, so the through
// output of unit u - 1 from step t - 1 is the input of unit u in step t; the input of the
// first chain unit is multiplied by the position gain on the way, as in the section-by-
// section form. Four units share a vector of eight lanes (see NetworkPositions).
//
// Every lane runs the second-order recursion of Sections.h with its grouping,
//   y = c0 x + s0;  s0' = ((s0 + s1) + c1 x) - c3 y;  s1' = (s1 + c2 x) - c4 y,
// so each section sees the same inputs and rounds exactly as when it runs alone; only the
// schedule differs. The other kinds are mapped onto it without a change of any rounding: a
// word or product that a kind does not have is held at -0.0, because v + (-0.0) is v bit for
// bit (also for +0.0, -0.0 and not-a-number), whereas v + (+0.0) would turn -0.0 into +0.0.
//   reduced:      c2 x is replaced by -0.0, so s1' = (s1 + -0) - c4 y = s1 - c4 y;
//   first order:  c3 carries the record's c2 and s1 stays -0.0, so s0' = (s + c1 x) - c2 y;
//   pass-through (the missing through of an f stage): c0 = 1, s0 = s1 = -0.0, so y = x;
//   idle:         all coefficients 0; nothing reads its output, so its words run free.
// The position gain multiplies the whole vector that comes into the first chain vector, of
// which only the last lane, the pre-sections' through output, is read; without
// pre-sections it multiplies the input before the steps.

inline constexpr int32_t lanesPerVector = 8;
inline constexpr int32_t unitsPerVector = lanesPerVector / 2;
inline constexpr int32_t maxPreSections = 2;

// Where the units stand. Unit positions count from the first lane of the first vector. The
// first chain unit starts a vector, so that the position gain multiplies what comes in from
// the vector before rather than what a vector feeds back into itself; the pre-sections stand
// at the end of the first vector.
struct NetworkPositions {
    int32_t first;       // the first pre-section's, or the first chain unit's
    int32_t chainStart;  // the first chain unit's
    int32_t last;        // the final tap's
    int32_t vectorCount;
};

constexpr NetworkPositions PositionsOf(int32_t preSectionCount, int32_t stageCount)
{
    const int32_t chainStart = preSectionCount > 0 ? unitsPerVector : 0;
    const int32_t last = chainStart + stageCount;
    return {chainStart - preSectionCount, chainStart, last, last / unitsPerVector + 1};
}

inline constexpr int32_t maxNetworkVectors = PositionsOf(maxPreSections, maxChainStages).vectorCount;
inline constexpr int32_t maxNetworkLanes = maxNetworkVectors * lanesPerVector;

inline constexpr float allPassGain = 0.7f;

// A kernel call takes up to five pieces, at most four periods of samples: the frame's cuts
// (at the ends of control periods, and at the end of the host's block) stay where they are.
// After each piece the state words go through the small-value test, and each piece has the
// gains that its Update left.
inline constexpr int32_t maxRunLength = 4 * controlPeriod;
inline constexpr int32_t maxRunPieces = maxRunLength / controlPeriod + 1;

struct NetworkRun {
    int32_t count = 0;       // samples, 0 to maxRunLength
    int32_t pieceCount = 0;  // 1 to maxRunPieces where count > 0
    int32_t lengths[maxRunPieces] = {};
    float positionGains[maxRunPieces] = {};
    float ambienceGains[maxRunPieces] = {};
};

struct PackedNetwork;

// What follows the chain: the chain's output (the final tap plus the stage taps) runs through
// four all-pass lines and the ambience section, and the output mixes it, as the direct
// signal, with the ambience.
struct NetworkTail {
    float* lineWords[allPassLineCount];  // each line's position word, then the line
    int32_t lineLengths[allPassLineCount];
    const float* ambienceRecord;
    float* ambienceState;
    float directGain;
    float outputGain;
};

// Runs the network and its tail over input[0, run.count) into output[0, run.count); output
// may be input. The state words are read once and written once.
using NetworkKernel = void (*)(const PackedNetwork& network, const NetworkTail& tail,
                               const float* input, float* output, const NetworkRun& run,
                               float* state) noexcept;

// One chain of one model with the pre-sections in front, its coefficients lane by lane. Built
// once, from the model's constant table, when the model is made.
struct PackedNetwork {
    struct alignas(32) Vector {
        float c0[lanesPerVector], c1[lanesPerVector], c2[lanesPerVector], c3[lanesPerVector],
            c4[lanesPerVector];
        // Per lane: a word is kept as (computed & keep) | forced; keep is all ones where the
        // lane has the word or product, forced is -0.0 where it has not.
        int32_t keepS0[lanesPerVector], forcedS0[lanesPerVector];
        int32_t keepC2X[lanesPerVector], forcedC2X[lanesPerVector];
        int32_t keepS1[lanesPerVector], forcedS1[lanesPerVector];
        // Some lane lacks s0 (pass-through), the product c2 x (reduced; a lane without s1
        // needs no forcing of the product, since its s1 is forced) or s1 (first order,
        // pass-through).
        bool forcesS0 = false;
        bool forcesC2X = false;
        bool forcesS1 = false;
    };
    Vector vectors[maxNetworkVectors];
    // Where each state word of the network stands in the model's state table, and its place
    // among the lanes' words: s0 of lane l at l, s1 at maxNetworkLanes + l.
    struct WordPlace {
        int16_t word;
        uint8_t lane;
    };
    WordPlace wordPlaces[2 * maxNetworkLanes];
    int32_t wordPlaceCount = 0;
    // The same places as windows for the wide kernels: a vector's words lie within sixteen
    // words of the state table from windowStart, so that two loads and a permutation bring
    // them into lanes, and a permutation and two masked stores take them back.
    struct alignas(32) WordWindow {
        int32_t windowStart;
        int32_t inWindow[2 * lanesPerVector];    // all ones where the word is the vector's
        int32_t fromWindowS0[lanesPerVector];    // the window place of each lane's s0
        int32_t fromWindowS1[lanesPerVector];
        int32_t placedS0[lanesPerVector];        // all ones where the lane has the word
        int32_t placedS1[lanesPerVector];
        int32_t toWindow[2 * lanesPerVector];    // lane of the word: s0 at 0-7, s1 at 8-15
    };
    WordWindow windows[maxNetworkVectors];
    bool wordsInWindows = false;
    NetworkKernel kernel = nullptr;
};

// The kernels, from the widest down: eight lanes with 32 registers (AVX-512VL), eight lanes
// (AVX2), and the baseline x86-64 instructions. A network takes the widest the processor
// runs, within the limit set here.
enum class KernelSet : uint8_t { widest, eightLanes, baseline };

// Networks packed from now on use kernels no wider than limit. For the tests and the
// benchmarks, which compare them; set-up only.
void LimitKernels(KernelSet limit);
// What a network packed now would use.
KernelSet KernelsInUse();

// Pre-sections 0 to 2 and stages 10 to 12, as the catalogue has them; otherwise the
// network has no kernel. constants and state are the model's tables; the pre-section records and words are at the
// starts given, the chain's at chainRecords / chainWords.
PackedNetwork PackNetwork(const ChainLayout& chain, int32_t preSectionCount,
                          const float* preRecords, int32_t preWords, const float* chainRecords,
                          int32_t chainWords);

inline void RunNetwork(const PackedNetwork& network, const NetworkTail& tail, const float* input,
                       float* output, const NetworkRun& run, float* state) noexcept
{
    network.kernel(network, tail, input, output, run, state);
}

}  // namespace tarnlow::speaker_network
