#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "models/ModelCatalogue.h"
#include "models/Sections.h"
#include "engine/FrameConstants.h"

namespace tarnlow::speaker_network {

// A chain run as a wavefront: every section of the chain works in the same step, each on its
// own sample. Two units share one vector of four lanes, a unit being a stage (tap lane,
// through lane) or the final tap (tap lane, an idle lane). Unit u handles sample t - u in
// step t, so the through output of unit u from step t - 1 is the input of unit u + 1 in step
// t. The recursion of every lane is the one of its section in Sections.h with the same
// grouping, so each section sees the same inputs and rounds exactly as when it runs alone;
// only the schedule differs.
//
// Every lane runs the second-order recursion
//   y = c0 x + s0;  s0' = ((s0 + s1) + c1 x) - c3 y;  s1' = (s1 + c2 x) - c4 y
// and the other kinds are mapped onto it without a change of any rounding: a word or a
// product that the kind does not have is held at -0.0, because v + (-0.0) is v bit for bit
// (also for +0.0, -0.0 and not-a-number), whereas v + (+0.0) would turn -0.0 into +0.0.
//   reduced:     c2 x is replaced by -0.0, so s1' = (s1 + -0) - c4 y = s1 - c4 y;
//   first order: c3 carries the record's c2, s1 stays -0.0, so s0' = (s + c1 x) - c2 y;
//   pass-through (the missing through of an f stage): c0 = 1, s0 = s1 = -0.0, y = x;
//   idle:        all coefficients 0 and both words -0.0; its output is never used.

using Lanes = float __attribute__((vector_size(16)));
using LaneBits = int32_t __attribute__((vector_size(16)));

inline constexpr int32_t maxChainUnits = maxChainStages + 1;
inline constexpr int32_t maxChainVectors = (maxChainUnits + 1) / 2;

enum class LaneKind : uint8_t { secondOrder, reduced, firstOrder, passThrough, idle };

// One chain of one model with its coefficients laid out lane by lane. Built once, from the
// model's constant table, when the model is made.
struct PackedChain {
    struct Vector {
        Lanes c0, c1, c2, c3, c4;
        // Per lane: a word is kept as (computed & keep) | forced; keep is all ones where the
        // lane has the word or product, forced is -0.0 where it has not.
        LaneBits keepS0, forcedS0, keepC2X, forcedC2X, keepS1, forcedS1;
        bool allSecondOrder;  // no lane needs a forced word: the masks may be skipped
    };
    Vector vectors[maxChainVectors];
    // Per lane: the first state word of its section within the chain's state region, or -1,
    // and how many words it has (0, 1 or 2).
    int16_t stateOffset[maxChainVectors * 4];
    int8_t stateWords[maxChainVectors * 4];
    int32_t vectorCount = 0;
    int32_t stageCount = 0;  // units before the final tap
};

inline constexpr int32_t allBits = -1;
inline constexpr int32_t negativeZeroBits = static_cast<int32_t>(0x80000000u);

inline void PackLane(PackedChain& chain, int32_t lane, LaneKind kind, const float* record,
                     int32_t stateOffset)
{
    PackedChain::Vector& vector = chain.vectors[lane / 4];
    const int32_t at = lane % 4;
    float c[5] = {0.0f, 0.0f, 0.0f, 0.0f, 0.0f};
    bool hasS0 = true, hasC2X = true, hasS1 = true;
    int8_t words = 0;
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
        hasS0 = hasC2X = hasS1 = false;
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
    chain.stateOffset[lane] = static_cast<int16_t>(words > 0 ? stateOffset : -1);
    chain.stateWords[lane] = words;
}

// records: the chain's first constant.
inline PackedChain PackChain(const ChainLayout& layout, const float* records)
{
    PackedChain chain{};
    const int32_t unitCount = layout.stageCount + 1;
    chain.stageCount = layout.stageCount;
    chain.vectorCount = (unitCount + 1) / 2;
    for (int32_t lane = 0; lane < chain.vectorCount * 4; ++lane) {
        PackLane(chain, lane, LaneKind::idle, nullptr, 0);
    }
    for (int32_t unit = 0; unit < layout.stageCount; ++unit) {
        const StageLayout& stage = layout.stages[unit];
        const float* record = records + stage.recordOffset;
        const int32_t tapLane = unit * 2;
        switch (stage.kind) {
        case StageKind::firstOrder:
            PackLane(chain, tapLane, LaneKind::firstOrder, record, stage.stateOffset);
            PackLane(chain, tapLane + 1, LaneKind::firstOrder, record + firstOrderRecordLength,
                     stage.stateOffset + 1);
            break;
        case StageKind::secondOrder:
            PackLane(chain, tapLane, LaneKind::secondOrder, record, stage.stateOffset);
            PackLane(chain, tapLane + 1, LaneKind::secondOrder, record + secondOrderRecordLength,
                     stage.stateOffset + 2);
            break;
        case StageKind::reduced:
            PackLane(chain, tapLane, LaneKind::reduced, record, stage.stateOffset);
            PackLane(chain, tapLane + 1, LaneKind::secondOrder, record + reducedRecordLength,
                     stage.stateOffset + 2);
            break;
        case StageKind::tapOnly:
            PackLane(chain, tapLane, LaneKind::firstOrder, record, stage.stateOffset);
            PackLane(chain, tapLane + 1, LaneKind::passThrough, nullptr, 0);
            break;
        }
    }
    PackLane(chain, layout.stageCount * 2,
             layout.finalKind == FinalTapKind::secondOrder ? LaneKind::secondOrder : LaneKind::reduced,
             records + layout.finalRecordOffset, layout.finalStateOffset);
    for (PackedChain::Vector& vector : chain.vectors) {
        vector.allSecondOrder = true;
        for (int32_t at = 0; at < 4; ++at) {
            vector.allSecondOrder = vector.allSecondOrder && vector.keepS0[at] == allBits &&
                                    vector.keepC2X[at] == allBits && vector.keepS1[at] == allBits;
        }
    }
    return chain;
}

inline Lanes KeepOrForce(Lanes value, LaneBits keep, LaneBits forced) noexcept
{
    return reinterpret_cast<Lanes>((reinterpret_cast<LaneBits>(value) & keep) | forced);
}

inline Lanes Select(LaneBits mask, Lanes whereSet, Lanes elsewhere) noexcept
{
    return reinterpret_cast<Lanes>((reinterpret_cast<LaneBits>(whereSet) & mask) |
                                   (reinterpret_cast<LaneBits>(elsewhere) & ~mask));
}

// Runs the chain over signal[0, count) in place; the tap of stage k goes to taps[k]. The state
// words are read once before the block and written once after it, each through the
// small-value test, as when the sections run one after another.
inline void RunChainWavefront(const PackedChain& chain, float* signal,
                              float (*taps)[controlPeriod], int32_t count, float* words) noexcept
{
    const int32_t vectorCount = chain.vectorCount;
    Lanes s0[maxChainVectors];
    Lanes s1[maxChainVectors];
    Lanes y[maxChainVectors];
    for (int32_t v = 0; v < vectorCount; ++v) {
        for (int32_t at = 0; at < 4; ++at) {
            const int32_t lane = v * 4 + at;
            const int32_t offset = chain.stateOffset[lane];
            const int32_t wordCount = chain.stateWords[lane];
            s0[v][at] = wordCount > 0 ? words[offset] : -0.0f;
            s1[v][at] = wordCount > 1 ? words[offset + 1] : -0.0f;
        }
        y[v] = Lanes{0.0f, 0.0f, 0.0f, 0.0f};
    }

    // Outputs of unit u for sample i go to rows[u][i + 1]; column 0 and column count + 1
    // take the writes of a unit that has not started or has finished.
    float rows[maxChainVectors * 2][controlPeriod + 2];
    const LaneBits lowerUnit = {allBits, allBits, 0, 0};
    const LaneBits upperUnit = {0, 0, allBits, allBits};

    if (count > 0) {
        const int32_t lastStep = 2 * (vectorCount - 1) + count;
        for (int32_t step = 0; step <= lastStep; ++step) {
            // Vector v works in steps 2v .. 2v + count; from the top down, so that y of v - 1
            // still holds the previous step when v reads it.
            const int32_t highest = std::min(vectorCount - 1, step / 2);
            const int32_t lowest = std::max(0, (step - count + 1) / 2);
            const float entering = step < count ? signal[step] : 0.0f;
            for (int32_t v = highest; v >= lowest; --v) {
                const PackedChain::Vector& c = chain.vectors[v];
                const Lanes below = v == 0 ? Lanes{entering, entering, entering, entering} : y[v - 1];
                const Lanes x = __builtin_shuffle(below, y[v], LaneBits{3, 3, 5, 5});
                const Lanes oldS0 = s0[v];
                const Lanes oldS1 = s1[v];
                const Lanes out = c.c0 * x + oldS0;
                Lanes nextS0 = ((oldS0 + oldS1) + c.c1 * x) - c.c3 * out;
                Lanes nextS1;
                if (c.allSecondOrder) {
                    nextS1 = (oldS1 + c.c2 * x) - c.c4 * out;
                } else {
                    const Lanes c2x = KeepOrForce(c.c2 * x, c.keepC2X, c.forcedC2X);
                    nextS1 = (oldS1 + c2x) - c.c4 * out;
                    nextS0 = KeepOrForce(nextS0, c.keepS0, c.forcedS0);
                    nextS1 = KeepOrForce(nextS1, c.keepS1, c.forcedS1);
                }
                const int32_t firstUnitSample = step - 2 * v;
                if (firstUnitSample == 0) {
                    nextS0 = Select(lowerUnit, nextS0, oldS0);
                    nextS1 = Select(lowerUnit, nextS1, oldS1);
                } else if (firstUnitSample == count) {
                    nextS0 = Select(upperUnit, nextS0, oldS0);
                    nextS1 = Select(upperUnit, nextS1, oldS1);
                }
                s0[v] = nextS0;
                s1[v] = nextS1;
                y[v] = out;
                rows[2 * v][firstUnitSample + 1] = out[0];
                rows[2 * v + 1][firstUnitSample] = out[2];
            }
        }
    }

    const int32_t stageCount = chain.stageCount;
    for (int32_t stage = 0; stage < stageCount; ++stage) {
        std::copy_n(&rows[stage][1], count, taps[stage]);
    }
    std::copy_n(&rows[stageCount][1], count, signal);

    for (int32_t v = 0; v < vectorCount; ++v) {
        for (int32_t at = 0; at < 4; ++at) {
            const int32_t lane = v * 4 + at;
            const int32_t offset = chain.stateOffset[lane];
            const int32_t wordCount = chain.stateWords[lane];
            if (wordCount > 0) words[offset] = FlushTinyState(s0[v][at]);
            if (wordCount > 1) words[offset + 1] = FlushTinyState(s1[v][at]);
        }
    }
}

}  // namespace tarnlow::speaker_network
