#pragma once

// Counts, per thread, the calls that an audio thread must never make: allocation and
// release (the malloc family, which libstdc++'s operator new and delete reach through the
// PLT as well), locking (mutexes, read-write and spin locks, condition and semaphore
// waits) and blocking or costly system calls (file and socket I/O, sleeping, yielding,
// polling, mapping memory, raw syscall()). RealTimeGuard.cpp defines those functions in
// the test executable, in front of the C library, so that calls from the loaded
// libtarnlow.so land there as well. Only calls made while a RealTimeWatch lives on the
// calling thread are counted, so the set-up around the watched call stays free to allocate.

#include <string>

namespace tarnlow::realtime {

struct ForbiddenCalls {
    long allocations = 0;
    long releases = 0;
    long locks = 0;
    long systemCalls = 0;
    const char* firstName = nullptr;  // the first forbidden function seen, for the report

    long Total() const { return allocations + releases + locks + systemCalls; }
    std::string Describe() const;
};

// What the calling thread has made under watches since the last Clear.
ForbiddenCalls Seen();
void Clear();

struct RealTimeWatch {
    RealTimeWatch();
    ~RealTimeWatch();
};

}  // namespace tarnlow::realtime
