#include "render/RenderOptions.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <sstream>

namespace tarnlow::render {
namespace {

bool SameIgnoringCase(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
           });
}

template <std::size_t N>
std::optional<int> FindName(const std::array<std::string_view, N>& names, std::string_view value)
{
    for (std::size_t i = 0; i < N; ++i)
        if (SameIgnoringCase(names[i], value)) return int(i);
    return std::nullopt;
}

template <std::size_t N>
std::string ChoiceList(const std::array<std::string_view, N>& names)
{
    std::string text;
    for (std::size_t i = 0; i < N; ++i) {
        if (i > 0) text += i + 1 == N ? " or " : ", ";
        text += names[i];
    }
    return text;
}

inline constexpr std::array<std::string_view, 3> formatNames = {"wav", "flac", "aiff"};
inline constexpr std::array<std::string_view, 3> subtypeNames = {"pcm16", "pcm24", "float"};

std::optional<double> ParseSeconds(std::string_view text)
{
    double value = 0.0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) return std::nullopt;
    return value;
}

std::optional<int> ParseWholeNumber(std::string_view text)
{
    int value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

// Walks the arguments once; keeps the first error and stops there.
class Parser {
public:
    explicit Parser(const std::vector<std::string>& arguments) : arguments(arguments) {}

    ParseOutcome Run()
    {
        // Asking for help is answered even when the rest of the line is wrong.
        for (const std::string& argument : arguments) {
            if (argument == "--") break;
            if (argument == "--help" || argument == "-h") {
                options.action = Action::Help;
                return {options, {}};
            }
        }
        bool optionsEnded = false;
        for (next = 0; next < arguments.size() && error.empty();) {
            const std::string& argument = arguments[next++];
            if (!optionsEnded && argument == "--") {
                optionsEnded = true;
            } else if (!optionsEnded && argument.size() > 1 && argument[0] == '-') {
                Option(argument);
            } else {
                positional.push_back(argument);
            }
        }
        if (error.empty()) CheckCombination();
        if (!error.empty()) return {std::nullopt, error};
        return {options, {}};
    }

private:
    void Option(const std::string& argument)
    {
        std::string name = argument;
        std::optional<std::string> inlineValue;
        if (const auto equals = argument.find('='); argument.starts_with("--") && equals != std::string::npos) {
            name = argument.substr(0, equals);
            inlineValue = argument.substr(equals + 1);
        }
        const auto flag = [&](auto&& apply) {
            if (inlineValue) {
                Fail("option " + name + " takes no value");
                return;
            }
            apply();
        };
        if (name == "--version") return flag([&] { SetAction(Action::Version, name); });
        if (name == "--list") return flag([&] { SetAction(Action::List, name); });
        if (name == "--force" || name == "-f") return flag([&] { options.force = true; });

        const bool takesValue = name == "--speaker" || name == "--mic" || name == "--position" || name == "--format" ||
                                name == "--subtype" || name == "--ir" || name == "--rate";
        if (!takesValue) {
            Fail("unknown option '" + argument + "' (see --help)");
            return;
        }
        std::string value;
        if (inlineValue) {
            value = *inlineValue;
        } else if (next < arguments.size()) {
            value = arguments[next++];
        } else {
            Fail("option " + name + " needs a value");
            return;
        }
        Value(name, value);
    }

    void Value(const std::string& name, const std::string& value)
    {
        if (name == "--speaker") {
            if (const auto found = FindName(speakerNames, value)) options.cabinet.speaker = *found;
            else Fail("unknown speaker '" + value + "' (choose " + ChoiceList(speakerNames) + ")");
        } else if (name == "--mic") {
            if (const auto found = FindName(microphoneNames, value)) options.cabinet.microphone = *found;
            else Fail("unknown microphone '" + value + "' (choose " + ChoiceList(microphoneNames) + ")");
        } else if (name == "--position") {
            if (const auto found = FindName(positionNames, value)) options.cabinet.position = *found;
            else Fail("unknown microphone position '" + value + "' (choose " + ChoiceList(positionNames) + ")");
        } else if (name == "--format") {
            if (const auto found = FindName(formatNames, value)) options.format = FileKind(*found + 1);
            else Fail("unknown format '" + value + "' (choose " + ChoiceList(formatNames) + ")");
        } else if (name == "--subtype") {
            if (const auto found = FindName(subtypeNames, value)) options.subtype = SampleKind(*found + 1);
            else Fail("unknown subtype '" + value + "' (choose " + ChoiceList(subtypeNames) + ")");
        } else if (name == "--ir") {
            const auto seconds = ParseSeconds(value);
            if (!seconds || *seconds <= 0.0 || *seconds > maxImpulseSeconds) {
                std::ostringstream text;
                text << "--ir needs a length in seconds above 0 and at most " << maxImpulseSeconds << ", not '"
                     << value << "'";
                Fail(text.str());
                return;
            }
            SetAction(Action::ImpulseResponse, name);
            options.impulseSeconds = *seconds;
        } else if (name == "--rate") {
            const auto rate = ParseWholeNumber(value);
            if (!rate || *rate < minImpulseRate || *rate > maxImpulseRate) {
                Fail("--rate needs a whole number of samples per second from " + std::to_string(minImpulseRate) +
                     " to " + std::to_string(maxImpulseRate) + ", not '" + value + "'");
                return;
            }
            options.impulseRate = *rate;
            rateGiven = true;
        }
    }

    void SetAction(Action action, const std::string& name)
    {
        if (options.action != Action::Render && options.action != action) {
            Fail(name + " cannot be combined with " + actionOption);
            return;
        }
        options.action = action;
        actionOption = name;
    }

    void CheckCombination()
    {
        switch (options.action) {
        case Action::List:
        case Action::Version:
            if (!positional.empty()) Fail(actionOption + " takes no file names");
            return;
        case Action::ImpulseResponse:
            if (positional.empty()) return Fail("missing OUTPUT (tarnlow-render --ir SECONDS [options] OUTPUT)");
            if (positional.size() > 1) return Fail("--ir writes a response and reads no INPUT; give only OUTPUT");
            if (options.impulseSeconds * options.impulseRate < 1.0)
                return Fail("--ir " + std::to_string(options.impulseSeconds) + " is shorter than one sample");
            options.output = positional[0];
            return;
        case Action::Render:
            if (rateGiven) return Fail("--rate applies to --ir only; a file is rendered at its own rate");
            if (positional.empty()) return Fail("missing INPUT and OUTPUT (see --help)");
            if (positional.size() == 1) return Fail("missing OUTPUT after '" + positional[0] + "'");
            if (positional.size() > 2) return Fail("too many arguments: '" + positional[2] + "'");
            options.input = positional[0];
            options.output = positional[1];
            return;
        case Action::Help:
            return;
        }
    }

    void Fail(std::string message)
    {
        if (error.empty()) error = std::move(message);
    }

    const std::vector<std::string>& arguments;
    std::size_t next = 0;
    RenderOptions options;
    std::vector<std::string> positional;
    std::string actionOption;
    std::string error;
    bool rateGiven = false;
};

}  // namespace

ParseOutcome ParseArguments(const std::vector<std::string>& arguments)
{
    return Parser(arguments).Run();
}

std::string DescribeCabinet(const CabinetChoice& cabinet)
{
    return std::string(speakerNames.at(cabinet.speaker)) + " " + std::string(microphoneNames.at(cabinet.microphone)) +
           " " + std::string(positionNames.at(cabinet.position));
}

std::string UsageText()
{
    return "usage: tarnlow-render [options] INPUT OUTPUT\n"
           "       tarnlow-render --ir SECONDS [--rate RATE] [options] OUTPUT\n"
           "       tarnlow-render --list | --help | --version\n"
           "\n"
           "Renders an audio file through a speaker cabinet, its microphone and the room.\n"
           "Each channel of INPUT runs through its own cabinet; OUTPUT has the input's rate,\n"
           "length and channel count.\n"
           "\n"
           "  --speaker 1x12|2x12|4x12|4x10|4x10Bass   cabinet (default 4x12)\n"
           "  --mic dynamic|ribbon                     microphone (default dynamic)\n"
           "  --position cap|edge|room                 microphone position (default cap)\n"
           "  --format wav|flac|aiff                   output file format (default: as INPUT)\n"
           "  --subtype pcm16|pcm24|float              output samples (default: as INPUT)\n"
           "  --ir SECONDS                             write the model's impulse response instead\n"
           "  --rate RATE                              sample rate of --ir (default 48000)\n"
           "  -f, --force                              overwrite an existing OUTPUT\n"
           "  --list                                   show the models\n"
           "  -h, --help                               show this text\n"
           "  --version                                show the version\n"
           "\n"
           "Any sample rate runs, on the nearest of the library's six model bands. OUTPUT is\n"
           "written next to its final name and renamed when complete, so a failed run leaves\n"
           "no partial file. Without --format, --ir takes the format from OUTPUT's extension.\n";
}

std::string ModelListText()
{
    std::string text = "speaker   microphone  positions\n";
    for (std::size_t speaker = 0; speaker < speakerNames.size(); ++speaker) {
        for (std::size_t microphone = 0; microphone < microphoneNames.size(); ++microphone) {
            std::string line(speakerNames[speaker]);
            line.resize(10, ' ');
            line += microphoneNames[microphone];
            line.resize(22, ' ');
            for (std::size_t position = 0; position < positionNames.size(); ++position) {
                if (position > 0) line += ' ';
                line += positionNames[position];
            }
            text += line + "\n";
        }
    }
    text += std::to_string(speakerNames.size() * microphoneNames.size() * positionNames.size()) +
            " models; default: " + DescribeCabinet(CabinetChoice{}) + "\n";
    return text;
}

}  // namespace tarnlow::render
