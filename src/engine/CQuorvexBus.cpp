#include "engine/CQuorvexBus.h"

namespace tarnlow {

namespace {

// Appends one table to an array and moves the counters: the one load routine behind both
// word widths.
template <typename T>
void LoadInto(CQuorvexBus& bus, CQuorvexArray<T>& storage, const T* table, int32_t length,
              bool doubled, bool history)
{
    if (table == nullptr) return;
    // A negative length names no words; it loads nothing and moves no counter, so the
    // counters never run ahead of or behind the storage.
    if (length < 0) return;
    storage.Append(table, length);
    if (doubled) {
        bus.doubledLength += length;
        storage.Append(table, length);
        bus.count += 2 * length;
    } else {
        bus.count += length;
    }
    if (history) bus.historyLength += length;
}

}  // namespace

CQuorvexBus::CQuorvexBus(int32_t tag) : tag(tag) {}

CQuorvexBus::CQuorvexBus(const CQuorvexBus& source)
    : count(source.count),
      historyLength(source.historyLength),
      doubledLength(source.doubledLength),
      phase(source.phase),
      tag(source.tag),
      form(source.form)
{
    ints.AssignFrom(source.ints);
    wides.AssignFrom(source.wides);
}

CQuorvexBus& CQuorvexBus::operator=(const CQuorvexBus& source)
{
    count = source.count;
    historyLength = source.historyLength;
    doubledLength = source.doubledLength;
    phase = source.phase;
    tag = source.tag;
    form = source.form;
    // Each array compares itself with its source, so a self-assignment keeps both.
    // Between different buses the storage is always freed and allocated anew, even at
    // equal lengths: this is why the assignment never runs on the audio thread.
    ints.AssignFrom(source.ints);
    wides.AssignFrom(source.wides);
    return *this;
}

// The members go in reverse order of declaration: `wides` is freed before `ints`.
CQuorvexBus::~CQuorvexBus() = default;

void CQuorvexBus::Load32(const void* table, int32_t length, bool doubled, bool history)
{
    form = 0;  // even for a null table: the last load decides the form
    LoadInto(*this, ints, static_cast<const int32_t*>(table), length, doubled, history);
}

void CQuorvexBus::Load64(const void* table, int32_t length, bool doubled, bool history)
{
    form = 1;
    LoadInto(*this, wides, static_cast<const int64_t*>(table), length, doubled, history);
}

void CQuorvexBus::SetElement(int32_t index, int32_t value) noexcept
{
    if (form == 0)
        ints.data[index] = value;
    else
        wides.data[index] = int64_t(value);
}

int32_t CQuorvexBus::FlipDoubled() noexcept
{
    // Element 1 is the header word that a table with a double region reserves. A bus
    // too short to hold it still flips its phase, but no word is written.
    const int32_t stored = form == 0 ? ints.size : wides.size;
    if (phase != 0) {
        if (stored > 1) SetElement(1, doubledLength);
        phase = 0;
        return count - doubledLength;
    }
    if (stored > 1) SetElement(1, 0);
    phase = 1;
    return count - 2 * doubledLength;
}

void CQuorvexBus::CopyDoubled() noexcept
{
    // The source is the 32-bit copy in both forms. Indices outside the storage that holds
    // them (a mix of loads of both widths) are skipped rather than read or written.
    const int32_t base = count - 2 * doubledLength;
    if (base < 0) return;
    for (int32_t i = 0; i < doubledLength; ++i) {
        const int32_t from = base + i;
        const int32_t to = base + doubledLength + i;
        if (from >= ints.size) break;
        if (form == 0) {
            if (to >= ints.size) break;
            ints.data[to] = ints.data[from];
        } else {
            if (to >= wides.size) break;
            wides.data[to] = int64_t(ints.data[from]);
        }
    }
}

bool CQuorvexBus::DoubledDiffers() const noexcept
{
    const int32_t base = count - 2 * doubledLength;
    if (doubledLength <= 0 || base < 0) return false;
    // Compared only as far as the storage of the current form reaches.
    const int32_t stored = form == 0 ? ints.size : wides.size;
    for (int32_t i = 0; i < doubledLength && base + doubledLength + i < stored; ++i) {
        const int32_t first = base + i;
        const int32_t second = base + doubledLength + i;
        const bool differs = form == 0 ? ints.data[first] != ints.data[second]
                                       : wides.data[first] != wides.data[second];
        if (differs) return true;
    }
    return false;
}

}  // namespace tarnlow
