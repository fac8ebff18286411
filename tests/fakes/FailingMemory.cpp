#include "fakes/FailingMemory.h"

#include <cstddef>
#include <new>

namespace {

constexpr int kOff = -1;
constexpr int kFailed = -2;

thread_local int allocationsLeft = kOff;

void countAllocation() {
    if (allocationsLeft == 0) {
        allocationsLeft = kFailed;
        throw std::bad_alloc();
    }
    if (allocationsLeft > 0) {
        --allocationsLeft;
    }
}

} // namespace

// operator new and operator new[] by the names that the linker gives them
void* realNew(std::size_t size) __asm__("__real_" ORVEXD_NEW_SYMBOL);
void* realNewArray(std::size_t size) __asm__("__real_" ORVEXD_NEW_ARRAY_SYMBOL);
void* wrappedNew(std::size_t size) __asm__("__wrap_" ORVEXD_NEW_SYMBOL);
void* wrappedNewArray(std::size_t size) __asm__("__wrap_" ORVEXD_NEW_ARRAY_SYMBOL);

void* wrappedNew(std::size_t size) {
    countAllocation();
    return realNew(size);
}

void* wrappedNewArray(std::size_t size) {
    countAllocation();
    return realNewArray(size);
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

} // namespace failing_memory
