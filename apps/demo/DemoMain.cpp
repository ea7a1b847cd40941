// Renders the built-in guitar through every cabinet at every microphone position, using
// only the library's exported interface, and writes WAV files.

#include <sndfile.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "demo/GuitarDemo.h"
#include "tarnlow.h"

namespace {

const char* const speakerNames[] = {"1x12", "2x12", "4x12", "4x10", "4x10Bass"};
const char* const positionNames[] = {"cap", "edge", "room"};
constexpr int demoRate = 48000;
constexpr int hostBlock = 256;

// Writes next to the target and renames, so a failed run never leaves a partial file.
bool WriteWav(const std::filesystem::path& path, const std::vector<float>& samples, int rate)
{
    const std::filesystem::path temporary = path.string() + ".partial";
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = 1;
    info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    SNDFILE* file = sf_open(temporary.c_str(), SFM_WRITE, &info);
    if (file == nullptr) {
        std::fprintf(stderr, "tarnlow-demo: cannot write %s: %s\n", temporary.c_str(), sf_strerror(nullptr));
        return false;
    }
    const sf_count_t written = sf_writef_float(file, samples.data(), sf_count_t(samples.size()));
    const bool closed = sf_close(file) == 0;
    std::error_code error;
    if (written != sf_count_t(samples.size()) || !closed) {
        std::fprintf(stderr, "tarnlow-demo: writing %s failed\n", temporary.c_str());
        std::filesystem::remove(temporary, error);
        return false;
    }
    std::filesystem::rename(temporary, path, error);
    if (error) {
        std::fprintf(stderr, "tarnlow-demo: cannot rename to %s: %s\n", path.c_str(), error.message().c_str());
        return false;
    }
    return true;
}

std::vector<float> Render(const std::vector<float>& input, int speaker, int position)
{
    std::vector<float> audio = input;
    void* instance = CreateInstanceU();
    SetSampleRateU(instance, demoRate);
    SetParameterA(instance, 0, float(speaker));
    SetParameterA(instance, 1, 0.0f);
    SetParameterA(instance, 2, float(position));
    int32_t sounding = 0;
    for (std::size_t done = 0; done < audio.size(); done += hostBlock) {
        const int32_t count = int32_t(std::min<std::size_t>(hostBlock, audio.size() - done));
        CalcA(instance, count, audio.data() + done, nullptr, nullptr, nullptr, nullptr, &sounding);
    }
    DestroyInstanceU(instance);
    return audio;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2 || std::strcmp(argv[1], "--help") == 0) {
        std::fprintf(stderr, "usage: tarnlow-demo OUTPUT-DIRECTORY\n");
        return argc == 2 ? 0 : 2;
    }
    const std::filesystem::path directory = argv[1];
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (error) {
        std::fprintf(stderr, "tarnlow-demo: cannot create %s: %s\n", directory.c_str(), error.message().c_str());
        return 1;
    }
    const std::vector<float> guitar = demo::SynthesiseGuitarDi(demoRate);
    if (!WriteWav(directory / "demo-di.wav", guitar, demoRate)) return 1;
    std::printf("%s\n", (directory / "demo-di.wav").c_str());
    for (int speaker = 0; speaker < 5; ++speaker) {
        for (int position = 0; position < 3; ++position) {
            const std::string name =
                std::string("demo-") + speakerNames[speaker] + "-" + positionNames[position] + ".wav";
            if (!WriteWav(directory / name, Render(guitar, speaker, position), demoRate)) return 1;
            std::printf("%s\n", (directory / name).c_str());
        }
    }
    return 0;
}
