// CalcA through the shared library, as a host loads it, with every allocation, lock and
// blocking system call of the audio thread counted (RealTimeGuard). After one warm-up block
// per instance, no call of CalcA may make any of them: not for any cabinet, microphone or
// position in any band, not on the first block after a change or a reset, and not while
// another thread changes controls and resets beside it.

#include <gtest/gtest.h>

#include <unistd.h>

#include <array>
#include <atomic>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "RealTimeGuard.h"
#include "support/HostCalls.h"

namespace tarnlow::realtime {
namespace {

using testing::Noise;

// The watched call: a host's audio callback.
ForbiddenCalls WatchedCalc(void* instance, std::vector<float>& buffer, int32_t count)
{
    Clear();
    {
        RealTimeWatch watch;
        testing::Calc(instance, buffer, count);
    }
    return Seen();
}

// Keeps the optimiser from dropping a call whose result nobody reads.
void* volatile sink;

TEST(RealTimeGuard, CountsEachKindInsideAWatchAndSeesTheLibrarysOwnCalls)
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
        sink = new std::vector<int>(100);  // operator new reaches the counting malloc too
        delete static_cast<std::vector<int>*>(sink);
        std::lock_guard<std::mutex> watched(mutex);
        EXPECT_EQ(write(-1, "x", 1), -1);  // a bad descriptor: the call is made all the same
    }
    const ForbiddenCalls seen = Seen();
    // malloc, the vector and its array; their releases; the lock; the write.
    EXPECT_TRUE(seen.allocations >= 3 && seen.releases >= 3 && seen.locks >= 1 && seen.systemCalls >= 1)
        << seen.Describe();
    EXPECT_STREQ(seen.firstName, "malloc");
    // Set-up allocates inside libtarnlow.so; seeing it proves the library binds to the
    // counting replacements and not straight to the C library.
    Clear();
    {
        RealTimeWatch watch;
        testing::Instance instance;
    }
    EXPECT_GT(Seen().allocations, 5) << Seen().Describe();
    EXPECT_GT(Seen().releases, 5) << Seen().Describe();
}

TEST(RealTimeSafety, NoForbiddenCallInAnyModelAfterWarmUp)
{
    int configurations = 0;
    for (int32_t rate : {44100, 48000, 88200, 96000, 176400, 192000}) {
        testing::Instance instance(rate);
        std::vector<float> buffer = Noise(4096, 1), zeros(8192, 0.0f);
        testing::Calc(instance.handle, buffer, 256);  // warm-up
        // Speaker, microphone and position in turn; the changes themselves belong to the
        // control thread and may allocate.
        for (int setting = 0; setting < 30; ++setting, ++configurations) {
            const std::array<int, 3> values = {setting / 6, setting / 3 % 2, setting % 3};
            for (int32_t selector = 0; selector < 3; ++selector)
                SetParameterA(instance.handle, selector, float(values[std::size_t(selector)]));
            const std::string where = std::to_string(rate) + " Hz, setting " + std::to_string(setting) + ", ";
            // Lengths around the 16-sample control period and a few host sizes.
            for (int32_t count : {1, 15, 16, 17, 64, 480, 4096}) {
                buffer = Noise(4096, uint32_t(count));
                const ForbiddenCalls seen = WatchedCalc(instance.handle, buffer, count);
                EXPECT_EQ(seen.Total(), 0) << where << "block " << count << ": " << seen.Describe();
            }
            // Silence up to the silence limit, a block of none, and the first block after a
            // reset (the bank flip).
            for (int b = 0; b < 5; ++b) EXPECT_EQ(WatchedCalc(instance.handle, zeros, 8192).Total(), 0) << where;
            EXPECT_EQ(WatchedCalc(instance.handle, zeros, 0).Total(), 0) << where << "empty block";
            ResetA(instance.handle);
            EXPECT_EQ(WatchedCalc(instance.handle, buffer, 333).Total(), 0) << where << "after ResetA";
        }
    }
    EXPECT_EQ(configurations, 6 * 5 * 2 * 3);
}

TEST(RealTimeSafety, NoForbiddenCallWhileControlsChangeOnAnotherThread)
{
    for (int32_t rate : {48000, 192000}) {
        testing::Instance instance(rate);
        std::vector<float> buffer = Noise(2048, 3);
        testing::Calc(instance.handle, buffer, 256);  // warm-up
        // Relaxed: the flag only ends the control loop; the join orders the rest. The
        // control thread's own allocations are not counted: the watch is per thread.
        std::atomic<bool> running{true};
        std::thread control([&] {
            for (std::mt19937 random(5); running.load(std::memory_order_relaxed);) {
                const int32_t selector = int32_t(random() % 4);
                if (selector == 3)
                    ResetA(instance.handle);
                else
                    SetParameterA(instance.handle, selector, float(random() % (selector == 0 ? 5 : selector + 1)));
            }
        });
        std::mt19937 random(9);
        ForbiddenCalls first;
        long total = 0;
        for (int block = 0; block < 3000; ++block) {
            const ForbiddenCalls seen = WatchedCalc(instance.handle, buffer, int32_t(random() % 2048));
            if (total == 0) first = seen;
            total += seen.Total();
        }
        running.store(false, std::memory_order_relaxed);
        control.join();
        EXPECT_EQ(total, 0) << rate << " Hz: " << first.Describe();
    }
}

}  // namespace
}  // namespace tarnlow::realtime
