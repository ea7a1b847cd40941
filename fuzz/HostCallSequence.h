#pragma once

// Turns arbitrary bytes into a sequence of host calls that keep the calling contract of
// the seven exports, runs it, and checks what a host may rely on:
//
// - no exception leaves an export, except std::out_of_range from a speaker switch value
//   that names no amp (SetParameterA with selector 0 or -2, and SetSampleRateU carrying
//   such a stored value into another room), and then exactly when the value changed;
// - SetSampleRateU answers 1 exactly for the six round rates;
// - a block of finite input gives finite output, unless the room has seen a non-finite or
//   overflowing sample that no ResetA has cleared since;
// - the out-flag is 1 whenever the last sample of the block sounds, and 0 once the output
//   has been silent for longer than the longest silence limit (0.1 s at 192 kHz);
// - a block of 0 samples leaves the buffer alone; GetPlugInfoU answers its fixed table.
//
// Used by the libFuzzer target and by the test that replays the committed inputs.

#include <cstddef>
#include <cstdint>
#include <string>

namespace tarnlow::fuzzing {

struct HostCallOutcome {
    bool passed = true;
    std::string failure;  // the first broken rule, with the number of the call
    int32_t calls = 0;    // export calls made
};

HostCallOutcome RunHostCalls(const uint8_t* data, std::size_t size);

}  // namespace tarnlow::fuzzing
