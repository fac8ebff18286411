// Moves the clocks of one process while it runs: the machine's own clocks must not be touched.
//
// Preloaded. The file that ORVEXD_STEPPED_CLOCK names holds three steps in seconds as signed 64-bit
// numbers, the wall clock's, the monotonic clock's and that of a thread's processor time, which are
// read at every question for the time. Who sleeps already sleeps as long as before, and so does the
// C library itself, which asks the kernel without asking here.

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

struct Steps {
    std::atomic<std::int64_t> wall;
    std::atomic<std::int64_t> monotonic;
    std::atomic<std::int64_t> processor;
};
using GetTime = int (*)(clockid_t, timespec*);

/// The steps in the shared file; none without the file.
const Steps* mapSteps() noexcept {
    const char* path = std::getenv("ORVEXD_STEPPED_CLOCK");
    const int file = path != nullptr ? open(path, O_RDONLY | O_CLOEXEC) : -1;
    if (file < 0) {
        return nullptr;
    }
    void* memory = mmap(nullptr, sizeof(Steps), PROT_READ, MAP_SHARED, file, 0);
    close(file);
    return memory != MAP_FAILED ? static_cast<const Steps*>(memory) : nullptr;
}

std::int64_t stepOf(clockid_t clock) noexcept {
    static const Steps* const shared = mapSteps();
    if (shared == nullptr) {
        return 0;
    }
    switch (clock) {
    case CLOCK_REALTIME:
    case CLOCK_REALTIME_COARSE:
        return shared->wall;
    case CLOCK_MONOTONIC:
    case CLOCK_MONOTONIC_COARSE:
    case CLOCK_MONOTONIC_RAW:
        return shared->monotonic;
    case CLOCK_THREAD_CPUTIME_ID:
        return shared->processor;
    default:
        return 0;
    }
}

timespec steppedTime(clockid_t clock) noexcept {
    timespec now{};
    (void)clock_gettime(clock, &now); // fails only for a clock that does not exist
    return now;
}

} // namespace

// The C library names these parameters with reserved names.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" {

int clock_gettime(clockid_t clock, timespec* time) noexcept {
    static const auto real = reinterpret_cast<GetTime>(dlsym(RTLD_NEXT, "clock_gettime"));
    const int result = real(clock, time);
    if (result == 0) {
        time->tv_sec += static_cast<time_t>(stepOf(clock));
    }
    return result;
}

int gettimeofday(timeval* time, void* /*zone*/) noexcept {
    const timespec now = steppedTime(CLOCK_REALTIME);
    constexpr long kNanosecondsPerMicrosecond = 1000;
    time->tv_sec = now.tv_sec;
    time->tv_usec = now.tv_nsec / kNanosecondsPerMicrosecond;
    return 0;
}

time_t time(time_t* result) noexcept {
    const time_t now = steppedTime(CLOCK_REALTIME_COARSE).tv_sec;
    if (result != nullptr) {
        *result = now;
    }
    return now;
}

} // extern "C"
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
