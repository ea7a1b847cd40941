#pragma once

#include <cmath>
#include <cstdint>

namespace tarnlow {

// Filter sections in delta-operator form: the recursion runs on d = z - 1, so a pole close
// to z = 1 is held as a small coefficient rather than as a difference from 1.
//
// Records are read straight from the model's constant table:
//   SecondOrderRecord  c0 c1 c2 c3 c4  (c0 d^2 + c1 d + c2) / (d^2 + c3 d + c4), 2 state words
//   ReducedRecord      c0 c1 c3 c4     the same with c2 = 0,                     2 state words
//   FirstOrderRecord   c0 c1 c2        (c0 d + c1) / (d + c2),                   1 state word
//
// Each routine runs the whole block through one section with its coefficients and state in
// locals, writes the state back once, and applies the small-value test to every state word
// at the end of the call, also when count is 0. The grouping of every sum is part of the
// model's behaviour (the build forbids contraction to fused multiply-add): keep it.
// output may equal input; each sample is read before its place is written.

// A state word below 1e-30 in magnitude becomes exactly zero, so that a decaying section
// settles instead of running on subnormal numbers. Not-a-number stays as it is.
inline float FlushTinyState(float word) noexcept
{
    return std::fabs(word) < 1e-30f ? 0.0f : word;
}

inline void RunSection(float* output, const float* input, int32_t count, const float* record,
                       float* state) noexcept
{
    const float c0 = record[0];
    const float c1 = record[1];
    const float c2 = record[2];
    const float c3 = record[3];
    const float c4 = record[4];
    float s0 = state[0];
    float s1 = state[1];
    for (int32_t i = 0; i < count; ++i) {
        const float x = input[i];
        const float y = c0 * x + s0;
        output[i] = y;
        const float nextS0 = ((s0 + s1) + c1 * x) - c3 * y;
        s1 = (s1 + c2 * x) - c4 * y;
        s0 = nextS0;
    }
    state[0] = FlushTinyState(s0);
    state[1] = FlushTinyState(s1);
}

inline void RunReducedSection(float* output, const float* input, int32_t count,
                              const float* record, float* state) noexcept
{
    const float c0 = record[0];
    const float c1 = record[1];
    const float c3 = record[2];
    const float c4 = record[3];
    float s0 = state[0];
    float s1 = state[1];
    for (int32_t i = 0; i < count; ++i) {
        const float x = input[i];
        const float y = c0 * x + s0;
        output[i] = y;
        const float nextS0 = ((s0 + s1) + c1 * x) - c3 * y;
        s1 = s1 - c4 * y;
        s0 = nextS0;
    }
    state[0] = FlushTinyState(s0);
    state[1] = FlushTinyState(s1);
}

inline void RunFirstOrderSection(float* output, const float* input, int32_t count,
                                 const float* record, float* state) noexcept
{
    const float c0 = record[0];
    const float c1 = record[1];
    const float c2 = record[2];
    float s = state[0];
    for (int32_t i = 0; i < count; ++i) {
        const float x = input[i];
        const float y = c0 * x + s;
        output[i] = y;
        s = (s + c1 * x) - c2 * y;
    }
    state[0] = FlushTinyState(s);
}

}  // namespace tarnlow
