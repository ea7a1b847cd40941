#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "engine/CQuorvexAmp.h"
#include "parameters/CQuorvexParameter.h"

namespace tarnlow {

// Several amps shown as one effect: one flat list of parameter ids, one selected amp
// that runs, and the `Amp Switch` that picks it.
//
// Flat ids: `Amp Switch` (when there are two amps or more), then the public parameters of
// each amp in order, then the room's common parameters. An id below 0 names nothing; an
// id past the last ends the process.
//
// Threads: SetParameter may run on one control thread beside the audio thread's block on
// the selected amp. The audio thread reads `selectedAmp` once per block.
class CQuorvexAmpRoom {
public:
    CQuorvexAmpRoom();
    CQuorvexAmpRoom(const CQuorvexAmpRoom&) = delete;
    CQuorvexAmpRoom& operator=(const CQuorvexAmpRoom&) = delete;
    virtual ~CQuorvexAmpRoom();

    void Initialise();
    int32_t GetAmpCount() const;
    CQuorvexAmp* GetAmp(uint32_t index) const;  // throws std::out_of_range past the end
    void SelectAmp(uint32_t index);

    int32_t GetParameterCount() const;
    CQuorvexParameter* GetParameterAt(int32_t id);
    void SetParameter(int32_t id, float value);
    bool NeedsReset(int32_t id) const;
    void SetAllChannels(int32_t inputCount, int32_t outputCount);

    int32_t GetMeterCount() const;
    CQuorvexMeter* GetMeterAt(int32_t index) const;
    std::string GetStatusText() const;

    // Text queries by flat id; the id must name a record.
    std::string GetParameterFullName(int32_t id);
    std::string GetParameterUnit(int32_t id, int32_t limit);
    bool ParameterTextToValue(int32_t id, std::string text, float& out);
    std::string ParameterValueToText(int32_t id, int32_t limit, float value);
    std::string ParameterCurrentText(int32_t id, int32_t limit);

    // The amp that runs. Release on the switch publishes the new amp's reset state;
    // acquire on the audio thread's read pairs with it.
    CQuorvexAmp* SelectedAmp() const noexcept { return selectedAmp.load(std::memory_order_acquire); }

    CQuorvexParameter* ampSwitch = nullptr;  // owned, present only with hasAmpSwitch
    bool hasAmpSwitch = false;
    int32_t wordBitsForParameters = -1;
    int32_t channelHintA = -1;
    int32_t channelHintB = -1;
    int32_t channelHintC = -1;
    bool rateSupported = true;
    std::atomic<CQuorvexAmp*> selectedAmp{nullptr};
    // Indexed by flat id. The concrete room sizes it before the switch exists, so it can
    // be one entry short; NeedsReset answers false for any id it does not cover.
    std::unique_ptr<bool[]> resetFlags;
    int32_t resetFlagCount = 0;
    std::vector<CQuorvexAmp*> amps;  // owned
    std::vector<CQuorvexParameter> commonParameters;

private:
    // Hooks of the text queries, in their places. This room declines the first two; the
    // unit hook accepts and writes nothing, so units read as empty text.
    bool CustomTextToValue(int32_t id, const char* text, float& out) const;
    bool CustomValueToText(int32_t id, float value, std::string& text, int32_t limit) const;
    bool CustomUnit(int32_t id, std::string& text, int32_t limit) const;

    int32_t PublicParameterTotal() const;
    // The amp index a switch value names, which may name no amp (GetAmp judges). Values
    // whose index is not a number or too large for the word count as past the end.
    uint32_t AmpIndexForSwitch(float value) const;
    void HandOverTo(CQuorvexAmp* next);
};

}  // namespace tarnlow
