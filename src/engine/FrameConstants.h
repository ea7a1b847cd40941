#pragma once

#include <cstdint>

namespace tarnlow {

// Samples per control block at every sample rate: models update their gains once per
// period, wherever the host's blocks begin and end.
inline constexpr int32_t controlPeriod = 16;

// Build-wide switches of the frame. The code behind them is kept and tested through
// derived test amps, but this build never turns them on.
inline constexpr bool multiMonoEnabled = false;
inline constexpr bool outputPeakMetersEnabled = false;
inline constexpr bool bpmWarningEnabled = false;
inline constexpr bool ioHintsFromBuses = false;

// Most channels a channel group may carry; the caller keeps to it, nothing checks.
inline constexpr int32_t maxChannels = 8;

}  // namespace tarnlow
