#pragma once

#include <cstdint>

#if defined(__x86_64__) || defined(__i386__) || defined(_M_X64) || defined(_M_IX86)
#include <xmmintrin.h>
#define TARNLOW_FLOAT_CONTROL_SSE 1
#elif defined(__aarch64__)
#define TARNLOW_FLOAT_CONTROL_FPCR 1
#endif

namespace tarnlow {

// The calling thread's floating-point control word: MXCSR on x86, FPCR on aarch64. On any
// other processor there is none to set, and the word reads as 0.
using FloatControlWord = uint64_t;

#if defined(TARNLOW_FLOAT_CONTROL_SSE)
// Bit 15 of MXCSR. Denormals-are-zero (0x0040) is a different bit and stays as it is.
inline constexpr FloatControlWord flushToZeroBit = 0x8000;

inline FloatControlWord ReadFloatControl() noexcept
{
    return _mm_getcsr();
}

inline void WriteFloatControl(FloatControlWord word) noexcept
{
    _mm_setcsr(static_cast<unsigned int>(word));
}
#elif defined(TARNLOW_FLOAT_CONTROL_FPCR)
// FPCR.FZ, bit 24: denormal results and operands become zero.
inline constexpr FloatControlWord flushToZeroBit = FloatControlWord(1) << 24;

inline FloatControlWord ReadFloatControl() noexcept
{
    FloatControlWord word;
    asm volatile("mrs %0, fpcr" : "=r"(word));
    return word;
}

inline void WriteFloatControl(FloatControlWord word) noexcept
{
    asm volatile("msr fpcr, %0" : : "r"(word));
}
#else
inline constexpr FloatControlWord flushToZeroBit = 0;

inline FloatControlWord ReadFloatControl() noexcept
{
    return 0;
}

inline void WriteFloatControl(FloatControlWord) noexcept {}
#endif

// Flush-to-zero for the life of the object, on the calling thread only. The whole control
// word is kept and loaded back, so rounding mode, exception masks and denormals-are-zero
// come back exactly as the host left them. Where the host runs with flush-to-zero already,
// the word is left alone: loading it costs tens of cycles, which a call of a few samples
// feels.
class FlushToZeroScope {
public:
    FlushToZeroScope() noexcept : saved(ReadFloatControl()), changes((saved & flushToZeroBit) != flushToZeroBit)
    {
        if (changes) WriteFloatControl(saved | flushToZeroBit);
    }
    ~FlushToZeroScope()
    {
        if (changes) WriteFloatControl(saved);
    }
    FlushToZeroScope(const FlushToZeroScope&) = delete;
    FlushToZeroScope& operator=(const FlushToZeroScope&) = delete;

private:
    const FloatControlWord saved;
    const bool changes;
};

}  // namespace tarnlow
