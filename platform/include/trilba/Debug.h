#pragma once

#include "trilba/Export.h"

namespace trilba {

/// The platform's debug facility. The open library writes no log, so nothing is opened, printed or
/// started; the two calls bracket the use of the library. Any thread, any number of times, also
/// from an `atexit` function.
class TRILBA_API Debug {
public:
    static void init() noexcept;
    static void release() noexcept;
};

} // namespace trilba
