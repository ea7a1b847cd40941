/*
 * Tarnlow: a speaker cabinet, its microphone and the room around it, as a
 * zero-latency network of recursive filters.
 *
 * Seven plain functions, no callbacks. Audio is mono 32-bit float, processed in place.
 *
 * Thread classes
 *   set-up: may allocate; must not overlap any other call on the same instance
 *           (CreateInstanceU and DestroyInstanceU: no other call at all).
 *   audio:  never allocates or blocks; one call at a time per instance.
 *   control: may run on one other thread beside the audio call of the same instance.
 *
 * Calling order: CreateInstanceU; SetSampleRateU; then SetParameterA, ResetA, CalcA and
 * SetSampleRateU as often as needed; last DestroyInstanceU. A new instance already runs
 * at 44100 Hz.
 */
#ifndef TARNLOW_H
#define TARNLOW_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(_WIN32)
#define TARNLOW_API __declspec(dllexport)
#define TARNLOW_CALL __stdcall
#else
#define TARNLOW_API __attribute__((visibility("default")))
#define TARNLOW_CALL
#endif

/* set-up: may allocate. Returns a new instance running the 1x12 at 44100 Hz. */
TARNLOW_API void* TARNLOW_CALL CreateInstanceU(void);

/* set-up: frees an instance made by CreateInstanceU. Unknown or repeated handles are
 * ignored. */
TARNLOW_API void TARNLOW_CALL DestroyInstanceU(void* instance);

/* set-up: may allocate (the first visit of a rate builds its five models). Settings
 * move to the new rate; filter state does not. Returns 1 for 44000, 48000, 88000,
 * 96000, 176000 and 192000, else 0 (44100, 88200 and 176400 included). Every rate
 * runs, on the nearest of six model bands. */
TARNLOW_API int32_t TARNLOW_CALL SetSampleRateU(void* instance, int32_t rate);

/* control: never allocates on the audio thread; prepares a clean state that the next
 * CalcA picks up. May run beside CalcA. */
TARNLOW_API void TARNLOW_CALL ResetA(void* instance);

/* control: may run beside CalcA. selector 0: speaker 0..4 (1x12, 2x12, 4x12, 4x10,
 * 4x10Bass); 1: microphone type 0..1 (dynamic, ribbon); 2: microphone position 0..2
 * (cap, edge, room). Every real change restarts the running model from clean state.
 * A speaker value outside [-0.5, 4.5) throws std::out_of_range through this call;
 * a selector of 3 or more ends the process. */
TARNLOW_API void TARNLOW_CALL SetParameterA(void* instance, int32_t selector, float value);

/* audio: never allocates or blocks. Processes `count` samples of `buffer` in place.
 * channel1..channel4 are accepted and not read. Writes 1 to *outFlag while the
 * instance still sounds, 0 once its output has been silent for 0.1 s. Returns 0. */
TARNLOW_API int32_t TARNLOW_CALL CalcA(void* instance, int32_t count, float* buffer,
                                       float* channel1, float* channel2, float* channel3,
                                       float* channel4, int32_t* outFlag);

/* any thread: fixed plug-in information for selectors 1..6 when outSize is 4. */
TARNLOW_API int32_t TARNLOW_CALL GetPlugInfoU(int32_t selector, void* out, int32_t outSize);

#ifdef __cplusplus
}
#endif

#endif
