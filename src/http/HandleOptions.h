#pragma once

#include <curl/curl.h>
#include <string>

namespace orvexd {

/// Sets what does not change from one transfer to the next: how names are resolved, TLS with the
/// client certificate, the HTTP version.
/// @param files directory of the three PEM files.
void setHandleOptions(CURL* handle, const std::string& files);

} // namespace orvexd
