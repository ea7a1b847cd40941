// tarnlow_soak: long runs through every cabinet, as a host would drive them.
//
//   tarnlow_soak [audio-seconds-per-cabinet = 600] [rate = 192000]
//
// For each of the five cabinets: one instance at the rate, audio in blocks of 2.5 ms on
// the main thread, and a control thread that changes a control (microphone type, position,
// both through a negative selector, or ResetA, in turn) once in every 10 ms of audio. The
// two threads are kept within one 10 ms step of each other, so the changes land at their
// places in the sound. The input is a sine sweep from 60 Hz to 6 kHz with noise 30 dB down,
// at about -12 dBFS, silent one second in seven. Checked: every output sample finite, the
// out-flag 0 or 1, every control change made, and resident memory after the warm-up (the
// first cabinet's first 10 s) growing by at most 1 MiB. Prints one row per cabinet and the
// memory figures; exits 1 if a check fails.

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <thread>
#include <vector>

#include "tarnlow.h"

namespace {

long ResidentKiB()
{
    long pages = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

}  // namespace

int main(int argc, char** argv)
{
    const double secondsPerCabinet = argc > 1 ? std::atof(argv[1]) : 600.0;
    const int32_t rate = argc > 2 ? std::atoi(argv[2]) : 192000;
    if (secondsPerCabinet <= 0.0 || rate <= 0) {
        std::fprintf(stderr, "usage: tarnlow_soak [audio-seconds-per-cabinet] [rate]\n");
        return 2;
    }
    const int32_t blockLength = rate / 400;  // 2.5 ms
    const int64_t controlStep = rate / 100;  // 10 ms
    const int64_t totalSamples = int64_t(secondsPerCabinet * rate);
    const char* const cabinetNames[] = {"1x12", "2x12", "4x12", "4x10", "4x10Bass"};
    std::printf(
        "soak: %.0f s of audio per cabinet at %d Hz, blocks of %d, a control change every %lld samples\n",
        secondsPerCabinet, rate, blockLength, static_cast<long long>(controlStep));
    std::printf(
        "| cabinet | audio s | wall s | x real time | control changes | non-finite | bad flags | silent "
        "blocks | peak |\n");
    std::printf("|---|---|---|---|---|---|---|---|---|\n");

    long residentAfterWarmUp = -1, residentHighest = 0;
    bool failed = false;
    std::vector<float> block(static_cast<std::size_t>(blockLength));
    for (int32_t cabinet = 0; cabinet < 5; ++cabinet) {
        void* instance = CreateInstanceU();
        SetSampleRateU(instance, rate);
        SetParameterA(instance, 0, float(cabinet));
        // Samples the audio thread has finished, and the 10 ms steps the control thread has
        // served. Release/acquire: each side reads the other's progress only to pace itself.
        std::atomic<int64_t> audioDone{0}, stepsServed{0};
        std::atomic<bool> running{true};
        long controlChanges = 0, nonFinite = 0, badFlags = 0, silentFlags = 0;
        float peak = 0.0f;
        std::thread control([&] {
            int64_t step = 0;
            while (running.load(std::memory_order_acquire)) {
                if (audioDone.load(std::memory_order_acquire) < (step + 1) * controlStep) {
                    std::this_thread::yield();
                    continue;
                }
                // Microphone type, position, both types through selector -1, then ResetA.
                const int64_t kind = step % 4;
                if (kind == 3) ResetA(instance);
                if (kind < 3)
                    SetParameterA(instance, kind == 2 ? -1 : int32_t(kind + 1),
                                  float(kind == 0 ? (step / 4) % 2 : kind == 1 ? (step / 4) % 3 : (step / 8) % 2));
                stepsServed.store(++step, std::memory_order_release);
            }
            controlChanges = step;
        });

        std::mt19937 random(42);
        std::uniform_real_distribution<float> noise(-1.0f, 1.0f);
        double phase = 0.0;
        const auto start = std::chrono::steady_clock::now();
        for (int64_t done = 0; done < totalSamples; done += blockLength) {
            while (stepsServed.load(std::memory_order_acquire) + 1 < done / controlStep)
                std::this_thread::yield();
            for (std::size_t i = 0; i < block.size(); ++i) {
                const double t = double(done + int64_t(i)) / rate;
                const double frequency = 60.0 * std::pow(100.0, std::fmod(t, 20.0) / 20.0);
                phase = std::fmod(phase + 2.0 * M_PI * frequency / rate, 2.0 * M_PI);
                block[i] = std::fmod(t, 7.0) >= 6.0 ? 0.0f : float(0.25 * std::sin(phase)) + 0.008f * noise(random);
            }
            int32_t flag = -1;
            CalcA(instance, blockLength, block.data(), nullptr, nullptr, nullptr, nullptr, &flag);
            for (float v : block) {
                nonFinite += std::isfinite(v) ? 0 : 1;
                peak = std::isfinite(v) ? std::max(peak, std::fabs(v)) : peak;
            }
            badFlags += (flag == 0 || flag == 1) ? 0 : 1;
            silentFlags += flag == 0 ? 1 : 0;
            audioDone.store(done + blockLength, std::memory_order_release);
            if ((done / blockLength) % 4000 == 0 || done + blockLength >= totalSamples) {
                const long resident = ResidentKiB();
                if (cabinet == 0 && residentAfterWarmUp < 0 && done >= int64_t(rate) * 10)
                    residentAfterWarmUp = resident;
                if (residentAfterWarmUp >= 0 && resident > residentHighest) residentHighest = resident;
            }
        }
        const double wallSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        const double audioSeconds = double(totalSamples) / rate;
        running.store(false, std::memory_order_release);
        control.join();
        DestroyInstanceU(instance);
        std::printf("| %s | %.0f | %.1f | %.1f | %ld | %ld | %ld | %ld | %.3f |\n", cabinetNames[cabinet],
                    audioSeconds, wallSeconds, audioSeconds / wallSeconds, controlChanges, nonFinite,
                    badFlags, silentFlags, double(peak));
        std::fflush(stdout);
        // The control thread may trail the audio by up to two steps when the audio stops.
        failed = failed || nonFinite != 0 || badFlags != 0 || controlChanges + 2 < long(totalSamples / controlStep);
    }

    const long residentAtEnd = ResidentKiB();
    if (residentAfterWarmUp < 0) residentAfterWarmUp = residentAtEnd;  // a run shorter than the warm-up
    const long growth = residentHighest - residentAfterWarmUp;
    std::printf(
        "resident memory: %ld KiB after warm-up, %ld KiB at most afterwards, %ld KiB at the end (growth %ld "
        "KiB)\n",
        residentAfterWarmUp, residentHighest, residentAtEnd, growth);
    // Instances are made and destroyed between cabinets; the allocator may keep a few
    // pages of each, but nothing may grow with the length of the run.
    failed = failed || growth > 1024;
    std::printf("%s\n", failed ? "FAILED" : "passed");
    return failed ? 1 : 0;
}
