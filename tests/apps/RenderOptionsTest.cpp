#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "render/Progress.h"
#include "render/RenderOptions.h"

namespace tarnlow::render {
namespace {

ParseOutcome Parse(std::vector<std::string> arguments)
{
    return ParseArguments(arguments);
}

RenderOptions Parsed(std::vector<std::string> arguments)
{
    const ParseOutcome outcome = Parse(std::move(arguments));
    EXPECT_TRUE(outcome.options.has_value()) << outcome.error;
    return outcome.options.value_or(RenderOptions{});
}

std::string ErrorOf(std::vector<std::string> arguments)
{
    const ParseOutcome outcome = Parse(std::move(arguments));
    EXPECT_FALSE(outcome.options.has_value());
    return outcome.error;
}

TEST(RenderOptions, DefaultsAreA4x12DynamicAtTheCapKeepingTheInputFormat)
{
    const RenderOptions options = Parsed({"in.wav", "out.wav"});
    EXPECT_EQ(options.action, Action::Render);
    EXPECT_EQ(options.cabinet, (CabinetChoice{2, 0, 0}));
    EXPECT_EQ(options.format, FileKind::AsInput);
    EXPECT_EQ(options.subtype, SampleKind::AsInput);
    EXPECT_FALSE(options.force);
    EXPECT_EQ(options.input, "in.wav");
    EXPECT_EQ(options.output, "out.wav");
}

TEST(RenderOptions, EveryChoiceMapsToTheLibrarysNumbersInBothSpellings)
{
    for (std::size_t speaker = 0; speaker < speakerNames.size(); ++speaker) {
        for (std::size_t microphone = 0; microphone < microphoneNames.size(); ++microphone) {
            for (std::size_t position = 0; position < positionNames.size(); ++position) {
                const CabinetChoice expected{int(speaker), int(microphone), int(position)};
                const std::vector<std::string> separate = {"--speaker", std::string(speakerNames[speaker]),
                                                           "--mic",     std::string(microphoneNames[microphone]),
                                                           "--position", std::string(positionNames[position]),
                                                           "a",         "b"};
                EXPECT_EQ(Parsed(separate).cabinet, expected);
                const std::vector<std::string> joined = {"--speaker=" + std::string(speakerNames[speaker]),
                                                         "--mic=" + std::string(microphoneNames[microphone]),
                                                         "--position=" + std::string(positionNames[position]), "a",
                                                         "b"};
                EXPECT_EQ(Parsed(joined).cabinet, expected);
            }
        }
    }
}

TEST(RenderOptions, NamesAreCaseInsensitiveAndLaterOptionsWin)
{
    const RenderOptions options =
        Parsed({"--speaker", "4X10BASS", "--mic", "Ribbon", "--speaker", "1x12", "--format", "FLAC", "a", "b"});
    EXPECT_EQ(options.cabinet.speaker, 0);
    EXPECT_EQ(options.cabinet.microphone, 1);
    EXPECT_EQ(options.format, FileKind::Flac);
}

TEST(RenderOptions, FormatSubtypeAndForce)
{
    const RenderOptions options = Parsed({"-f", "--format", "aiff", "--subtype", "pcm16", "a", "b"});
    EXPECT_TRUE(options.force);
    EXPECT_EQ(options.format, FileKind::Aiff);
    EXPECT_EQ(options.subtype, SampleKind::Pcm16);
    EXPECT_EQ(Parsed({"--subtype=float", "--force", "a", "b"}).subtype, SampleKind::Float);
    EXPECT_EQ(Parsed({"--subtype", "pcm24", "a", "b"}).subtype, SampleKind::Pcm24);
    EXPECT_EQ(Parsed({"--format", "wav", "a", "b"}).format, FileKind::Wav);
}

TEST(RenderOptions, UnknownOptionsAndValuesAreNamedInTheError)
{
    EXPECT_EQ(ErrorOf({"--gain", "3", "a", "b"}), "unknown option '--gain' (see --help)");
    EXPECT_EQ(ErrorOf({"-x", "a", "b"}), "unknown option '-x' (see --help)");
    EXPECT_EQ(ErrorOf({"--speaker", "2x10", "a", "b"}),
              "unknown speaker '2x10' (choose 1x12, 2x12, 4x12, 4x10 or 4x10Bass)");
    EXPECT_EQ(ErrorOf({"--mic", "condenser", "a", "b"}), "unknown microphone 'condenser' (choose dynamic or ribbon)");
    EXPECT_EQ(ErrorOf({"--position", "", "a", "b"}),
              "unknown microphone position '' (choose cap, edge or room)");
    EXPECT_EQ(ErrorOf({"--format", "mp3", "a", "b"}), "unknown format 'mp3' (choose wav, flac or aiff)");
    EXPECT_EQ(ErrorOf({"--subtype", "pcm32", "a", "b"}), "unknown subtype 'pcm32' (choose pcm16, pcm24 or float)");
    EXPECT_EQ(ErrorOf({"a", "b", "--speaker"}), "option --speaker needs a value");
    EXPECT_EQ(ErrorOf({"--force=yes", "a", "b"}), "option --force takes no value");
}

TEST(RenderOptions, FileNamesAreCounted)
{
    EXPECT_EQ(ErrorOf({}), "missing INPUT and OUTPUT (see --help)");
    EXPECT_EQ(ErrorOf({"in.wav"}), "missing OUTPUT after 'in.wav'");
    EXPECT_EQ(ErrorOf({"a", "b", "c"}), "too many arguments: 'c'");
    // After "--" a name may start with a dash.
    const RenderOptions options = Parsed({"--", "-in.wav", "-out.wav"});
    EXPECT_EQ(options.input, "-in.wav");
    EXPECT_EQ(options.output, "-out.wav");
}

TEST(RenderOptions, ImpulseResponseTakesOnlyAnOutputAndARate)
{
    const RenderOptions options = Parsed({"--ir", "1.5", "--rate", "96000", "--mic", "ribbon", "ir.wav"});
    EXPECT_EQ(options.action, Action::ImpulseResponse);
    EXPECT_DOUBLE_EQ(options.impulseSeconds, 1.5);
    EXPECT_EQ(options.impulseRate, 96000);
    EXPECT_EQ(options.cabinet.microphone, 1);
    EXPECT_EQ(options.output, "ir.wav");
    EXPECT_TRUE(options.input.empty());
    EXPECT_EQ(Parsed({"--ir", "0.25", "ir.wav"}).impulseRate, 48000);

    EXPECT_EQ(ErrorOf({"--ir", "1"}), "missing OUTPUT (tarnlow-render --ir SECONDS [options] OUTPUT)");
    EXPECT_EQ(ErrorOf({"--ir", "1", "in.wav", "ir.wav"}), "--ir writes a response and reads no INPUT; give only OUTPUT");
    EXPECT_EQ(ErrorOf({"--rate", "48000", "in.wav", "out.wav"}),
              "--rate applies to --ir only; a file is rendered at its own rate");
}

TEST(RenderOptions, ImpulseLengthAndRateAreChecked)
{
    for (const char* bad : {"0", "-1", "abc", "1s", "nan", "inf", "60.5", ""})
        EXPECT_NE(ErrorOf({"--ir", bad, "ir.wav"}).find("--ir needs a length in seconds"), std::string::npos) << bad;
    EXPECT_DOUBLE_EQ(Parsed({"--ir", "60", "ir.wav"}).impulseSeconds, 60.0);
    for (const char* bad : {"7999", "768001", "48000.5", "48k", "-48000"})
        EXPECT_NE(ErrorOf({"--ir", "1", "--rate", bad, "ir.wav"}).find("--rate needs a whole number"),
                  std::string::npos)
            << bad;
    EXPECT_EQ(Parsed({"--ir", "1", "--rate", "8000", "ir.wav"}).impulseRate, 8000);
    EXPECT_EQ(ErrorOf({"--ir", "0.0001", "--rate", "8000", "ir.wav"}).find("shorter than one sample") !=
                  std::string::npos,
              true);
}

TEST(RenderOptions, HelpIsAnsweredEvenBesideErrors)
{
    EXPECT_EQ(Parsed({"--bogus", "--help"}).action, Action::Help);
    EXPECT_EQ(Parsed({"-h"}).action, Action::Help);
}

TEST(RenderOptions, ListAndVersionStandAlone)
{
    EXPECT_EQ(Parsed({"--list"}).action, Action::List);
    EXPECT_EQ(Parsed({"--version"}).action, Action::Version);
    EXPECT_EQ(ErrorOf({"--list", "out.wav"}), "--list takes no file names");
    EXPECT_EQ(ErrorOf({"--list", "--ir", "1", "out.wav"}), "--ir cannot be combined with --list");
}

TEST(RenderOptions, ModelListShowsThirtyModels)
{
    const std::string text = ModelListText();
    std::size_t rows = 0;
    for (std::size_t at = text.find("cap edge room"); at != std::string::npos; at = text.find("cap edge room", at + 1))
        ++rows;
    EXPECT_EQ(rows, 10u);
    for (const auto name : speakerNames) EXPECT_NE(text.find(std::string(name) + " "), std::string::npos) << name;
    EXPECT_NE(text.find("30 models; default: 4x12 dynamic cap"), std::string::npos);
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
