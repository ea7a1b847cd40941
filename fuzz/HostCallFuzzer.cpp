// libFuzzer entry: every input is a sequence of host calls; a broken rule aborts, so that
// libFuzzer keeps the input as a crash.

#include <cstdio>
#include <cstdlib>

#include "HostCallSequence.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const tarnlow::fuzzing::HostCallOutcome outcome = tarnlow::fuzzing::RunHostCalls(data, size);
    if (!outcome.passed) {
        std::fprintf(stderr, "host-call rule broken: %s\n", outcome.failure.c_str());
        std::abort();
    }
    return 0;
}
