#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <locale>
#include <sstream>
#include <string>
#include <vector>

#include "parameters/CQuorvexParameter.h"

namespace tarnlow {
namespace {

constexpr float nan = std::numeric_limits<float>::quiet_NaN();
constexpr float inf = std::numeric_limits<float>::infinity();

CQuorvexParameter Stepped(int32_t steps)
{
    CQuorvexParameter p;
    p.Init(FourCC("c402"), "MicrophonePosition", "MicPos", 1, 0.5f, steps, true, -1);
    return p;
}

// Continuous, with the scale points given as (position, value) or (position, name).
struct Point {
    float position;
    float value;
    const char* name = nullptr;
};
CQuorvexParameter Scale(const std::vector<Point>& points = {}, bool kiloDisplay = false)
{
    CQuorvexParameter p;
    p.Init(FourCC("gain"), "Gain", "Gain", 0, 0.0f, 0, true, 3);
    p.kiloDisplay = kiloDisplay;
    for (const Point& point : points) {
        if (point.name != nullptr)
            p.AddNamedPoint(point.position, point.name);
        else
            p.AddValuePoint(point.position, point.value);
    }
    return p;
}

// Named "Off" at 0.0, 20 at 0.1, 20000 at 1.0, thousands shown with "k".
CQuorvexParameter Frequency(bool kiloDisplay = true)
{
    return Scale({{0.0f, 0, "Off"}, {0.1f, 20.0f}, {1.0f, 20000.0f}}, kiloDisplay);
}

CQuorvexParameter Falling()
{
    return Scale({{0.0f, 10.0f}, {1.0f, 0.0f}});
}

// Reads text; NaN in the result means "not understood" (the out value stays at its sentinel).
float Read(const CQuorvexParameter& p, const std::string& text)
{
    float out = nan;
    const bool found = p.TextToValue(text, out);
    EXPECT_EQ(found, !std::isnan(out)) << "text '" << text << "'";
    return out;
}

TEST(ParameterRecord, InitSetsOnlyItsOwnFieldsAndTheNameGivesTheRole)
{
    CQuorvexParameter p = Stepped(3);
    EXPECT_EQ(p.tag, 0x63343032u);  // first character in the most significant byte
    EXPECT_EQ(p.defaultValue, 0.5f);
    p.decimals = 1;
    p.Init(FourCC("c401"), "MicrophoneType", "MicType", 1, 0.0f, 2, true, -1);
    EXPECT_EQ(p.decimals, 1);
    // Meter, common, hidden, as three bits.
    for (const auto& [name, roles] :
         {std::pair{"_meterLeft", 0b101}, {"_commonGain", 0b011}, {"_commo", 0b001}, {"Gain_meter", 0b000}}) {
        p.name = name;
        EXPECT_EQ(4 * p.IsMeter() + 2 * p.IsCommon() + int(p.IsHidden()), roles) << name;
    }
}

TEST(ParameterValues, QuantiseStepsClampsAndPassesNaN)
{
    const struct {
        int32_t steps;
        float in, out;
    } cases[] = {{2, inf, 1.0f},  {2, -1e30f, 0.0f}, {0, 0.25f, 0.25f},
                 {0, 1.5f, 1.0f}, {0, -1.0f, 0.0f},  {0, -0.0f, 0.0f}};
    for (const auto& c : cases) {
        const float q = c.steps == 0 ? Scale().Quantise(c.in) : Stepped(c.steps).Quantise(c.in);
        EXPECT_EQ(std::bit_cast<uint32_t>(q), std::bit_cast<uint32_t>(c.out)) << c.steps << " " << c.in;
    }
    EXPECT_TRUE(std::isnan(Stepped(2).Quantise(nan)));
    EXPECT_TRUE(std::isnan(Scale().Quantise(nan)));
    EXPECT_TRUE(std::isnan(Stepped(1).Quantise(0.3f)));

    // The arithmetic floor agrees with std::floor everywhere, negative and huge inputs too.
    for (int32_t steps : {2, 3, 7, 1000, 5000000}) {
        const CQuorvexParameter p = Stepped(steps);
        const float n = float(steps);
        for (int i = -3000; i <= 3000; ++i) {
            const float v = float(i) / 1999.0f;
            const float r = std::min(std::floor(v * n), n - 1.0f);
            ASSERT_EQ(p.Quantise(v), std::min(1.0f, std::max(0.0f, r / (n - 1.0f)))) << steps << " " << v;
        }
    }
}

TEST(ParameterText, NumbersAndScalesShown)
{
    CQuorvexParameter kilo = Frequency();
    kilo.decimals = 0;
    kilo.showPlus = true;
    EXPECT_EQ(
        kilo.FormatNumber(9999.0f) + " " + kilo.FormatNumber(10000.0f) + " " + kilo.FormatNumber(-20000.0f),
        "+9999 +10k -20000");
    const CQuorvexParameter segments =
        Scale({{0.0f, 0, "Low"}, {0.4f, 0, "Mid"}, {0.6f, 5.0f}, {1.0f, 0, "Max"}});
    // Clamped before the scale is read (7.0); on `segments` the exact middle shows the lower
    // name (0.2), a name followed by a value owns the segment (0.59), a value followed by a
    // name gives way to it (0.61); a single point shows nothing.
    const struct {
        const CQuorvexParameter& p;
        float v;
        const char* text;
    } cases[] = {
        {Frequency(), 0.2f, "2240.000"}, {Frequency(), 7.0f, "20.000k"}, {segments, 0.2f, "Low"},
        {segments, 0.59f, "Mid"},        {segments, 0.61f, "Max"},       {Falling(), 0.25f, "7.500"},
        {Scale(), -0.0f, "0.000"},       {Stepped(3), 0.75f, "1.000"},   {Scale({{0.3f, 5.0f}}), 0.3f, ""}};
    for (const auto& c : cases) EXPECT_EQ(c.p.ValueToText(c.v), c.text) << c.v;
}

TEST(ParameterText, TextRead)
{
    const CQuorvexParameter frequency = Frequency(), noKilo = Frequency(false), bare = Scale({}, true);
    const CQuorvexParameter gap =
        Scale({{0.0f, 0.0f}, {0.2f, 10.0f}, {0.5f, 0, "Notch"}, {0.8f, 100.0f}, {1.0f, 1000.0f}});
    const CQuorvexParameter level = Scale({{0.0f, 0.0f}, {0.4f, 20.0f}, {0.5f, 0, "12 dB"}, {1.0f, 100.0f}});
    const CQuorvexParameter flat = Scale({{0.0f, 3.0f}, {0.5f, 3.0f}}), oneValue = Scale({{0.3f, 5.0f}});
    const CQuorvexParameter shortFirst = Scale({{0.2f, 0, "ab"}, {0.8f, 0, "abcd"}});
    const CQuorvexParameter longFirst = Scale({{0.2f, 0, "abcd"}, {0.8f, 0, "ab"}});
    const std::string longName(100, 'x');  // too far from empty text to be reached by it
    const CQuorvexParameter unreachable = Scale({{0.6f, 0, longName.c_str()}, {0.9f, 0, ""}});
    // A blank behind a number fails only with "k" shown; a hit on equal ends divides by zero;
    // the "k" never reaches a record without points; an earlier prefix always wins; the
    // shortest label wins on empty text; a word behind the number keeps the name.
    const struct {
        const CQuorvexParameter& p;
        const char* text;
        float v;
    } cases[] = {{frequency, "OFF", 0.0f},   {frequency, "Offline", 0.0f},
                 {frequency, "20k", 1.0f},   {frequency, "20K", 0.1f},
                 {frequency, "5", 0.1f},     {frequency, "abc", nan},
                 {frequency, "20 ", nan},    {noKilo, "20 ", 0.1f},
                 {Falling(), "2.5", 0.75f},  {gap, "550", 0.9f},
                 {flat, "3", 1.0f},          {flat, "4", nan},
                 {bare, "0.002k", 0.002f},   {oneValue, "5", nan},
                 {shortFirst, "ABCD", 0.2f}, {longFirst, "", 0.8f},
                 {level, "12 dB", 0.5f},     {level, "12", 0.24f},
                 {unreachable, "", nan},     {unreachable, "XX", 0.6f}};
    for (const auto& c : cases) {
        const float read = Read(c.p, c.text);
        if (std::isnan(c.v))
            EXPECT_TRUE(std::isnan(read)) << c.text;
        else
            EXPECT_NEAR(read, c.v, 1e-6f) << c.text;
    }
    for (float v = 0.1f; v <= 1.0f; v += 0.0625f)  // every shown number reads back to its position
        EXPECT_NEAR(Read(frequency, frequency.ValueToText(v)), v, 1e-4f) << frequency.ValueToText(v);
}

// Digits grouped by '.', decimal comma: what a host may install as its global locale.
struct CommaPunct : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

TEST(ParameterText, GlobalLocaleChangesNothing)
{
    const std::locale saved = std::locale::global(std::locale(std::locale::classic(), new CommaPunct));
    std::ostringstream probe;
    probe << 20000.5;
    const CQuorvexParameter p = Frequency(false);
    const std::string shown = p.ValueToText(0.2f) + " " + p.ValueToText(1.0f);
    const float grouped = Read(p, "20.000"), comma = Read(Scale(), "0,75");
    std::locale::global(saved);
    ASSERT_EQ(probe.str(), "20.000,5") << "the comma locale was not in force";
    EXPECT_EQ(shown, "2240.000 20000.000");
    EXPECT_FLOAT_EQ(grouped, 0.1f);  // a point is never a thousands separator
    EXPECT_EQ(comma, 0.0f);          // reading stops at the comma
}

}  // namespace
}  // namespace tarnlow
