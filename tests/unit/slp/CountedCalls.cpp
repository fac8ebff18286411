#include "slp/CountedCalls.h"

#include <cstring>
#include <dlfcn.h>
#include <glib.h>

namespace orvexd::test {

CallCounts& callCounts() noexcept {
    static thread_local CallCounts counts;
    return counts;
}

namespace {

template <typename Function> Function* nextDefinition(const char* name) noexcept {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

} // namespace orvexd::test

// The program's own definitions come before those of the libraries; both count and pass on.

extern "C" void* memmem(const void* text, std::size_t textSize, const void* needle,
                        std::size_t needleSize) noexcept {
    using Memmem = void*(const void*, std::size_t, const void*, std::size_t);
    static auto* const next = orvexd::test::nextDefinition<Memmem>("memmem");
    void* found = next(text, textSize, needle, needleSize);
    const std::size_t looked = found == nullptr
                                   ? textSize
                                   : static_cast<std::size_t>(static_cast<const char*>(found) -
                                                              static_cast<const char*>(text)) +
                                         needleSize;
    orvexd::test::callCounts().bytesSearched += looked;
    return found;
}

extern "C" void g_rec_mutex_lock(GRecMutex* mutex) {
    static auto* const next = orvexd::test::nextDefinition<void(GRecMutex*)>("g_rec_mutex_lock");
    ++orvexd::test::callCounts().recordLocks;
    next(mutex);
}
