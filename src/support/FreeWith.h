#pragma once

namespace orvexd {

/// Deleter of a std::unique_ptr that frees a foreign handle with a plain C function. It has no
/// state, so the owner stays as small as a pointer. The function is called on the thread that ends
/// the owner, never with null.
template <auto Free> struct FreeWith {
    template <typename Handle> void operator()(Handle* handle) const noexcept { Free(handle); }
};

} // namespace orvexd
