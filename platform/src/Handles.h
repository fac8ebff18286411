#pragma once

#include <glib.h>
#include <memory>
#include <unistd.h>
#include <utility>

namespace trilba {

/// Deleter that frees with a plain C function. It has no state, so the owner stays as small as a
/// pointer.
template <auto Free> struct FreeWith {
    template <typename T> void operator()(T* handle) const noexcept { Free(handle); }
};

/// Takes a source out of its context, so that its callback does not run any more.
struct DestroySource {
    void operator()(GSource* source) const noexcept {
        g_source_destroy(source);
        g_source_unref(source);
    }
};

using KeyFile = std::unique_ptr<GKeyFile, FreeWith<g_key_file_unref>>;
using Text = std::unique_ptr<char, FreeWith<g_free>>;
using TextList = std::unique_ptr<char*, FreeWith<g_strfreev>>;
using Error = std::unique_ptr<GError, FreeWith<g_error_free>>;
using Source = std::unique_ptr<GSource, DestroySource>;

/// Closes a file descriptor.
class Descriptor {
public:
    explicit Descriptor(int number = -1) noexcept : number_(number) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    ~Descriptor() {
        if (number_ >= 0) {
            close(number_);
        }
    }

    explicit operator bool() const noexcept { return number_ >= 0; }
    [[nodiscard]] int get() const noexcept { return number_; }

private:
    int number_;
};

} // namespace trilba
