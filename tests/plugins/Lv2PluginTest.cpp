// The built LV2 module, loaded as a host loads it: descriptor, ports, and the worker.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <lv2/core/lv2.h>
#include <lv2/worker/worker.h>

#include <thread>
#include <vector>

#include "PluginTestSignals.h"

#ifndef TARNLOW_LV2_MODULE
#error "TARNLOW_LV2_MODULE names the built module"
#endif

namespace {

using tarnlow::lv2::testing::GuitarLike;
using tarnlow::lv2::testing::LoneModel;

constexpr int rate = 48000;
constexpr uint32_t portCount = 10;
enum : uint32_t { in, out, speaker, mic, position, mic2, position2, blend, level, latency };

const LV2_Descriptor* Descriptor(uint32_t index)
{
    static void* module = dlopen(TARNLOW_LV2_MODULE, RTLD_NOW | RTLD_LOCAL);
    using Entry = const LV2_Descriptor* (*)(uint32_t);
    const auto entry = module != nullptr ? reinterpret_cast<Entry>(dlsym(module, "lv2_descriptor")) : nullptr;
    return entry != nullptr ? entry(index) : nullptr;
}

const LV2_Worker_Interface* WorkerOf(const LV2_Descriptor* descriptor)
{
    return static_cast<const LV2_Worker_Interface*>(descriptor->extension_data(LV2_WORKER__interface));
}

// A worker queue as a host keeps it: jobs from run(), responses for after run().
struct FakeWorker {
    static LV2_Worker_Status Keep(std::vector<std::vector<char>>& queue, uint32_t size, const void* data)
    {
        queue.emplace_back(static_cast<const char*>(data), static_cast<const char*>(data) + size);
        return LV2_WORKER_SUCCESS;
    }
    static LV2_Worker_Status Schedule(LV2_Worker_Schedule_Handle handle, uint32_t size, const void* data)
    {
        auto* self = static_cast<FakeWorker*>(handle);
        return self->refuse ? LV2_WORKER_ERR_NO_SPACE : Keep(self->jobs, size, data);
    }
    static LV2_Worker_Status Respond(LV2_Worker_Respond_Handle handle, uint32_t size, const void* data)
    {
        return Keep(static_cast<FakeWorker*>(handle)->responses, size, data);
    }

    std::vector<std::vector<char>> jobs, responses;
    bool refuse = false;
    LV2_Worker_Schedule schedule{this, Schedule};
    LV2_Feature feature{LV2_WORKER__schedule, &schedule};
};

// After a change the new model fades in over 20 ms and then sounds exactly as one started at the change.
void ExpectFadeInto(const std::vector<float>& output, const std::vector<float>& fresh)
{
    EXPECT_NE(output[10], fresh[10]) << "the change fades in";
    for (std::size_t n = 960; n < output.size(); ++n) ASSERT_EQ(output[n], fresh[n]) << n;
}

class Lv2Plugin : public ::testing::Test {
protected:
    void Start(const LV2_Feature* const* features)
    {
        descriptor = Descriptor(0);
        ASSERT_NE(descriptor, nullptr) << dlerror();
        handle = descriptor->instantiate(descriptor, rate, "", features);
        ASSERT_NE(handle, nullptr);
        controls[speaker] = 2.0f;
        controls[mic2] = 1.0f;
        controls[latency] = -1.0f;
        for (uint32_t port = speaker; port < portCount; ++port) descriptor->connect_port(handle, port, &controls[port]);
        if (descriptor->activate != nullptr) descriptor->activate(handle);
    }

    void TearDown() override
    {
        if (handle == nullptr) return;
        if (descriptor->deactivate != nullptr) descriptor->deactivate(handle);
        descriptor->cleanup(handle);
    }

    // Runs `count` samples of `input` from `offset` in blocks of `block`, in place or not.
    std::vector<float> Run(const std::vector<float>& input, std::size_t offset, std::size_t count, std::size_t block,
                           bool inPlace = false)
    {
        std::vector<float> output(input.begin() + std::ptrdiff_t(offset), input.begin() + std::ptrdiff_t(offset + count));
        std::vector<float> source = output;
        for (std::size_t done = 0; done < count; done += block) {
            descriptor->connect_port(handle, in, inPlace ? output.data() + done : source.data() + done);
            descriptor->connect_port(handle, out, output.data() + done);
            descriptor->run(handle, uint32_t(std::min(block, count - done)));
        }
        return output;
    }

    const LV2_Descriptor* descriptor = nullptr;
    LV2_Handle handle = nullptr;
    float controls[portCount] = {};
};

TEST(Lv2Module, OffersOnePluginWithTheWorkerInterfaceAndNoState)
{
    const LV2_Descriptor* descriptor = Descriptor(0);
    ASSERT_NE(descriptor, nullptr) << dlerror();
    EXPECT_STREQ(descriptor->URI, "urn:tarnlow:cabinet");
    EXPECT_EQ(Descriptor(1), nullptr);
    const LV2_Worker_Interface* worker = WorkerOf(descriptor);
    ASSERT_NE(worker, nullptr);
    EXPECT_TRUE(worker->work != nullptr && worker->work_response != nullptr);
    EXPECT_EQ(descriptor->extension_data("http://lv2plug.in/ns/ext/state#interface"), nullptr);
}

TEST_F(Lv2Plugin, WithoutFeaturesItRunsSampleBySampleAndCrossfadesChangesInRun)
{
    const LV2_Feature* none[] = {nullptr};
    Start(none);
    controls[speaker] = 4.0f;
    controls[mic] = 1.0f;
    const std::vector<float> input = GuitarLike(7200, rate);
    EXPECT_EQ(Run(input, 0, 2400, 1), LoneModel(rate, {4, 1, 0}, input.data(), 2400))
        << "the ports' model plays from the start";
    EXPECT_EQ(controls[latency], 0.0f);

    controls[speaker] = 0.0f;
    controls[position] = 2.0f;
    const std::vector<float> rest = Run(input, 2400, 4800, 1);
    ExpectFadeInto(rest, LoneModel(rate, {0, 1, 2}, input.data() + 2400, 4800));
}

TEST_F(Lv2Plugin, WithAWorkerRunOnlySchedulesRetriesAFullQueueAndTheResponseStartsTheCrossfade)
{
    FakeWorker worker;
    const LV2_Feature* features[] = {&worker.feature, nullptr};
    Start(features);
    const std::vector<float> input = GuitarLike(9600, rate);
    std::vector<float> output = Run(input, 0, 2400, 256);
    EXPECT_TRUE(worker.jobs.empty()) << "the defaults play from the start";

    controls[mic] = 1.0f;
    controls[position] = 1.0f;
    worker.refuse = true;
    std::vector<float> waiting = Run(input, 2400, 256, 256, true);
    EXPECT_TRUE(worker.jobs.empty());
    worker.refuse = false;  // a full queue is tried again on the next run
    const std::vector<float> later = Run(input, 2656, 2144, 256, true);
    waiting.insert(waiting.end(), later.begin(), later.end());
    ASSERT_EQ(worker.jobs.size(), 1u) << "one job, however many runs wait for it";
    output.insert(output.end(), waiting.begin(), waiting.end());
    EXPECT_EQ(output, LoneModel(rate, {2, 0, 0}, input.data(), 4800)) << "the old model plays until the response";

    const LV2_Worker_Interface* interface = WorkerOf(descriptor);
    std::thread([&] {
        const std::vector<char>& job = worker.jobs[0];
        EXPECT_EQ(interface->work(handle, FakeWorker::Respond, &worker, uint32_t(job.size()), job.data()),
                  LV2_WORKER_SUCCESS);
    }).join();
    ASSERT_EQ(worker.responses.size(), 1u);
    EXPECT_EQ(interface->work_response(handle, uint32_t(worker.responses[0].size()), worker.responses[0].data()),
              LV2_WORKER_SUCCESS);
    const std::vector<float> rest = Run(input, 4800, 4800, 256);
    ExpectFadeInto(rest, LoneModel(rate, {2, 1, 1}, input.data() + 4800, 4800));
    EXPECT_EQ(worker.jobs.size(), 1u);
    // A job of the wrong size is refused, not read.
    const char junk[3] = {};
    EXPECT_NE(interface->work(handle, FakeWorker::Respond, &worker, sizeof(junk), junk), LV2_WORKER_SUCCESS);
}

}  // namespace
