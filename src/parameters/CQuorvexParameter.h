#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace tarnlow {

// Plain-unit description from which InitFromDescriptor derives a record.
struct ParameterDescriptor {
    std::string name;
    uint32_t tag = 0;
    int32_t typeWord = 0;  // 4: stepped; anything else: continuous
    double range = 1.0;
    double step = 1.0;
    double defaultValue = 0.0;
    bool optionFlag = true;
    std::string shortName;
};

// Four-character code, first character in the most significant byte.
constexpr uint32_t FourCC(const char (&code)[5])
{
    return (uint32_t(uint8_t(code[0])) << 24) | (uint32_t(uint8_t(code[1])) << 16) |
           (uint32_t(uint8_t(code[2])) << 8) | uint32_t(uint8_t(code[3]));
}

namespace parameter_detail {

// Largest whole float not above x, by arithmetic only so that the audio path makes no call.
// Adding and subtracting 2^23 with the sign of x rounds to a whole number in the current
// (round-to-nearest) mode; where that went upward, one step back gives the floor.
// Magnitudes of 2^23 and more are whole already; NaN and infinities fail the range test
// and pass through unchanged. Needs strict single precision: no fast-math, no contraction.
inline float FloorByMagic(float x) noexcept
{
    constexpr float twoPow23 = 8388608.0f;
    if (!(x < twoPow23 && x > -twoPow23))
        return x;
    float whole = x >= 0.0f ? (x + twoPow23) - twoPow23 : (x - twoPow23) + twoPow23;
    if (whole > x)
        whole -= 1.0f;
    return whole;
}

}  // namespace parameter_detail

// One controllable value: names, normalised value, stepping and a scale for text.
// A plain value type; copies are deep and independent.
class CQuorvexParameter {
public:
    CQuorvexParameter();
    CQuorvexParameter(const CQuorvexParameter&) = default;
    CQuorvexParameter& operator=(const CQuorvexParameter&) = default;
    ~CQuorvexParameter() = default;

    void Init(uint32_t tag, const char* name, const char* shortName, int32_t valueKind,
              float defaultValue, int32_t stepCount, bool optionFlag, int32_t meterKind);
    void InitFromDescriptor(const ParameterDescriptor& descriptor);

    bool IsMeter() const;   // name starts with "_meter"
    bool IsCommon() const;  // name starts with "_common"
    bool IsHidden() const;  // name starts with '_'
    void StripPrefix(std::string prefix);

    // Stepped and limited reading of a normalised value. Audio-safe: no call, no table.
    // NaN passes through unchanged; -0.0 reads as +0.0. stepCount 1 on a stepped record
    // gives NaN for every input.
    float Quantise(float v) const noexcept;
    // Quantised `value` as a word of wordBits bits (wordBits taken modulo 32, 0 meaning 32);
    // exactly one half maps to the round binary word. A NaN value reads as 0.
    int32_t GetFixedPoint() const noexcept;

    // `value` is the one word a control thread writes while the audio thread reads it.
    // Relaxed is enough: each read is bounded by Quantise on its own, and no other data
    // is published through it.
    float LoadValue() const noexcept
    {
        return std::atomic_ref<float>(const_cast<float&>(value)).load(std::memory_order_relaxed);
    }
    void StoreValue(float v) noexcept
    {
        std::atomic_ref<float>(value).store(v, std::memory_order_relaxed);
    }

    void AddNamedPoint(float position, std::string label);
    void AddValuePoint(float position, float plainValue);
    bool TextToValue(std::string text, float& out) const;
    std::string ValueToText(float v) const;
    std::string FormatNumber(float x) const;

    std::string name;
    std::string shortName;
    std::string unitLabel;
    int32_t decimals = 3;
    std::vector<float> pointPositions;
    std::vector<int32_t> pointKinds;
    std::vector<float> pointValues;
    std::vector<std::string> pointLabels;
    bool showPlus = false;
    bool kiloDisplay = false;
    // Init sets these; zero until then so that an uninitialised record reads defined.
    alignas(std::atomic_ref<float>::required_alignment) float value = 0.0f;
    float defaultValue = 0.0f;
    uint32_t tag = 0;
    int32_t valueKind = 0;
    int32_t stepCount = 0;
    bool optionFlag = false;
    int32_t wordBits = -1;
    int32_t meterKind = 3;
};

inline float CQuorvexParameter::Quantise(float v) const noexcept
{
    if (valueKind == 1) {
        const float steps = static_cast<float>(stepCount);
        float r = parameter_detail::FloorByMagic(v * steps);
        if (r == steps)
            r = steps - 1.0f;
        // stepCount 1 divides 0 by 0 here and yields NaN by design of the stepping rule.
        v = r / (steps - 1.0f);
    }
    if (v > 1.0f)
        return 1.0f;
    // Written so that NaN falls through unchanged; -0.0 comes out as +0.0.
    return v > 0.0f || v != v ? v : 0.0f;
}

}  // namespace tarnlow
