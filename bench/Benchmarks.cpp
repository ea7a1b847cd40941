// Costs of the library and of what a user would pick instead, all in one binary so that one
// run on one machine gives every figure side by side.
//
//   CalcA/<speaker>/<band>/<block>     the library through its C interface; .../afterAllBands
//                                       for an instance that visited every band first
//   Network/<form>/4x12/<band>          the model alone in blocks of 64: wavefront or plain
//   Convolution/4x12/<band>             the same response, partitioned in 64, calling thread
//   PeakRate/<scalar|sse|avx2>          independent multiply and add chains on this core
//   Setup/...                           create, first and later rate changes, reset, switch
//   Memory/InstanceAfterAllBands        bytes held by one instance that visited every band

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <zita-convolver.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "engine/FlushToZero.h"
#include "models/SpeakerModels.h"
#include "tarnlow.h"

namespace tarnlow::bench {
namespace {

constexpr int32_t rates[bandCount] = {44100, 48000, 88200, 96000, 176400, 192000};
constexpr const char* speakerNames[speakerCount] = {"1x12", "2x12", "4x12", "4x10", "4x10Bass"};
constexpr const char* bandNames[bandCount] = {"44", "48", "88", "96", "176", "192"};
constexpr int32_t blockLengths[] = {1, 16, 64, 256, 4096};

std::vector<float> Noise(std::size_t length)
{
    std::mt19937 generator(1);
    std::uniform_real_distribution<float> uniform(-0.5f, 0.5f);
    std::vector<float> samples(length);
    for (float& sample : samples) sample = uniform(generator);
    return samples;
}

// ns/sample and real-time factor (seconds of audio per second of processor time).
void SetSampleCounters(benchmark::State& state, int64_t samples, double rate)
{
    state.counters["ns/sample"] = benchmark::Counter(double(samples) * 1e-9,
                                                     benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["realtime"] = benchmark::Counter(double(samples) / rate, benchmark::Counter::kIsRate);
}

// --- The library as a host calls it ------------------------------------------------------

// visitedAll: the instance went through every band before it settled in this one, so that
// the cost can be compared with one that only ever knew one band.
void HostBlocks(benchmark::State& state, int32_t speaker, int32_t band, int32_t block, bool visitedAll)
{
    void* instance = CreateInstanceU();
    if (visitedAll) {
        for (const int32_t rate : rates) SetSampleRateU(instance, rate);
    }
    SetSampleRateU(instance, rates[band]);
    SetParameterA(instance, 0, float(speaker));
    const std::vector<float> noise = Noise(1 << 16);
    std::vector<float> buffer(static_cast<std::size_t>(block));
    std::size_t at = 0;
    int32_t flag = 0;
    int64_t samples = 0;
    for (auto _ : state) {
        if (at + std::size_t(block) > noise.size()) at = 0;
        std::memcpy(buffer.data(), noise.data() + at, sizeof(float) * std::size_t(block));
        at += std::size_t(block);
        ::CalcA(instance, block, buffer.data(), nullptr, nullptr, nullptr, nullptr, &flag);
        benchmark::DoNotOptimize(buffer.data());
        samples += block;
    }
    SetSampleCounters(state, samples, rates[band]);
    DestroyInstanceU(instance);
}

// --- The model alone: the wavefront and the plain form, as the frame drives them ---------

template <class Model>
void Network(benchmark::State& state, bool plain)
{
    const FlushToZeroScope flushToZero;
    Model model;
    model.Initialise();
    model.Update(true, 0, 0);
    const std::vector<float> noise = Noise(1 << 16);
    constexpr int32_t block = 64;
    float buffer[block];
    std::size_t at = 0;
    int64_t samples = 0;
    for (auto _ : state) {
        if (at + block > noise.size()) at = 0;
        std::memcpy(buffer, noise.data() + at, sizeof buffer);
        at += block;
        if (plain) {
            for (int32_t offset = 0; offset < block; offset += controlPeriod) {
                float* chunk = buffer + offset;
                model.ProcessPlain(&chunk, &chunk, controlPeriod);
                model.Update(false, 0, 0);
            }
        } else {
            model.ProcessPieces(buffer, buffer, block, 0, 0);
        }
        benchmark::DoNotOptimize(buffer);
        samples += block;
    }
    SetSampleCounters(state, samples, Model::ModelDescriptorType::sampleRate);
}

// Floating-point operations per sample of a model at chain 0, counted from its plan.
template <class Descriptor>
double FlopsPerSample()
{
    constexpr double secondOrder = 11, reduced = 9, firstOrder = 6;
    const ChainLayout& chain = Descriptor::chains[0];
    double flops = Descriptor::preSectionCount * secondOrder + 1;  // pre-sections, position gain
    for (int32_t stage = 0; stage < chain.stageCount; ++stage) {
        switch (chain.stages[stage].kind) {
        case StageKind::firstOrder: flops += 2 * firstOrder; break;
        case StageKind::secondOrder: flops += 2 * secondOrder; break;
        case StageKind::reduced: flops += reduced + secondOrder; break;
        case StageKind::tapOnly: flops += firstOrder; break;
        }
        flops += 1;  // the tap's sum
    }
    flops += chain.finalKind == FinalTapKind::secondOrder ? secondOrder : reduced;
    flops += allPassLineCount * 4 + secondOrder + 4;  // lines, ambience section, final gains
    return flops;
}

// --- Anchor: the same response through a uniformly partitioned convolution ---------------

template <class Model>
std::vector<float> ResponseCutAtSixtyDecibels()
{
    const FlushToZeroScope flushToZero;
    Model model;
    model.Initialise();
    model.Update(true, 0, 0);
    std::vector<float> response(std::size_t(Model::ModelDescriptorType::sampleRate) * 4, 0.0f);
    response[0] = 1.0f;
    for (std::size_t at = 0; at < response.size(); at += controlPeriod) {
        float* chunk = response.data() + at;
        model.ProcessPlain(&chunk, &chunk, controlPeriod);
        model.Update(false, 0, 0);
    }
    double total = 0.0;
    for (float sample : response) total += double(sample) * sample;
    double remaining = total;
    std::size_t cut = 0;
    while (cut < response.size() && remaining > total * 1e-6) {
        remaining -= double(response[cut]) * response[cut];
        ++cut;
    }
    response.resize(cut);
    return response;
}

template <class Model>
void Convolution(benchmark::State& state)
{
    std::vector<float> response = ResponseCutAtSixtyDecibels<Model>();
    constexpr uint32_t partition = 64;
    Convproc convolver;
    convolver.configure(1, 1, uint32_t(response.size()), partition, partition, partition, 0.0f);
    convolver.impdata_create(0, 0, 1, response.data(), 0, int32_t(response.size()));
    convolver.start_process(0, 0);  // one level of partitions: no thread, all in process()
    const std::vector<float> noise = Noise(1 << 16);
    std::size_t at = 0;
    int64_t samples = 0;
    for (auto _ : state) {
        if (at + partition > noise.size()) at = 0;
        std::memcpy(convolver.inpdata(0), noise.data() + at, sizeof(float) * partition);
        at += partition;
        convolver.process(false);
        benchmark::DoNotOptimize(convolver.outdata(0));
        samples += partition;
    }
    convolver.stop_process();
    convolver.cleanup();
    SetSampleCounters(state, samples, Model::ModelDescriptorType::sampleRate);
    state.counters["response"] = double(response.size());
}

// --- Anchor: the arithmetic bound ----------------------------------------------------------

using Lanes = float __attribute__((vector_size(16)));

// Twelve independent chains of a multiply and an add, so that latency never limits. The
// scalar form is kept from being turned into vector code by the compiler.
// Always inlined, so that the eight-lane caller compiles it with its own instructions.
template <class Value>
[[gnu::always_inline]] inline int64_t RunChainsOfMultiplyAdd(benchmark::State& state)
{
    Value a0 = Value{} + 0.1f, a1 = Value{} + 0.2f, a2 = Value{} + 0.3f, a3 = Value{} + 0.4f;
    Value a4 = Value{} + 0.5f, a5 = Value{} + 0.6f, a6 = Value{} + 0.7f, a7 = Value{} + 0.8f;
    Value a8 = Value{} + 0.9f, a9 = Value{} + 1.0f, a10 = Value{} + 1.1f, a11 = Value{} + 1.2f;
    Value scale = Value{} + 0.999f;
    Value offset = Value{} + 1e-4f;
    benchmark::DoNotOptimize(scale);
    benchmark::DoNotOptimize(offset);
    int64_t flops = 0;
    for (auto _ : state) {
        for (int32_t repeat = 0; repeat < 256; ++repeat) {
            a0 = a0 * scale + offset; a1 = a1 * scale + offset; a2 = a2 * scale + offset;
            a3 = a3 * scale + offset; a4 = a4 * scale + offset; a5 = a5 * scale + offset;
            a6 = a6 * scale + offset; a7 = a7 * scale + offset; a8 = a8 * scale + offset;
            a9 = a9 * scale + offset; a10 = a10 * scale + offset; a11 = a11 * scale + offset;
        }
        flops += 256 * 12 * 2 * int64_t(sizeof(Value) / sizeof(float));
    }
    Value sum = ((a0 + a1) + (a2 + a3)) + ((a4 + a5) + (a6 + a7)) + ((a8 + a9) + (a10 + a11));
    benchmark::DoNotOptimize(sum);
    return flops;
}

__attribute__((optimize("no-tree-vectorize", "no-tree-slp-vectorize"))) void PeakRateScalar(benchmark::State& state)
{
    const int64_t flops = RunChainsOfMultiplyAdd<float>(state);
    state.counters["Gflop/s"] = benchmark::Counter(double(flops) * 1e-9, benchmark::Counter::kIsRate);
}

void PeakRateSse(benchmark::State& state)
{
    const int64_t flops = RunChainsOfMultiplyAdd<Lanes>(state);
    state.counters["Gflop/s"] = benchmark::Counter(double(flops) * 1e-9, benchmark::Counter::kIsRate);
}

// The eight-lane instructions the network uses where the processor has them.
using WideLanes = float __attribute__((vector_size(32)));

[[gnu::target("avx2")]] void PeakRateAvx2(benchmark::State& state)
{
    if (!__builtin_cpu_supports("avx2")) {
        state.SkipWithError("no eight-lane instructions on this processor");
        return;
    }
    const int64_t flops = RunChainsOfMultiplyAdd<WideLanes>(state);
    state.counters["Gflop/s"] = benchmark::Counter(double(flops) * 1e-9, benchmark::Counter::kIsRate);
}

void FlopCount(benchmark::State& state, double flops)
{
    for (auto _ : state) benchmark::DoNotOptimize(flops);
    state.counters["flops/sample"] = flops;
}

// --- Set-up ------------------------------------------------------------------------------

void CreateInstance(benchmark::State& state)
{
    for (auto _ : state) {
        void* instance = CreateInstanceU();
        state.PauseTiming();
        DestroyInstanceU(instance);
        state.ResumeTiming();
    }
}

void FirstSampleRate(benchmark::State& state, int32_t band)
{
    for (auto _ : state) {
        state.PauseTiming();
        void* instance = CreateInstanceU();
        state.ResumeTiming();
        SetSampleRateU(instance, rates[band]);
        state.PauseTiming();
        DestroyInstanceU(instance);
        state.ResumeTiming();
    }
}

void ReturnToBuiltBand(benchmark::State& state)
{
    void* instance = CreateInstanceU();
    SetSampleRateU(instance, 192000);
    int32_t toggle = 0;
    for (auto _ : state) {
        SetSampleRateU(instance, toggle ? 192000 : 44100);
        toggle ^= 1;
    }
    DestroyInstanceU(instance);
}

void ResetTime(benchmark::State& state)
{
    void* instance = CreateInstanceU();
    SetSampleRateU(instance, 192000);
    SetParameterA(instance, 0, 2.0f);
    float buffer[64] = {};
    int32_t flag = 0;
    for (auto _ : state) {
        ResetA(instance);
        state.PauseTiming();
        ::CalcA(instance, 64, buffer, nullptr, nullptr, nullptr, nullptr, &flag);  // takes the fresh state
        state.ResumeTiming();
    }
    DestroyInstanceU(instance);
}

void SpeakerSwitch(benchmark::State& state)
{
    void* instance = CreateInstanceU();
    SetSampleRateU(instance, 192000);
    float buffer[64] = {};
    int32_t flag = 0;
    int32_t speaker = 0;
    for (auto _ : state) {
        speaker = (speaker + 1) % speakerCount;
        SetParameterA(instance, 0, float(speaker));
        state.PauseTiming();
        ::CalcA(instance, 64, buffer, nullptr, nullptr, nullptr, nullptr, &flag);
        state.ResumeTiming();
    }
    DestroyInstanceU(instance);
}

void InstanceMemory(benchmark::State& state, bool allBands)
{
    std::size_t held = 0;
    for (auto _ : state) {
        const std::size_t before = mallinfo2().uordblks;
        void* instance = CreateInstanceU();
        if (allBands) {
            for (int32_t rate : rates) SetSampleRateU(instance, rate);
        }
        held = mallinfo2().uordblks - before;
        DestroyInstanceU(instance);
    }
    state.counters["bytes"] = double(held);
}

template <class Model>
void RegisterModel(const char* band)
{
    const std::string suffix = std::string("/4x12/") + band;
    benchmark::RegisterBenchmark(("Network/wavefront" + suffix).c_str(), Network<Model>, false);
    benchmark::RegisterBenchmark(("Network/plain" + suffix).c_str(), Network<Model>, true);
    benchmark::RegisterBenchmark(("Convolution" + suffix).c_str(), Convolution<Model>);
    benchmark::RegisterBenchmark(("FlopCount" + suffix).c_str(), FlopCount,
                                 FlopsPerSample<typename Model::ModelDescriptorType>());
}

void RegisterAll()
{
    for (int32_t speaker = 0; speaker < speakerCount; ++speaker) {
        for (int32_t band = 0; band < bandCount; ++band) {
            for (int32_t block : blockLengths) {
                const std::string name = std::string("CalcA/") + speakerNames[speaker] + "/" + bandNames[band] +
                                         "/" + std::to_string(block);
                benchmark::RegisterBenchmark(name.c_str(), HostBlocks, speaker, band, block, false);
            }
        }
    }
    for (int32_t band = 0; band < bandCount; ++band) {
        const std::string name = std::string("CalcA/4x12/") + bandNames[band] + "/64/afterAllBands";
        benchmark::RegisterBenchmark(name.c_str(), HostBlocks, 2, band, 64, true);
    }
    RegisterModel<CQuorvexAmp_4x12n44a>("44");
    RegisterModel<CQuorvexAmp_4x12n48a>("48");
    RegisterModel<CQuorvexAmp_4x12n88a>("88");
    RegisterModel<CQuorvexAmp_4x12n96a>("96");
    RegisterModel<CQuorvexAmp_4x12n176a>("176");
    RegisterModel<CQuorvexAmp_4x12n192a>("192");
    benchmark::RegisterBenchmark("PeakRate/scalar", PeakRateScalar);
    benchmark::RegisterBenchmark("PeakRate/sse", PeakRateSse);
    benchmark::RegisterBenchmark("PeakRate/avx2", PeakRateAvx2);
    benchmark::RegisterBenchmark("Setup/CreateInstanceU", CreateInstance)->Unit(benchmark::kMicrosecond);
    for (int32_t band = 0; band < bandCount; ++band) {
        benchmark::RegisterBenchmark((std::string("Setup/FirstSetSampleRateU/") + bandNames[band]).c_str(),
                                     FirstSampleRate, band)
            ->Unit(benchmark::kMicrosecond);
    }
    benchmark::RegisterBenchmark("Setup/ReturnToBuiltBand", ReturnToBuiltBand)->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("Setup/ResetA", ResetTime)->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("Setup/SpeakerSwitch", SpeakerSwitch)->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("Memory/InstanceNew", InstanceMemory, false)->Iterations(1);
    benchmark::RegisterBenchmark("Memory/InstanceAfterAllBands", InstanceMemory, true)->Iterations(1);
}

}  // namespace
}  // namespace tarnlow::bench

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    tarnlow::bench::RegisterAll();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
