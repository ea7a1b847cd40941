#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "room/CQuorvexAmpRoom.h"

namespace tarnlow {

// What the host holds: one effect slot across changes of sample rate. It keeps one room
// per exact rate it has been told, builds each on first use and keeps it to the end, and
// carries the settings from the room it leaves to the room it enters.
//
// Threads: the constructor, destructor and SetSampleRate change the map and overlap
// nothing. SetParameter and Reset only read the map and may run on one control thread
// beside ProcessBlock on the audio thread.
class CQuorvexPlugInstance {
public:
    explicit CQuorvexPlugInstance(int32_t roomKind);
    CQuorvexPlugInstance(const CQuorvexPlugInstance&) = delete;
    CQuorvexPlugInstance& operator=(const CQuorvexPlugInstance&) = delete;
    ~CQuorvexPlugInstance();

    void SetSampleRate(int32_t rate);
    bool IsSampleRateSupported();
    void Reset();
    void SetParameter(int32_t id, float value);
    void ProcessBlock(float** inputs, float** outputs, int32_t count, float gain, float** sideInputs,
                      int32_t sideCount);
    bool IsSilent();

    CQuorvexAmpRoom* GetRoom();

    // Forwarding to the room of the current rate or its selected amp.
    std::string GetStatusText();
    int32_t GetBusCount(int32_t kind, int32_t bank);
    int32_t GetBusHistoryLength(int32_t kind, int32_t bank);
    int32_t GetBusDoubledLength(int32_t kind, int32_t bank);
    int32_t GetBusPlainLength(int32_t kind, int32_t bank);
    int32_t GetBusElementWord(int32_t kind, int32_t bank, int32_t index);
    void* GetBusElement(int32_t kind, int32_t bank, int32_t index);
    void* GetBusDoubledRegion(int32_t kind, int32_t bank);
    bool BusDoubledDiffers(int32_t kind, int32_t bank);
    int32_t GetAmpBusCount(int32_t kind);
    int32_t GetAmpBusDoubledLength(int32_t kind);
    int32_t GetAmpBusHistoryLength(int32_t kind);
    int32_t GetIoHint(int32_t index);
    void UpdateBank(bool immediate, int32_t sideCount, int32_t bank);
    void NoteOn(int32_t note, int32_t velocity);
    void NoteOff();
    int32_t GetLatency();
    bool IsSuspended();
    bool IsBypassed();
    void SetSuspended(bool flag);
    void SetBypass(bool flag);
    bool HasHostBpm();
    void SetBpm(float value);
    int32_t GetReserved();

    std::string GetParameterName(int32_t id, int32_t limit);
    int32_t GetParameterKind(int32_t id);
    int32_t GetParameterTag(int32_t id);
    int32_t GetParameterStepCount(int32_t id);
    void SetParameterName(int32_t id, std::string name);
    bool ParameterTextToValue(int32_t id, std::string text, float& out);
    std::string ParameterValueToText(int32_t id, int32_t limit, float value);
    float GetParameterValue(int32_t id);
    int32_t GetParameterCount();

    std::string GetMeterName(int32_t index, bool enabledOnly);
    float ReadMeter(int32_t index, bool enabledOnly);
    bool GetMeterPeakMode(int32_t index, bool enabledOnly);
    int32_t GetMeterKind(int32_t index, bool enabledOnly);
    int32_t GetMeterCount();
    void SetAllChannels(int32_t inputCount, int32_t outputCount);

    int32_t roomKind;
    int32_t currentRate = -1;
    std::map<int32_t, CQuorvexAmpRoom*> rooms;  // owned
    bool parameterResetSeen = false;  // kept as written; nothing reads it

private:
    CQuorvexAmp* SelectedAmp();
    CQuorvexBus* SelectedBus(int32_t kind, int32_t bank);
    CQuorvexMeter* FindMeter(int32_t index, bool enabledOnly);
};

}  // namespace tarnlow
