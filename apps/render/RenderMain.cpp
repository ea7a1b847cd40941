// tarnlow-render: renders audio files through a cabinet, or writes a model's impulse
// response, with the library's exported interface.

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "render/CabinetRenderer.h"
#include "render/Progress.h"
#include "render/RenderOptions.h"
#include "render/SoundFiles.h"

#ifndef TARNLOW_VERSION
#define TARNLOW_VERSION "unknown"
#endif

namespace tarnlow::render {
namespace {

constexpr int exitFailure = 1;
constexpr int exitUsage = 2;
constexpr int exitInterrupted = 130;
constexpr std::size_t framesPerRead = 4096;

volatile std::sig_atomic_t interrupted = 0;

extern "C" void OnInterrupt(int)
{
    interrupted = 1;
}

// Stops the render between two blocks, so that the pending output is removed on the way out.
void CatchInterrupts()
{
    struct sigaction action {};
    action.sa_handler = OnInterrupt;
    sigemptyset(&action.sa_mask);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaction(signal, &action, nullptr);
}

struct Interrupted {};

void Warn(const std::string& message)
{
    std::fprintf(stderr, "tarnlow-render: warning: %s\n", message.c_str());
}

float PeakOf(const float* samples, std::size_t count, float peak)
{
    for (std::size_t i = 0; i < count; ++i) peak = std::max(peak, std::fabs(samples[i]));
    return peak;
}

void WarnIfClipped(float peak, int format)
{
    if (peak <= 1.0f || HoldsFloatSamples(format)) return;
    char text[160];
    std::snprintf(text, sizeof(text), "the output peaks at %+.1f dBFS and was clipped; --subtype float keeps the peaks",
                  20.0 * std::log10(double(peak)));
    Warn(text);
}

void RenderFile(const RenderOptions& options)
{
    SoundInput input(options.input);
    const SF_INFO& info = input.Info();
    const FormatChoice format =
        ResolveOutputFormat(info.format, options.format, options.subtype, info.channels, info.samplerate);
    if (!format.error.empty()) throw FileError(format.error);
    if (options.format == FileKind::AsInput) {
        const auto named = FormatFromExtension(options.output);
        if (named && *named != (format.format & SF_FORMAT_TYPEMASK))
            Warn("'" + options.output + "' is written as " + DescribeFormat(format.format) +
                 ", like the input; --format sets another");
    }

    PendingOutput output(options.output, format.format, info.channels, info.samplerate, options.force);
    input.CopyTextTo(output.Handle());
    sf_set_string(output.Handle(), SF_STR_SOFTWARE, "tarnlow-render " TARNLOW_VERSION);

    MultiChannelCabinet cabinet(options.cabinet, info.samplerate, info.channels);
    ProgressBar progress(stderr, info.frames, ShouldShowProgress(isatty(STDERR_FILENO) == 1, info.frames, info.samplerate));
    std::vector<float> block(framesPerRead * std::size_t(info.channels));
    int64_t done = 0;
    float peak = 0.0f;
    for (std::size_t read = 0; (read = input.Read(block.data(), framesPerRead)) > 0;) {
        if (interrupted) throw Interrupted{};
        cabinet.Process(block.data(), read);
        peak = PeakOf(block.data(), read * std::size_t(info.channels), peak);
        output.Write(block.data(), read);
        done += int64_t(read);
        progress.Update(done);
    }
    progress.Finish();
    if (interrupted) throw Interrupted{};
    if (done < info.frames)
        throw FileError("cannot read '" + options.input + "': it ends after " + std::to_string(done) + " of " +
                        std::to_string(info.frames) + " frames");
    output.Commit();
    WarnIfClipped(peak, format.format);
}

void WriteImpulseResponse(const RenderOptions& options)
{
    const FormatChoice format = ImpulseFormat(options.output, options.format, options.subtype, options.impulseRate);
    if (!format.error.empty()) throw FileError(format.error);
    const auto length = std::size_t(std::llround(options.impulseSeconds * options.impulseRate));
    PendingOutput output(options.output, format.format, 1, options.impulseRate, options.force);
    sf_set_string(output.Handle(), SF_STR_SOFTWARE, "tarnlow-render " TARNLOW_VERSION);
    const std::string comment =
        "impulse response: " + DescribeCabinet(options.cabinet) + " at " + std::to_string(options.impulseRate) + " Hz";
    sf_set_string(output.Handle(), SF_STR_COMMENT, comment.c_str());
    const std::vector<float> response = ImpulseResponse(options.cabinet, options.impulseRate, length);
    if (interrupted) throw Interrupted{};
    output.Write(response.data(), response.size());
    output.Commit();
    WarnIfClipped(PeakOf(response.data(), response.size(), 0.0f), format.format);
}

int Run(const std::vector<std::string>& arguments)
{
    const ParseOutcome parsed = ParseArguments(arguments);
    if (!parsed.options) {
        std::fprintf(stderr, "tarnlow-render: %s\n", parsed.error.c_str());
        return exitUsage;
    }
    const RenderOptions& options = *parsed.options;
    switch (options.action) {
    case Action::Help: std::fputs(UsageText().c_str(), stdout); return 0;
    case Action::Version: std::puts("tarnlow-render " TARNLOW_VERSION); return 0;
    case Action::List: std::fputs(ModelListText().c_str(), stdout); return 0;
    case Action::Render:
    case Action::ImpulseResponse: break;
    }
    CatchInterrupts();
    try {
        if (options.action == Action::ImpulseResponse) WriteImpulseResponse(options);
        else RenderFile(options);
    } catch (const FileError& error) {
        std::fprintf(stderr, "tarnlow-render: %s\n", error.what());
        return exitFailure;
    } catch (const Interrupted&) {
        std::fprintf(stderr, "tarnlow-render: interrupted; nothing was written to '%s'\n", options.output.c_str());
        return exitInterrupted;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tarnlow-render: %s\n", error.what());
        return exitFailure;
    }
    return 0;
}

}  // namespace
}  // namespace tarnlow::render

int main(int argc, char** argv)
{
    return tarnlow::render::Run(std::vector<std::string>(argv + 1, argv + argc));
}
