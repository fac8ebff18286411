// Moves the wall clock of one process while it runs: the machine's own clock must not be touched.
//
// Preloaded. The file that ORVEXD_STEPPED_CLOCK names holds the step in seconds as a signed 64-bit
// number, which is read at every question for the wall clock's time. The monotonic clock stays.

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

using Step = std::atomic<std::int64_t>;
using GetTime = int (*)(clockid_t, timespec*);

/// The step in the shared file; none without the file.
const Step* mapStep() noexcept {
    const char* path = std::getenv("ORVEXD_STEPPED_CLOCK");
    const int file = path != nullptr ? open(path, O_RDONLY | O_CLOEXEC) : -1;
    if (file < 0) {
        return nullptr;
    }
    void* memory = mmap(nullptr, sizeof(Step), PROT_READ, MAP_SHARED, file, 0);
    close(file);
    return memory != MAP_FAILED ? static_cast<const Step*>(memory) : nullptr;
}

std::int64_t step() noexcept {
    static const Step* const shared = mapStep();
    return shared != nullptr ? shared->load() : 0;
}

timespec steppedTime(clockid_t clock) noexcept {
    static const auto real = reinterpret_cast<GetTime>(dlsym(RTLD_NEXT, "clock_gettime"));
    timespec now{};
    (void)real(clock, &now); // fails only for a clock that does not exist
    now.tv_sec += step();
    return now;
}

} // namespace

// The C library names these parameters with reserved names.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" {

int clock_gettime(clockid_t clock, timespec* time) noexcept {
    if (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE) {
        *time = steppedTime(clock);
        return 0;
    }
    static const auto real = reinterpret_cast<GetTime>(dlsym(RTLD_NEXT, "clock_gettime"));
    return real(clock, time);
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
