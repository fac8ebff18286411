#pragma once

#include <curl/curl.h>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/// Stand-in for libcurl's easy interface, put in its place when a unit test is linked. It records
/// the options and lets the test play libcurl and the server with the callbacks that were
/// registered.
namespace fake_curl {

/// Size of libcurl's upload buffer for a chunked body, as libcurl 7.88 offers it.
inline constexpr std::size_t kUploadBuffer = 65524;

/// One option as it was set: its id and its value as text (numbers in decimal, pointers as "ptr" or
/// "null", header lists as lines joined by '\n').
struct Option {
    CURLoption id;
    std::string value;
};

/// A transfer under way, on the thread that called curl_easy_perform.
class Transfer {
public:
    explicit Transfer(void* handle) : handle_(handle) {}

    struct Piece {
        std::string bytes;
        bool aborted = false;
    };

    /// One call of the read callback with a buffer of `capacity` items of `itemSize` bytes; empty
    /// and not aborted at the body's end. Fails the test when bytes behind the buffer were written.
    Piece read(std::size_t capacity = kUploadBuffer, std::size_t itemSize = 1);

    /// Reads to the end of the body. @return false when the callback aborted.
    bool readAll(std::string& body, std::size_t capacity = kUploadBuffer);

    /// One call of the write callback, with `bytes` as items of `itemSize` bytes. @return its
    /// result.
    std::size_t write(std::string_view bytes, std::size_t itemSize = 1);

    /// Writes head and body as libcurl does: a call for each head line, then one for each piece.
    void respond(std::string_view head, const std::vector<std::string>& pieces);

private:
    void* handle_;
};

/// Plays one transfer; the result is what curl_easy_perform returns.
using Script = std::function<CURLcode(Transfer&)>;

/// Forgets recordings and scripts.
void reset();

/// Script of the next transfer that has none yet; transfers without a script fail with
/// CURLE_COULDNT_CONNECT.
void addScript(Script script);

/// curl_easy_init returns null from now on.
void failInit(bool fail);

/// Options of all handles in the order in which they were set.
std::vector<Option> options();
/// Value that was set last for `id`, empty when it never was.
std::string lastOption(CURLoption id);

int initCount();
int liveHandles();
/// Balance of curl_global_init and curl_global_cleanup, and the flags of the last init.
int globalBalance();
long globalFlags();

} // namespace fake_curl
