#include "fakes/FailingMemory.h"

#include <cstddef>
#include <malloc.h>
#include <new>

namespace {

constexpr int kOff = -1;
constexpr int kFailed = -2;

thread_local int allocationsLeft = kOff;

struct Numbers {
    std::size_t allocations = 0;
    std::size_t bytes = 0;
    std::ptrdiff_t held = 0;
};

thread_local constinit Numbers numbers;

void* noteNew(void* memory, std::size_t size) noexcept {
    ++numbers.allocations;
    numbers.bytes += size;
    numbers.held += static_cast<std::ptrdiff_t>(malloc_usable_size(memory));
    return memory;
}

void* noteDelete(void* memory) noexcept {
    numbers.held -= static_cast<std::ptrdiff_t>(malloc_usable_size(memory)); // 0 for null
    return memory;
}

void failWhenAsked() {
    if (allocationsLeft == 0) {
        allocationsLeft = kFailed;
        throw std::bad_alloc();
    }
    if (allocationsLeft > 0) {
        --allocationsLeft;
    }
}

} // namespace

// operator new, new[], delete and delete[] by the names that the linker gives them
void* realNew(std::size_t size) __asm__("__real_" ORVEXD_NEW_SYMBOL);
void* realNewArray(std::size_t size) __asm__("__real_" ORVEXD_NEW_ARRAY_SYMBOL);
void* wrappedNew(std::size_t size) __asm__("__wrap_" ORVEXD_NEW_SYMBOL);
void* wrappedNewArray(std::size_t size) __asm__("__wrap_" ORVEXD_NEW_ARRAY_SYMBOL);

void realDelete(void* memory) __asm__("__real__ZdlPv");
void realDeleteArray(void* memory) __asm__("__real__ZdaPv");
void realDeleteSized(void* memory, std::size_t size) __asm__("__real_" ORVEXD_DELETE_SYMBOL);
void wrappedDelete(void* memory) __asm__("__wrap__ZdlPv");
void wrappedDeleteArray(void* memory) __asm__("__wrap__ZdaPv");
void wrappedDeleteSized(void* memory, std::size_t size) __asm__("__wrap_" ORVEXD_DELETE_SYMBOL);

void* wrappedNew(std::size_t size) {
    failWhenAsked();
    return noteNew(realNew(size), size);
}

void* wrappedNewArray(std::size_t size) {
    failWhenAsked();
    return noteNew(realNewArray(size), size);
}

void wrappedDelete(void* memory) {
    realDelete(noteDelete(memory));
}

void wrappedDeleteArray(void* memory) {
    realDeleteArray(noteDelete(memory));
}

void wrappedDeleteSized(void* memory, std::size_t size) {
    realDeleteSized(noteDelete(memory), size);
}

namespace failing_memory {

FailOnce::FailOnce(int after) noexcept {
    allocationsLeft = after;
}

FailOnce::~FailOnce() {
    allocationsLeft = kOff;
}

bool FailOnce::hasFailed() const noexcept {
    return allocationsLeft == kFailed;
}

Count::Count() noexcept
    : allocations_(numbers.allocations), bytes_(numbers.bytes), held_(numbers.held) {}

std::size_t Count::allocations() const noexcept {
    return numbers.allocations - allocations_;
}

std::size_t Count::bytes() const noexcept {
    return numbers.bytes - bytes_;
}

std::ptrdiff_t Count::held() const noexcept {
    return numbers.held - held_;
}

} // namespace failing_memory
