// CalcA through the shared library, as a host loads it, with every allocation, lock and
// blocking system call of the audio thread counted (RealTimeGuard). After one warm-up block
// per instance, no call of CalcA may make any of them: not for any cabinet, microphone or
// position in any band, not on the first block after a change or a reset, and not while
// another thread changes controls and resets beside it.

#include <gtest/gtest.h>

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "RealTimeGuard.h"
#include "tarnlow.h"

namespace tarnlow::realtime {
namespace {

// One rate inside each of the six model bands.
constexpr int32_t bandRates[] = {44100, 48000, 88200, 96000, 176400, 192000};

// Block lengths around the 16-sample control period and a few host sizes.
constexpr int32_t blockLengths[] = {1, 15, 16, 17, 64, 480, 4096};

std::vector<float> Noise(std::size_t length, uint32_t seed)
{
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> uniform(-0.5f, 0.5f);
    std::vector<float> samples(length);
    for (float& v : samples) v = uniform(random);
    return samples;
}

// The watched call: a host's audio callback.
ForbiddenCalls WatchedCalc(void* instance, std::vector<float>& buffer, int32_t count)
{
    Clear();
    int32_t flag = 0;
    {
        RealTimeWatch watch;
        CalcA(instance, count, buffer.data(), nullptr, nullptr, nullptr, nullptr, &flag);
    }
    return Seen();
}

// Keeps the optimiser from dropping a call whose result nobody reads.
void* volatile sink;

TEST(RealTimeGuard, CountsEachKindOnlyInsideAWatch)
{
    std::mutex mutex;
    Clear();
    {
        std::lock_guard<std::mutex> unwatched(mutex);
        sink = std::malloc(16);
        std::free(sink);
    }
    EXPECT_EQ(Seen().Total(), 0);

    {
        RealTimeWatch watch;
        sink = std::malloc(32);
        std::free(sink);
        sink = new std::vector<int>(100);
        delete static_cast<std::vector<int>*>(sink);
        { std::lock_guard<std::mutex> watched(mutex); }
        EXPECT_EQ(write(-1, "x", 1), -1);  // a bad descriptor: the call is made all the same
        usleep(0);
    }
    const ForbiddenCalls seen = Seen();
    EXPECT_GE(seen.allocations, 3) << seen.Describe();  // malloc, the vector, its array
    EXPECT_GE(seen.releases, 3) << seen.Describe();
    EXPECT_GE(seen.locks, 1) << seen.Describe();
    EXPECT_GE(seen.systemCalls, 2) << seen.Describe();
    EXPECT_STREQ(seen.firstName, "malloc");
}

TEST(RealTimeGuard, SeesTheLibrarysOwnCalls)
{
    // Set-up calls allocate inside libtarnlow.so; seeing them proves the library binds to
    // the counting replacements and not straight to the C library.
    Clear();
    {
        RealTimeWatch watch;
        void* instance = CreateInstanceU();
        DestroyInstanceU(instance);
    }
    const ForbiddenCalls seen = Seen();
    EXPECT_GT(seen.allocations, 5) << seen.Describe();
    EXPECT_GT(seen.releases, 5) << seen.Describe();
}

TEST(RealTimeSafety, NoForbiddenCallInAnyModelAfterWarmUp)
{
    int configurations = 0;
    for (int32_t rate : bandRates) {
        void* instance = CreateInstanceU();
        SetSampleRateU(instance, rate);
        std::vector<float> buffer = Noise(4096, 1);
        int32_t flag = 0;
        CalcA(instance, 256, buffer.data(), nullptr, nullptr, nullptr, nullptr, &flag);  // warm-up

        for (int speaker = 0; speaker < 5; ++speaker) {
            for (int type = 0; type < 2; ++type) {
                for (int position = 0; position < 3; ++position) {
                    // The changes themselves belong to the control thread and may allocate.
                    SetParameterA(instance, 0, float(speaker));
                    SetParameterA(instance, 1, float(type));
                    SetParameterA(instance, 2, float(position));
                    const std::string where = std::to_string(rate) + " Hz, speaker " + std::to_string(speaker) +
                                              ", type " + std::to_string(type) + ", position " +
                                              std::to_string(position);
                    for (int32_t count : blockLengths) {
                        buffer = Noise(4096, uint32_t(count));
                        const ForbiddenCalls seen = WatchedCalc(instance, buffer, count);
                        EXPECT_EQ(seen.Total(), 0) << where << ", block " << count << ": " << seen.Describe();
                    }
                    // Silence long enough to reach the silence limit, a block of none, and
                    // the first block after a reset (the bank flip).
                    std::vector<float> zeros(8192, 0.0f);
                    for (int b = 0; b < 5; ++b)
                        EXPECT_EQ(WatchedCalc(instance, zeros, 8192).Total(), 0) << where << ", silence";
                    EXPECT_EQ(WatchedCalc(instance, zeros, 0).Total(), 0) << where << ", empty block";
                    ResetA(instance);
                    buffer = Noise(4096, 5);
                    EXPECT_EQ(WatchedCalc(instance, buffer, 333).Total(), 0) << where << ", after ResetA";
                    ++configurations;
                }
            }
        }
        DestroyInstanceU(instance);
    }
    EXPECT_EQ(configurations, 6 * 5 * 2 * 3);
}

TEST(RealTimeSafety, NoForbiddenCallWhileControlsChangeOnAnotherThread)
{
    for (int32_t rate : {48000, 192000}) {
        void* instance = CreateInstanceU();
        SetSampleRateU(instance, rate);
        std::vector<float> buffer = Noise(2048, 3);
        int32_t flag = 0;
        CalcA(instance, 256, buffer.data(), nullptr, nullptr, nullptr, nullptr, &flag);  // warm-up

        // Relaxed: the flag only ends the control loop; the join orders the rest.
        std::atomic<bool> running{true};
        // The control thread's own allocations are not counted: the watch is per thread.
        std::thread control([&] {
            std::mt19937 random(5);
            while (running.load(std::memory_order_relaxed)) {
                switch (random() % 4) {
                case 0: SetParameterA(instance, 0, float(random() % 5)); break;
                case 1: SetParameterA(instance, 1, float(random() % 2)); break;
                case 2: SetParameterA(instance, 2, float(random() % 3)); break;
                default: ResetA(instance); break;
                }
            }
        });
        std::mt19937 random(9);
        ForbiddenCalls total;
        for (int block = 0; block < 3000; ++block) {
            const int32_t count = int32_t(random() % 2048);
            const ForbiddenCalls seen = WatchedCalc(instance, buffer, count);
            if (total.firstName == nullptr) total.firstName = seen.firstName;
            total.allocations += seen.allocations;
            total.releases += seen.releases;
            total.locks += seen.locks;
            total.systemCalls += seen.systemCalls;
        }
        running.store(false, std::memory_order_relaxed);
        control.join();
        DestroyInstanceU(instance);
        EXPECT_EQ(total.Total(), 0) << rate << " Hz: " << total.Describe();
    }
}

}  // namespace
}  // namespace tarnlow::realtime
