#include "parameters/CQuorvexParameter.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <ios>
#include <iomanip>
#include <limits>
#include <locale>
#include <sstream>
#include <utility>

namespace tarnlow {

namespace {

constexpr int32_t pointKindValue = 0;
constexpr int32_t pointKindNamed = 1;

// Truncation toward zero that is defined for every double: NaN gives 0 and values beyond
// the int32 range saturate, where a plain conversion would be undefined behaviour.
inline int32_t TruncateToInt32(double x) noexcept
{
    if (!(x == x))
        return 0;
    if (x >= 2147483647.0)
        return std::numeric_limits<int32_t>::max();
    if (x <= -2147483648.0)
        return std::numeric_limits<int32_t>::min();
    return static_cast<int32_t>(x);
}

inline char AsciiLower(char c) noexcept
{
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

// All number text goes through the classic locale: a host that installed a global locale
// with a decimal comma or digit grouping must not change what a parameter reads or shows.
std::istringstream MakeReader(const std::string& text)
{
    std::istringstream in(text);
    in.imbue(std::locale::classic());
    return in;
}

enum class Direction { none, rising, falling };

}  // namespace

CQuorvexParameter::CQuorvexParameter()
    : name("No Parameter"),
      unitLabel(""),
      decimals(3),
      showPlus(false),
      kiloDisplay(false),
      wordBits(-1),
      meterKind(3)
{
}

void CQuorvexParameter::Init(uint32_t tag_, const char* name_, const char* shortName_,
                             int32_t valueKind_, float defaultValue_, int32_t stepCount_,
                             bool optionFlag_, int32_t meterKind_)
{
    tag = tag_;
    name = name_;
    shortName = shortName_;
    valueKind = valueKind_;
    defaultValue = defaultValue_;
    value = defaultValue_;
    stepCount = stepCount_;
    optionFlag = optionFlag_;
    meterKind = meterKind_;
}

void CQuorvexParameter::InitFromDescriptor(const ParameterDescriptor& descriptor)
{
    const float normalisedDefault = static_cast<float>(descriptor.defaultValue / descriptor.range);
    int32_t kind = 0;
    int32_t steps = 0;
    if (descriptor.typeWord == 4) {
        kind = 1;
        steps = TruncateToInt32(descriptor.range) + 1;
    } else {
        steps = TruncateToInt32(descriptor.range / descriptor.step) + 1;
    }
    Init(descriptor.tag, descriptor.name.c_str(), descriptor.shortName.c_str(), kind,
         normalisedDefault, steps, descriptor.optionFlag, 3);
}

bool CQuorvexParameter::IsMeter() const
{
    return name.starts_with("_meter");
}

bool CQuorvexParameter::IsCommon() const
{
    return name.starts_with("_common");
}

bool CQuorvexParameter::IsHidden() const
{
    return name.starts_with('_');
}

void CQuorvexParameter::StripPrefix(std::string prefix)
{
    // A plain hidden marker is one character, whatever the caller asked to remove.
    if (IsHidden() && !IsCommon() && !IsMeter()) {
        if (!name.empty())
            name.erase(0, 1);
        if (!shortName.empty())
            shortName.erase(0, 1);
        return;
    }
    if (name.find(prefix) == std::string::npos)
        return;
    // Presence anywhere is enough; the cut is always from the front, and the short name
    // loses as many characters whether or not it carries the prefix (erase clamps to size).
    name.erase(0, prefix.size());
    shortName.erase(0, prefix.size());
}

int32_t CQuorvexParameter::GetFixedPoint() const noexcept
{
    const float v = Quantise(LoadValue());
    // Negation modulo 32 in unsigned arithmetic: defined for every wordBits, INT32_MIN too,
    // and always a legal shift count.
    const uint32_t shift = (0u - static_cast<uint32_t>(wordBits)) & 31u;
    const int32_t full = static_cast<int32_t>(0x7FFFFFFFu >> shift);
    const int32_t half = static_cast<int32_t>(0x3FFFFFFFu >> shift);
    // After Quantise v is NaN or within 0..1, so the product lies within 0..full and the
    // truncation is exact; NaN, which no conversion may meet, reads as 0.
    const double scaled = static_cast<double>(v) * static_cast<double>(full);
    int32_t r = scaled == scaled ? static_cast<int32_t>(scaled) : 0;
    // One half maps to the round binary word, not one below it. Deliberately only there.
    if (r == half)
        r = half + 1;
    return r;
}

void CQuorvexParameter::AddNamedPoint(float position, std::string label)
{
    pointPositions.push_back(position);
    pointKinds.push_back(pointKindNamed);
    pointLabels.push_back(std::move(label));
    pointValues.push_back(-1.0f);
}

void CQuorvexParameter::AddValuePoint(float position, float plainValue)
{
    pointPositions.push_back(position);
    pointKinds.push_back(pointKindValue);
    pointLabels.push_back(std::string());
    pointValues.push_back(plainValue);
}

std::string CQuorvexParameter::FormatNumber(float x) const
{
    std::ostringstream out;
    out.imbue(std::locale::classic());
    out << std::fixed << std::setprecision(decimals);
    if (showPlus)
        out << std::showpos;
    // Only the upper side is shortened; large negative numbers keep all their digits.
    if (kiloDisplay && x > 9999.0f) {
        const float thousands = x / 1000.0f;
        out << static_cast<double>(thousands) << 'k';
    } else {
        out << static_cast<double>(x);
    }
    return out.str();
}

std::string CQuorvexParameter::ValueToText(float v) const
{
    v = Quantise(v);
    const std::size_t count = pointPositions.size();
    if (count == 0)
        return FormatNumber(v);
    if (count == 1)
        return std::string();

    std::size_t s = count - 1;
    for (std::size_t i = 1; i < count; ++i) {
        if (v < pointPositions.at(i)) {
            s = i;
            break;
        }
    }
    const std::size_t p = s - 1;
    const float lowPosition = pointPositions.at(p);
    const float highPosition = pointPositions.at(s);
    const bool lowNamed = pointKinds.at(p) != pointKindValue;
    const bool highNamed = pointKinds.at(s) != pointKindValue;

    if (lowNamed && highNamed)
        return (v - lowPosition) > (highPosition - v) ? pointLabels.at(s) : pointLabels.at(p);
    if (lowNamed)
        return pointLabels.at(p);
    if (highNamed)
        return v == lowPosition ? FormatNumber(pointValues.at(p)) : pointLabels.at(s);

    // Not limited: outside the table the nearest segment's line is extended.
    const float t = (v - lowPosition) / (highPosition - lowPosition);
    return FormatNumber(pointValues.at(s) * t + (1.0f - t) * pointValues.at(p));
}

bool CQuorvexParameter::TextToValue(std::string text, float& out) const
{
    const std::size_t count = pointPositions.size();
    bool found = false;
    float candidate = -1.0f;

    // The text as a name.
    if (count == 0) {
        std::istringstream in = MakeReader(text);
        float number = 0.0f;
        in >> number;
        if (!in.fail()) {
            candidate = number;
            found = true;
        }
    } else {
        // A label matches over the length both share, so shortened and over-long texts both
        // reach it; the longest overlap with the least left over wins, earlier on ties.
        std::size_t bestLength = 0;
        std::size_t bestDistance = 100;
        bool haveBest = false;
        std::size_t bestIndex = 0;
        for (std::size_t i = 0; i < count; ++i) {
            if (pointKinds.at(i) != pointKindNamed)
                continue;
            const std::string& label = pointLabels.at(i);
            if (label.empty())
                continue;
            const std::size_t length = std::min(label.size(), text.size());
            bool same = true;
            for (std::size_t c = 0; c < length && same; ++c)
                same = AsciiLower(label[c]) == AsciiLower(text[c]);
            if (!same)
                continue;
            const std::size_t distance = label.size() - length;
            if (length >= bestLength && distance < bestDistance) {
                bestLength = length;
                bestDistance = distance;
                bestIndex = i;
                haveBest = true;
            }
        }
        if (haveBest) {
            candidate = pointPositions.at(bestIndex);
            found = true;
        }
    }

    // The text as a number, from the start again.
    [&] {
        std::istringstream in = MakeReader(text);
        float number = 0.0f;
        in >> number;
        if (kiloDisplay && !in.eof()) {
            // Skips blanks; only blanks up to the end leave the stream failed, so "20 " is
            // no number on a record that shows thousands.
            char suffix = 0;
            in >> suffix;
            if (suffix == 'k')
                number *= 1000.0f;
        }
        if (in.fail())
            return;
        if (!std::isfinite(number))
            return;
        std::string rest;
        if ((in >> rest) && found)
            return;  // a number with words behind it, where a name matched, is the name
        if (count < 2)
            return;

        Direction direction = Direction::none;
        for (std::size_t j = 1; j < count; ++j) {
            const std::size_t a = j - 1;
            if (pointKinds.at(a) != pointKindValue || pointKinds.at(j) != pointKindValue)
                continue;
            const float from = pointValues.at(a);
            const float to = pointValues.at(j);
            if ((number >= from && number <= to) || (number >= to && number <= from)) {
                // Equal ends divide 0 by 0; the ending turns the NaN into 1.0.
                const float t = (number - from) / (to - from);
                candidate = pointPositions.at(j) * t + (1.0f - t) * pointPositions.at(a);
                found = true;
                return;
            }
            if (to > from)
                direction = Direction::rising;
            else if (to < from)
                direction = Direction::falling;
        }
        if (found || direction == Direction::none)
            return;

        // Outside every segment: snap to the end beyond it, or to the middle (in position,
        // not in value) of a gap that named points keep apart.
        const bool rising = direction == Direction::rising;
        bool haveBeyond = false;
        float beyondPosition = 0.0f;
        for (std::size_t i = 0; i < count; ++i) {
            if (pointKinds.at(i) != pointKindValue)
                continue;
            const float plain = pointValues.at(i);
            if (rising ? plain > number : plain < number) {
                beyondPosition = pointPositions.at(i);
                haveBeyond = true;
                break;
            }
        }
        for (std::size_t i = count; i-- > 0;) {
            if (pointKinds.at(i) != pointKindValue)
                continue;
            const float plain = pointValues.at(i);
            if (rising ? plain < number : plain > number) {
                const float shortPosition = pointPositions.at(i);
                candidate = haveBeyond ? (beyondPosition + shortPosition) * 0.5f : shortPosition;
                found = true;
                return;
            }
        }
        if (haveBeyond) {
            candidate = beyondPosition;
            found = true;
        }
    }();

    if (found) {
        if (!std::isfinite(candidate))
            candidate = 1.0f;
        candidate = std::max(0.0f, candidate);
        candidate = std::min(1.0f, candidate);
        out = candidate;
    }
    return found;
}

}  // namespace tarnlow
