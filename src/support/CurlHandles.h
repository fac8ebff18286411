#pragma once

#include "support/FreeWith.h"

#include <curl/curl.h>
#include <memory>
#include <string>

namespace orvexd {

using EasyHandle = std::unique_ptr<CURL, FreeWith<curl_easy_cleanup>>;

/// Ordered header lines for CURLOPT_HTTPHEADER; must outlive the transfer that uses them.
class HeaderList {
public:
    /// Appends a copy of `line`; a line for which libcurl has no memory is left out.
    void append(const std::string& line) {
        if (curl_slist* longer = curl_slist_append(list_.get(), line.c_str())) {
            (void)list_.release(); // curl_slist_append returns the head of the same list
            list_.reset(longer);
        }
    }

    /// Null while no line was appended.
    [[nodiscard]] curl_slist* get() const noexcept { return list_.get(); }

private:
    std::unique_ptr<curl_slist, FreeWith<curl_slist_free_all>> list_;
};

} // namespace orvexd
