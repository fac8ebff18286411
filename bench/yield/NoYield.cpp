// Preloaded: a thread that gives up its processor goes on at once instead.

#include <sched.h>

extern "C" int sched_yield() noexcept {
    return 0;
}
