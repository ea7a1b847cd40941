#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace tarnlow {

// One named float that the audio side publishes for a display. In peak mode the writer
// keeps the maximum and the reader takes it and clears it, so no peak is lost between
// polls however seldom the reader comes.
class CQuorvexMeter {
public:
    CQuorvexMeter(std::string name, int32_t kind, float value, bool peakMode);

    void Store(float v) noexcept;  // audio thread: wait-free, one writer
    float Read() noexcept;         // one reader thread

    std::string name;
    alignas(std::atomic_ref<float>::required_alignment) float value;
    bool peakMode;
    int32_t kind;
    bool enabled = true;
};

}  // namespace tarnlow
