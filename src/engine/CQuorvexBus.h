#pragma once

#include <cstdint>

#include "engine/CQuorvexArray.h"

namespace tarnlow {

// A flat run of 32-bit or 64-bit words with counters in front. A model's constant table
// and its state are each one bus; copying a bus copies the whole state.
class CQuorvexBus {
public:
    explicit CQuorvexBus(int32_t tag = 0);
    CQuorvexBus(const CQuorvexBus& source);
    CQuorvexBus& operator=(const CQuorvexBus& source);  // allocates: never on the audio thread
    ~CQuorvexBus();

    void Load32(const void* table, int32_t length, bool doubled, bool history);
    void Load64(const void* table, int32_t length, bool doubled, bool history);

    int32_t GetCount() const noexcept { return count; }
    // No range check. A bus that was never loaded counts as 64-bit and has no storage.
    void* GetElement(int32_t index) const noexcept
    {
        return form == 0 ? static_cast<void*>(ints.data + index) : static_cast<void*>(wides.data + index);
    }
    void SetElement(int32_t index, int32_t value) noexcept;
    int32_t GetHistoryLength() const noexcept { return historyLength; }
    int32_t GetDoubledLength() const noexcept { return doubledLength; }
    int32_t GetPlainLength() const noexcept { return count - 2 * doubledLength - historyLength; }
    void* GetDoubledRegion() const noexcept { return GetElement(count - 2 * doubledLength); }
    int32_t FlipDoubled() noexcept;
    void CopyDoubled() noexcept;
    bool DoubledDiffers() const noexcept;

    int32_t count = 0;
    int32_t historyLength = 0;
    int32_t doubledLength = 0;
    int32_t phase = 0;
    int32_t tag = 0;
    int32_t form = -1;  // -1 nothing loaded, 0 32-bit words, 1 64-bit words
    CQuorvexArray<int32_t> ints;
    CQuorvexArray<int64_t> wides;
};

}  // namespace tarnlow
