// A client for measurements that stands on the client library, beside bench_client, which does not.
// Commands come on standard input, each is answered with one line.

#include "support/FreeWith.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <memory>
#include <orvexclient.h>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace orvexd::bench {
namespace {

using Clock = std::chrono::steady_clock;
template <typename Object> using ObjectRef = std::unique_ptr<Object, FreeWith<g_object_unref>>;
using BytesRef = std::unique_ptr<GBytes, FreeWith<g_bytes_unref>>;

constexpr std::size_t kPiece = 65536;

[[noreturn]] void fail(GError* error) {
    const std::unique_ptr<GError, FreeWith<g_error_free>> owner{error};
    throw std::runtime_error(error->message);
}

ObjectRef<OrvexRequest> makeRequest() {
    return ObjectRef<OrvexRequest>{
        orvex_request_new("fingerprintRequest", "fingerprint", "1.0", "application/octet-stream")};
}

/// So many bytes, of which one piece is in memory.
ObjectRef<GInputStream> makeQuestion(std::size_t size) {
    const std::string text(kPiece, 'u');
    const BytesRef piece{g_bytes_new(text.data(), text.size())};
    ObjectRef<GInputStream> question{g_memory_input_stream_new()};
    for (std::size_t left = size; left > 0;) {
        const std::size_t amount = std::min(left, kPiece);
        const BytesRef part{g_bytes_new_from_bytes(piece.get(), 0, amount)};
        g_memory_input_stream_add_bytes(G_MEMORY_INPUT_STREAM(question.get()), part.get());
        left -= amount;
    }
    return question;
}

/// One request, from nothing to the end of the answer.
void exchange(OrvexClient* client, std::istream& in, std::ostream& out) {
    std::size_t upload = 0;
    in >> upload;
    const ObjectRef<GInputStream> question = makeQuestion(upload);
    std::vector<char> room(kPiece);
    GError* error = nullptr;
    std::size_t received = 0;
    const Clock::time_point begin = Clock::now();
    const ObjectRef<OrvexRequest> request = makeRequest();
    const ObjectRef<GInputStream> answer{
        orvex_client_send(client, request.get(), question.get(), nullptr, &error)};
    gssize size = answer == nullptr ? -1 : 1;
    while (size > 0) {
        size = g_input_stream_read(answer.get(), room.data(), room.size(), nullptr, &error);
        received += static_cast<std::size_t>(std::max<gssize>(size, 0));
    }
    if (error != nullptr) {
        fail(error);
    }
    const auto done = std::chrono::nanoseconds(Clock::now() - begin).count();
    out << "{\"done\": " << done << ", \"received\": " << received << '}';
}

/// So many small requests, one after the other.
void turns(OrvexClient* client, std::istream& in, std::ostream& out) {
    std::size_t count = 0;
    in >> count;
    const BytesRef question{g_bytes_new_static("question", 8)};
    for (std::size_t number = 0; number < count; ++number) {
        GError* error = nullptr;
        const ObjectRef<OrvexRequest> request = makeRequest();
        const BytesRef answer{
            orvex_client_ask(client, request.get(), question.get(), nullptr, &error)};
        if (answer == nullptr) {
            fail(error);
        }
    }
    out << count;
}

void serve() {
    GError* error = nullptr;
    const ObjectRef<OrvexClient> client{orvex_client_new(nullptr, &error)};
    if (client == nullptr) {
        fail(error);
    }
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream in(line);
        std::ostringstream out;
        std::string name;
        in >> name;
        if (name == "exchange") {
            exchange(client.get(), in, out);
        } else if (name == "turns") {
            turns(client.get(), in, out);
        } else {
            throw std::runtime_error("unknown command: " + line);
        }
        std::cout << out.str() << std::endl;
    }
}

constexpr const char* kUsage =
    "usage: bench_library_client\n"
    "\n"
    "Calls com.kelvra.orvexd through the client library as lines of standard input say, and\n"
    "answers each line with one line of JSON; times are nanoseconds.\n"
    "\n"
    "  exchange UPLOAD   one request, from its making to the end of the answer\n"
    "  turns COUNT       small requests, one after the other\n";

} // namespace
} // namespace orvexd::bench

int main(int argc, char** /*argv*/) {
    if (argc != 1) {
        std::cerr << orvexd::bench::kUsage;
        return 2;
    }
    try {
        orvexd::bench::serve();
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "bench_library_client: " << error.what() << '\n';
        return 1;
    }
}
