#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <limits>
#include <locale>
#include <sstream>
#include <string>

#include "parameters/CQuorvexParameter.h"

namespace tarnlow {
namespace {

constexpr float nan = std::numeric_limits<float>::quiet_NaN();
constexpr float inf = std::numeric_limits<float>::infinity();

CQuorvexParameter Stepped(int32_t steps)
{
    CQuorvexParameter p;
    p.Init(FourCC("c402"), "MicrophonePosition", "MicrophonePosition", 1, 0.5f, steps, true, -1);
    return p;
}

CQuorvexParameter Continuous()
{
    CQuorvexParameter p;
    p.Init(FourCC("gain"), "Gain", "Gain", 0, 0.0f, 0, true, 3);
    return p;
}

// Named "Off" at 0.0, 20 at 0.1, 20000 at 1.0, thousands shown with "k".
CQuorvexParameter FrequencyScale()
{
    CQuorvexParameter p = Continuous();
    p.kiloDisplay = true;
    p.AddNamedPoint(0.0f, "Off");
    p.AddValuePoint(0.1f, 20.0f);
    p.AddValuePoint(1.0f, 20000.0f);
    return p;
}

// Reads text; NaN in the result means "not understood" (the out value stays at its sentinel).
float Read(const CQuorvexParameter& p, const std::string& text)
{
    float out = nan;
    const bool found = p.TextToValue(text, out);
    EXPECT_EQ(found, !std::isnan(out)) << "text '" << text << "'";
    return out;
}

TEST(ParameterRecord, DefaultConstructionAndInit)
{
    CQuorvexParameter p;
    EXPECT_EQ(p.name, "No Parameter");
    EXPECT_TRUE(p.shortName.empty());
    EXPECT_TRUE(p.unitLabel.empty());
    EXPECT_EQ(p.decimals, 3);
    EXPECT_EQ(p.wordBits, -1);
    EXPECT_EQ(p.meterKind, 3);
    EXPECT_FALSE(p.showPlus);
    EXPECT_FALSE(p.kiloDisplay);
    EXPECT_TRUE(p.pointPositions.empty() && p.pointKinds.empty() && p.pointValues.empty() &&
                p.pointLabels.empty());

    p.decimals = 1;
    p.wordBits = 24;
    p.unitLabel = "dB";
    p.AddValuePoint(0.0f, 1.0f);
    p.Init(FourCC("c402"), "MicrophonePosition", "MicPos", 1, 0.5f, 3, true, -1);
    EXPECT_EQ(p.tag, 0x63343032u);
    EXPECT_EQ(p.name, "MicrophonePosition");
    EXPECT_EQ(p.shortName, "MicPos");
    EXPECT_EQ(p.valueKind, 1);
    EXPECT_EQ(p.stepCount, 3);
    EXPECT_TRUE(p.optionFlag);
    EXPECT_EQ(p.meterKind, -1);
    EXPECT_EQ(p.value, 0.5f);
    EXPECT_EQ(p.defaultValue, 0.5f);
    // Init is an assignment of its own fields only.
    EXPECT_EQ(p.decimals, 1);
    EXPECT_EQ(p.wordBits, 24);
    EXPECT_EQ(p.unitLabel, "dB");
    EXPECT_EQ(p.pointPositions.size(), 1u);
}

TEST(ParameterRecord, InitFromDescriptorDerivesStepping)
{
    CQuorvexParameter stepped;
    stepped.InitFromDescriptor({"Mode", FourCC("mode"), 4, 2.0, 1.0, 1.0, false, "Md"});
    EXPECT_EQ(stepped.valueKind, 1);
    EXPECT_EQ(stepped.stepCount, 3);
    EXPECT_EQ(stepped.value, 0.5f);
    EXPECT_EQ(stepped.shortName, "Md");
    EXPECT_FALSE(stepped.optionFlag);
    EXPECT_EQ(stepped.meterKind, 3);

    CQuorvexParameter continuous;
    continuous.InitFromDescriptor({"Drive", FourCC("drv "), 0, 10.0, 0.3, 2.5, true, "Drv"});
    EXPECT_EQ(continuous.valueKind, 0);
    EXPECT_EQ(continuous.stepCount, 34);  // 33.33 cut toward zero, plus one
    EXPECT_EQ(continuous.value, 0.25f);
}

TEST(ParameterRecord, CopiesAreIndependent)
{
    CQuorvexParameter source = FrequencyScale();
    source.StoreValue(0.3f);
    CQuorvexParameter copy = source;
    EXPECT_EQ(copy.LoadValue(), 0.3f);
    copy.StoreValue(0.9f);
    copy.pointLabels[0] = "Bypass";
    source.name = "Other";
    EXPECT_EQ(source.LoadValue(), 0.3f);
    EXPECT_EQ(source.pointLabels[0], "Off");
    EXPECT_EQ(copy.name, "Gain");
}

TEST(ParameterRecord, RolePredicates)
{
    CQuorvexParameter p;
    auto roles = [&](const char* name) {
        p.name = name;
        return std::to_string(p.IsMeter()) + std::to_string(p.IsCommon()) +
               std::to_string(p.IsHidden());
    };
    EXPECT_EQ(roles("_meter"), "101");
    EXPECT_EQ(roles("_meterLeft"), "101");
    EXPECT_EQ(roles("_mete"), "001");
    EXPECT_EQ(roles("_common"), "011");
    EXPECT_EQ(roles("_commonGain"), "011");
    EXPECT_EQ(roles("_commo"), "001");
    EXPECT_EQ(roles(""), "000");
    EXPECT_EQ(roles("Gain_meter"), "000");
}

TEST(ParameterRecord, StripPrefix)
{
    CQuorvexParameter p;
    p.name = "_commonGain";
    p.shortName = "_cGain";
    p.StripPrefix("_common");
    EXPECT_EQ(p.name, "Gain");
    EXPECT_EQ(p.shortName, "");

    p.name = "ab_xy_cd";
    p.shortName = "abc";
    p.StripPrefix("xy");
    EXPECT_EQ(p.name, "_xy_cd");
    EXPECT_EQ(p.shortName, "c");

    p.name = "_Gain";
    p.shortName = "_G";
    p.StripPrefix("_common");
    EXPECT_EQ(p.name, "Gain");
    EXPECT_EQ(p.shortName, "G");

    p.name = "Gain";
    p.shortName = "Gn";
    p.StripPrefix("_common");
    EXPECT_EQ(p.name, "Gain");
    EXPECT_EQ(p.shortName, "Gn");

    p.name = "_meterOut";
    p.shortName = "";
    p.StripPrefix("_meter");
    EXPECT_EQ(p.name, "Out");
    EXPECT_EQ(p.shortName, "");
}

TEST(ParameterValues, QuantiseSteps)
{
    const CQuorvexParameter two = Stepped(2);
    for (float v : {0.0f, 0.49f, -0.2f, -1e30f})
        EXPECT_EQ(two.Quantise(v), 0.0f) << v;
    for (float v : {0.5f, 0.75f, 1.0f, 1.5f, 1e30f, inf})
        EXPECT_EQ(two.Quantise(v), 1.0f) << v;

    const CQuorvexParameter three = Stepped(3);
    EXPECT_EQ(three.Quantise(0.33f), 0.0f);
    EXPECT_EQ(three.Quantise(0.34f), 0.5f);
    EXPECT_EQ(three.Quantise(0.66f), 0.5f);
    EXPECT_EQ(three.Quantise(0.67f), 1.0f);
    EXPECT_EQ(three.Quantise(1.0f), 1.0f);

    const CQuorvexParameter plain = Continuous();
    EXPECT_EQ(plain.Quantise(0.25f), 0.25f);
    EXPECT_EQ(plain.Quantise(1.5f), 1.0f);
    EXPECT_EQ(plain.Quantise(-1.0f), 0.0f);
    EXPECT_FALSE(std::signbit(plain.Quantise(-0.0f)));

    EXPECT_TRUE(std::isnan(two.Quantise(nan)));
    EXPECT_TRUE(std::isnan(plain.Quantise(nan)));
    EXPECT_TRUE(std::isnan(Stepped(1).Quantise(0.3f)));
}

TEST(ParameterValues, QuantiseFloorMatchesLibraryFloor)
{
    // The arithmetic floor must agree with std::floor everywhere, negative and huge inputs too.
    for (int32_t steps : {2, 3, 7, 1000, 5000000}) {
        const CQuorvexParameter p = Stepped(steps);
        const float n = static_cast<float>(steps);
        for (int i = -3000; i <= 3000; ++i) {
            const float v = static_cast<float>(i) / 1999.0f;
            float r = std::floor(v * n);
            if (r == n)
                r = n - 1.0f;
            const float expected = std::min(1.0f, std::max(0.0f, r / (n - 1.0f)));
            ASSERT_EQ(p.Quantise(v), expected) << "steps " << steps << " v " << v;
        }
    }
}

TEST(ParameterValues, GetFixedPoint)
{
    CQuorvexParameter p = Continuous();
    auto word = [&](int32_t bits, float v) {
        p.wordBits = bits;
        p.StoreValue(v);
        return p.GetFixedPoint();
    };
    EXPECT_EQ(word(32, 0.0f), 0);
    EXPECT_EQ(word(32, 1.0f), 0x7FFFFFFF);
    EXPECT_EQ(word(32, 0.5f), 0x40000000);
    EXPECT_EQ(word(32, 0.25f), 0x1FFFFFFF);  // the one-half rule holds for one half only
    EXPECT_EQ(word(24, 1.0f), 0x7FFFFF);
    EXPECT_EQ(word(24, 0.5f), 0x400000);
    EXPECT_EQ(word(-1, 1.0f), 0x3FFFFFFF);
    EXPECT_EQ(word(-1, 0.5f), 0x20000000);
    EXPECT_EQ(word(0, 1.0f), 0x7FFFFFFF);
    EXPECT_EQ(word(64, 1.0f), 0x7FFFFFFF);
    EXPECT_EQ(word(INT_MIN, 1.0f), 0x7FFFFFFF);
    EXPECT_EQ(word(INT_MAX, 1.0f), 0x3FFFFFFF);
    EXPECT_EQ(word(2, 1.0f), 1);
    EXPECT_EQ(word(32, 1.5f), 0x7FFFFFFF);
    EXPECT_EQ(word(32, inf), 0x7FFFFFFF);
    EXPECT_EQ(word(32, -inf), 0);
    EXPECT_EQ(word(32, nan), 0);

    CQuorvexParameter switchRecord = Stepped(2);
    switchRecord.wordBits = 32;
    switchRecord.StoreValue(0.4f);
    EXPECT_EQ(switchRecord.GetFixedPoint(), 0);
    switchRecord.StoreValue(0.5f);
    EXPECT_EQ(switchRecord.GetFixedPoint(), 0x7FFFFFFF);
}

TEST(ParameterText, FormatNumber)
{
    CQuorvexParameter p;
    p.showPlus = true;
    EXPECT_EQ(p.FormatNumber(0.0f), "+0.000");
    EXPECT_EQ(p.FormatNumber(1.5f), "+1.500");
    EXPECT_EQ(p.FormatNumber(-1.5f), "-1.500");
    p.showPlus = false;
    p.kiloDisplay = true;
    EXPECT_EQ(p.FormatNumber(9999.0f), "9999.000");
    EXPECT_EQ(p.FormatNumber(10000.0f), "10.000k");
    EXPECT_EQ(p.FormatNumber(12000.0f), "12.000k");
    EXPECT_EQ(p.FormatNumber(-20000.0f), "-20000.000");
    p.decimals = 0;
    EXPECT_EQ(p.FormatNumber(2.75f), "3");
}

TEST(ParameterText, WorkedScaleBothWays)
{
    const CQuorvexParameter p = FrequencyScale();
    EXPECT_EQ(p.ValueToText(0.0f), "Off");
    EXPECT_EQ(p.ValueToText(0.05f), "Off");
    EXPECT_EQ(p.ValueToText(0.1f), "20.000");
    EXPECT_EQ(p.ValueToText(1.0f), "20.000k");
    EXPECT_EQ(p.ValueToText(0.2f), "2240.000");
    EXPECT_EQ(p.ValueToText(7.0f), "20.000k");  // clamped before the scale is read

    for (const char* text : {"of", "OFF", "Off", "Offline", ""})
        EXPECT_EQ(Read(p, text), 0.0f) << text;
    EXPECT_FLOAT_EQ(Read(p, "20k"), 1.0f);
    EXPECT_FLOAT_EQ(Read(p, "20K"), 0.1f);
    EXPECT_FLOAT_EQ(Read(p, "5"), 0.1f);
    EXPECT_FLOAT_EQ(Read(p, "50000"), 1.0f);
    EXPECT_TRUE(std::isnan(Read(p, "abc")));
    EXPECT_TRUE(std::isnan(Read(p, "20 ")));

    CQuorvexParameter plainThousands = p;
    plainThousands.kiloDisplay = false;
    EXPECT_FLOAT_EQ(Read(plainThousands, "20 "), 0.1f);

    // Every shown number reads back to (nearly) the position it came from.
    for (float v = 0.1f; v <= 1.0f; v += 0.0625f)
        EXPECT_NEAR(Read(p, p.ValueToText(v)), v, 1e-4f) << p.ValueToText(v);
}

TEST(ParameterText, SegmentKinds)
{
    CQuorvexParameter p = Continuous();
    p.AddNamedPoint(0.0f, "Low");
    p.AddNamedPoint(0.4f, "Mid");
    p.AddValuePoint(0.6f, 5.0f);
    p.AddNamedPoint(1.0f, "Max");
    EXPECT_EQ(p.ValueToText(0.19f), "Low");
    EXPECT_EQ(p.ValueToText(0.2f), "Low");  // exact middle shows the lower name
    EXPECT_EQ(p.ValueToText(0.21f), "Mid");
    EXPECT_EQ(p.ValueToText(0.59f), "Mid");  // named then value: the name owns the segment
    EXPECT_EQ(p.ValueToText(0.6f), "5.000");
    EXPECT_EQ(p.ValueToText(0.61f), "Max");  // value then named: the name reaches back
    EXPECT_EQ(p.ValueToText(1.0f), "Max");
}

TEST(ParameterText, FallingScaleAndGap)
{
    CQuorvexParameter falling = Continuous();
    falling.AddValuePoint(0.0f, 10.0f);
    falling.AddValuePoint(1.0f, 0.0f);
    EXPECT_FLOAT_EQ(Read(falling, "2.5"), 0.75f);
    EXPECT_EQ(Read(falling, "11"), 0.0f);
    EXPECT_EQ(Read(falling, "-3"), 1.0f);
    EXPECT_EQ(falling.ValueToText(0.25f), "7.500");

    CQuorvexParameter gap = Continuous();
    gap.AddValuePoint(0.0f, 0.0f);
    gap.AddValuePoint(0.2f, 10.0f);
    gap.AddNamedPoint(0.5f, "Notch");
    gap.AddValuePoint(0.8f, 100.0f);
    gap.AddValuePoint(1.0f, 1000.0f);
    EXPECT_FLOAT_EQ(Read(gap, "50"), 0.5f);
    EXPECT_FLOAT_EQ(Read(gap, "5"), 0.1f);
    EXPECT_FLOAT_EQ(Read(gap, "550"), 0.9f);
    EXPECT_EQ(Read(gap, "5000"), 1.0f);
    EXPECT_EQ(Read(gap, "-1"), 0.0f);

    CQuorvexParameter flat = Continuous();
    flat.AddValuePoint(0.0f, 3.0f);
    flat.AddValuePoint(0.5f, 3.0f);
    EXPECT_EQ(Read(flat, "3"), 1.0f);  // hit on equal ends divides by zero
    EXPECT_TRUE(std::isnan(Read(flat, "4")));  // no direction, no name
}

TEST(ParameterText, EmptyAndSinglePointTables)
{
    CQuorvexParameter p = Continuous();
    p.kiloDisplay = true;
    EXPECT_EQ(p.ValueToText(0.5f), "0.500");
    EXPECT_EQ(Read(p, "0.25"), 0.25f);
    EXPECT_EQ(Read(p, "7"), 1.0f);
    EXPECT_EQ(Read(p, "-2"), 0.0f);
    EXPECT_EQ(Read(p, "2k"), 1.0f);
    EXPECT_EQ(Read(p, "0.002k"), 0.002f);  // the k never reaches a record without a table
    EXPECT_TRUE(std::isnan(Read(p, "x")));
    EXPECT_EQ(Stepped(3).ValueToText(0.75f), "1.000");
    EXPECT_EQ(Continuous().ValueToText(-0.0f), "0.000");

    CQuorvexParameter oneValue = Continuous();
    oneValue.AddValuePoint(0.3f, 5.0f);
    EXPECT_EQ(oneValue.ValueToText(0.3f), "");
    EXPECT_TRUE(std::isnan(Read(oneValue, "5")));

    CQuorvexParameter oneName = Continuous();
    oneName.AddNamedPoint(0.3f, "Auto");
    EXPECT_EQ(oneName.ValueToText(0.9f), "");
    EXPECT_FLOAT_EQ(Read(oneName, "au"), 0.3f);
}

TEST(ParameterText, NameMatching)
{
    CQuorvexParameter shortFirst = Continuous();
    shortFirst.AddNamedPoint(0.2f, "ab");
    shortFirst.AddNamedPoint(0.8f, "abcd");
    EXPECT_FLOAT_EQ(Read(shortFirst, "abc"), 0.2f);
    // "abcd" can never beat the earlier "ab": any text reaching it reaches "ab" at distance 0.
    EXPECT_FLOAT_EQ(Read(shortFirst, "ABCD"), 0.2f);

    CQuorvexParameter longFirst = Continuous();
    longFirst.AddNamedPoint(0.2f, "abcd");
    longFirst.AddNamedPoint(0.8f, "ab");
    EXPECT_FLOAT_EQ(Read(longFirst, "abc"), 0.2f);
    EXPECT_FLOAT_EQ(Read(longFirst, ""), 0.8f);  // the shortest label wins on empty text

    CQuorvexParameter level = Continuous();
    level.AddValuePoint(0.0f, 0.0f);
    level.AddValuePoint(0.4f, 20.0f);
    level.AddNamedPoint(0.5f, "12 dB");
    level.AddValuePoint(1.0f, 100.0f);
    EXPECT_FLOAT_EQ(Read(level, "12 dB"), 0.5f);  // a word behind the number keeps the name
    EXPECT_FLOAT_EQ(Read(level, "12"), 0.24f);    // the number alone overrides the name
    EXPECT_FLOAT_EQ(Read(level, "1"), 0.02f);

    CQuorvexParameter unreachable = Continuous();
    unreachable.AddNamedPoint(0.6f, std::string(100, 'x'));
    unreachable.AddNamedPoint(0.9f, "");
    EXPECT_TRUE(std::isnan(Read(unreachable, "")));
    EXPECT_FLOAT_EQ(Read(unreachable, "XX"), 0.6f);
}

// Digits grouped by '.', decimal comma: what a host may install as its global locale.
struct CommaPunct : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

TEST(ParameterText, GlobalLocaleChangesNothing)
{
    const std::locale saved = std::locale::global(
        std::locale(std::locale::classic(), new CommaPunct));
    struct Restore {
        std::locale previous;
        ~Restore() { std::locale::global(previous); }
    } restore{saved};

    std::ostringstream probe;
    probe << 20000.5;
    ASSERT_EQ(probe.str(), "20.000,5") << "the comma locale is not in force";

    CQuorvexParameter p = FrequencyScale();
    p.kiloDisplay = false;
    EXPECT_EQ(p.ValueToText(0.2f), "2240.000");
    EXPECT_EQ(p.ValueToText(1.0f), "20000.000");
    EXPECT_EQ(Continuous().ValueToText(0.5f), "0.500");
    EXPECT_FLOAT_EQ(Read(p, "2240.000"), 0.2f);
    EXPECT_FLOAT_EQ(Read(p, "20.000"), 0.1f);  // a point is never a thousands separator
    EXPECT_EQ(Read(Continuous(), "0.25"), 0.25f);
    EXPECT_EQ(Read(Continuous(), "0,75"), 0.0f);  // reading stops at the comma
}

}  // namespace
}  // namespace tarnlow
