#include "HostCallSequence.h"

#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <set>
#include <stdexcept>
#include <vector>

#include "tarnlow.h"

namespace tarnlow::fuzzing {
namespace {

constexpr int kSlots = 4;
constexpr int32_t kMaxBlock = 8192;
constexpr int kMaxCalls = 256;
constexpr long kMaxSamples = 1L << 18;  // per input, so that one input stays quick
constexpr std::size_t kMaxRooms = 8;    // distinct rates per instance; each builds five models
constexpr int32_t kSpeakerCount = 5;
// Longest silence limit of any band (0.1 s at 192 kHz), plus the one sample that the frame
// may clear at the start of a block that is already silent.
constexpr long kSureSilence = 19200 + 1;
constexpr float kSilenceLevel = 1e-20f;
// Input beyond this counts as hostile like a non-finite sample: the filters may overflow
// single precision on it, which is arithmetic and not a fault.
constexpr float kLargestSaneSample = 1e15f;

const int32_t kRates[] = {44000, 48000, 88000, 96000, 176000, 192000, 44100, 88200,
                          176400, 0,     -1,    22050, 384000, 46050, 184099, 8000};

bool IsSupportedRate(int32_t rate)
{
    for (int32_t r : {44000, 48000, 88000, 96000, 176000, 192000})
        if (rate == r) return true;
    return false;
}

const float kSpecialValues[] = {std::numeric_limits<float>::quiet_NaN(),
                                std::numeric_limits<float>::infinity(),
                                -std::numeric_limits<float>::infinity(),
                                std::numeric_limits<float>::max(),
                                -std::numeric_limits<float>::max(),
                                3.0e38f,
                                1e20f,
                                -1e20f,
                                std::numeric_limits<float>::denorm_min(),
                                std::numeric_limits<float>::min() / 4.0f,
                                -0.0f,
                                0.0f,
                                0.49999997f,
                                0.5f,
                                1.0f,
                                2.0f,
                                4.4999995f,
                                4.5f,
                                -0.5f,
                                -0.50000006f,
                                1.125f,
                                -0.125f,
                                0.33f,
                                0.66f};

class ByteReader {
public:
    ByteReader(const uint8_t* data, std::size_t size) : data(data), size(size) {}
    bool Exhausted() const { return position >= size; }
    uint8_t Byte() { return position < size ? data[position++] : 0; }
    uint16_t Word16() { return uint16_t(Byte() | (Byte() << 8)); }
    uint32_t Word32() { return uint32_t(Word16()) | (uint32_t(Word16()) << 16); }
    float RawFloat()
    {
        const uint32_t bits = Word32();
        float value;
        std::memcpy(&value, &bits, sizeof value);
        return value;
    }
    // The bytes not yet read, for raw sample data; empty once exhausted.
    const uint8_t* Rest() const { return data + position; }
    std::size_t RestSize() const { return position < size ? size - position : 0; }
    void Skip(std::size_t n) { position = std::min(size, position + n); }

private:
    const uint8_t* data;
    std::size_t size;
    std::size_t position = 0;
};

// What the harness knows of one instance without looking behind the handle.
struct InstanceModel {
    void* handle = nullptr;
    int32_t rate = 44100;
    float switchValue = 0.0f;           // `Amp Switch` value of the current room
    std::set<int32_t> rooms{44100};     // rates that have a room
    std::set<int32_t> poisonedRooms;    // rooms fed a hostile sample since their last ResetA
    long silentRun = 0;                 // silent output samples since the last control event
};

// The amp index that the room derives from an `Amp Switch` value with five amps, or -1
// when it names none.
int32_t AmpIndexForSwitch(float value)
{
    const double index = std::floor(double(kSpeakerCount - 1) * double(value) + 0.5);
    if (!(index >= 0.0 && index < double(kSpeakerCount))) return -1;
    return int32_t(index);
}

class Runner {
public:
    Runner(const uint8_t* data, std::size_t size) : input(data, size) {}

    HostCallOutcome Run()
    {
        while (!input.Exhausted() && outcome.passed && outcome.calls < kMaxCalls) Step();
        for (InstanceModel& instance : instances)
            if (instance.handle != nullptr) DestroyInstanceU(instance.handle);
        return outcome;
    }

private:
    void Fail(const std::string& what)
    {
        if (!outcome.passed) return;
        outcome.passed = false;
        outcome.failure = "call " + std::to_string(outcome.calls) + ": " + what;
    }

    InstanceModel* Pick()
    {
        InstanceModel& slot = instances[input.Byte() % kSlots];
        if (slot.handle == nullptr) Create(slot);
        return slot.handle != nullptr ? &slot : nullptr;
    }

    void Create(InstanceModel& slot)
    {
        ++outcome.calls;
        slot = InstanceModel{};
        slot.handle = CreateInstanceU();
        if (slot.handle == nullptr) Fail("CreateInstanceU gave no handle");
    }

    float Value()
    {
        const uint8_t kind = input.Byte();
        if (kind < 96) return kSpecialValues[kind % std::size(kSpecialValues)];
        if (kind < 192) return float(int8_t(input.Byte())) * 0.25f;  // whole and half steps
        return input.RawFloat();
    }

    void Step()
    {
        switch (input.Byte() % 8) {
        case 0: {
            InstanceModel& slot = instances[input.Byte() % kSlots];
            if (slot.handle == nullptr) Create(slot);
            break;
        }
        case 1: Destroy(); break;
        case 2: SampleRate(); break;
        case 3: Reset(); break;
        case 4:
        case 5: Parameter(); break;
        case 6: PlugInfo(); break;
        default: Block(); break;
        }
    }

    void Destroy()
    {
        InstanceModel& slot = instances[input.Byte() % kSlots];
        if (slot.handle == nullptr) return;
        void* stale = slot.handle;
        outcome.calls += 3;
        DestroyInstanceU(stale);
        slot = InstanceModel{};
        // Neither a handle already destroyed nor one never made may do anything; the
        // stale address cannot have been handed out again, since nothing was created since.
        DestroyInstanceU(stale);
        int stranger = 0;
        DestroyInstanceU(&stranger);
    }

    void SampleRate()
    {
        InstanceModel* instance = Pick();
        if (instance == nullptr) return;
        const uint8_t choice = input.Byte();
        const int32_t rate = choice < 224 ? kRates[choice % std::size(kRates)] : int32_t(input.Word32());
        if (instance->rooms.count(rate) == 0 && instance->rooms.size() >= kMaxRooms) return;
        // Moving to another room carries the stored switch value, which throws there if it
        // names no amp.
        const bool throws = rate != instance->rate && AmpIndexForSwitch(instance->switchValue) < 0;
        ++outcome.calls;
        int32_t answer = -1;
        if (!Call([&] { answer = SetSampleRateU(instance->handle, rate); }, throws,
                  "SetSampleRateU(" + std::to_string(rate) + ")"))
            return;
        instance->rooms.insert(rate);
        if (throws) return;  // the current rate stays
        if (answer != (IsSupportedRate(rate) ? 1 : 0))
            Fail("SetSampleRateU(" + std::to_string(rate) + ") answered " + std::to_string(answer));
        instance->rate = rate;
        instance->silentRun = 0;
    }

    void Reset()
    {
        InstanceModel* instance = Pick();
        if (instance == nullptr) return;
        ++outcome.calls;
        Call([&] { ResetA(instance->handle); }, false, "ResetA");
        instance->poisonedRooms.erase(instance->rate);
        instance->silentRun = 0;
    }

    void Parameter()
    {
        InstanceModel* instance = Pick();
        if (instance == nullptr) return;
        const int32_t selector = int32_t(input.Byte() % 5) - 2;
        const float value = Value();
        // Selector 0 sends round-half-up(value) / 4 to the switch, selector -2 the value as
        // it came; the others leave the switch alone. Only a real change reaches the room.
        bool throws = false;
        if (selector == 0 || selector == -2) {
            const float sent = selector == 0 ? float(std::floor(double(value) + 0.5) * 0.25) : value;
            if (!(sent == instance->switchValue)) {
                instance->switchValue = sent;
                throws = AmpIndexForSwitch(sent) < 0;
            }
        }
        ++outcome.calls;
        char text[64];
        std::snprintf(text, sizeof text, "SetParameterA(%d, %a)", selector, double(value));
        Call([&] { SetParameterA(instance->handle, selector, value); }, throws, text);
        instance->silentRun = 0;
    }

    void PlugInfo()
    {
        static constexpr int32_t table[6] = {1, 1, 2, 1, 32767, 0};
        const int32_t selector = int32_t(input.Byte() % 10) - 1;
        const int32_t outSize = input.Byte() % 4 == 0 ? int32_t(input.Byte()) - 8 : 4;
        std::array<int32_t, 4> out{-77, -77, -77, -77};
        ++outcome.calls;
        int32_t answer = -1;
        if (!Call([&] { answer = GetPlugInfoU(selector, out.data(), outSize); }, false, "GetPlugInfoU")) return;
        const bool written = selector >= 1 && selector <= 6 && outSize == 4;
        if (answer != (written ? 1 : 0) || out[0] != (written ? table[selector - 1] : -77) || out[1] != -77)
            Fail("GetPlugInfoU(" + std::to_string(selector) + ", " + std::to_string(outSize) + ") broke its table");
    }

    void FillBlock(std::vector<float>& samples)
    {
        const uint8_t mode = input.Byte();
        const std::size_t count = samples.size();
        uint32_t noise = 0x9E3779B9u ^ input.Word32();
        auto next = [&noise] {
            noise ^= noise << 13;
            noise ^= noise >> 17;
            noise ^= noise << 5;
            return float(int32_t(noise)) * (1.0f / 2147483648.0f);
        };
        switch (mode % 5) {
        case 0: std::fill(samples.begin(), samples.end(), 0.0f); break;
        case 1:
        case 2: {
            static const float levels[] = {1e-42f, 1e-38f, 1e-30f, 1e-10f, 1e-6f, 0.01f, 0.5f, 1.0f, 100.0f, 1e6f};
            const float level = levels[input.Byte() % std::size(levels)];
            for (float& v : samples) v = level * next();
            break;
        }
        case 3: {  // raw bytes of the input as samples, repeated
            const std::size_t available = input.RestSize() / sizeof(float);
            const std::size_t taken = std::min<std::size_t>(available, 64);
            if (taken == 0) {
                std::fill(samples.begin(), samples.end(), 0.0f);
                break;
            }
            for (std::size_t i = 0; i < count; ++i)
                std::memcpy(&samples[i], input.Rest() + (i % taken) * sizeof(float), sizeof(float));
            input.Skip(taken * sizeof(float));
            break;
        }
        default: {  // an impulse, then silence
            std::fill(samples.begin(), samples.end(), 0.0f);
            if (count > 0) samples[input.Byte() % count] = Value();
            break;
        }
        }
        // A few special values at chosen places.
        const int specials = input.Byte() % 4 == 0 ? input.Byte() % 3 : 0;
        for (int s = 0; s < specials && count > 0; ++s)
            samples[input.Word16() % count] = kSpecialValues[input.Byte() % std::size(kSpecialValues)];
    }

    void Block()
    {
        InstanceModel* instance = Pick();
        if (instance == nullptr) return;
        const uint8_t shape = input.Byte();
        int32_t count;
        if (shape % 4 == 0)
            count = 0;
        else if (shape % 4 == 1)
            count = input.Byte() % 33;
        else
            count = int32_t(input.Word16() % (kMaxBlock + 1));
        if (samplesRun + count > kMaxSamples) count = 0;
        samplesRun += count;

        // Exactly the block's size on the heap, so that AddressSanitizer sees any access
        // beyond it; a block of 0 gets one sample that must stay as it was.
        std::vector<float> samples(std::size_t(count > 0 ? count : 1), 0.0f);
        if (count > 0) {
            samples.resize(std::size_t(count));
            FillBlock(samples);
        } else {
            samples[0] = 0.625f;
        }
        bool hostile = false;
        for (int32_t i = 0; i < count; ++i)
            hostile = hostile || !(std::fabs(samples[std::size_t(i)]) <= kLargestSaneSample);
        const bool expectFinite = !hostile && instance->poisonedRooms.count(instance->rate) == 0;

        int32_t flag = -9;
        int32_t result = -1;
        ++outcome.calls;
        if (!Call([&] { result = CalcA(instance->handle, count, samples.data(), nullptr, nullptr, nullptr, nullptr, &flag); },
                  false, "CalcA"))
            return;
        const std::string where = "CalcA(" + std::to_string(count) + ") at " + std::to_string(instance->rate);
        if (result != 0) Fail(where + " returned " + std::to_string(result));
        if (flag != 0 && flag != 1) Fail(where + " wrote out-flag " + std::to_string(flag));
        if (count <= 0 && samples[0] != 0.625f) Fail(where + " wrote into an empty block");
        if (hostile) instance->poisonedRooms.insert(instance->rate);
        if (expectFinite) {
            for (int32_t i = 0; i < count; ++i)
                if (!std::isfinite(samples[std::size_t(i)])) {
                    Fail(where + " gave a non-finite sample at " + std::to_string(i) + " for finite input");
                    return;
                }
        }
        if (count > 0) {
            if (std::fabs(samples[std::size_t(count - 1)]) > kSilenceLevel) {
                instance->silentRun = 0;
                if (flag != 1) Fail(where + " ends sounding but wrote out-flag 0");
                return;
            }
            int32_t trailing = 0;
            while (trailing < count && !(std::fabs(samples[std::size_t(count - 1 - trailing)]) > kSilenceLevel))
                ++trailing;
            instance->silentRun = trailing == count ? instance->silentRun + count : trailing;
        }
        if (instance->silentRun >= kSureSilence && flag != 0)
            Fail(where + " wrote out-flag 1 after " + std::to_string(instance->silentRun) + " silent samples");
    }

    // Runs one export call; true if it behaved as expected about exceptions.
    template <typename F>
    bool Call(F&& call, bool shouldThrow, const std::string& what)
    {
        try {
            call();
        } catch (const std::out_of_range& error) {
            if (!shouldThrow) {
                Fail(what + " threw std::out_of_range: " + error.what());
                return false;
            }
            if (std::strcmp(error.what(), "invalid vector<T> subscript") != 0)
                Fail(what + " threw with the text " + error.what());
            return true;
        } catch (const std::exception& error) {
            Fail(what + " threw " + error.what());
            return false;
        } catch (...) {
            Fail(what + " threw something that is no std::exception");
            return false;
        }
        if (shouldThrow) Fail(what + " did not throw for a switch value that names no amp");
        return true;
    }

    ByteReader input;
    std::array<InstanceModel, kSlots> instances{};
    HostCallOutcome outcome;
    long samplesRun = 0;
};

}  // namespace

HostCallOutcome RunHostCalls(const uint8_t* data, std::size_t size)
{
    return Runner(data, size).Run();
}

}  // namespace tarnlow::fuzzing
