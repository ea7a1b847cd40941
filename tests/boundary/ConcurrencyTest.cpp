// Controls and resets from one thread while another runs audio, as hosts are allowed to.
// Built under ThreadSanitizer by the CI's race job.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <random>
#include <thread>
#include <vector>

#include "tarnlow.h"

namespace {

TEST(Concurrency, ControlThreadBesideAudioThread)
{
    for (int32_t rate : {48000, 192000}) {
        void* instance = CreateInstanceU();
        SetSampleRateU(instance, rate);
        std::atomic<bool> running{true};
        std::atomic<long> blocks{0};
        bool allFinite = true;

        std::thread audio([&] {
            std::mt19937 random(7);
            std::uniform_int_distribution<int32_t> length(0, 1024);
            std::uniform_real_distribution<float> sample(-1.0f, 1.0f);
            std::vector<float> buffer(1024);
            int32_t flag = 0;
            while (running.load(std::memory_order_relaxed)) {
                const int32_t count = length(random);
                for (int32_t i = 0; i < count; ++i) buffer[std::size_t(i)] = sample(random);
                CalcA(instance, count, buffer.data(), nullptr, nullptr, nullptr, nullptr, &flag);
                for (int32_t i = 0; i < count; ++i) allFinite = allFinite && std::isfinite(buffer[std::size_t(i)]);
                blocks.fetch_add(1, std::memory_order_relaxed);
            }
        });

        std::mt19937 random(11);
        std::uniform_int_distribution<int> action(0, 3);
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
        long changes = 0;
        while (std::chrono::steady_clock::now() < end) {
            switch (action(random)) {
            case 0: SetParameterA(instance, 0, float(random() % 5)); break;
            case 1: SetParameterA(instance, 1, float(random() % 2)); break;
            case 2: SetParameterA(instance, 2, float(random() % 3)); break;
            default: ResetA(instance); break;
            }
            ++changes;
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        running.store(false, std::memory_order_relaxed);
        audio.join();
        DestroyInstanceU(instance);

        EXPECT_TRUE(allFinite);
        EXPECT_GT(blocks.load(), 100);
        EXPECT_GT(changes, 100);
    }
}

}  // namespace
