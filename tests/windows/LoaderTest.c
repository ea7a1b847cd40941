/*
 * Tarnlow.dll as a host meets it: loaded by its plain file name, the seven functions found
 * by their plain names and called through __stdcall pointers (on 32-bit x86 a wrong
 * convention or argument size corrupts the caller's stack here), an impulse through one
 * instance, and the version record read back through the system's version API.
 *
 * Written in C on purpose: the header must serve a C host as well.
 */
#include <windows.h>

#include <math.h>
#include <stdio.h>
#include <string.h>

#include "tarnlow.h"

typedef void*(TARNLOW_CALL* CreateInstanceFn)(void);
typedef void(TARNLOW_CALL* DestroyInstanceFn)(void*);
typedef int32_t(TARNLOW_CALL* SetSampleRateFn)(void*, int32_t);
typedef void(TARNLOW_CALL* ResetFn)(void*);
typedef void(TARNLOW_CALL* SetParameterFn)(void*, int32_t, float);
typedef int32_t(TARNLOW_CALL* CalcFn)(void*, int32_t, float*, float*, float*, float*, float*,
                                      int32_t*);
typedef int32_t(TARNLOW_CALL* GetPlugInfoFn)(int32_t, void*, int32_t);

static int failures = 0;

/* FARPROC goes to the header's function types through void (*)(void), the type that any
 * function pointer may be cast to and back. */
typedef void (*AnyFunction)(void);

static AnyFunction Find(HMODULE library, const char* name)
{
    return (AnyFunction)GetProcAddress(library, name);
}

#define CHECK(condition)                                                                   \
    do {                                                                                   \
        if (!(condition)) {                                                                \
            fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #condition);        \
            ++failures;                                                                    \
        }                                                                                  \
    } while (0)

enum { sampleRate = 48000, blockLength = 480, blockCount = 40 };

static float PeakOf(const float* samples, int count)
{
    float peak = 0.0f;
    for (int i = 0; i < count; ++i) {
        const float magnitude = fabsf(samples[i]);
        if (magnitude > peak) peak = magnitude;
    }
    return peak;
}

static int AllFinite(const float* samples, int count)
{
    for (int i = 0; i < count; ++i)
        if (!isfinite(samples[i])) return 0;
    return 1;
}

static void CheckVersionText(const void* record, const char* key, const char* expected)
{
    char path[96];
    snprintf(path, sizeof path, "\\StringFileInfo\\040904b0\\%s", key);
    char* text = NULL;
    UINT length = 0;
    if (!VerQueryValueA(record, path, (void**)&text, &length) || text == NULL) {
        fprintf(stderr, "version record has no %s\n", key);
        ++failures;
        return;
    }
    if (strcmp(text, expected) != 0) {
        fprintf(stderr, "version record %s is \"%s\", expected \"%s\"\n", key, text, expected);
        ++failures;
    }
}

static void CheckVersionRecord(HMODULE library)
{
    char fileName[MAX_PATH];
    const DWORD nameLength = GetModuleFileNameA(library, fileName, sizeof fileName);
    CHECK(nameLength > 0 && nameLength < sizeof fileName);
    DWORD unused = 0;
    const DWORD size = GetFileVersionInfoSizeA(fileName, &unused);
    CHECK(size > 0);
    if (size == 0) return;
    static char record[8192];
    CHECK(size <= sizeof record);
    if (size > sizeof record || !GetFileVersionInfoA(fileName, 0, size, record)) {
        ++failures;
        return;
    }

    VS_FIXEDFILEINFO* fixed = NULL;
    UINT fixedLength = 0;
    CHECK(VerQueryValueA(record, "\\", (void**)&fixed, &fixedLength) && fixed != NULL);
    if (fixed != NULL) {
        const DWORD versionHigh = MAKELONG(TARNLOW_VERSION_MINOR, TARNLOW_VERSION_MAJOR);
        const DWORD versionLow = MAKELONG(0, TARNLOW_VERSION_PATCH);
        CHECK(fixed->dwSignature == 0xFEEF04BDu);
        CHECK(fixed->dwFileVersionMS == versionHigh && fixed->dwFileVersionLS == versionLow);
        CHECK(fixed->dwProductVersionMS == versionHigh && fixed->dwProductVersionLS == versionLow);
        CHECK(fixed->dwFileType == VFT_DLL);
    }
    CheckVersionText(record, "FileVersion", TARNLOW_VERSION);
    CheckVersionText(record, "ProductVersion", TARNLOW_VERSION);
    CheckVersionText(record, "ProductName", "Tarnlow");
    CheckVersionText(record, "OriginalFilename", "Tarnlow.dll");
}

/* An impulse through the 4x12 at 48 kHz: the response must be finite, audible and must die
 * away, and the out-flag must follow it down to silence. */
static void CheckImpulse(CreateInstanceFn create, DestroyInstanceFn destroy,
                         SetSampleRateFn setSampleRate, SetParameterFn setParameter,
                         ResetFn reset, CalcFn calc)
{
    void* instance = create();
    CHECK(instance != NULL);
    if (instance == NULL) return;
    CHECK(setSampleRate(instance, sampleRate) == 1);
    setParameter(instance, 0, 2.0f);
    reset(instance);

    static float response[blockLength * blockCount];
    memset(response, 0, sizeof response);
    response[0] = 1.0f;
    int32_t sounding = -1;
    for (int block = 0; block < blockCount; ++block) {
        CHECK(calc(instance, blockLength, response + block * blockLength, NULL, NULL, NULL,
                   NULL, &sounding) == 0);
        CHECK(sounding == 1);
    }
    const int total = blockLength * blockCount;
    CHECK(AllFinite(response, total));
    const float onset = PeakOf(response, blockLength);
    const float tail = PeakOf(response + total - blockLength, blockLength);
    printf("impulse at %d Hz: peak %g in the first 10 ms, %g in the last 10 ms of %d ms\n",
           sampleRate, onset, tail, total * 1000 / sampleRate);
    CHECK(onset > 1e-3f);
    /* Forty dB down after 0.4 s: a cabinet rings for tens of milliseconds, not for this
     * long, and a filter whose state grew without bound would fail here first. */
    CHECK(tail < onset * 0.01f);

    /* Silence in: the tail decays below the silence threshold, after which a tenth of a
     * second of quiet output turns the flag to 0. Ten seconds is far more than needed. */
    float quiet[blockLength];
    int silentAfterBlocks = -1;
    for (int block = 0; block < 1000 && silentAfterBlocks < 0; ++block) {
        memset(quiet, 0, sizeof quiet);
        calc(instance, blockLength, quiet, NULL, NULL, NULL, NULL, &sounding);
        CHECK(AllFinite(quiet, blockLength));
        if (sounding == 0) silentAfterBlocks = block + 1;
    }
    printf("out-flag 0 after %d further ms of silence\n",
           silentAfterBlocks * blockLength * 1000 / sampleRate);
    CHECK(silentAfterBlocks > 0);

    destroy(instance);
}

int main(void)
{
    HMODULE library = LoadLibraryA("Tarnlow.dll");
    if (library == NULL) {
        fprintf(stderr, "LoadLibraryA(\"Tarnlow.dll\") failed, error %lu\n", GetLastError());
        return 1;
    }

    CreateInstanceFn create = (CreateInstanceFn)Find(library, "CreateInstanceU");
    DestroyInstanceFn destroy =
        (DestroyInstanceFn)Find(library, "DestroyInstanceU");
    SetSampleRateFn setSampleRate =
        (SetSampleRateFn)Find(library, "SetSampleRateU");
    ResetFn reset = (ResetFn)Find(library, "ResetA");
    SetParameterFn setParameter = (SetParameterFn)Find(library, "SetParameterA");
    CalcFn calc = (CalcFn)Find(library, "CalcA");
    GetPlugInfoFn getPlugInfo = (GetPlugInfoFn)Find(library, "GetPlugInfoU");
    CHECK(create != NULL && destroy != NULL && setSampleRate != NULL && reset != NULL);
    CHECK(setParameter != NULL && calc != NULL && getPlugInfo != NULL);
    if (failures > 0) return 1;

    int32_t info = -1;
    CHECK(getPlugInfo(5, &info, 4) == 1 && info == 32767);
    info = -1;
    CHECK(getPlugInfo(5, &info, 8) == 0 && info == -1);

    CheckImpulse(create, destroy, setSampleRate, setParameter, reset, calc);
    CheckVersionRecord(library);

    CHECK(FreeLibrary(library));
    printf("%s\n", failures == 0 ? "Tarnlow.dll loads and runs" : "Tarnlow.dll failed");
    return failures == 0 ? 0 : 1;
}
