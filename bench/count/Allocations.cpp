// Counts the heap allocations of the process that it is preloaded into (LD_PRELOAD), in a file that
// ORVEXD_ALLOCATIONS names: one 64-bit number, which others may read at any time.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

// The C library's own entries, so that nothing has to be looked up while memory is asked for.
// NOLINTBEGIN(*-reserved-identifier,*-identifier-naming)
extern "C" void* __libc_malloc(std::size_t size);
extern "C" void* __libc_calloc(std::size_t count, std::size_t size);
extern "C" void* __libc_realloc(void* block, std::size_t size);
// NOLINTEND(*-reserved-identifier,*-identifier-naming)

namespace {

std::atomic<std::uint64_t>* counter = nullptr;

/// Before main: the file is mapped for as long as the process lives.
__attribute__((constructor)) void mapCounter() {
    const char* path = std::getenv("ORVEXD_ALLOCATIONS");
    if (path == nullptr) {
        return;
    }
    const int file = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (file < 0 || ftruncate(file, sizeof(std::uint64_t)) != 0) {
        return;
    }
    void* page = mmap(nullptr, sizeof(std::uint64_t), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    if (page != MAP_FAILED) {
        counter = static_cast<std::atomic<std::uint64_t>*>(page);
    }
}

void count() noexcept {
    if (counter != nullptr) {
        counter->fetch_add(1, std::memory_order_relaxed);
    }
}

} // namespace

extern "C" void* malloc(std::size_t size) {
    count();
    return __libc_malloc(size);
}

extern "C" void* calloc(std::size_t number, std::size_t size) {
    count();
    return __libc_calloc(number, size);
}

extern "C" void* realloc(void* block, std::size_t size) {
    count();
    return __libc_realloc(block, size);
}
