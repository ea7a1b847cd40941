// Makes and checks audio files for the tests of the real tools (tarnlow-render, the LV2
// bundle under lv2apply, the installed tree). Each check exits 1 with a reason on stderr.
//
//   make PATH RATE CHANNELS FRAMES [wav|flac|aiff] [pcm16|pcm24|float]
//   expect-format PATH RATE CHANNELS FRAMES [wav|flac|aiff] [pcm16|pcm24|float]
//   expect-render INPUT OUTPUT     same rate, channels and length; finite; not the input
//   expect-equal A B               the same samples
//   expect-impulse PATH RATE FRAMES  mono, finite, sounding, dying away

#include <sndfile.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

struct Audio {
    SF_INFO info{};
    std::vector<float> samples;  // interleaved
};

[[noreturn]] void Fail(const std::string& reason)
{
    std::fprintf(stderr, "audio check failed: %s\n", reason.c_str());
    std::exit(1);
}

Audio Load(const std::string& path)
{
    Audio audio;
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &audio.info);
    if (file == nullptr) Fail("cannot open " + path + ": " + sf_strerror(nullptr));
    audio.samples.resize(std::size_t(audio.info.frames) * std::size_t(audio.info.channels));
    const sf_count_t read = sf_readf_float(file, audio.samples.data(), audio.info.frames);
    sf_close(file);
    if (read != audio.info.frames) Fail("short read in " + path);
    return audio;
}

int FormatPart(const std::string& name)
{
    const std::pair<const char*, int> parts[] = {{"wav", SF_FORMAT_WAV},      {"flac", SF_FORMAT_FLAC},
                                                 {"aiff", SF_FORMAT_AIFF},    {"pcm16", SF_FORMAT_PCM_16},
                                                 {"pcm24", SF_FORMAT_PCM_24}, {"float", SF_FORMAT_FLOAT}};
    for (const auto& [text, part] : parts)
        if (name == text) return part;
    Fail("unknown format or subtype " + name);
}

long Number(const char* text)
{
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    if (end == text || *end != '\0') Fail(std::string("not a number: ") + text);
    return value;
}

void ExpectShape(const Audio& audio, int rate, int channels, long frames)
{
    if (audio.info.samplerate != rate || audio.info.channels != channels || audio.info.frames != frames)
        Fail("shape " + std::to_string(audio.info.samplerate) + " Hz, " + std::to_string(audio.info.channels) +
             " channels, " + std::to_string(audio.info.frames) + " frames");
}

// Energy of every `step`th sample from `begin`; fails on a sample that is not finite.
double Energy(const Audio& audio, std::size_t begin, std::size_t end, std::size_t step = 1)
{
    double energy = 0.0;
    for (std::size_t i = begin; i < end; i += step) {
        if (!std::isfinite(audio.samples[i])) Fail("non-finite sample at " + std::to_string(i));
        energy += double(audio.samples[i]) * audio.samples[i];
    }
    return energy;
}

// Plucked-string-like test material: a few decaying partials per channel, different in
// each channel, peaking well below full scale.
void Make(const std::string& path, int rate, int channels, long frames, int format)
{
    SF_INFO info{0, rate, channels, format, 0, 0};
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    if (file == nullptr) Fail("cannot write " + path + ": " + sf_strerror(nullptr));
    std::vector<float> frame(static_cast<std::size_t>(channels));
    for (long n = 0; n < frames; ++n) {
        const double t = double(n) / rate, envelope = std::exp(-3.0 * std::fmod(t, 0.5)), w = 2 * 3.14159265358979 * t;
        for (int c = 0; c < channels; ++c) {
            const double f = 110.0 * (1 + c);
            frame[std::size_t(c)] =
                float(envelope * (0.25 * std::sin(w * f) + 0.12 * std::sin(w * 3.01 * f) + 0.06 * std::sin(w * 7.3 * f)));
        }
        if (sf_writef_float(file, frame.data(), 1) != 1) Fail("write failed for " + path);
    }
    sf_close(file);
}

void ExpectRender(const Audio& input, const Audio& output)
{
    ExpectShape(output, input.info.samplerate, input.info.channels, input.info.frames);
    double difference = 0.0;
    for (std::size_t i = 0; i < output.samples.size(); ++i)
        difference = std::max(difference, double(std::fabs(output.samples[i] - input.samples[i])));
    if (difference < 1e-3) Fail("output equals the input");
    // Every channel must carry its own rendered signal.
    for (std::size_t c = 0; c < std::size_t(output.info.channels); ++c)
        if (Energy(output, c, output.samples.size(), std::size_t(output.info.channels)) == 0.0)
            Fail("channel " + std::to_string(c) + " is silent");
    std::printf("rendered: %ld frames x %d channels, max difference %.3f\n", long(output.info.frames),
                output.info.channels, difference);
}

void ExpectImpulse(const Audio& audio, int rate, long frames)
{
    ExpectShape(audio, rate, 1, frames);
    const std::size_t size = audio.samples.size(), tenth = size / 10;
    const double head = Energy(audio, 0, tenth), tail = Energy(audio, size - tenth, size);
    Energy(audio, 0, size);
    if (head == 0.0) Fail("silent response");
    if (tail > 1e-6 * head) Fail("response does not die away");
    std::printf("impulse: %ld frames, head energy %.4g, tail energy %.4g\n", frames, head, tail);
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string command = argc > 1 ? argv[1] : "";
    if ((command == "make" || command == "expect-format") && argc >= 6) {
        const int rate = int(Number(argv[3])), channels = int(Number(argv[4]));
        const long frames = Number(argv[5]);
        const std::string type = argc > 6 ? argv[6] : "wav", subtype = argc > 7 ? argv[7] : "pcm16";
        if (command == "make") {
            Make(argv[2], rate, channels, frames, FormatPart(type) | FormatPart(subtype));
            return 0;
        }
        const Audio audio = Load(argv[2]);
        ExpectShape(audio, rate, channels, frames);
        if (argc > 6 && (audio.info.format & SF_FORMAT_TYPEMASK) != FormatPart(type)) Fail("not " + type);
        if (argc > 7 && (audio.info.format & SF_FORMAT_SUBMASK) != FormatPart(subtype)) Fail("not " + subtype);
    } else if (command == "expect-render" && argc == 4) {
        ExpectRender(Load(argv[2]), Load(argv[3]));
    } else if (command == "expect-equal" && argc == 4) {
        const Audio first = Load(argv[2]), second = Load(argv[3]);
        if (first.info.channels != second.info.channels || first.samples != second.samples) Fail("samples differ");
        std::printf("equal: %zu samples\n", first.samples.size());
    } else if (command == "expect-impulse" && argc == 5) {
        ExpectImpulse(Load(argv[2]), int(Number(argv[3])), Number(argv[4]));
    } else {
        std::fprintf(stderr, "usage: see the top of AudioFileTool.cpp\n");
        return 2;
    }
    return 0;
}
