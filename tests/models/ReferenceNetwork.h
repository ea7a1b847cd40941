#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "ModelRegistry.h"
#include "engine/FlushToZero.h"

namespace tarnlow::testing {

// "F2 S9 T" -> "FFSSSSSSSSST": one letter per stage, the final tap last.
inline std::string ExpandPlan(std::string_view plan)
{
    std::string letters;
    for (std::size_t at = 0; at < plan.size();) {
        const char letter = plan[at++];
        if (letter == ' ') continue;
        int repeat = 0;
        while (at < plan.size() && plan[at] >= '0' && plan[at] <= '9') repeat = repeat * 10 + (plan[at++] - '0');
        letters.append(std::size_t(repeat == 0 ? 1 : repeat), letter);
    }
    return letters;
}

enum class RecordKind { secondOrder, reduced, firstOrder };

inline int RecordLength(RecordKind kind) { return 5 - int(kind); }  // 5, 4 and 3 floats

// The records of one stage letter in table order: tap, then through if there is one. F and f
// are first order, Z and U have reduced taps; T and U (the final tap) and f have no through.
struct StageRecords {
    RecordKind tap;
    bool hasThrough;
    RecordKind through;
    int Length() const { return RecordLength(tap) + (hasThrough ? RecordLength(through) : 0); }
};

inline StageRecords RecordsOf(char letter)
{
    if (std::string_view("FSZfTU").find(letter) == std::string_view::npos) throw std::invalid_argument("stage letter");
    const bool firstOrder = letter == 'F' || letter == 'f', reduced = letter == 'Z' || letter == 'U';
    const RecordKind full = firstOrder ? RecordKind::firstOrder : RecordKind::secondOrder;
    return {reduced ? RecordKind::reduced : full, letter == 'F' || letter == 'S' || letter == 'Z', full};
}

// First constant of chain k, of both gain tables and of the ambience data, found by walking the
// table in its documented order with the table file's own plans.
struct ConstantWalk {
    int gainTable[2];
    int chain[chainCount];
    int ambienceRecord;
    int ambienceGainTable;
    int end;
};

inline ConstantWalk WalkConstants(const ModelEntry& model)
{
    ConstantWalk walk{};
    int at = model.tablePreSectionCount * 5;
    for (int branch = 0; branch < 2; ++branch) {
        walk.gainTable[branch] = at;
        at += 4;
        for (int position = 0; position < 3; ++position) {
            walk.chain[branch * 3 + position] = at;
            for (char letter : ExpandPlan(model.tableChainPlans[std::size_t(branch * 3 + position)]))
                at += RecordsOf(letter).Length();
        }
    }
    walk.ambienceRecord = at;
    walk.ambienceGainTable = at + 5;
    walk.end = at + 9;
    return walk;
}

// The network written out plainly, one sample at a time through every section, in a sample
// type of the test's choice. It holds one fixed setting, as after an immediate control
// update: the gains are the table entries of that setting. Output gain is taken positive.
template <class Sample>
class ReferenceNetwork {
public:
    ReferenceNetwork(const ModelEntry& model, int type, int position)
    {
        const float* table = model.constants.data();
        const ConstantWalk walk = WalkConstants(model);
        for (int p = 0; p < model.tablePreSectionCount; ++p) pre.push_back(MakeSection(RecordKind::secondOrder, table + p * 5));
        const int chain = type * 3 + position;
        const float* record = table + walk.chain[chain];
        for (char letter : ExpandPlan(model.tableChainPlans[std::size_t(chain)])) {
            const StageRecords records = RecordsOf(letter);
            Stage stage{MakeSection(records.tap, record), records.hasThrough, {}};
            if (records.hasThrough) stage.through = MakeSection(records.through, record + RecordLength(records.tap));
            record += records.Length();
            if (letter == 'T' || letter == 'U')
                finalTap = stage.tap;
            else
                stages.push_back(stage);
        }
        ambience = MakeSection(RecordKind::secondOrder, table + walk.ambienceRecord);
        positionGain = table[walk.gainTable[type] + position];
        ambienceGain = table[walk.ambienceGainTable + position];
        const BandInfo& band = bandCatalogue[std::size_t(model.band)];
        directGain = band.directGain;
        outputGain = band.outputGainMagnitude;
        for (int line = 0; line < allPassLineCount; ++line) lines[std::size_t(line)].assign(std::size_t(band.lineLengths[std::size_t(line)]), Sample(0));
        taps.resize(stages.size());
    }

    // Runs `input` in chunks of 16 samples with the small-value test after each chunk.
    std::vector<Sample> Run(const std::vector<Sample>& input)
    {
        std::vector<Sample> output(input.size());
        for (std::size_t i = 0; i < input.size(); ++i) {
            output[i] = Step(input[i]);
            if (i % 16 == 15) SettleStates();
        }
        return output;
    }

private:
    struct Section {
        RecordKind kind = RecordKind::secondOrder;
        Sample c0 = 0, c1 = 0, c2 = 0, c3 = 0, c4 = 0;
        Sample s0 = 0, s1 = 0;
    };
    struct Stage {
        Section tap;
        bool hasThrough = false;
        Section through;
    };

    // A reduced record has no c2; a first-order one keeps its denominator in c2.
    static Section MakeSection(RecordKind kind, const float* r)
    {
        if (kind == RecordKind::secondOrder) return {kind, r[0], r[1], r[2], r[3], r[4]};
        if (kind == RecordKind::reduced) return {kind, r[0], r[1], 0, r[2], r[3]};
        return {kind, r[0], r[1], r[2]};
    }

    static Sample Filter(Section& s, Sample x)
    {
        const Sample y = s.c0 * x + s.s0;
        if (s.kind == RecordKind::firstOrder) {
            s.s0 = (s.s0 + s.c1 * x) - s.c2 * y;
            return y;
        }
        const Sample s0 = ((s.s0 + s.s1) + s.c1 * x) - s.c3 * y;
        s.s1 = s.kind == RecordKind::reduced ? s.s1 - s.c4 * y : (s.s1 + s.c2 * x) - s.c4 * y;
        s.s0 = s0;
        return y;
    }

    Sample AllPass(int line, Sample x)
    {
        std::vector<Sample>& delay = lines[std::size_t(line)];
        int& position = positions[std::size_t(line)];
        const Sample d = delay[std::size_t(position)];
        const Sample v = Sample(-0.7f) * d + x;
        delay[std::size_t(position)] = v;
        position = (position + 1) % int(delay.size());
        return d + Sample(0.7f) * v;
    }

    Sample Step(Sample x)
    {
        for (Section& section : pre) x = Filter(section, x);
        x = x * positionGain;
        for (std::size_t s = 0; s < stages.size(); ++s) {
            taps[s] = Filter(stages[s].tap, x);
            if (stages[s].hasThrough) x = Filter(stages[s].through, x);
        }
        x = Filter(finalTap, x);
        for (std::size_t s = stages.size(); s-- > 0;) x = x + taps[s];
        Sample r = x;
        for (int line = 0; line < allPassLineCount; ++line) r = AllPass(line, r);
        r = Filter(ambience, r);
        return (x * directGain + r * ambienceGain) * outputGain;
    }

    // Section states below 1e-30 in magnitude go to zero; the delay lines have no such test.
    void SettleStates()
    {
        const auto settle = [](Section& section) {
            for (Sample* word : {&section.s0, &section.s1})
                if (std::fabs(*word) < Sample(1e-30f)) *word = Sample(0);
        };
        for (Section& section : pre) settle(section);
        for (Stage& stage : stages) {
            settle(stage.tap);
            settle(stage.through);
        }
        for (Section* section : {&finalTap, &ambience}) settle(*section);
    }

    std::vector<Section> pre;
    std::vector<Stage> stages;
    Section finalTap;
    Section ambience;
    std::vector<Sample> taps;
    std::array<std::vector<Sample>, allPassLineCount> lines;
    std::array<int, allPassLineCount> positions{};
    Sample positionGain = 0, ambienceGain = 0, directGain = 0, outputGain = 0;
};

// The model's response to a unit impulse from a fresh amp with both parameter values stored.
// Through the frame (`direct` false) it is one block of `length` samples. Direct, the model is
// driven as the frame drives it but without the frame's block-level steps (its silence
// clearing would zero sample 0 of a long, decayed response): flush-to-zero, one immediate
// update, then periods of 16 samples each followed by a regular update.
inline std::vector<float> ImpulseResponseOf(const ModelEntry& model, float typeValue, float positionValue, int length,
                                            bool direct)
{
    std::optional<FlushToZeroScope> flushToZero;  // the frame sets its own
    if (direct) flushToZero.emplace();
    std::unique_ptr<CQuorvexAmp> amp = model.create();
    amp->Initialise();
    amp->parameters[0].StoreValue(typeValue);
    amp->parameters[1].StoreValue(positionValue);
    std::vector<float> buffer(std::size_t(length), 0.0f);
    buffer[0] = 1.0f;
    float* channel = buffer.data();
    if (!direct) {
        amp->ProcessBlock(&channel, &channel, length, 1.0f, nullptr, 0);
        return buffer;
    }
    amp->Update(true, 0, 0);
    for (int at = 0; at < length; at += controlPeriod) {
        channel = buffer.data() + at;
        amp->Process(&channel, &channel, std::min(controlPeriod, length - at), false, false, nullptr, 0);
        amp->Update(false, 0, 0);
    }
    return buffer;
}

}  // namespace tarnlow::testing
