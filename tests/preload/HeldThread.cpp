// Holds new threads of one process before their first step, for as long as a test likes.
//
// Preloaded. A new thread waits for a shared lock on the file that ORVEXD_HELD_THREADS names; the
// test holds the exclusive one. Without the variable nothing is held.

#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <memory>
#include <pthread.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

using Routine = void* (*)(void*);
using Create = int (*)(pthread_t*, const pthread_attr_t*, Routine, void*);

struct Start {
    Routine routine;
    void* argument;
};

void waitForTheTest() noexcept {
    const char* path = std::getenv("ORVEXD_HELD_THREADS");
    const int file = path != nullptr ? open(path, O_RDONLY | O_CLOEXEC) : -1;
    if (file >= 0) {
        (void)flock(file, LOCK_SH); // an interruption lets the thread go
        close(file);
    }
}

void* startLater(void* data) {
    const std::unique_ptr<Start> start(static_cast<Start*>(data));
    waitForTheTest();
    return start->routine(start->argument);
}

} // namespace

// The C library names these parameters with reserved names.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, Routine routine,
                              void* argument) noexcept {
    static const auto real = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
    auto start = std::make_unique<Start>(Start{routine, argument});
    const int result = real(thread, attributes, &startLater, start.get());
    if (result == 0) {
        (void)start.release(); // the new thread frees it
    }
    return result;
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
