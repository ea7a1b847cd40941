#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "render/Progress.h"
#include "render/RenderOptions.h"

namespace tarnlow::render {
namespace {

using Arguments = std::vector<std::string>;

RenderOptions Parsed(const Arguments& arguments)
{
    const ParseOutcome outcome = ParseArguments(arguments);
    EXPECT_TRUE(outcome.options.has_value()) << outcome.error;
    return outcome.options.value_or(RenderOptions{});
}

std::string ErrorOf(const Arguments& arguments)
{
    const ParseOutcome outcome = ParseArguments(arguments);
    EXPECT_FALSE(outcome.options.has_value());
    return outcome.error;
}

TEST(RenderOptions, ChoicesMapToTheLibrarysNumbersInBothSpellingsCaseInsensitiveLaterOnesWinning)
{
    const RenderOptions defaults = Parsed({"in.wav", "out.wav"});  // a 4x12, dynamic, at the cap
    EXPECT_TRUE(defaults.action == Action::Render && defaults.cabinet == (CabinetChoice{2, 0, 0}));
    EXPECT_TRUE(defaults.format == FileKind::AsInput && defaults.subtype == SampleKind::AsInput && !defaults.force);
    EXPECT_TRUE(defaults.input == "in.wav" && defaults.output == "out.wav");
    for (int model = 0; model < 30; ++model) {
        const CabinetChoice expected{model / 6, model / 3 % 2, model % 3};
        const std::string s(speakerNames[std::size_t(model / 6)]), m(microphoneNames[std::size_t(model / 3 % 2)]),
            p(positionNames[std::size_t(model % 3)]);
        EXPECT_EQ(Parsed({"--speaker", s, "--mic", m, "--position", p, "a", "b"}).cabinet, expected);
        EXPECT_EQ(Parsed({"--speaker=" + s, "--mic=" + m, "--position=" + p, "a", "b"}).cabinet, expected);
    }
    const RenderOptions options =
        Parsed({"--speaker", "4X10BASS", "--mic", "Ribbon", "--speaker", "1x12", "--format", "FLAC", "a", "b"});
    EXPECT_TRUE(options.cabinet == (CabinetChoice{0, 1, 0}) && options.format == FileKind::Flac);
    const RenderOptions forced = Parsed({"-f", "--format", "aiff", "--subtype", "pcm16", "a", "b"});
    EXPECT_TRUE(forced.force && forced.format == FileKind::Aiff && forced.subtype == SampleKind::Pcm16);
    EXPECT_EQ(Parsed({"--subtype=float", "--force", "a", "b"}).subtype, SampleKind::Float);
    const RenderOptions dashed = Parsed({"--", "-in.wav", "-out.wav"});  // after "--" a name may start with a dash
    EXPECT_TRUE(dashed.input == "-in.wav" && dashed.output == "-out.wav");
}

TEST(RenderOptions, EachMistakeIsNamedInItsError)
{
    const std::pair<Arguments, std::string> cases[] = {
        {{"--gain", "3", "a", "b"}, "unknown option '--gain' (see --help)"},
        {{"--speaker", "2x10", "a", "b"}, "unknown speaker '2x10' (choose 1x12, 2x12, 4x12, 4x10 or 4x10Bass)"},
        {{"--mic", "condenser", "a", "b"}, "unknown microphone 'condenser' (choose dynamic or ribbon)"},
        {{"--format", "mp3", "a", "b"}, "unknown format 'mp3' (choose wav, flac or aiff)"},
        {{"a", "b", "--speaker"}, "option --speaker needs a value"},
        {{"--force=yes", "a", "b"}, "option --force takes no value"},
        {{}, "missing INPUT and OUTPUT (see --help)"},
        {{"in.wav"}, "missing OUTPUT after 'in.wav'"},
        {{"a", "b", "c"}, "too many arguments: 'c'"},
        {{"--ir", "1"}, "missing OUTPUT (tarnlow-render --ir SECONDS [options] OUTPUT)"},
        {{"--ir", "1", "in.wav", "ir.wav"}, "--ir writes a response and reads no INPUT; give only OUTPUT"},
        {{"--rate", "48000", "in.wav", "out.wav"}, "--rate applies to --ir only; a file is rendered at its own rate"},
        {{"--list", "out.wav"}, "--list takes no file names"},
        {{"--list", "--ir", "1", "out.wav"}, "--ir cannot be combined with --list"},
    };
    for (const auto& [arguments, error] : cases) EXPECT_EQ(ErrorOf(arguments), error);
    for (const char* bad : {"0", "abc", "1s", "nan", "inf", "60.5"})
        EXPECT_NE(ErrorOf({"--ir", bad, "ir.wav"}).find("--ir needs a length in seconds"), std::string::npos) << bad;
    for (const char* bad : {"7999", "768001", "48000.5", "48k"})
        EXPECT_NE(ErrorOf({"--ir", "1", "--rate", bad, "ir.wav"}).find("--rate needs a whole number"), std::string::npos)
            << bad;
    EXPECT_NE(ErrorOf({"--ir", "0.0001", "--rate", "8000", "ir.wav"}).find("shorter than one sample"), std::string::npos);
}

TEST(RenderOptions, HelpListVersionAndImpulseResponseActions)
{
    EXPECT_EQ(Parsed({"--bogus", "--help"}).action, Action::Help);  // answered even beside errors
    EXPECT_EQ(Parsed({"-h"}).action, Action::Help);
    EXPECT_EQ(Parsed({"--list"}).action, Action::List);
    EXPECT_EQ(Parsed({"--version"}).action, Action::Version);
    const RenderOptions o = Parsed({"--ir", "1.5", "--rate", "96000", "--mic", "ribbon", "ir.wav"});
    EXPECT_EQ(std::tuple(o.action, o.impulseSeconds, o.impulseRate, o.cabinet.microphone, o.output, o.input),
              std::tuple(Action::ImpulseResponse, 1.5, 96000, 1, std::string("ir.wav"), std::string()));
    EXPECT_EQ(Parsed({"--ir", "0.25", "ir.wav"}).impulseRate, 48000);
    EXPECT_DOUBLE_EQ(Parsed({"--ir", "60", "--rate", "8000", "ir.wav"}).impulseSeconds, 60.0);  // both limits
}

TEST(Progress, ShownOnATerminalForAMinuteOfAudioOrMore)
{
    EXPECT_FALSE(ShouldShowProgress(false, 48000LL * 3600, 48000));
    EXPECT_FALSE(ShouldShowProgress(true, 48000LL * 60 - 1, 48000));
    EXPECT_TRUE(ShouldShowProgress(true, 48000LL * 60, 48000));
    EXPECT_FALSE(ShouldShowProgress(true, 1000, 0));
}

}  // namespace
}  // namespace tarnlow::render
