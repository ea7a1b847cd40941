#pragma once

// The signal side of the LV2 plug-in, free of LV2 itself: one cabinet heard through one or
// two microphones, each a library instance, with click-free changes of model.
//
// Every change of a control restarts a library model from clean state, so a plain change
// would click. Two pairs of instances take turns instead: the pair not playing is set to
// the new model and reset (on a worker thread where the host has one), then the output
// crossfades to it over 20 ms. Both microphones of a pair run the same speaker with zero
// latency, so they blend without comb filtering.
//
// Threads: Process, Plan, BeginPreparing, CancelPreparing, ApplyImmediately and AdoptStandby
// run on the audio thread; PrepareStandby runs on the worker thread, or on the audio thread
// when the host has no worker. The constructor, destructor and Restart are set-up calls.

#include <array>
#include <atomic>
#include <cstdint>
#include <vector>

namespace tarnlow::lv2 {

inline constexpr int speakerCount = 5;
inline constexpr int microphoneCount = 2;
inline constexpr int positionCount = 3;

// What the pair that plays holds. The second microphone's fields are 0 while it is unused,
// so moving its controls with the blend at 0 changes nothing.
struct CabinetSettings {
    int32_t speaker = 2;
    int32_t microphone = 0;
    int32_t position = 0;
    int32_t microphone2 = 0;
    int32_t position2 = 0;
    bool secondInUse = false;

    friend bool operator==(const CabinetSettings&, const CabinetSettings&) = default;
};

// The raw values of the plug-in's control ports; hosts may send anything, NaN included.
struct ControlValues {
    float speaker = 2.0f;
    float microphone = 0.0f;
    float position = 0.0f;
    float microphone2 = 1.0f;
    float position2 = 0.0f;
    float blend = 0.0f;
    float levelDb = 0.0f;
};

inline constexpr float minLevelDb = -24.0f;
inline constexpr float maxLevelDb = 12.0f;

// Rounds and clamps every choice into range; a NaN takes the control's default.
CabinetSettings SettingsFrom(const ControlValues& values);

// A request to the worker: make pair `pair` play `settings`. Plain data, copied by the host.
struct PrepareJob {
    CabinetSettings settings;
    int32_t pair = 0;
};

class BlendedCabinet {
public:
    explicit BlendedCabinet(int32_t sampleRate);
    ~BlendedCabinet();
    BlendedCabinet(const BlendedCabinet&) = delete;
    BlendedCabinet& operator=(const BlendedCabinet&) = delete;

    // Set-up: a new stream starts from clean state and without ramps.
    void Restart();

    enum class Step {
        Nothing,       // `wanted` plays already, or a change is under way
        ApplyNow,      // nothing has sounded since Restart: ApplyImmediately, no crossfade
        Prepare        // BeginPreparing, PrepareStandby (worker), then AdoptStandby
    };
    Step Plan(const CabinetSettings& wanted) const;

    void ApplyImmediately(const CabinetSettings& wanted);
    PrepareJob BeginPreparing(const CabinetSettings& wanted);
    // The worker refused the job: the next Plan asks again.
    void CancelPreparing();
    // Touches only the instances of `job.pair`, which do not play until AdoptStandby.
    void PrepareStandby(const PrepareJob& job);
    // Starts the crossfade to the pair that PrepareStandby set up.
    void AdoptStandby(int32_t pair);

    // `in` and `out` may be the same buffer.
    void Process(const float* in, float* out, uint32_t count, float blend, float levelDb);

    const CabinetSettings& Playing() const { return pairs[activePair].settings; }
    bool ChangeUnderWay() const { return preparing || fading; }
    uint32_t CrossfadeLength() const { return uint32_t(fadeCurve.size()); }
    // The gain that brings the second microphone to the loudness of the first.
    float SecondMicrophoneGain() const { return pairs[activePair].secondGain; }

private:
    struct Pair {
        std::array<void*, 2> instances{};  // first and second microphone
        CabinetSettings settings;
        float secondGain = 1.0f;
    };

    static constexpr uint32_t chunkSize = 256;

    void Configure(Pair& pair, const CabinetSettings& settings, bool reset);
    float MatchingGain(const CabinetSettings& settings) const;
    void MeasureModels(int32_t sampleRate);
    // Runs the microphones of `pair` on `count` samples of `in` into `first` and `second`.
    void RunPair(Pair& pair, const float* in, uint32_t count, float* first, float* second);

    std::array<Pair, 2> pairs;
    int32_t activePair = 0;

    // White-noise power of each model at this rate, for the level match.
    std::array<float, speakerCount * microphoneCount * positionCount> modelPower{};

    // The crossfade curve, sin^2 rising to exactly 1: the two pairs hear the same input,
    // so their gains sum to 1 rather than their powers.
    std::vector<float> fadeCurve;
    uint32_t fadePosition = 0;
    bool fading = false;
    bool preparing = false;
    bool soundedSinceRestart = false;

    // Written by PrepareStandby (worker) with release once the pair is ready; read with
    // acquire by AdoptStandby (audio thread), so the pair's settings, gain and library
    // state are complete when it starts to play, whatever ordering the host's queue gives.
    std::atomic<int32_t> preparedPair{-1};

    float smoothing = 0.0f;  // one-pole coefficient per sample, 10 ms
    float level = 1.0f;
    float blendNow = 0.0f;

    std::vector<float> scratch;  // four chunks: new pair's two microphones, old pair's two
};

}  // namespace tarnlow::lv2
