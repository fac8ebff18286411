#pragma once

#include <cstddef>

namespace orvexd::test {

/// What this thread has asked of two library functions that the test program stands in front of:
/// cost as a number that does not depend on the machine.
struct CallCounts {
    std::size_t bytesSearched = 0; ///< bytes that memmem had to look at
    std::size_t recordLocks = 0;   ///< calls of g_rec_mutex_lock: operations on request records
};

CallCounts& callCounts() noexcept;

} // namespace orvexd::test
