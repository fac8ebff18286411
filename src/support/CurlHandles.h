#pragma once

#include "support/FreeWith.h"

#include <curl/curl.h>
#include <memory>
#include <string>

namespace orvexd {

/// A libcurl easy handle. Only one thread may use it at a time (libcurl-thread(3)); the daemon
/// makes and ends it on the worker. End it before the lists and buffers that it refers to.
using EasyHandle = std::unique_ptr<CURL, FreeWith<curl_easy_cleanup>>;

/// Ordered header lines for CURLOPT_HTTPHEADER. libcurl keeps a pointer to the list, so the list
/// must outlive the handle that uses it.
class HeaderList {
public:
    /// Appends a copy of `line`; a line for which libcurl has no memory is left out.
    void append(const std::string& line) {
        if (curl_slist* longer = curl_slist_append(list_.get(), line.c_str())) {
            (void)list_.release(); // curl_slist_append returns the head of the same list
            list_.reset(longer);
        }
    }

    /// The first entry, as libcurl takes it. Null while no line was appended.
    [[nodiscard]] curl_slist* get() const noexcept { return list_.get(); }

private:
    std::unique_ptr<curl_slist, FreeWith<curl_slist_free_all>> list_;
};

} // namespace orvexd
