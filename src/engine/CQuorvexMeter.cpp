#include "engine/CQuorvexMeter.h"

#include <utility>

namespace tarnlow {

CQuorvexMeter::CQuorvexMeter(std::string name, int32_t kind, float value, bool peakMode)
    : name(std::move(name)), value(value), peakMode(peakMode), kind(kind)
{
}

void CQuorvexMeter::Store(float v) noexcept
{
    // Relaxed: the word carries no other data. In peak mode the compare and the store are
    // deliberately two steps, not one atomic operation: if the reader's clear falls
    // between them, what is stored is still a true peak from after the reader's load, and
    // the next read reports it. One writer only; it never waits.
    std::atomic_ref<float> word(value);
    if (!peakMode) {
        word.store(v, std::memory_order_relaxed);
        return;
    }
    // A NaN or an equal value is never stored.
    if (v > word.load(std::memory_order_relaxed)) word.store(v, std::memory_order_relaxed);
}

float CQuorvexMeter::Read() noexcept
{
    std::atomic_ref<float> word(value);
    if (!peakMode) return word.load(std::memory_order_relaxed);
    // Take the peak and clear it in one exchange: a plain load and store of 0.0 would lose
    // a peak that the writer stores in between. The exchange compares the bits, so a
    // value stored anew with the same bits is taken as well. On failure `taken` holds the
    // word found, which is the reload the next attempt needs. Relaxed: only this word
    // travels between the threads.
    float taken = word.load(std::memory_order_relaxed);
    while (!word.compare_exchange_weak(taken, 0.0f, std::memory_order_relaxed,
                                       std::memory_order_relaxed)) {
    }
    return taken;
}

}  // namespace tarnlow
