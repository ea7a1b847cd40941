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
#include <cstring>
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

int Major(const std::string& name)
{
    if (name == "wav") return SF_FORMAT_WAV;
    if (name == "flac") return SF_FORMAT_FLAC;
    if (name == "aiff") return SF_FORMAT_AIFF;
    Fail("unknown format " + name);
}

int Subtype(const std::string& name)
{
    if (name == "pcm16") return SF_FORMAT_PCM_16;
    if (name == "pcm24") return SF_FORMAT_PCM_24;
    if (name == "float") return SF_FORMAT_FLOAT;
    Fail("unknown subtype " + name);
}

long Number(const char* text)
{
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    if (end == text || *end != '\0') Fail(std::string("not a number: ") + text);
    return value;
}

// Plucked-string-like test material: a few decaying partials per channel, different in
// each channel, peaking well below full scale.
int Make(const std::string& path, int rate, int channels, long frames, int format)
{
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = channels;
    info.format = format;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    if (file == nullptr) Fail("cannot write " + path + ": " + sf_strerror(nullptr));
    std::vector<float> frame(static_cast<std::size_t>(channels));
    const double pi = 3.14159265358979;
    for (long n = 0; n < frames; ++n) {
        const double t = double(n) / rate;
        const double envelope = std::exp(-3.0 * std::fmod(t, 0.5));
        for (int c = 0; c < channels; ++c) {
            const double f = 110.0 * (1 + c);
            const double value = 0.25 * std::sin(2 * pi * f * t) + 0.12 * std::sin(2 * pi * 3.01 * f * t) +
                                 0.06 * std::sin(2 * pi * 7.3 * f * t);
            frame[std::size_t(c)] = float(envelope * value);
        }
        if (sf_writef_float(file, frame.data(), 1) != 1) Fail("write failed for " + path);
    }
    sf_close(file);
    return 0;
}

int ExpectFormat(char** argv, int argc)
{
    const Audio audio = Load(argv[2]);
    const int rate = int(Number(argv[3])), channels = int(Number(argv[4]));
    const long frames = Number(argv[5]);
    if (audio.info.samplerate != rate) Fail("rate " + std::to_string(audio.info.samplerate));
    if (audio.info.channels != channels) Fail("channels " + std::to_string(audio.info.channels));
    if (audio.info.frames != frames) Fail("frames " + std::to_string(audio.info.frames));
    if (argc > 6 && (audio.info.format & SF_FORMAT_TYPEMASK) != Major(argv[6])) Fail(std::string("not ") + argv[6]);
    if (argc > 7 && (audio.info.format & SF_FORMAT_SUBMASK) != Subtype(argv[7])) Fail(std::string("not ") + argv[7]);
    return 0;
}

int ExpectRender(const std::string& inputPath, const std::string& outputPath)
{
    const Audio input = Load(inputPath);
    const Audio output = Load(outputPath);
    if (output.info.samplerate != input.info.samplerate) Fail("rate differs");
    if (output.info.channels != input.info.channels) Fail("channel count differs");
    if (output.info.frames != input.info.frames) Fail("length differs");
    double difference = 0.0, energy = 0.0;
    for (std::size_t i = 0; i < output.samples.size(); ++i) {
        if (!std::isfinite(output.samples[i])) Fail("non-finite sample at " + std::to_string(i));
        difference = std::max(difference, double(std::fabs(output.samples[i] - input.samples[i])));
        energy += double(output.samples[i]) * output.samples[i];
    }
    if (difference < 1e-3) Fail("output equals the input");
    if (energy == 0.0) Fail("output is silent");
    // Every channel must carry its own rendered signal.
    const std::size_t channels = std::size_t(output.info.channels);
    for (std::size_t c = 0; c < channels; ++c) {
        double channelEnergy = 0.0;
        for (std::size_t i = c; i < output.samples.size(); i += channels)
            channelEnergy += double(output.samples[i]) * output.samples[i];
        if (channelEnergy == 0.0) Fail("channel " + std::to_string(c) + " is silent");
    }
    std::printf("rendered: %ld frames x %d channels, max difference %.3f\n", long(output.info.frames),
                output.info.channels, difference);
    return 0;
}

int ExpectEqual(const std::string& a, const std::string& b)
{
    const Audio first = Load(a);
    const Audio second = Load(b);
    if (first.info.channels != second.info.channels || first.info.frames != second.info.frames)
        Fail("shapes differ");
    for (std::size_t i = 0; i < first.samples.size(); ++i)
        if (first.samples[i] != second.samples[i])
            Fail("sample " + std::to_string(i) + " differs: " + std::to_string(first.samples[i]) + " vs " +
                 std::to_string(second.samples[i]));
    std::printf("equal: %zu samples\n", first.samples.size());
    return 0;
}

int ExpectImpulse(const std::string& path, int rate, long frames)
{
    const Audio audio = Load(path);
    if (audio.info.channels != 1) Fail("not mono");
    if (audio.info.samplerate != rate) Fail("rate " + std::to_string(audio.info.samplerate));
    if (audio.info.frames != frames) Fail("frames " + std::to_string(audio.info.frames));
    double head = 0.0, tail = 0.0;
    const std::size_t tenth = audio.samples.size() / 10;
    for (std::size_t i = 0; i < audio.samples.size(); ++i) {
        const double sample = audio.samples[i];
        if (!std::isfinite(sample)) Fail("non-finite sample");
        if (i < tenth) head += sample * sample;
        if (i >= audio.samples.size() - tenth) tail += sample * sample;
    }
    if (head == 0.0) Fail("silent response");
    if (tail > 1e-6 * head) Fail("response does not die away");
    std::printf("impulse: %ld frames, head energy %.4g, tail energy %.4g\n", long(audio.info.frames), head, tail);
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string command = argc > 1 ? argv[1] : "";
    if (command == "make" && argc >= 6) {
        const int major = argc > 6 ? Major(argv[6]) : SF_FORMAT_WAV;
        const int subtype = argc > 7 ? Subtype(argv[7]) : SF_FORMAT_PCM_16;
        return Make(argv[2], int(Number(argv[3])), int(Number(argv[4])), Number(argv[5]), major | subtype);
    }
    if (command == "expect-format" && argc >= 6) return ExpectFormat(argv, argc);
    if (command == "expect-render" && argc == 4) return ExpectRender(argv[2], argv[3]);
    if (command == "expect-equal" && argc == 4) return ExpectEqual(argv[2], argv[3]);
    if (command == "expect-impulse" && argc == 5) return ExpectImpulse(argv[2], int(Number(argv[3])), Number(argv[4]));
    std::fprintf(stderr, "usage: see the top of AudioFileTool.cpp\n");
    return 2;
}
