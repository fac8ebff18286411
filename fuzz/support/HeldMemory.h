#pragma once

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ORVEXD_SANITIZER_ALLOCATOR 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ORVEXD_SANITIZER_ALLOCATOR 1
#endif
#endif

#ifdef ORVEXD_SANITIZER_ALLOCATOR
// GCC has the function but not the header.
extern "C" std::size_t __sanitizer_get_current_allocated_bytes() noexcept;
#else
#include <malloc.h>
#endif

namespace orvexd::fuzz {

/// Bytes on the heap at this moment.
inline std::size_t heldMemory() noexcept {
#ifdef ORVEXD_SANITIZER_ALLOCATOR
    return __sanitizer_get_current_allocated_bytes();
#else
    const struct mallinfo2 state = mallinfo2();
    return state.uordblks + state.hblkhd;
#endif
}

} // namespace orvexd::fuzz
