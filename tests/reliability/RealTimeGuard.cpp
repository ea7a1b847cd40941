// The counting replacements of RealTimeGuard.h. Allocation goes straight to glibc's own
// entry points (__libc_malloc and kin), so the counters never recurse into themselves and
// dlsym's own allocations are harmless; everything else forwards through
// dlsym(RTLD_NEXT), resolved on first use. Built without sanitizers only: their runtimes
// replace the same functions.

#include "RealTimeGuard.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#define TARNLOW_INTERPOSE extern "C" __attribute__((visibility("default")))

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* pointer, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* pointer);
}

namespace tarnlow::realtime {
namespace {

// Plain thread-locals of the executable: constant-initialised static TLS, which the
// counting functions can touch without allocating or locking themselves.
thread_local int watchDepth = 0;
thread_local ForbiddenCalls seen;

inline void Note(long ForbiddenCalls::*kind, const char* name) noexcept
{
    if (watchDepth == 0) return;
    ++(seen.*kind);
    if (seen.firstName == nullptr) seen.firstName = name;
}

// The next definition of a function after this executable's, looked up on first use.
// Relaxed is enough: every thread that races here stores the same address.
template <typename Function>
Function Next(std::atomic<void*>& cache, const char* name) noexcept
{
    void* address = cache.load(std::memory_order_relaxed);
    if (address == nullptr) {
        address = dlsym(RTLD_NEXT, name);
        if (address == nullptr) std::abort();
        cache.store(address, std::memory_order_relaxed);
    }
    return reinterpret_cast<Function>(address);
}

}  // namespace

std::string ForbiddenCalls::Describe() const
{
    return std::to_string(allocations) + " allocations, " + std::to_string(releases) + " releases, " +
           std::to_string(locks) + " locks, " + std::to_string(systemCalls) + " system calls (first: " +
           (firstName != nullptr ? firstName : "none") + ")";
}

ForbiddenCalls Seen() { return seen; }
void Clear() { seen = ForbiddenCalls{}; }
RealTimeWatch::RealTimeWatch() { ++watchDepth; }
RealTimeWatch::~RealTimeWatch() { --watchDepth; }

}  // namespace tarnlow::realtime

using tarnlow::realtime::ForbiddenCalls;
using tarnlow::realtime::Next;
using tarnlow::realtime::Note;
constexpr auto allocation = &ForbiddenCalls::allocations;
constexpr auto lock = &ForbiddenCalls::locks;
constexpr auto systemCall = &ForbiddenCalls::systemCalls;

// Each allocator counts itself and goes to glibc's own entry point.
#define TARNLOW_ALLOCATOR(name, parameters, call)                                                \
    TARNLOW_INTERPOSE void* name parameters                                                      \
    {                                                                                            \
        Note(allocation, #name);                                                                 \
        return call;                                                                             \
    }

TARNLOW_ALLOCATOR(malloc, (std::size_t size), __libc_malloc(size))
TARNLOW_ALLOCATOR(calloc, (std::size_t count, std::size_t size), __libc_calloc(count, size))
TARNLOW_ALLOCATOR(realloc, (void* pointer, std::size_t size), __libc_realloc(pointer, size))
TARNLOW_ALLOCATOR(aligned_alloc, (std::size_t alignment, std::size_t size), __libc_memalign(alignment, size))
TARNLOW_ALLOCATOR(memalign, (std::size_t alignment, std::size_t size), __libc_memalign(alignment, size))

TARNLOW_INTERPOSE int posix_memalign(void** out, std::size_t alignment, std::size_t size)
{
    Note(allocation, "posix_memalign");
    void* pointer = __libc_memalign(alignment, size);
    if (pointer == nullptr) return ENOMEM;
    *out = pointer;
    return 0;
}

TARNLOW_INTERPOSE void free(void* pointer)
{
    Note(&ForbiddenCalls::releases, "free");
    __libc_free(pointer);
}

// Defines `name` with the given parameters, counting it as `kind` and forwarding to the
// C library's definition.
#define TARNLOW_FORWARD(kind, result, name, parameters, arguments)                              \
    TARNLOW_INTERPOSE result name parameters                                                     \
    {                                                                                            \
        static std::atomic<void*> next{nullptr};                                                 \
        Note(kind, #name);                                                                       \
        return Next<result(*) parameters>(next, #name) arguments;                                \
    }

TARNLOW_FORWARD(lock, int, pthread_mutex_lock, (pthread_mutex_t * m), (m))
TARNLOW_FORWARD(lock, int, pthread_mutex_trylock, (pthread_mutex_t * m), (m))
TARNLOW_FORWARD(lock, int, pthread_mutex_timedlock, (pthread_mutex_t * m, const timespec* t), (m, t))
TARNLOW_FORWARD(lock, int, pthread_rwlock_rdlock, (pthread_rwlock_t * l), (l))
TARNLOW_FORWARD(lock, int, pthread_rwlock_wrlock, (pthread_rwlock_t * l), (l))
TARNLOW_FORWARD(lock, int, pthread_spin_lock, (pthread_spinlock_t * l), (l))
TARNLOW_FORWARD(lock, int, pthread_cond_wait, (pthread_cond_t * c, pthread_mutex_t* m), (c, m))
TARNLOW_FORWARD(lock, int, pthread_cond_timedwait, (pthread_cond_t * c, pthread_mutex_t* m, const timespec* t), (c, m, t))
TARNLOW_FORWARD(lock, int, sem_wait, (sem_t * s), (s))
TARNLOW_FORWARD(lock, int, sem_timedwait, (sem_t * s, const timespec* t), (s, t))

TARNLOW_FORWARD(systemCall, ssize_t, read, (int fd, void* data, size_t size), (fd, data, size))
TARNLOW_FORWARD(systemCall, ssize_t, write, (int fd, const void* data, size_t size), (fd, data, size))
TARNLOW_FORWARD(systemCall, int, close, (int fd), (fd))
TARNLOW_FORWARD(systemCall, int, nanosleep, (const timespec* t, timespec* left), (t, left))
TARNLOW_FORWARD(systemCall, int, clock_nanosleep, (clockid_t c, int f, const timespec* t, timespec* left), (c, f, t, left))
TARNLOW_FORWARD(systemCall, int, usleep, (useconds_t us), (us))
TARNLOW_FORWARD(systemCall, unsigned, sleep, (unsigned s), (s))
TARNLOW_FORWARD(systemCall, int, sched_yield, (), ())
TARNLOW_FORWARD(systemCall, int, poll, (pollfd * fds, nfds_t n, int timeout), (fds, n, timeout))
TARNLOW_FORWARD(systemCall, int, select, (int n, fd_set* r, fd_set* w, fd_set* e, timeval* t), (n, r, w, e, t))
TARNLOW_FORWARD(systemCall, void*, mmap, (void* a, size_t n, int p, int f, int fd, off_t o), (a, n, p, f, fd, o))
TARNLOW_FORWARD(systemCall, int, munmap, (void* a, size_t n), (a, n))
TARNLOW_FORWARD(systemCall, int, mprotect, (void* a, size_t n, int p), (a, n, p))
TARNLOW_FORWARD(systemCall, FILE*, fopen, (const char* path, const char* mode), (path, mode))
TARNLOW_FORWARD(systemCall, size_t, fwrite, (const void* d, size_t s, size_t n, FILE* f), (d, s, n, f))
TARNLOW_FORWARD(systemCall, int, fflush, (FILE * f), (f))

// The variadic ones pass on the optional arguments that the C library reads: the mode of
// open and openat (only read when a file may be created), six words for syscall (which
// futex waits of std::atomic::wait and a contended call_once come through).
#define TARNLOW_MODE(flags)                                                                      \
    mode_t mode = 0;                                                                             \
    if (((flags) & O_CREAT) != 0 || ((flags) & O_TMPFILE) == O_TMPFILE) {                        \
        va_list rest;                                                                            \
        va_start(rest, flags);                                                                   \
        mode = mode_t(va_arg(rest, unsigned));                                                   \
        va_end(rest);                                                                            \
    }

TARNLOW_INTERPOSE int open(const char* path, int flags, ...)
{
    static std::atomic<void*> next{nullptr};
    Note(systemCall, "open");
    TARNLOW_MODE(flags)
    return Next<int (*)(const char*, int, ...)>(next, "open")(path, flags, mode);
}

TARNLOW_INTERPOSE int openat(int directory, const char* path, int flags, ...)
{
    static std::atomic<void*> next{nullptr};
    Note(systemCall, "openat");
    TARNLOW_MODE(flags)
    return Next<int (*)(int, const char*, int, ...)>(next, "openat")(directory, path, flags, mode);
}

TARNLOW_INTERPOSE long syscall(long number, ...)
{
    static std::atomic<void*> next{nullptr};
    Note(systemCall, "syscall");
    va_list rest;
    va_start(rest, number);
    long a[6];
    for (long& word : a) word = va_arg(rest, long);
    va_end(rest);
    return Next<long (*)(long, ...)>(next, "syscall")(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}
