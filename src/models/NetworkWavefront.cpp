#include "models/NetworkWavefront.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <limits>
#include <utility>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

#include "engine/FrameConstants.h"
#include "models/Sections.h"

// Eight-lane vectors pass between the helpers below by value; all of them are inlined into
// one kernel, so the baseline build's differing calling convention for such values never
// meets the wide one.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wpsabi"
#endif

namespace tarnlow::speaker_network {

namespace {

using Lanes = float __attribute__((vector_size(32)));
using LaneBits = int32_t __attribute__((vector_size(32)));

// Rows of the step buffer: one per step, every lane of every vector.
inline constexpr int32_t rowLength = maxNetworkLanes;
inline constexpr int32_t maxSteps = maxRunLength + PositionsOf(maxPreSections, maxChainStages).last;

inline constexpr int32_t allBits = -1;
inline constexpr int32_t negativeZeroBits = static_cast<int32_t>(0x80000000u);

enum class LaneKind : uint8_t { secondOrder, reduced, firstOrder, passThrough, idle };

void PackLane(PackedNetwork& network, int32_t lane, LaneKind kind, const float* record,
              int32_t firstWord)
{
    PackedNetwork::Vector& vector = network.vectors[lane / lanesPerVector];
    const int32_t at = lane % lanesPerVector;
    float c[5] = {0.0f, 0.0f, 0.0f, 0.0f, 0.0f};
    bool hasS0 = true, hasC2X = true, hasS1 = true;
    int32_t words = 0;
    switch (kind) {
    case LaneKind::secondOrder:
        std::copy_n(record, secondOrderRecordLength, c);
        words = 2;
        break;
    case LaneKind::reduced:
        c[0] = record[0];
        c[1] = record[1];
        c[3] = record[2];
        c[4] = record[3];
        hasC2X = false;
        words = 2;
        break;
    case LaneKind::firstOrder:
        c[0] = record[0];
        c[1] = record[1];
        c[3] = record[2];
        hasC2X = false;
        hasS1 = false;
        words = 1;
        break;
    case LaneKind::passThrough:
        c[0] = 1.0f;
        hasS0 = hasC2X = hasS1 = false;
        break;
    case LaneKind::idle:
        // Runs free: none of its words or outputs is read.
        break;
    }
    vector.c0[at] = c[0];
    vector.c1[at] = c[1];
    vector.c2[at] = c[2];
    vector.c3[at] = c[3];
    vector.c4[at] = c[4];
    vector.keepS0[at] = hasS0 ? allBits : 0;
    vector.forcedS0[at] = hasS0 ? 0 : negativeZeroBits;
    vector.keepC2X[at] = hasC2X ? allBits : 0;
    vector.forcedC2X[at] = hasC2X ? 0 : negativeZeroBits;
    vector.keepS1[at] = hasS1 ? allBits : 0;
    vector.forcedS1[at] = hasS1 ? 0 : negativeZeroBits;
    vector.forcesS0 = vector.forcesS0 || !hasS0;
    vector.forcesC2X = vector.forcesC2X || (!hasC2X && hasS1);
    vector.forcesS1 = vector.forcesS1 || !hasS1;
    for (int32_t word = 0; word < words; ++word) {
        network.wordPlaces[network.wordPlaceCount++] = {static_cast<int16_t>(firstWord + word),
                                                       static_cast<uint8_t>(lane + word * maxNetworkLanes)};
    }
}

// Lays the word places out as windows; leaves wordsInWindows false if a vector's words
// spread over more than a window.
void PlaceWindows(PackedNetwork& network)
{
    int32_t start[maxNetworkVectors];
    std::fill_n(start, maxNetworkVectors, std::numeric_limits<int32_t>::max());
    for (int32_t at = 0; at < network.wordPlaceCount; ++at) {
        const PackedNetwork::WordPlace place = network.wordPlaces[at];
        const int32_t vector = place.lane % maxNetworkLanes / lanesPerVector;
        start[vector] = std::min<int32_t>(start[vector], place.word);
    }
    for (int32_t vector = 0; vector < maxNetworkVectors; ++vector) {
        network.windows[vector] = {};
        network.windows[vector].windowStart = start[vector] == std::numeric_limits<int32_t>::max() ? 0 : start[vector];
    }
    for (int32_t at = 0; at < network.wordPlaceCount; ++at) {
        const PackedNetwork::WordPlace place = network.wordPlaces[at];
        const bool isS1 = place.lane >= maxNetworkLanes;
        const int32_t lane = place.lane % maxNetworkLanes % lanesPerVector;
        PackedNetwork::WordWindow& window = network.windows[place.lane % maxNetworkLanes / lanesPerVector];
        const int32_t offset = place.word - window.windowStart;
        if (offset >= 2 * lanesPerVector) return;
        window.inWindow[offset] = allBits;
        window.toWindow[offset] = lane + (isS1 ? lanesPerVector : 0);
        (isS1 ? window.fromWindowS1 : window.fromWindowS0)[lane] = offset;
        (isS1 ? window.placedS1 : window.placedS0)[lane] = allBits;
    }
    network.wordsInWindows = true;
}

inline Lanes KeepOrForce(Lanes value, const int32_t* keep, const int32_t* forced) noexcept
{
    LaneBits keepBits, forcedBits;
    std::memcpy(&keepBits, keep, sizeof keepBits);
    std::memcpy(&forcedBits, forced, sizeof forcedBits);
    return reinterpret_cast<Lanes>((reinterpret_cast<LaneBits>(value) & keepBits) | forcedBits);
}

inline Lanes Select(LaneBits mask, Lanes whereSet, Lanes elsewhere) noexcept
{
    return reinterpret_cast<Lanes>((reinterpret_cast<LaneBits>(whereSet) & mask) |
                                   (reinterpret_cast<LaneBits>(elsewhere) & ~mask));
}

// The small-value test in the lanes where set: below 1e-30 in magnitude becomes +0.0; a
// not-a-number compares false and stays.
inline Lanes FlushTinyWords(Lanes words, LaneBits where) noexcept
{
    const Lanes magnitude = reinterpret_cast<Lanes>(reinterpret_cast<LaneBits>(words) & 0x7fffffff);
    return Select(where & (magnitude < 1e-30f), Lanes{}, words);
}

// Every lane the same word, bit for bit (0 + v would turn -0.0 into +0.0).
inline Lanes Broadcast(float value) noexcept
{
    return Lanes{value, value, value, value, value, value, value, value};
}

inline LaneBits LoadBits(const int32_t* from) noexcept
{
    LaneBits value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

inline Lanes Load(const float* from) noexcept
{
    Lanes value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

// How a kernel brings the state words into lanes and takes them back: word by word through
// the places, or window by window (see PackedNetwork::WordWindow) with the eight-lane
// permutations and masked loads and stores of AVX2. A lane without the word holds -0.0
// either way.
enum class WordAccess : uint8_t { placeByPlace, eightLaneWindows };

#if defined(__x86_64__) || defined(__i386__)
// Index loads written out in each function rather than through a shared helper: clang
// refuses a wide vector returned by a function built without the wide instructions.
#define TARNLOW_LOAD_INDICES(from) _mm256_loadu_si256(reinterpret_cast<const __m256i*>(from))

// A lane's word from the two halves of its window, by the window place 0-15.
[[gnu::target("avx2")]] inline __m256 PickFromWindow(__m256 low, __m256 high, const int32_t* places) noexcept
{
    const __m256i place = TARNLOW_LOAD_INDICES(places);
    const __m256 fromHigh = _mm256_castsi256_ps(_mm256_cmpgt_epi32(place, _mm256_set1_epi32(lanesPerVector - 1)));
    return _mm256_blendv_ps(_mm256_permutevar8x32_ps(low, place), _mm256_permutevar8x32_ps(high, place), fromHigh);
}

[[gnu::target("avx2")]] inline __m256 KeepPlaced(__m256 value, const int32_t* placed) noexcept
{
    const __m256 placedBits = _mm256_loadu_ps(reinterpret_cast<const float*>(placed));
    return _mm256_or_ps(_mm256_and_ps(value, placedBits), _mm256_andnot_ps(placedBits, _mm256_set1_ps(-0.0f)));
}

[[gnu::target("avx2")]] void LoadWindowsEightLanes(const PackedNetwork& network, const float* state,
                                                   Lanes* s0, Lanes* s1, int32_t vectorCount) noexcept
{
    for (int32_t v = 0; v < vectorCount; ++v) {
        const PackedNetwork::WordWindow& window = network.windows[v];
        const float* from = state + window.windowStart;
        const __m256 low = _mm256_maskload_ps(from, TARNLOW_LOAD_INDICES(window.inWindow));
        const __m256 high = _mm256_maskload_ps(from + lanesPerVector, TARNLOW_LOAD_INDICES(window.inWindow + lanesPerVector));
        _mm256_storeu_ps(reinterpret_cast<float*>(&s0[v]), KeepPlaced(PickFromWindow(low, high, window.fromWindowS0), window.placedS0));
        _mm256_storeu_ps(reinterpret_cast<float*>(&s1[v]), KeepPlaced(PickFromWindow(low, high, window.fromWindowS1), window.placedS1));
    }
}

[[gnu::target("avx2")]] void StoreWindowsEightLanes(const PackedNetwork& network, float* state,
                                                    const Lanes* s0, const Lanes* s1, int32_t vectorCount) noexcept
{
    for (int32_t v = 0; v < vectorCount; ++v) {
        const PackedNetwork::WordWindow& window = network.windows[v];
        float* to = state + window.windowStart;
        const __m256 s0Lanes = _mm256_loadu_ps(reinterpret_cast<const float*>(&s0[v]));
        const __m256 s1Lanes = _mm256_loadu_ps(reinterpret_cast<const float*>(&s1[v]));
        _mm256_maskstore_ps(to, TARNLOW_LOAD_INDICES(window.inWindow), PickFromWindow(s0Lanes, s1Lanes, window.toWindow));
        _mm256_maskstore_ps(to + lanesPerVector, TARNLOW_LOAD_INDICES(window.inWindow + lanesPerVector),
                            PickFromWindow(s0Lanes, s1Lanes, window.toWindow + lanesPerVector));
    }
}

#undef TARNLOW_LOAD_INDICES
#endif

// The taps of one vector's units in eight steps from blockStep: byUnit[k] holds unit k's
// taps of those steps, in step order. Twelve shuffles: the taps of rows 2j and 2j + 1, then
// of rows 0-3 and 4-7 two units each, then by unit.
inline void TapsOfEightSteps(const float (*rows)[rowLength], int32_t blockStep, int32_t v,
                             Lanes (&byUnit)[unitsPerVector]) noexcept
{
    Lanes row[lanesPerVector];
    for (int32_t j = 0; j < lanesPerVector; ++j) row[j] = Load(&rows[blockStep + j][v * lanesPerVector]);
    Lanes pairs[4];
    for (int32_t j = 0; j < 4; ++j) {
        pairs[j] = __builtin_shufflevector(row[2 * j], row[2 * j + 1], 0, 2, 4, 6, 8, 10, 12, 14);
    }
    const Lanes early01 = __builtin_shufflevector(pairs[0], pairs[1], 0, 4, 8, 12, 1, 5, 9, 13);
    const Lanes early23 = __builtin_shufflevector(pairs[0], pairs[1], 2, 6, 10, 14, 3, 7, 11, 15);
    const Lanes late01 = __builtin_shufflevector(pairs[2], pairs[3], 0, 4, 8, 12, 1, 5, 9, 13);
    const Lanes late23 = __builtin_shufflevector(pairs[2], pairs[3], 2, 6, 10, 14, 3, 7, 11, 15);
    byUnit[0] = __builtin_shufflevector(early01, late01, 0, 1, 2, 3, 8, 9, 10, 11);
    byUnit[1] = __builtin_shufflevector(early01, late01, 4, 5, 6, 7, 12, 13, 14, 15);
    byUnit[2] = __builtin_shufflevector(early23, late23, 0, 1, 2, 3, 8, 9, 10, 11);
    byUnit[3] = __builtin_shufflevector(early23, late23, 4, 5, 6, 7, 12, 13, 14, 15);
}

// The tap sums of samples [0, laneCount), eight at a time in lanes (laneCount a multiple of
// eight). The rows hold the taps along diagonals, unit u's of sample i in row i + u; the
// vectors' blocks of eight steps from their first unit's step, turned by unit, give each
// unit's taps of eight samples from two neighbouring blocks. The units are added from the
// last down, the final tap first, as in the section-by-section form.
template <NetworkPositions positions>
[[gnu::always_inline]] inline void SumTapsInLanes(float (*rows)[rowLength], int32_t count, int32_t laneCount,
                                                  float* direct) noexcept
{
    constexpr int32_t firstVector = positions.chainStart / unitsPerVector;
    if (laneCount == 0) return;
    const int32_t blocks = laneCount / lanesPerVector + 1;
    // The last block reaches past a vector's last working step; those rows feed only lanes
    // that no sum reads, and are cleared so as to be defined (one store as wide as the loads).
    for (int32_t v = firstVector; v < positions.vectorCount; ++v) {
        const int32_t lastUnit = std::min(v * unitsPerVector + unitsPerVector - 1, positions.last);
        for (int32_t step = lastUnit + count; step < v * unitsPerVector + blocks * lanesPerVector; ++step) {
            const Lanes zero{};
            std::memcpy(&rows[step][v * lanesPerVector], &zero, sizeof zero);
        }
    }
    // Block 0 has no block before it: its sums are made from zeros and not kept.
    Lanes earlier[positions.vectorCount - firstVector][unitsPerVector] = {};
    for (int32_t block = 0; block < blocks; ++block) {
        Lanes sum{};
#pragma GCC unroll 5
        for (int32_t v = positions.vectorCount - 1; v >= firstVector; --v) {
            const int32_t firstStep = v * unitsPerVector;
            Lanes later[unitsPerVector];
            TapsOfEightSteps(rows, firstStep + block * lanesPerVector, v, later);
            Lanes(&before)[unitsPerVector] = earlier[v - firstVector];
            // Unit k of the vector made sample i in step i + k: its samples of the block
            // before start k lanes into that block's steps.
            const Lanes bySample[unitsPerVector] = {
                before[0],
                __builtin_shufflevector(before[1], later[1], 1, 2, 3, 4, 5, 6, 7, 8),
                __builtin_shufflevector(before[2], later[2], 2, 3, 4, 5, 6, 7, 8, 9),
                __builtin_shufflevector(before[3], later[3], 3, 4, 5, 6, 7, 8, 9, 10),
            };
#pragma GCC unroll 4
            for (int32_t k = unitsPerVector - 1; k >= 0; --k) {
                const int32_t unit = firstStep + k;
                if (unit > positions.last || unit < positions.chainStart) continue;
                sum = unit == positions.last ? bySample[k] : sum + bySample[k];
            }
            std::copy_n(later, unitsPerVector, before);
        }
        if (block > 0) std::memcpy(direct + (block - 1) * lanesPerVector, &sum, sizeof sum);
    }
}

// The kernel for preSectionCount pre-sections and stageCount stages. The vectors' words stay
// in registers through the steps; each vector works only in the steps where one of its units
// has a sample, and in the steps where only some have, the others keep their words. A unit
// that has just run the last sample of a piece puts its words through the small-value test
// there, as the section does at the end of each piece when it runs alone.
template <WordAccess wordAccess, bool piecesInside, int32_t preSectionCount, int32_t stageCount>
[[gnu::always_inline]] inline void RunSteps(const PackedNetwork& network, const NetworkTail& tail,
                                            const float* input, float* output, const NetworkRun& run,
                                            float* state) noexcept
{
    constexpr NetworkPositions positions = PositionsOf(preSectionCount, stageCount);
    const int32_t count = run.count;
    constexpr int32_t vectorCount = positions.vectorCount;
    Lanes s0[vectorCount];
    Lanes s1[vectorCount];
    Lanes y[vectorCount];
    // Lane-wise copies of the words, s0 of every lane, then s1, where they go word by word.
    alignas(32) float laneWords[2 * maxNetworkLanes];
    if constexpr (wordAccess == WordAccess::placeByPlace) {
        for (float& word : laneWords) word = -0.0f;
        for (int32_t at = 0; at < network.wordPlaceCount; ++at) {
            laneWords[network.wordPlaces[at].lane] = state[network.wordPlaces[at].word];
        }
        for (int32_t v = 0; v < vectorCount; ++v) {
            s0[v] = Load(laneWords + v * lanesPerVector);
            s1[v] = Load(laneWords + maxNetworkLanes + v * lanesPerVector);
        }
    }
#if defined(__x86_64__) || defined(__i386__)
    if constexpr (wordAccess == WordAccess::eightLaneWindows) LoadWindowsEightLanes(network, state, s0, s1, vectorCount);
#endif
    for (Lanes& out : y) out = Lanes{};

    const LaneBits unitOfLane = {0, 0, 1, 1, 2, 2, 3, 3};

    // The lines' positions are plain integers kept in float slots of the state table, so
    // they are moved as bits, never converted.
    int32_t linePositions[allPassLineCount];
    float* lines[allPassLineCount];
    for (int32_t line = 0; line < allPassLineCount; ++line) {
        std::memcpy(&linePositions[line], tail.lineWords[line], sizeof(int32_t));
        lines[line] = tail.lineWords[line] + 1;
    }

    // Per sample its piece's position gain. Per step the unit, if any, that has just made
    // the last sample of a piece other than the last one (whose words go through the test at
    // the end, with all others): pieces inside a run are a period long and a period is
    // longer than the wavefront, so at most one unit ends a piece in any step.
    float sampleGains[maxRunLength];
    int8_t unitEndingPiece[maxSteps];
    if constexpr (piecesInside) std::fill_n(unitEndingPiece, positions.last + count, int8_t{-1});
    static_assert(controlPeriod > positions.last - positions.first);
    {
        int32_t at = 0;
        for (int32_t piece = 0; piece < run.pieceCount; ++piece) {
            std::fill_n(sampleGains + at, run.lengths[piece], run.positionGains[piece]);
            at += run.lengths[piece];
            if (piecesInside && piece + 1 < run.pieceCount) {
                for (int32_t unit = positions.first; unit <= positions.last; ++unit) {
                    unitEndingPiece[at - 1 + unit] = static_cast<int8_t>(unit);
                }
            }
        }
    }

    // Whatever multiplies the input is done here, in one pass over the run, rather than
    // step by step: a subnormal input takes the processor's slow path, which costs far more
    // inside the steps, where much work is under way, than in a short pass of its own.
    // Without pre-sections the position gain is that multiplication; otherwise it is the
    // first pre-section's three products, which its lane takes from here.
    float gainedInput[maxRunLength];
    float inputProducts[3][maxRunLength];
    LaneBits firstLane = {};
    if constexpr (preSectionCount == 0) {
        for (int32_t i = 0; i < count; ++i) gainedInput[i] = input[i] * sampleGains[i];
        input = gainedInput;
    } else {
        const int32_t lane = 2 * positions.first + 1;
        const PackedNetwork::Vector& first = network.vectors[0];
        for (int32_t i = 0; i < count; ++i) {
            inputProducts[0][i] = first.c0[lane] * input[i];
            inputProducts[1][i] = first.c1[lane] * input[i];
            inputProducts[2][i] = first.c2[lane] * input[i];
        }
        firstLane[lane] = allBits;
    }

    alignas(32) float rows[maxSteps + lanesPerVector][rowLength];
    if (count > 0) {
        for (int32_t step = positions.first; step < positions.last + count; ++step) {
            const int32_t enteringSample = step - positions.first;
            const float entering = enteringSample < count ? input[enteringSample] : 0.0f;
            // From the last vector down, so that y of v - 1 still holds the previous step.
#pragma GCC unroll 5
            for (int32_t v = vectorCount - 1; v >= 0; --v) {
                const PackedNetwork::Vector& c = network.vectors[v];
                const int32_t firstUnitSample = step - v * unitsPerVector;
                const int32_t firstWorking = std::max(v * unitsPerVector, positions.first);
                const int32_t lastWorking = std::min(v * unitsPerVector + unitsPerVector - 1, positions.last);
                if (step < firstWorking || step > lastWorking + count - 1) continue;
                Lanes x;
                if (v == 0 && preSectionCount == 0) {
                    x = __builtin_shufflevector(Broadcast(entering), y[0], 7, 7, 9, 9, 11, 11, 13, 13);
                } else if (v == 0) {
                    // The first pre-section's lane takes zero here: its products with the
                    // input were made before the steps (see inputProducts).
                    if constexpr (preSectionCount == 1) {
                        x = Lanes{};
                    } else {
                        x = __builtin_shufflevector(Lanes{}, y[0], 0, 0, 0, 0, 0, 0, 13, 13);
                    }
                } else if (v * unitsPerVector == positions.chainStart) {
                    const int32_t sample = std::clamp(step - positions.chainStart, 0, count - 1);
                    x = __builtin_shufflevector(y[v > 0 ? v - 1 : 0] * sampleGains[sample], y[v], 7, 7, 9,
                                                9, 11, 11, 13, 13);
                } else {
                    x = __builtin_shufflevector(y[v > 0 ? v - 1 : 0], y[v], 7, 7, 9, 9, 11, 11, 13, 13);
                }
                const Lanes oldS0 = s0[v];
                const Lanes oldS1 = s1[v];
                Lanes c0x = Load(c.c0) * x;
                Lanes c1x = Load(c.c1) * x;
                Lanes c2x = Load(c.c2) * x;
                if (v == 0 && preSectionCount > 0) {
                    const int32_t sample = std::min(enteringSample, count - 1);
                    c0x = Select(firstLane, Broadcast(inputProducts[0][sample]), c0x);
                    c1x = Select(firstLane, Broadcast(inputProducts[1][sample]), c1x);
                    c2x = Select(firstLane, Broadcast(inputProducts[2][sample]), c2x);
                }
                const Lanes out = c0x + oldS0;
                Lanes nextS0 = ((oldS0 + oldS1) + c1x) - Load(c.c3) * out;
                if (c.forcesC2X) c2x = KeepOrForce(c2x, c.keepC2X, c.forcedC2X);
                Lanes nextS1 = (oldS1 + c2x) - Load(c.c4) * out;
                if (c.forcesS0) nextS0 = KeepOrForce(nextS0, c.keepS0, c.forcedS0);
                if (c.forcesS1) nextS1 = KeepOrForce(nextS1, c.keepS1, c.forcedS1);
                if (step < lastWorking || step > firstWorking + count - 1) {
                    const LaneBits sampleOfLane = firstUnitSample - unitOfLane;
                    const LaneBits working = (sampleOfLane >= 0) & (sampleOfLane < count);
                    nextS0 = Select(working, nextS0, oldS0);
                    nextS1 = Select(working, nextS1, oldS1);
                }
                s0[v] = nextS0;
                s1[v] = nextS1;
                y[v] = out;
                // The pre-sections' vector has no tap to keep.
                if (v > 0 || preSectionCount == 0) std::memcpy(&rows[step][v * lanesPerVector], &out, sizeof out);
            }
            if constexpr (piecesInside) {
                // The small-value test of the words the unit has (keep masks: a word a lane
                // lacks stays -0.0).
                const int32_t unit = unitEndingPiece[step];
                if (unit >= 0) {
                    const LaneBits unitLanes = unitOfLane == unit % unitsPerVector;
                    [&]<std::size_t... v>(std::index_sequence<v...>) {
                        ((unit / unitsPerVector == int32_t(v)
                              ? (s0[v] = FlushTinyWords(s0[v], unitLanes & LoadBits(network.vectors[v].keepS0)),
                                 s1[v] = FlushTinyWords(s1[v], unitLanes & LoadBits(network.vectors[v].keepS1)), 0)
                              : 0),
                         ...);
                    }(std::make_index_sequence<vectorCount>{});
                }
            }
        }
    }

    // The final tap first, then the stage taps from the last to the first: this order fixes
    // the rounding. Unit u's tap of sample i is in row i + u at lane 2u. Eight samples at a
    // time add up in lanes (SumTapsInLanes); the samples after the last full eight, one by one
    // along the diagonal.
    const int32_t laneCount = count / lanesPerVector * lanesPerVector;
    float direct[maxRunLength];
    SumTapsInLanes<positions>(rows, count, laneCount, direct);
    for (int32_t i = laneCount; i < count; ++i) {
        const float* row = &rows[i][0];
        float sum = row[positions.last * (rowLength + 2)];
#pragma GCC unroll 12
        for (int32_t stage = stageCount - 1; stage >= 0; --stage) {
            sum = sum + row[(positions.chainStart + stage) * (rowLength + 2)];
        }
        direct[i] = sum;
    }

    // Each line's delay is longer than a run, so no sample of the call reads a place the
    // call has written: a line runs as at most two stretches without a wrap test, each free
    // of carried dependencies.
    float diffused[maxRunLength];
    const float* lineInput = direct;
    for (int32_t line = 0; line < allPassLineCount; ++line) {
        float* delays = lines[line];
        const int32_t length = tail.lineLengths[line];
        const int32_t position = linePositions[line];
        const int32_t firstRun = std::min(count, length - position);
        float* at = delays + position;
        for (int32_t i = 0; i < firstRun; ++i) {
            const float delayed = at[i];
            const float written = -allPassGain * delayed + lineInput[i];
            at[i] = written;
            diffused[i] = delayed + allPassGain * written;
        }
        for (int32_t i = firstRun; i < count; ++i) {
            const float delayed = delays[i - firstRun];
            const float written = -allPassGain * delayed + lineInput[i];
            delays[i - firstRun] = written;
            diffused[i] = delayed + allPassGain * written;
        }
        linePositions[line] = position + count >= length ? position + count - length : position + count;
        lineInput = diffused;
    }

    // The ambience section piece by piece, for its small-value test after each; without
    // samples once, for the test alone.
    int32_t pieceStart = 0;
    for (int32_t piece = 0; piece < std::max(run.pieceCount, 1); ++piece) {
        const int32_t pieceEnd = pieceStart + (piece < run.pieceCount ? run.lengths[piece] : 0);
        RunSection(diffused + pieceStart, diffused + pieceStart, pieceEnd - pieceStart, tail.ambienceRecord,
                   tail.ambienceState);
        for (int32_t i = pieceStart; i < pieceEnd; ++i) {
            const float wet = diffused[i] * run.ambienceGains[piece];
            output[i] = (direct[i] * tail.directGain + wet) * tail.outputGain;
        }
        pieceStart = pieceEnd;
    }

    for (int32_t line = 0; line < allPassLineCount; ++line) {
        std::memcpy(tail.lineWords[line], &linePositions[line], sizeof(int32_t));
    }

    for (int32_t v = 0; v < vectorCount; ++v) {
        s0[v] = FlushTinyWords(s0[v], LaneBits{} + allBits);
        s1[v] = FlushTinyWords(s1[v], LaneBits{} + allBits);
    }
    if constexpr (wordAccess == WordAccess::placeByPlace) {
        for (int32_t v = 0; v < vectorCount; ++v) {
            std::memcpy(laneWords + v * lanesPerVector, &s0[v], sizeof(Lanes));
            std::memcpy(laneWords + maxNetworkLanes + v * lanesPerVector, &s1[v], sizeof(Lanes));
        }
        for (int32_t at = 0; at < network.wordPlaceCount; ++at) {
            state[network.wordPlaces[at].word] = laneWords[network.wordPlaces[at].lane];
        }
    }
#if defined(__x86_64__) || defined(__i386__)
    if constexpr (wordAccess == WordAccess::eightLaneWindows) StoreWindowsEightLanes(network, state, s0, s1, vectorCount);
#endif
}

// The steps with or without the small-value test inside the run: a run of one piece, the
// usual case below a period, has none.
template <WordAccess wordAccess, int32_t preSectionCount, int32_t stageCount>
[[gnu::always_inline]] inline void RunPieces(const PackedNetwork& network, const NetworkTail& tail,
                                             const float* input, float* output, const NetworkRun& run,
                                             float* state) noexcept
{
    if (run.pieceCount > 1) {
        RunSteps<wordAccess, true, preSectionCount, stageCount>(network, tail, input, output, run, state);
    } else {
        RunSteps<wordAccess, false, preSectionCount, stageCount>(network, tail, input, output, run, state);
    }
}

template <int32_t preSectionCount, int32_t stageCount>
void RunBaseline(const PackedNetwork& network, const NetworkTail& tail, const float* input,
                 float* output, const NetworkRun& run, float* state) noexcept
{
    RunPieces<WordAccess::placeByPlace, preSectionCount, stageCount>(network, tail, input, output, run, state);
}

#if defined(__x86_64__) || defined(__i386__)
// The same steps with eight-lane instructions, where the processor has them. The additions
// and multiplications are the same IEEE operations in either width; no fused multiply-add.
template <int32_t preSectionCount, int32_t stageCount>
[[gnu::target("avx2")]] void RunWide(const PackedNetwork& network, const NetworkTail& tail,
                                     const float* input, float* output, const NetworkRun& run,
                                     float* state) noexcept
{
    RunPieces<WordAccess::eightLaneWindows, preSectionCount, stageCount>(network, tail, input, output, run, state);
}

// Still eight lanes, with the 32 vector registers of the newer instruction set: the vectors'
// words and the temporaries of a step then fit without spilling to the stack.
template <int32_t preSectionCount, int32_t stageCount>
[[gnu::target("avx2,avx512f,avx512vl")]] void RunWideManyRegisters(
    const PackedNetwork& network, const NetworkTail& tail, const float* input, float* output,
    const NetworkRun& run, float* state) noexcept
{
    RunPieces<WordAccess::eightLaneWindows, preSectionCount, stageCount>(network, tail, input, output, run, state);
}
#endif

std::atomic<KernelSet> kernelLimit{KernelSet::widest};

// The widest kernel the processor runs, within the limit set for the tests.
KernelSet UsableKernels()
{
    const KernelSet limit = kernelLimit.load(std::memory_order_relaxed);
#if defined(__x86_64__) || defined(__i386__)
    __builtin_cpu_init();
    if (limit == KernelSet::widest && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512vl")) {
        return KernelSet::widest;
    }
    if (limit != KernelSet::baseline && __builtin_cpu_supports("avx2")) return KernelSet::eightLanes;
#else
    (void)limit;
#endif
    return KernelSet::baseline;
}

template <int32_t preSectionCount, int32_t stageCount>
NetworkKernel ChooseKernel(bool wordsInWindows)
{
    // The wide kernels take the words window by window.
    switch (wordsInWindows ? UsableKernels() : KernelSet::baseline) {
#if defined(__x86_64__) || defined(__i386__)
    case KernelSet::widest: return &RunWideManyRegisters<preSectionCount, stageCount>;
    case KernelSet::eightLanes: return &RunWide<preSectionCount, stageCount>;
#endif
    default: return &RunBaseline<preSectionCount, stageCount>;
    }
}

template <int32_t preSectionCount>
NetworkKernel ChooseKernel(int32_t stageCount, bool wordsInWindows)
{
    switch (stageCount) {
    case 10: return ChooseKernel<preSectionCount, 10>(wordsInWindows);
    case 11: return ChooseKernel<preSectionCount, 11>(wordsInWindows);
    case 12: return ChooseKernel<preSectionCount, 12>(wordsInWindows);
    default: return nullptr;
    }
}

}  // namespace

void LimitKernels(KernelSet limit)
{
    kernelLimit.store(limit, std::memory_order_relaxed);
}

KernelSet KernelsInUse()
{
    return UsableKernels();
}

PackedNetwork PackNetwork(const ChainLayout& chain, int32_t preSectionCount,
                          const float* preRecords, int32_t preWords, const float* chainRecords,
                          int32_t chainWords)
{
    PackedNetwork network{};
    for (int32_t lane = 0; lane < maxNetworkLanes; ++lane) {
        PackLane(network, lane, LaneKind::idle, nullptr, 0);
    }

    const NetworkPositions positions = PositionsOf(preSectionCount, chain.stageCount);
    for (int32_t section = 0; section < preSectionCount; ++section) {
        PackLane(network, 2 * (positions.first + section) + 1, LaneKind::secondOrder,
                 preRecords + section * secondOrderRecordLength, preWords + section * 2);
    }
    for (int32_t stage = 0; stage < chain.stageCount; ++stage) {
        const StageLayout& layout = chain.stages[stage];
        const float* record = chainRecords + layout.recordOffset;
        const int32_t word = chainWords + layout.stateOffset;
        const int32_t tapLane = 2 * (positions.chainStart + stage);
        switch (layout.kind) {
        case StageKind::firstOrder:
            PackLane(network, tapLane, LaneKind::firstOrder, record, word);
            PackLane(network, tapLane + 1, LaneKind::firstOrder, record + firstOrderRecordLength, word + 1);
            break;
        case StageKind::secondOrder:
            PackLane(network, tapLane, LaneKind::secondOrder, record, word);
            PackLane(network, tapLane + 1, LaneKind::secondOrder, record + secondOrderRecordLength, word + 2);
            break;
        case StageKind::reduced:
            PackLane(network, tapLane, LaneKind::reduced, record, word);
            PackLane(network, tapLane + 1, LaneKind::secondOrder, record + reducedRecordLength, word + 2);
            break;
        case StageKind::tapOnly:
            PackLane(network, tapLane, LaneKind::firstOrder, record, word);
            PackLane(network, tapLane + 1, LaneKind::passThrough, nullptr, 0);
            break;
        }
    }
    PackLane(network, 2 * positions.last,
             chain.finalKind == FinalTapKind::secondOrder ? LaneKind::secondOrder : LaneKind::reduced,
             chainRecords + chain.finalRecordOffset, chainWords + chain.finalStateOffset);

    PlaceWindows(network);
    switch (preSectionCount) {
    case 0: network.kernel = ChooseKernel<0>(chain.stageCount, network.wordsInWindows); break;
    case 1: network.kernel = ChooseKernel<1>(chain.stageCount, network.wordsInWindows); break;
    case 2: network.kernel = ChooseKernel<2>(chain.stageCount, network.wordsInWindows); break;
    default: break;
    }
    return network;
}

}  // namespace tarnlow::speaker_network
