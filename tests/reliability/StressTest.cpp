// The host's two threads at full speed: per instance one audio thread calls CalcA with
// random block lengths from 0 to 8192 while a control thread sends every selector of the
// contract (-2 to 2) with values of every kind a host may send, and ResetA, at random.
// Several instances run at once. Built under ThreadSanitizer by scripts/sanitize.sh, where
// any data race ends the run; TARNLOW_STRESS_SECONDS sets the time per rate (default 1 s).

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <random>
#include <thread>
#include <vector>

#include "support/HostCalls.h"

namespace {

// A value for `selector` that keeps the host inside the contract: the speaker switch only
// gets values that name an amp, since others throw (tested elsewhere); the microphone
// selectors get any finite number, since every stored value is stepped and clamped on reading.
float ControlValue(int32_t selector, std::mt19937& random)
{
    if (selector == 0) return std::uniform_real_distribution<float>(-0.5f, 4.49f)(random);
    if (selector == -2)
        return std::uniform_real_distribution<float>(-0.12f, 1.12f)(random);  // a raw switch value
    return random() % 2 == 0 ? float(random() % 4) * 0.5f
                             : std::uniform_real_distribution<float>(-50.0f, 50.0f)(random);
}

struct Report {
    long blocks = 0, nonFinite = 0, badFlags = 0;  // written by the audio thread
    long changes = 0, resets = 0;                  // written by the control thread
};

TEST(Stress, AudioBesideControlsAndResetsOnSeveralInstances)
{
    const char* text = std::getenv("TARNLOW_STRESS_SECONDS");
    const double seconds = text != nullptr && std::atof(text) > 0.0 ? std::atof(text) : 1.0;
    constexpr int instanceCount = 2;
    for (int32_t rate : {44100, 48000, 96000, 192000}) {
        std::vector<void*> instances;
        std::vector<Report> reports(instanceCount);
        std::vector<std::thread> threads;
        // Relaxed: the flag only ends the loops; the joins order everything after them.
        std::atomic<bool> running{true};
        for (int i = 0; i < instanceCount; ++i) {
            void* const instance = instances.emplace_back(CreateInstanceU());
            SetSampleRateU(instance, rate + i);  // two rooms of one band, built apart
            Report* const report = &reports[std::size_t(i)];
            threads.emplace_back([&, instance, report, i] {
                std::mt19937 random(uint32_t(rate + 17 * i));
                std::uniform_real_distribution<float> sample(-1.0f, 1.0f);
                std::vector<float> buffer(8192);
                for (; running.load(std::memory_order_relaxed); ++report->blocks) {
                    const int32_t count = random() % 4 == 0 ? int32_t(random() % 33) : int32_t(random() % 8193);
                    for (int32_t s = 0; s < count; ++s) buffer[std::size_t(s)] = sample(random);
                    const int32_t flag = tarnlow::testing::Calc(instance, buffer, count);
                    // The whole buffer: the samples of earlier blocks were finite when counted.
                    report->nonFinite += tarnlow::testing::CountNonFinite(buffer);
                    report->badFlags += (flag == 0 || flag == 1) ? 0 : 1;
                }
            });
            threads.emplace_back([&, instance, report, i] {
                for (std::mt19937 random(uint32_t(rate * 3 + i)); running.load(std::memory_order_relaxed);) {
                    const int32_t selector = int32_t(random() % 6) - 2;
                    if (selector == 3)
                        ResetA(instance);
                    else
                        SetParameterA(instance, selector, ControlValue(selector, random));
                    ++(selector == 3 ? report->resets : report->changes);
                    if (random() % 8 == 0) std::this_thread::yield();
                }
            });
        }
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
        running.store(false, std::memory_order_relaxed);
        for (std::thread& thread : threads) thread.join();
        for (void* instance : instances) DestroyInstanceU(instance);
        for (const Report& report : reports) {
            EXPECT_TRUE(report.nonFinite == 0 && report.badFlags == 0)
                << rate << " Hz: " << report.nonFinite << " non-finite, " << report.badFlags << " bad flags";
            EXPECT_TRUE(report.blocks > 10 && report.changes > 10 && report.resets > 2)
                << rate << " Hz: " << report.blocks << " blocks, " << report.changes << " changes, " << report.resets
                << " resets";
        }
    }
}

}  // namespace
