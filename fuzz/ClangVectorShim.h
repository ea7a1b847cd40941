#pragma once

// Force-included (-include) into the clang build of the fuzzer only. The engine uses GCC's
// two-vector __builtin_shuffle, which clang lacks; this gives the same result, lane by
// lane: mask index k (taken modulo twice the lane count) picks lane k of the first vector
// below the lane count and lane k - n of the second above it. It is slower than the real
// builtin, which matters to nobody while fuzzing.
#if defined(__clang__)
template <typename Vector, typename Mask>
inline Vector ClangShuffleShim(Vector first, Vector second, Mask mask) noexcept
{
    constexpr int lanes = int(sizeof(Vector) / sizeof(first[0]));
    Vector out = first;
    for (int i = 0; i < lanes; ++i) {
        const int k = int(mask[i]) & (2 * lanes - 1);
        out[i] = k < lanes ? first[k] : second[k - lanes];
    }
    return out;
}
#define __builtin_shuffle(first, second, ...) ClangShuffleShim((first), (second), __VA_ARGS__)
#endif
