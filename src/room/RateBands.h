#pragma once

#include <cstdint>

namespace tarnlow {

// The six sets of model tables. Every integer rate falls into one of them.
enum class RateBand : int32_t { Band44, Band48, Band88, Band96, Band176, Band192 };

struct RateBandInfo {
    RateBand band;
    int32_t supportedRate;  // the one rate reported as supported in this band
    int32_t modelRate;      // the rate the band's models were made for
};

// Tests run from the top down; each row takes what the row above left. The supported
// rates are round numbers on purpose, so 44100, 88200 and 176400 run models made for
// exactly that rate and are still reported as not supported.
constexpr RateBandInfo BandForRate(int32_t rate)
{
    if (rate >= 184100) return {RateBand::Band192, 192000, 192000};
    if (rate >= 136100) return {RateBand::Band176, 176000, 176400};
    if (rate >= 92100) return {RateBand::Band96, 96000, 96000};
    if (rate >= 68100) return {RateBand::Band88, 88000, 88200};
    if (rate >= 46050) return {RateBand::Band48, 48000, 48000};
    return {RateBand::Band44, 44000, 44100};
}

}  // namespace tarnlow
