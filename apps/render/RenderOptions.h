#pragma once

// The command line of tarnlow-render, parsed into plain values. Nothing here touches a file,
// so every rule of the command line can be checked without audio on disk.

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarnlow::render {

// One of the thirty models, as the three host controls of the library number them.
struct CabinetChoice {
    int speaker = 2;     // 0..4: 1x12, 2x12, 4x12, 4x10, 4x10Bass
    int microphone = 0;  // 0..1: dynamic, ribbon
    int position = 0;    // 0..2: cap, edge, room

    friend bool operator==(const CabinetChoice&, const CabinetChoice&) = default;
};

inline constexpr std::array<std::string_view, 5> speakerNames = {"1x12", "2x12", "4x12", "4x10", "4x10Bass"};
inline constexpr std::array<std::string_view, 2> microphoneNames = {"dynamic", "ribbon"};
inline constexpr std::array<std::string_view, 3> positionNames = {"cap", "edge", "room"};

enum class Action { Render, ImpulseResponse, List, Help, Version };
enum class FileKind { AsInput, Wav, Flac, Aiff };
enum class SampleKind { AsInput, Pcm16, Pcm24, Float };

struct RenderOptions {
    Action action = Action::Render;
    CabinetChoice cabinet;
    FileKind format = FileKind::AsInput;
    SampleKind subtype = SampleKind::AsInput;
    bool force = false;
    double impulseSeconds = 0.0;  // only with Action::ImpulseResponse
    int impulseRate = 48000;      // only with Action::ImpulseResponse
    std::string input;            // empty with Action::ImpulseResponse
    std::string output;
};

// Exactly one of the two is set: the options, or a one-line reason without the program name.
struct ParseOutcome {
    std::optional<RenderOptions> options;
    std::string error;
};

inline constexpr double maxImpulseSeconds = 60.0;
inline constexpr int minImpulseRate = 8000;
inline constexpr int maxImpulseRate = 768000;

// `arguments` excludes the program name.
ParseOutcome ParseArguments(const std::vector<std::string>& arguments);

std::string UsageText();
std::string ModelListText();

// "4x12 dynamic cap"
std::string DescribeCabinet(const CabinetChoice& cabinet);

}  // namespace tarnlow::render
