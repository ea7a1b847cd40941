#include "boundary/CQuorvexPlugInstance.h"

#include <algorithm>
#include <memory>

#include "room/CQuorvexAmpRoomNative.h"

namespace tarnlow {

CQuorvexPlugInstance::CQuorvexPlugInstance(int32_t kind) : roomKind(kind)
{
    SetSampleRate(44100);
}

CQuorvexPlugInstance::~CQuorvexPlugInstance()
{
    for (auto& [rate, room] : rooms) delete room;
}

CQuorvexAmpRoom* CQuorvexPlugInstance::GetRoom()
{
    // find, not operator[]: the audio and control threads look rooms up at the same time,
    // and only the const-like lookups of the map are free of data races.
    const auto found = rooms.find(currentRate);
    return found != rooms.end() ? found->second : nullptr;
}

CQuorvexAmp* CQuorvexPlugInstance::SelectedAmp()
{
    CQuorvexAmpRoom* room = GetRoom();
    return room != nullptr ? room->SelectedAmp() : nullptr;
}

void CQuorvexPlugInstance::SetSampleRate(int32_t rate)
{
    if (rate == currentRate) return;
    auto target = rooms.find(rate);
    if (target == rooms.end() && roomKind == 0) {
        auto room = std::make_unique<CQuorvexAmpRoomNative>(rate);
        if (room->GetAmpCount() == 0) {
            room = std::make_unique<CQuorvexAmpRoomNative>(44100);
            room->rateSupported = false;
        }
        target = rooms.emplace(rate, room.get()).first;
        room.release();
    }
    const auto source = rooms.find(currentRate);
    if (source != rooms.end() && target != rooms.end()) {
        CQuorvexAmpRoom* from = source->second;
        CQuorvexAmpRoom* to = target->second;
        const int32_t shared = std::min(from->GetParameterCount(), to->GetParameterCount());
        for (int32_t id = 0; id < shared; ++id) to->SetParameter(id, from->GetParameterAt(id)->LoadValue());
        if (CQuorvexAmp* fromAmp = from->SelectedAmp()) {
            // Both counts come from the input side; the output count is not consulted.
            to->SetAllChannels(fromAmp->inputCount, fromAmp->inputCount);
            if (CQuorvexAmp* toAmp = to->SelectedAmp()) {
                toAmp->SetBypass(fromAmp->IsBypassed());
                toAmp->SetSuspended(fromAmp->IsSuspended());
                toAmp->SetBpm(fromAmp->hostBpm);
            }
        }
    }
    currentRate = rate;
}

bool CQuorvexPlugInstance::IsSampleRateSupported()
{
    CQuorvexAmpRoom* room = GetRoom();
    return room != nullptr && room->rateSupported;
}

void CQuorvexPlugInstance::Reset()
{
    if (CQuorvexAmp* amp = SelectedAmp()) amp->Reset();
}

void CQuorvexPlugInstance::SetParameter(int32_t id, float value)
{
    CQuorvexAmpRoom* room = GetRoom();
    if (room == nullptr) return;
    const CQuorvexParameter* record = room->GetParameterAt(id);
    if (record == nullptr) return;
    if (value == record->LoadValue()) return;  // exact: 0.0 equals -0.0, NaN equals nothing
    room->SetParameter(id, value);
    if (room->NeedsReset(id)) {
        if (CQuorvexAmp* amp = room->SelectedAmp()) amp->Reset();
        parameterResetSeen = true;
    }
}

void CQuorvexPlugInstance::ProcessBlock(float** inputs, float** outputs, int32_t count, float gain,
                                        float** sideInputs, int32_t sideCount)
{
    if (CQuorvexAmp* amp = SelectedAmp()) amp->ProcessBlock(inputs, outputs, count, gain, sideInputs, sideCount);
}

bool CQuorvexPlugInstance::IsSilent()
{
    CQuorvexAmp* amp = SelectedAmp();
    return amp != nullptr && amp->IsSilent();
}

// ---- Forwarding surface ---------------------------------------------------------------

std::string CQuorvexPlugInstance::GetStatusText()
{
    CQuorvexAmpRoom* room = GetRoom();
    return room != nullptr ? room->GetStatusText() : std::string();
}

CQuorvexBus* CQuorvexPlugInstance::SelectedBus(int32_t kind, int32_t bank)
{
    CQuorvexAmp* amp = SelectedAmp();
    return amp != nullptr ? amp->GetBus(kind, bank) : nullptr;
}

int32_t CQuorvexPlugInstance::GetBusCount(int32_t kind, int32_t bank)
{
    const CQuorvexBus* bus = SelectedBus(kind, bank);
    return bus != nullptr ? bus->GetCount() : 0;
}

int32_t CQuorvexPlugInstance::GetBusHistoryLength(int32_t kind, int32_t bank)
{
    const CQuorvexBus* bus = SelectedBus(kind, bank);
    return bus != nullptr ? bus->GetHistoryLength() : 0;
}

int32_t CQuorvexPlugInstance::GetBusDoubledLength(int32_t kind, int32_t bank)
{
    const CQuorvexBus* bus = SelectedBus(kind, bank);
    return bus != nullptr ? bus->GetDoubledLength() : 0;
}

int32_t CQuorvexPlugInstance::GetBusPlainLength(int32_t kind, int32_t bank)
{
    const CQuorvexBus* bus = SelectedBus(kind, bank);
    return bus != nullptr ? bus->GetPlainLength() : 0;
}

int32_t CQuorvexPlugInstance::GetBusElementWord(int32_t kind, int32_t bank, int32_t index)
{
    const CQuorvexBus* bus = SelectedBus(kind, bank);
    if (bus == nullptr || index < 0 || index >= bus->GetCount()) return 0;
    return bus->form == 0 ? bus->ints.data[index] : int32_t(bus->wides.data[index]);
}

void* CQuorvexPlugInstance::GetBusElement(int32_t kind, int32_t bank, int32_t index)
{
    const CQuorvexBus* bus = SelectedBus(kind, bank);
    if (bus == nullptr || index < 0 || index >= bus->GetCount()) return nullptr;
    return bus->GetElement(index);
}

void* CQuorvexPlugInstance::GetBusDoubledRegion(int32_t kind, int32_t bank)
{
    const CQuorvexBus* bus = SelectedBus(kind, bank);
    return bus != nullptr && bus->GetCount() > 0 ? bus->GetDoubledRegion() : nullptr;
}

bool CQuorvexPlugInstance::BusDoubledDiffers(int32_t kind, int32_t bank)
{
    const CQuorvexBus* bus = SelectedBus(kind, bank);
    return bus != nullptr && bus->DoubledDiffers();
}

int32_t CQuorvexPlugInstance::GetAmpBusCount(int32_t kind)
{
    CQuorvexAmp* amp = SelectedAmp();
    return amp != nullptr && amp->GetBus(kind) != nullptr ? amp->GetBusCount(kind) : 0;
}

int32_t CQuorvexPlugInstance::GetAmpBusDoubledLength(int32_t kind)
{
    CQuorvexAmp* amp = SelectedAmp();
    return amp != nullptr && amp->GetBus(kind) != nullptr ? amp->GetBusDoubledLength(kind) : 0;
}

int32_t CQuorvexPlugInstance::GetAmpBusHistoryLength(int32_t kind)
{
    CQuorvexAmp* amp = SelectedAmp();
    return amp != nullptr && amp->GetBus(kind) != nullptr ? amp->GetBusHistoryLength(kind) : 0;
}

int32_t CQuorvexPlugInstance::GetIoHint(int32_t index)
{
    CQuorvexAmpRoom* room = GetRoom();
    if (room == nullptr || index < 0 || index > 2) return 0;
    if (ioHintsFromBuses && index < 2) {
        const CQuorvexBus* bus = SelectedBus(index, 0);
        return bus != nullptr ? bus->GetCount() : 0;
    }
    const int32_t hints[3] = {room->channelHintB, room->channelHintA, room->channelHintC};
    return hints[index];
}

void CQuorvexPlugInstance::UpdateBank(bool immediate, int32_t sideCount, int32_t bank)
{
    CQuorvexAmp* amp = SelectedAmp();
    if (amp == nullptr) return;
    amp->UpdateBank(immediate, sideCount, bank);
    int32_t meterIndex = 0;
    for (int32_t i = 0; i < amp->parameterCount; ++i) {
        if (!amp->parameters[i].IsMeter()) continue;
        if (CQuorvexMeter* meter = amp->GetMeter(meterIndex++)) meter->Store(amp->parameters[i].LoadValue());
    }
}

void CQuorvexPlugInstance::NoteOn(int32_t note, int32_t velocity)
{
    if (CQuorvexAmp* amp = SelectedAmp()) amp->NoteOn(note, velocity);
}

void CQuorvexPlugInstance::NoteOff()
{
    if (CQuorvexAmp* amp = SelectedAmp()) amp->NoteOff();
}

int32_t CQuorvexPlugInstance::GetLatency()
{
    CQuorvexAmp* amp = SelectedAmp();
    return amp != nullptr ? amp->GetLatency() : 0;
}

bool CQuorvexPlugInstance::IsSuspended()
{
    CQuorvexAmp* amp = SelectedAmp();
    return amp != nullptr && amp->IsSuspended();
}

bool CQuorvexPlugInstance::IsBypassed()
{
    CQuorvexAmp* amp = SelectedAmp();
    return amp != nullptr && amp->IsBypassed();
}

void CQuorvexPlugInstance::SetSuspended(bool flag)
{
    if (CQuorvexAmp* amp = SelectedAmp()) amp->SetSuspended(flag);
}

void CQuorvexPlugInstance::SetBypass(bool flag)
{
    if (CQuorvexAmp* amp = SelectedAmp()) amp->SetBypass(flag);
}

bool CQuorvexPlugInstance::HasHostBpm()
{
    CQuorvexAmp* amp = SelectedAmp();
    return amp != nullptr && amp->hostBpmValid;
}

void CQuorvexPlugInstance::SetBpm(float value)
{
    if (CQuorvexAmp* amp = SelectedAmp()) amp->SetBpm(value);
}

int32_t CQuorvexPlugInstance::GetReserved()
{
    return 0;
}

// ---- Parameter queries by flat id -----------------------------------------------------

std::string CQuorvexPlugInstance::GetParameterName(int32_t id, int32_t limit)
{
    CQuorvexAmpRoom* room = GetRoom();
    const CQuorvexParameter* record = room != nullptr ? room->GetParameterAt(id) : nullptr;
    auto cut = [limit](const std::string& text) {
        return limit >= 0 && std::size_t(limit) < text.size() ? text.substr(0, std::size_t(limit)) : text;
    };
    if (limit == -1) return record != nullptr ? record->name : "-- Invalid parameter --";
    if (limit > 8) return record != nullptr ? cut(record->name) : "-Invalid-";
    return record != nullptr ? cut(record->shortName) : cut("INVALID");
}

int32_t CQuorvexPlugInstance::GetParameterKind(int32_t id)
{
    CQuorvexAmpRoom* room = GetRoom();
    const CQuorvexParameter* record = room != nullptr ? room->GetParameterAt(id) : nullptr;
    if (record == nullptr || (record->valueKind != 0 && record->valueKind != 1)) return -1;
    return record->valueKind;
}

int32_t CQuorvexPlugInstance::GetParameterTag(int32_t id)
{
    CQuorvexAmpRoom* room = GetRoom();
    const CQuorvexParameter* record = room != nullptr ? room->GetParameterAt(id) : nullptr;
    return record != nullptr ? int32_t(record->tag) : -1;
}

int32_t CQuorvexPlugInstance::GetParameterStepCount(int32_t id)
{
    CQuorvexAmpRoom* room = GetRoom();
    const CQuorvexParameter* record = room != nullptr ? room->GetParameterAt(id) : nullptr;
    return record != nullptr ? record->stepCount : -1;
}

void CQuorvexPlugInstance::SetParameterName(int32_t id, std::string name)
{
    CQuorvexAmpRoom* room = GetRoom();
    if (CQuorvexParameter* record = room != nullptr ? room->GetParameterAt(id) : nullptr) record->name = std::move(name);
}

bool CQuorvexPlugInstance::ParameterTextToValue(int32_t id, std::string text, float& out)
{
    CQuorvexAmpRoom* room = GetRoom();
    return room != nullptr && room->ParameterTextToValue(id, std::move(text), out);
}

std::string CQuorvexPlugInstance::ParameterValueToText(int32_t id, int32_t limit, float value)
{
    CQuorvexAmpRoom* room = GetRoom();
    return room != nullptr ? room->ParameterValueToText(id, limit, value) : std::string();
}

float CQuorvexPlugInstance::GetParameterValue(int32_t id)
{
    CQuorvexAmpRoom* room = GetRoom();
    const CQuorvexParameter* record = room != nullptr ? room->GetParameterAt(id) : nullptr;
    return record != nullptr ? record->LoadValue() : -1.0f;
}

int32_t CQuorvexPlugInstance::GetParameterCount()
{
    CQuorvexAmpRoom* room = GetRoom();
    return room != nullptr ? room->GetParameterCount() : 0;
}

// ---- Meters -----------------------------------------------------------------------------

CQuorvexMeter* CQuorvexPlugInstance::FindMeter(int32_t index, bool enabledOnly)
{
    CQuorvexAmpRoom* room = GetRoom();
    if (room == nullptr) return nullptr;
    if (!enabledOnly) return room->GetMeterAt(index);
    const int32_t total = room->GetMeterCount();
    int32_t place = 0;
    for (int32_t flat = 0; flat < total; ++flat) {
        CQuorvexMeter* meter = room->GetMeterAt(flat);
        if (meter == nullptr || !meter->enabled) continue;
        if (place++ == index) return meter;
    }
    return nullptr;
}

std::string CQuorvexPlugInstance::GetMeterName(int32_t index, bool enabledOnly)
{
    const CQuorvexMeter* meter = FindMeter(index, enabledOnly);
    return meter != nullptr ? meter->name : "-- Invalid meter --";
}

float CQuorvexPlugInstance::ReadMeter(int32_t index, bool enabledOnly)
{
    CQuorvexMeter* meter = FindMeter(index, enabledOnly);
    return meter != nullptr ? meter->Read() : -1.0f;
}

bool CQuorvexPlugInstance::GetMeterPeakMode(int32_t index, bool enabledOnly)
{
    const CQuorvexMeter* meter = FindMeter(index, enabledOnly);
    return meter != nullptr ? meter->peakMode : true;
}

int32_t CQuorvexPlugInstance::GetMeterKind(int32_t index, bool enabledOnly)
{
    const CQuorvexMeter* meter = FindMeter(index, enabledOnly);
    if (meter == nullptr || meter->kind < 0 || meter->kind > 3) return -1;
    return meter->kind;
}

int32_t CQuorvexPlugInstance::GetMeterCount()
{
    CQuorvexAmpRoom* room = GetRoom();
    return room != nullptr ? room->GetMeterCount() : 0;
}

void CQuorvexPlugInstance::SetAllChannels(int32_t inputCount, int32_t outputCount)
{
    if (CQuorvexAmpRoom* room = GetRoom()) room->SetAllChannels(inputCount, outputCount);
}

}  // namespace tarnlow
