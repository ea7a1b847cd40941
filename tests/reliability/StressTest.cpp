// The host's two threads at full speed: per instance one audio thread calls CalcA with
// random block lengths from 0 to 8192 while a control thread sends every selector of the
// contract (-2 to 2) with values of every kind a host may send, and ResetA, at random.
// Several instances run at once. Built under ThreadSanitizer by scripts/sanitize.sh, where
// any data race ends the run; TARNLOW_STRESS_SECONDS sets the time per instance (default
// 1 s), so the run stays bounded.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <random>
#include <thread>
#include <vector>

#include "tarnlow.h"

namespace {

double SecondsPerRun()
{
    const char* text = std::getenv("TARNLOW_STRESS_SECONDS");
    const double seconds = text != nullptr ? std::atof(text) : 1.0;
    return seconds > 0.0 ? seconds : 1.0;
}

// A value for `selector` that keeps the host inside the contract: the speaker switch only
// gets values that name an amp, since others throw (tested elsewhere); the microphone
// selectors get any finite number, since every stored value is stepped and clamped on
// reading.
float ControlValue(int32_t selector, std::mt19937& random)
{
    std::uniform_real_distribution<float> anywhere(-50.0f, 50.0f);
    switch (selector) {
    case 0: return std::uniform_real_distribution<float>(-0.5f, 4.49f)(random);
    case -2: return std::uniform_real_distribution<float>(-0.12f, 1.12f)(random);  // raw switch value
    default: return random() % 2 == 0 ? float(random() % 4) * 0.5f : anywhere(random);
    }
}

struct AudioReport {
    long blocks = 0;
    long samples = 0;
    long nonFinite = 0;
    long badFlags = 0;
};

struct ControlReport {
    long changes = 0;
    long resets = 0;
};

TEST(Stress, AudioBesideControlsAndResetsOnSeveralInstances)
{
    const int32_t rates[] = {44100, 48000, 96000, 192000};
    constexpr int instanceCount = 2;
    const auto duration = std::chrono::duration<double>(SecondsPerRun());

    for (int32_t rate : rates) {
        std::vector<void*> instances;
        for (int i = 0; i < instanceCount; ++i) {
            instances.push_back(CreateInstanceU());
            SetSampleRateU(instances.back(), rate + i);  // two rooms of one band, built apart
        }
        std::atomic<bool> running{true};
        std::vector<AudioReport> audioReports(instanceCount);
        std::vector<ControlReport> controlReports(instanceCount);
        std::vector<std::thread> threads;
        for (int i = 0; i < instanceCount; ++i) {
            threads.emplace_back([&, i] {
                std::mt19937 random(uint32_t(rate + 17 * i));
                std::uniform_real_distribution<float> sample(-1.0f, 1.0f);
                std::vector<float> buffer(8192);
                AudioReport& report = audioReports[std::size_t(i)];
                // Relaxed: the flag only ends the loop; the join orders everything after it.
                while (running.load(std::memory_order_relaxed)) {
                    const int32_t count = random() % 4 == 0 ? int32_t(random() % 33) : int32_t(random() % 8193);
                    for (int32_t s = 0; s < count; ++s) buffer[std::size_t(s)] = sample(random);
                    int32_t flag = -1;
                    CalcA(instances[std::size_t(i)], count, buffer.data(), nullptr, nullptr, nullptr, nullptr, &flag);
                    for (int32_t s = 0; s < count; ++s) report.nonFinite += std::isfinite(buffer[std::size_t(s)]) ? 0 : 1;
                    report.badFlags += (flag == 0 || flag == 1) ? 0 : 1;
                    ++report.blocks;
                    report.samples += count;
                }
            });
            threads.emplace_back([&, i] {
                std::mt19937 random(uint32_t(rate * 3 + i));
                ControlReport& report = controlReports[std::size_t(i)];
                while (running.load(std::memory_order_relaxed)) {
                    const int32_t pick = int32_t(random() % 6);
                    if (pick == 5) {
                        ResetA(instances[std::size_t(i)]);
                        ++report.resets;
                    } else {
                        const int32_t selector = pick - 2;
                        SetParameterA(instances[std::size_t(i)], selector, ControlValue(selector, random));
                        ++report.changes;
                    }
                    if (random() % 8 == 0) std::this_thread::yield();
                }
            });
        }
        std::this_thread::sleep_for(duration);
        running.store(false, std::memory_order_relaxed);
        for (std::thread& thread : threads) thread.join();
        for (void* instance : instances) DestroyInstanceU(instance);

        for (int i = 0; i < instanceCount; ++i) {
            const AudioReport& audio = audioReports[std::size_t(i)];
            const ControlReport& control = controlReports[std::size_t(i)];
            EXPECT_EQ(audio.nonFinite, 0) << rate << " Hz, instance " << i;
            EXPECT_EQ(audio.badFlags, 0) << rate << " Hz, instance " << i;
            EXPECT_GT(audio.blocks, 10) << rate << " Hz, instance " << i;
            EXPECT_GT(control.changes, 10) << rate << " Hz, instance " << i;
            EXPECT_GT(control.resets, 2) << rate << " Hz, instance " << i;
        }
    }
}

}  // namespace
