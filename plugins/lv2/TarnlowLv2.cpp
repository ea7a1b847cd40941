// The LV2 plug-in urn:tarnlow:cabinet: ports, features and the worker, over BlendedCabinet.
//
// Every feature is optional. With the host's worker, a change of model is prepared off the
// audio thread and run() only crossfades; without one (offline tools, simple hosts) run()
// prepares it itself, which costs the library's reset on the audio thread.

#include <lv2/core/lv2.h>
#include <lv2/worker/worker.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <exception>
#include <new>

#include "BlendedCabinet.h"

namespace tarnlow::lv2 {
namespace {

constexpr const char* pluginUri = "urn:tarnlow:cabinet";

// The order of lv2:index in tarnlow.ttl.
enum Port : uint32_t {
    portIn = 0,
    portOut,
    portSpeaker,
    portMicrophone,
    portPosition,
    portMicrophone2,
    portPosition2,
    portBlend,
    portLevel,
    portLatency,
    portCount
};

struct Plugin {
    explicit Plugin(int32_t sampleRate) : cabinet(sampleRate) {}

    BlendedCabinet cabinet;
    const LV2_Worker_Schedule* schedule = nullptr;
    const float* in = nullptr;
    float* out = nullptr;
    const float* controls[portCount] = {};
    float* latency = nullptr;
};

float Read(const Plugin& plugin, Port port, float fallback)
{
    const float* value = plugin.controls[port];
    return value != nullptr ? *value : fallback;
}

LV2_Handle Instantiate(const LV2_Descriptor*, double rate, const char*, const LV2_Feature* const* features)
{
    if (!(rate >= 1.0 && rate <= double(INT32_MAX))) return nullptr;
    try {
        auto* plugin = new Plugin(int32_t(std::lround(rate)));
        for (const LV2_Feature* const* feature = features; feature != nullptr && *feature != nullptr; ++feature) {
            if (std::strcmp((*feature)->URI, LV2_WORKER__schedule) == 0)
                plugin->schedule = static_cast<const LV2_Worker_Schedule*>((*feature)->data);
        }
        return plugin;
    } catch (const std::exception&) {
        return nullptr;
    }
}

void ConnectPort(LV2_Handle handle, uint32_t port, void* data)
{
    auto* plugin = static_cast<Plugin*>(handle);
    switch (port) {
    case portIn: plugin->in = static_cast<const float*>(data); break;
    case portOut: plugin->out = static_cast<float*>(data); break;
    case portLatency: plugin->latency = static_cast<float*>(data); break;
    default:
        if (port < portCount) plugin->controls[port] = static_cast<const float*>(data);
        break;
    }
}

void Activate(LV2_Handle handle)
{
    static_cast<Plugin*>(handle)->cabinet.Restart();
}

void Run(LV2_Handle handle, uint32_t count)
{
    auto* plugin = static_cast<Plugin*>(handle);
    const ControlValues defaults;
    ControlValues values;
    values.speaker = Read(*plugin, portSpeaker, defaults.speaker);
    values.microphone = Read(*plugin, portMicrophone, defaults.microphone);
    values.position = Read(*plugin, portPosition, defaults.position);
    values.microphone2 = Read(*plugin, portMicrophone2, defaults.microphone2);
    values.position2 = Read(*plugin, portPosition2, defaults.position2);
    values.blend = Read(*plugin, portBlend, defaults.blend);
    values.levelDb = Read(*plugin, portLevel, defaults.levelDb);

    BlendedCabinet& cabinet = plugin->cabinet;
    const CabinetSettings wanted = SettingsFrom(values);
    switch (cabinet.Plan(wanted)) {
    case BlendedCabinet::Step::Nothing: break;
    case BlendedCabinet::Step::ApplyNow: cabinet.ApplyImmediately(wanted); break;
    case BlendedCabinet::Step::Prepare: {
        const PrepareJob job = cabinet.BeginPreparing(wanted);
        if (plugin->schedule != nullptr) {
            const LV2_Worker_Status status =
                plugin->schedule->schedule_work(plugin->schedule->handle, sizeof(job), &job);
            if (status != LV2_WORKER_SUCCESS) cabinet.CancelPreparing();
        } else {
            cabinet.PrepareStandby(job);
            cabinet.AdoptStandby(job.pair);
        }
        break;
    }
    }

    if (plugin->in != nullptr && plugin->out != nullptr)
        cabinet.Process(plugin->in, plugin->out, count, values.blend, values.levelDb);
    if (plugin->latency != nullptr) *plugin->latency = 0.0f;
}

void Cleanup(LV2_Handle handle)
{
    delete static_cast<Plugin*>(handle);
}

// Worker thread.
LV2_Worker_Status Work(LV2_Handle handle, LV2_Worker_Respond_Function respond, LV2_Worker_Respond_Handle responder,
                       uint32_t size, const void* data)
{
    if (size != sizeof(PrepareJob)) return LV2_WORKER_ERR_UNKNOWN;
    PrepareJob job;
    std::memcpy(&job, data, sizeof(job));
    static_cast<Plugin*>(handle)->cabinet.PrepareStandby(job);
    return respond(responder, sizeof(job), &job);
}

// Audio thread, between two runs.
LV2_Worker_Status WorkResponse(LV2_Handle handle, uint32_t size, const void* body)
{
    if (size != sizeof(PrepareJob)) return LV2_WORKER_ERR_UNKNOWN;
    PrepareJob job;
    std::memcpy(&job, body, sizeof(job));
    static_cast<Plugin*>(handle)->cabinet.AdoptStandby(job.pair);
    return LV2_WORKER_SUCCESS;
}

const void* ExtensionData(const char* uri)
{
    static const LV2_Worker_Interface worker = {Work, WorkResponse, nullptr};
    if (std::strcmp(uri, LV2_WORKER__interface) == 0) return &worker;
    return nullptr;
}

const LV2_Descriptor descriptor = {
    pluginUri, Instantiate, ConnectPort, Activate, Run, nullptr, Cleanup, ExtensionData,
};

}  // namespace
}  // namespace tarnlow::lv2

LV2_SYMBOL_EXPORT const LV2_Descriptor* lv2_descriptor(uint32_t index)
{
    return index == 0 ? &tarnlow::lv2::descriptor : nullptr;
}
