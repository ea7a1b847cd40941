#include "BlendedCabinet.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <numbers>

#include "tarnlow.h"

namespace tarnlow::lv2 {
namespace {

enum Selector : int32_t { speakerSelector = 0, microphoneSelector = 1, positionSelector = 2 };

constexpr double crossfadeSeconds = 0.020;
constexpr double smoothingSeconds = 0.010;
// Long enough for the room positions' tails at every band.
constexpr double measureSeconds = 0.25;
// Below this the smoothed value jumps to its target, so it never lingers among denormals.
constexpr float snapDistance = 1e-6f;

// One step of a one-pole glide. Near the target a step can fall below the value's last bit
// and the glide would stop short for good; it jumps to the target instead.
inline float Glide(float value, float target, float coefficient)
{
    const float next = value + (target - value) * coefficient;
    return next == value || std::fabs(target - next) < snapDistance ? target : next;
}

int32_t Choice(float value, int32_t count, int32_t fallback)
{
    if (std::isnan(value)) return fallback;
    const float rounded = std::floor(value + 0.5f);
    return int32_t(std::clamp(rounded, 0.0f, float(count - 1)));
}

float Clamped(float value, float low, float high, float fallback)
{
    if (std::isnan(value)) return fallback;
    return std::clamp(value, low, high);
}

float GainFromDb(float levelDb)
{
    return std::pow(10.0f, Clamped(levelDb, minLevelDb, maxLevelDb, 0.0f) / 20.0f);
}

int ModelIndex(int32_t speaker, int32_t microphone, int32_t position)
{
    return (speaker * microphoneCount + microphone) * positionCount + position;
}

void SetModel(void* instance, int32_t speaker, int32_t microphone, int32_t position)
{
    SetParameterA(instance, speakerSelector, float(speaker));
    SetParameterA(instance, microphoneSelector, float(microphone));
    SetParameterA(instance, positionSelector, float(position));
}

}  // namespace

CabinetSettings SettingsFrom(const ControlValues& values)
{
    const ControlValues defaults;
    CabinetSettings settings;
    settings.speaker = Choice(values.speaker, speakerCount, int32_t(defaults.speaker));
    settings.microphone = Choice(values.microphone, microphoneCount, int32_t(defaults.microphone));
    settings.position = Choice(values.position, positionCount, int32_t(defaults.position));
    settings.secondInUse = Clamped(values.blend, 0.0f, 1.0f, defaults.blend) > 0.0f;
    if (settings.secondInUse) {
        settings.microphone2 = Choice(values.microphone2, microphoneCount, int32_t(defaults.microphone2));
        settings.position2 = Choice(values.position2, positionCount, int32_t(defaults.position2));
    }
    return settings;
}

BlendedCabinet::BlendedCabinet(int32_t sampleRate) : scratch(4 * chunkSize, 0.0f)
{
    try {
        for (Pair& pair : pairs) {
            for (void*& instance : pair.instances) {
                instance = CreateInstanceU();
                if (instance == nullptr) throw std::bad_alloc();
                SetSampleRateU(instance, sampleRate);
            }
        }
        MeasureModels(sampleRate);
    } catch (...) {
        for (Pair& pair : pairs)
            for (void* instance : pair.instances) DestroyInstanceU(instance);
        throw;
    }
    for (Pair& pair : pairs) Configure(pair, CabinetSettings{}, true);

    const auto fadeLength = uint32_t(std::max(1.0, std::round(crossfadeSeconds * sampleRate)));
    fadeCurve.resize(fadeLength);
    for (uint32_t i = 0; i < fadeLength; ++i) {
        const double rise = std::sin(0.5 * std::numbers::pi * double(i + 1) / double(fadeLength));
        fadeCurve[i] = float(rise * rise);
    }
    fadeCurve.back() = 1.0f;
    smoothing = float(1.0 - std::exp(-1.0 / (smoothingSeconds * std::max(1, sampleRate))));
}

BlendedCabinet::~BlendedCabinet()
{
    for (Pair& pair : pairs)
        for (void* instance : pair.instances) DestroyInstanceU(instance);
}

// The power of each model's impulse response, which is its output power for white noise.
void BlendedCabinet::MeasureModels(int32_t sampleRate)
{
    void* probe = pairs[1].instances[0];
    std::vector<float> response(std::size_t(std::max(1.0, measureSeconds * std::max(1, sampleRate))));
    int32_t sounding = 0;
    for (int32_t speaker = 0; speaker < speakerCount; ++speaker) {
        for (int32_t microphone = 0; microphone < microphoneCount; ++microphone) {
            for (int32_t position = 0; position < positionCount; ++position) {
                SetModel(probe, speaker, microphone, position);
                ResetA(probe);
                std::fill(response.begin(), response.end(), 0.0f);
                response[0] = 1.0f;
                CalcA(probe, int32_t(response.size()), response.data(), nullptr, nullptr, nullptr, nullptr, &sounding);
                double power = 0.0;
                for (const float sample : response) power += double(sample) * double(sample);
                modelPower[std::size_t(ModelIndex(speaker, microphone, position))] = float(power);
            }
        }
    }
}

float BlendedCabinet::MatchingGain(const CabinetSettings& settings) const
{
    const float first = modelPower[std::size_t(ModelIndex(settings.speaker, settings.microphone, settings.position))];
    const float second =
        modelPower[std::size_t(ModelIndex(settings.speaker, settings.microphone2, settings.position2))];
    if (!(first > 0.0f) || !(second > 0.0f)) return 1.0f;
    return std::sqrt(first / second);
}

void BlendedCabinet::Configure(Pair& pair, const CabinetSettings& settings, bool reset)
{
    SetModel(pair.instances[0], settings.speaker, settings.microphone, settings.position);
    if (reset) ResetA(pair.instances[0]);
    if (settings.secondInUse) {
        SetModel(pair.instances[1], settings.speaker, settings.microphone2, settings.position2);
        if (reset) ResetA(pair.instances[1]);
    }
    pair.settings = settings;
    pair.secondGain = MatchingGain(settings);
}

void BlendedCabinet::Restart()
{
    // The pair that is not playing may be in the worker's hands; it is reset when prepared.
    for (void* instance : pairs[activePair].instances) ResetA(instance);
    fading = false;
    soundedSinceRestart = false;
}

BlendedCabinet::Step BlendedCabinet::Plan(const CabinetSettings& wanted) const
{
    if (preparing || fading || wanted == pairs[activePair].settings) return Step::Nothing;
    return soundedSinceRestart ? Step::Prepare : Step::ApplyNow;
}

void BlendedCabinet::ApplyImmediately(const CabinetSettings& wanted)
{
    // Both instances of the active pair are clean: Restart reset them, and nothing has
    // sounded since.
    Configure(pairs[activePair], wanted, false);
}

PrepareJob BlendedCabinet::BeginPreparing(const CabinetSettings& wanted)
{
    preparing = true;
    const int32_t standby = 1 - activePair;
    // The job itself travels through the host's queue, which orders this store before
    // the worker sees the job.
    preparedPair.store(-1, std::memory_order_relaxed);
    return PrepareJob{wanted, standby};
}

void BlendedCabinet::CancelPreparing()
{
    preparing = false;
}

void BlendedCabinet::PrepareStandby(const PrepareJob& job)
{
    if (job.pair < 0 || job.pair > 1) return;
    Configure(pairs[std::size_t(job.pair)], job.settings, true);
    preparedPair.store(job.pair, std::memory_order_release);
}

void BlendedCabinet::AdoptStandby(int32_t pair)
{
    if (!preparing || pair != 1 - activePair || preparedPair.load(std::memory_order_acquire) != pair) return;
    preparing = false;
    activePair = pair;
    fading = true;
    fadePosition = 0;
}

void BlendedCabinet::RunPair(Pair& pair, const float* in, uint32_t count, float* first, float* second)
{
    int32_t sounding = 0;
    std::copy(in, in + count, first);
    CalcA(pair.instances[0], int32_t(count), first, nullptr, nullptr, nullptr, nullptr, &sounding);
    if (pair.settings.secondInUse) {
        std::copy(in, in + count, second);
        CalcA(pair.instances[1], int32_t(count), second, nullptr, nullptr, nullptr, nullptr, &sounding);
    }
}

void BlendedCabinet::Process(const float* in, float* out, uint32_t count, float blend, float levelDb)
{
    const float levelTarget = GainFromDb(levelDb);
    const float blendTarget = Clamped(blend, 0.0f, 1.0f, 0.0f);
    if (!soundedSinceRestart) {
        level = levelTarget;
        blendNow = blendTarget;
        soundedSinceRestart = true;
    }

    float* const newFirst = scratch.data();
    float* const newSecond = newFirst + chunkSize;
    float* const oldFirst = newSecond + chunkSize;
    float* const oldSecond = oldFirst + chunkSize;

    float levelNow = level;
    float blendValue = blendNow;
    uint32_t position = fadePosition;
    const float coefficient = smoothing;

    for (uint32_t done = 0; done < count;) {
        const uint32_t chunk = std::min(chunkSize, count - done);
        Pair& playing = pairs[std::size_t(activePair)];
        const bool crossfading = fading;
        // Both pairs read the input before anything is written, as `out` may alias `in`.
        RunPair(playing, in + done, chunk, newFirst, newSecond);
        const bool playingBlends = playing.settings.secondInUse;
        const float playingGain = playing.secondGain;
        // The pair that is not playing belongs to the worker unless it is fading out.
        bool leavingBlends = false;
        float leavingGain = 1.0f;
        if (crossfading) {
            Pair& leaving = pairs[std::size_t(1 - activePair)];
            RunPair(leaving, in + done, chunk, oldFirst, oldSecond);
            leavingBlends = leaving.settings.secondInUse;
            leavingGain = leaving.secondGain;
        }
        const float* const curve = fadeCurve.data();
        const uint32_t fadeLength = uint32_t(fadeCurve.size());
        float* const target = out + done;
        for (uint32_t i = 0; i < chunk; ++i) {
            levelNow = Glide(levelNow, levelTarget, coefficient);
            blendValue = Glide(blendValue, blendTarget, coefficient);

            float mix = newFirst[i];
            if (playingBlends) mix += blendValue * (playingGain * newSecond[i] - newFirst[i]);
            if (crossfading && position < fadeLength) {
                float before = oldFirst[i];
                if (leavingBlends) before += blendValue * (leavingGain * oldSecond[i] - oldFirst[i]);
                // Written so that the last step, at exactly 1, leaves the new pair alone.
                const float rise = curve[position++];
                mix = rise * mix + (1.0f - rise) * before;
            }
            target[i] = levelNow * mix;
        }
        if (crossfading && position >= fadeLength) fading = false;
        done += chunk;
    }

    level = levelNow;
    blendNow = blendValue;
    fadePosition = position;
}

}  // namespace tarnlow::lv2
