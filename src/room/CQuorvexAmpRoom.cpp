#include "room/CQuorvexAmpRoom.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "engine/Failure.h"

namespace tarnlow {

CQuorvexAmpRoom::CQuorvexAmpRoom() = default;

CQuorvexAmpRoom::~CQuorvexAmpRoom()
{
    for (CQuorvexAmp* amp : amps) delete amp;
    if (hasAmpSwitch) delete ampSwitch;
}

void CQuorvexAmpRoom::Initialise()
{
    for (CQuorvexAmp* amp : amps) {
        amp->Initialise();
        amp->SetParameterWordBits(wordBitsForParameters);
    }
    hasAmpSwitch = amps.size() > 1;
    if (hasAmpSwitch) {
        ampSwitch = new CQuorvexParameter();
        ampSwitch->Init(FourCC("sw1 "), "Amp Switch", "AmpSwtch", 1, 0.0f, int32_t(amps.size()), true, 3);
        ampSwitch->wordBits = wordBitsForParameters;
    }
    if (!resetFlags) {
        resetFlagCount = GetParameterCount();
        resetFlags = std::make_unique<bool[]>(std::size_t(resetFlagCount));
        if (hasAmpSwitch) resetFlags[0] = true;
    }
    CQuorvexAmp* selected = selectedAmp.load(std::memory_order_relaxed);
    if (selected != nullptr) {
        for (int32_t i = 0; i < selected->parameterCount; ++i) {
            if (!selected->parameters[i].IsCommon()) continue;
            commonParameters.push_back(selected->parameters[i]);
            commonParameters.back().StripPrefix("_common");
        }
    }
}

int32_t CQuorvexAmpRoom::GetAmpCount() const
{
    return int32_t(amps.size());
}

CQuorvexAmp* CQuorvexAmpRoom::GetAmp(uint32_t index) const
{
    return CheckedAt(amps, index);
}

int32_t CQuorvexAmpRoom::PublicParameterTotal() const
{
    int32_t total = 0;
    for (const CQuorvexAmp* amp : amps) total += amp->GetPublicParameterCount();
    return total;
}

int32_t CQuorvexAmpRoom::GetParameterCount() const
{
    return (hasAmpSwitch ? 1 : 0) + PublicParameterTotal() + int32_t(commonParameters.size());
}

CQuorvexParameter* CQuorvexAmpRoom::GetParameterAt(int32_t id)
{
    // Negative ids fall through every amp and name nothing; answering at once also keeps
    // the subtraction below from overflowing at the bottom of the range.
    if (id < 0) return nullptr;
    if (hasAmpSwitch) {
        if (id == 0) return ampSwitch;
        --id;
    }
    const int32_t total = PublicParameterTotal();
    if (id >= total) return &FatalAt(commonParameters, std::size_t(id - total));
    for (CQuorvexAmp* amp : amps) {
        if (CQuorvexParameter* record = amp->GetPublicParameter(id)) return record;
        id -= amp->GetPublicParameterCount();
    }
    return nullptr;
}

void CQuorvexAmpRoom::SetParameter(int32_t id, float value)
{
    if (id < 0) return;
    if (hasAmpSwitch) {
        if (id == 0) {
            ampSwitch->StoreValue(value);
            CQuorvexAmp* next = GetAmp(AmpIndexForSwitch(value));
            if (next != selectedAmp.load(std::memory_order_relaxed)) HandOverTo(next);
            return;
        }
        --id;
    }
    const int32_t total = PublicParameterTotal();
    if (id < total) {
        for (CQuorvexAmp* amp : amps) {
            if (CQuorvexParameter* record = amp->GetPublicParameter(id)) {
                record->StoreValue(value);
                return;
            }
            id -= amp->GetPublicParameterCount();
        }
        return;
    }
    const int32_t k = id - total;
    FatalAt(commonParameters, std::size_t(k)).StoreValue(value);
    for (CQuorvexAmp* amp : amps) {
        int32_t seen = 0;
        for (int32_t i = 0; i < amp->parameterCount; ++i) {
            if (!amp->parameters[i].IsCommon()) continue;
            if (seen++ == k) {
                amp->parameters[i].StoreValue(value);
                break;
            }
        }
    }
}

uint32_t CQuorvexAmpRoom::AmpIndexForSwitch(float value) const
{
    const int32_t n = ampSwitch->stepCount;
    if (n == 2) return value > 0.5f ? 1u : 0u;
    if (n == 3) return value < 0.33f ? 0u : (value < 0.66f ? 1u : 2u);
    const double index = std::floor(double(n - 1) * double(value) + 0.5);
    // A negative index counts as a very high one; so does one that is not a number.
    if (!(index >= 0.0 && index <= double(std::numeric_limits<uint32_t>::max())))
        return std::numeric_limits<uint32_t>::max();
    return uint32_t(index);
}

void CQuorvexAmpRoom::HandOverTo(CQuorvexAmp* next)
{
    if (CQuorvexAmp* previous = selectedAmp.load(std::memory_order_relaxed)) {
        next->SetBypass(previous->IsBypassed());
        next->SetSuspended(previous->IsSuspended());
        next->SetBpm(previous->hostBpm);
    }
    next->Reset();
    selectedAmp.store(next, std::memory_order_release);
}

void CQuorvexAmpRoom::SelectAmp(uint32_t index)
{
    CQuorvexAmp* next = GetAmp(index);
    if (next != selectedAmp.load(std::memory_order_relaxed)) HandOverTo(next);
}

bool CQuorvexAmpRoom::NeedsReset(int32_t id) const
{
    return id >= 0 && id < resetFlagCount && resetFlags[std::size_t(id)];
}

void CQuorvexAmpRoom::SetAllChannels(int32_t inputCount, int32_t outputCount)
{
    for (CQuorvexAmp* amp : amps) amp->SetChannels(inputCount, outputCount);
}

int32_t CQuorvexAmpRoom::GetMeterCount() const
{
    int32_t total = 0;
    for (const CQuorvexAmp* amp : amps) total += amp->meterCount;
    return total;
}

CQuorvexMeter* CQuorvexAmpRoom::GetMeterAt(int32_t index) const
{
    for (CQuorvexAmp* amp : amps) {
        if (index < amp->meterCount) return amp->GetMeter(index);
        index -= amp->meterCount;
    }
    return nullptr;
}

std::string CQuorvexAmpRoom::GetStatusText() const
{
    std::string text;
    if (bpmWarningEnabled) {
        for (const CQuorvexAmp* amp : amps) {
            if (!amp->hostBpmValid) {
                text = "WARNING: Could not get BPM from host";
                break;
            }
        }
    }
    if (!rateSupported) text = "WARNING: Sample rate not supported";
    return text;
}

bool CQuorvexAmpRoom::CustomTextToValue(int32_t, const char*, float&) const
{
    return false;
}

bool CQuorvexAmpRoom::CustomValueToText(int32_t, float, std::string&, int32_t) const
{
    return false;
}

bool CQuorvexAmpRoom::CustomUnit(int32_t, std::string&, int32_t) const
{
    return true;
}

// The text queries below take an id that must name a record. An id that names none
// answers empty text or false rather than reading through null.

std::string CQuorvexAmpRoom::GetParameterFullName(int32_t id)
{
    const CQuorvexParameter* record = GetParameterAt(id);
    return record != nullptr ? record->name : std::string();
}

std::string CQuorvexAmpRoom::GetParameterUnit(int32_t id, int32_t limit)
{
    limit = std::min(limit, 128);
    std::string text;
    if (CustomUnit(id, text, limit)) return text;
    const CQuorvexParameter* record = GetParameterAt(id);
    return record != nullptr ? record->unitLabel : std::string();
}

bool CQuorvexAmpRoom::ParameterTextToValue(int32_t id, std::string text, float& out)
{
    float custom = 0.0f;
    if (CustomTextToValue(id, text.c_str(), custom)) {
        out = std::min(1.0f, std::max(0.0f, custom));
        return true;
    }
    const CQuorvexParameter* record = GetParameterAt(id);
    return record != nullptr && record->TextToValue(text, out);
}

std::string CQuorvexAmpRoom::ParameterValueToText(int32_t id, int32_t limit, float value)
{
    limit = std::min(limit, 128);
    std::string text;
    if (CustomValueToText(id, value, text, limit)) return text;
    const CQuorvexParameter* record = GetParameterAt(id);
    if (record == nullptr) return std::string();
    text = record->ValueToText(value);
    if (limit >= 0 && std::size_t(limit) < text.size()) text.resize(std::size_t(limit));
    return text;
}

std::string CQuorvexAmpRoom::ParameterCurrentText(int32_t id, int32_t limit)
{
    const CQuorvexParameter* record = GetParameterAt(id);
    if (record == nullptr) return std::string();
    return ParameterValueToText(id, limit, record->LoadValue());
}

}  // namespace tarnlow
