#pragma once

namespace orvexd {

/// Deleter that frees with a plain C function, so that the owner stays as small as a pointer.
template <auto Free> struct FreeWith {
    template <typename Handle> void operator()(Handle* handle) const noexcept { Free(handle); }
};

} // namespace orvexd
