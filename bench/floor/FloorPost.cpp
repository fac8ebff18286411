// The least that an exchange needs on the network: one libcurl transfer of the daemon's bytes to
// the daemon's server with the daemon's options. No bus, no XML, no MIME parsing, no second thread;
// the body stands in memory before the clock starts.

#include "http/HttpClient.h"
#include "http/TransferOptions.h"
#include "request/Answer.h"
#include "request/RequestData.h"
#include "slp/SlpComposer.h"
#include "support/CurlHandles.h"
#include "support/Deployment.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <memory>
#include <ratio>
#include <string>
#include <string_view>
#include <thread>
#include <trilba/core/Directory.h>
#include <vector>

namespace orvexd::bench {
namespace {

using Clock = std::chrono::steady_clock;

/// As long as the daemon's boundary.
constexpr std::string_view kBoundary =
    "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ01234567";

/// Keeps a transfer at a speed: rests whenever it is ahead, as often as the daemon does.
class Speed {
public:
    /// @param bytesPerSecond 0 for as fast as it goes.
    explicit Speed(std::uint64_t bytesPerSecond)
        : bytesPerSecond_(bytesPerSecond), begin_(Clock::now()) {}

    void passed(std::size_t bytes) {
        bytes_ += bytes;
        sinceRest_ += bytes;
        if (bytesPerSecond_ == 0 || sinceRest_ < kBetweenRests) {
            return;
        }
        sinceRest_ = 0;
        std::this_thread::sleep_until(
            begin_ + std::chrono::nanoseconds(bytes_ * std::nano::den / bytesPerSecond_));
    }

private:
    static constexpr std::size_t kBetweenRests = BackPressure::kLeastHighWater / 2;

    std::uint64_t bytesPerSecond_;
    std::uint64_t bytes_ = 0;
    std::size_t sinceRest_ = 0;
    Clock::time_point begin_;
};

/// The bytes of the daemon's message for one binary request of `payload` bytes. The payload is one
/// block over and over, so that it stays in the processor's cache as a client's data does.
class Body {
public:
    Body(std::size_t payload, Speed& speed) : left_(payload), block_(kBlock, 'u'), speed_(speed) {
        const auto parameters = std::make_shared<const ConnectionParameters>(ConnectionParameters{
            "fingerprintRequest", "fingerprint", "1.0", "binary", "application/octet-stream", 0});
        const std::vector<std::shared_ptr<RequestData>> queue = {
            std::make_shared<RequestData>(1, 1, true, parameters)};
        composeSlpHeaderPart(kBoundary, queue, HttpClient::getConfiguration(), head_);
        queue.front()->writePartHeader(kBoundary);
        queue.front()->appendRequestData({}, true);
        std::string partHeader(1024, '\0');
        partHeader.resize(queue.front()->takeRequestData(partHeader).bytes);
        head_ += partHeader;
        tail_.append("\r\n--").append(kBoundary).append("--\r\n");
    }

    std::size_t read(char* to, std::size_t room) {
        const std::size_t start = room;
        take(head_, headTaken_, to, room);
        while (left_ > 0 && room > 0) {
            const std::size_t part = std::min({left_, room, kBlock});
            std::memcpy(to, block_.data(), part);
            to += part;
            room -= part;
            left_ -= part;
        }
        if (left_ == 0) {
            take(tail_, tailTaken_, to, room);
        }
        speed_.passed(start - room);
        return start - room;
    }

private:
    static constexpr std::size_t kBlock = std::size_t{64} * 1024;

    static void take(const std::string& from, std::size_t& taken, char*& to, std::size_t& room) {
        const std::size_t part = std::min(from.size() - taken, room);
        std::memcpy(to, from.data() + taken, part);
        taken += part;
        to += part;
        room -= part;
    }

    std::string head_;
    std::string tail_;
    std::size_t headTaken_ = 0;
    std::size_t tailTaken_ = 0;
    std::size_t left_;
    std::string block_;
    Speed& speed_;
};

std::size_t readBody(char* to, std::size_t size, std::size_t count, void* body) {
    return static_cast<Body*>(body)->read(to, size * count);
}

std::size_t dropResponse(char* /*data*/, std::size_t size, std::size_t count, void* speed) {
    static_cast<Speed*>(speed)->passed(size * count);
    return size * count;
}

struct Times {
    std::chrono::nanoseconds whole;
    std::chrono::nanoseconds handshake; ///< of TLS, as libcurl counts it
};

/// One transfer on a connection of its own.
Times post(const std::string& files, const std::string& proxy, std::size_t payload,
           std::uint64_t bytesPerSecond) {
    Speed up(bytesPerSecond);
    Speed down(bytesPerSecond);
    Body body(payload, up);
    HeaderList headers;
    headers.append("Content-Type: multipart/related; type=\"text/xml\"; boundary=\"" +
                   std::string(kBoundary) + "\"; start=\"slpHeaderPart\"");
    headers.append("Transfer-Encoding: chunked");
    headers.append("Expect:");

    const auto begin = Clock::now();
    EasyHandle owned(curl_easy_init());
    CURL* handle = owned.get();
    TransferOptions::setIdentity(handle, files);
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(handle, CURLOPT_HEADER, 1L);
    curl_easy_setopt(handle, CURLOPT_POST, 1L);
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT, 30L);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT, 60L);
    curl_easy_setopt(handle, CURLOPT_READFUNCTION, readBody);
    curl_easy_setopt(handle, CURLOPT_READDATA, &body);
    curl_easy_setopt(handle, CURLOPT_PROXY, proxy.c_str());
    curl_easy_setopt(handle, CURLOPT_NOPROXY, "");
    curl_easy_setopt(handle, CURLOPT_URL, deployment::kServerUrl);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, dropResponse);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &down);
    curl_easy_setopt(handle, CURLOPT_SOCKOPTFUNCTION, &TransferOptions::socketOptionCallback);
    const CURLcode result = curl_easy_perform(handle);
    curl_off_t connected = 0;
    curl_off_t secured = 0;
    curl_easy_getinfo(handle, CURLINFO_CONNECT_TIME_T, &connected);
    curl_easy_getinfo(handle, CURLINFO_APPCONNECT_TIME_T, &secured);
    owned.reset();
    const auto taken = Clock::now() - begin;

    if (result != CURLE_OK) {
        throw std::string(curl_easy_strerror(result));
    }
    return {taken, std::chrono::microseconds(secured - connected)};
}

constexpr const char* kUsage =
    "usage: floor_post DIRECTORY HOST:PORT\n"
    "\n"
    "Posts to the server through the proxy HOST:PORT with the PEM files of DIRECTORY. Reads from\n"
    "standard input lines of four numbers: bytes of a request's data, how many transfers, pause\n"
    "between them in milliseconds, bytes a second that it keeps to, 0 for as fast as it goes.\n"
    "Answers each with a line: for every transfer nanoseconds of the whole and, behind a slash,\n"
    "of the TLS handshake.\n";

} // namespace
} // namespace orvexd::bench

int main(int argc, char** argv) {
    using namespace orvexd::bench;
    if (argc != 3) {
        std::cerr << kUsage;
        return 2;
    }
    curl_global_init(CURL_GLOBAL_SSL);
    try {
        std::size_t payload = 0;
        int count = 0;
        int pause = 0;
        std::uint64_t bytesPerSecond = 0;
        while (std::cin >> payload >> count >> pause >> bytesPerSecond) {
            for (int i = 0; i < count; ++i) {
                std::this_thread::sleep_for(std::chrono::milliseconds(pause));
                const Times times = post(argv[1], argv[2], payload, bytesPerSecond);
                std::cout << times.whole.count() << '/' << times.handshake.count() << ' ';
            }
            std::cout << std::endl;
        }
    } catch (const std::string& error) {
        std::cerr << "floor_post: " << error << '\n';
        return 1;
    }
    curl_global_cleanup();
    return 0;
}
