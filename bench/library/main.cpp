// A client for measurements that stands on the client library, beside bench_client, which does not.
// Commands come on standard input, each is answered with one line.

#include "support/FreeWith.h"

#include <algorithm>
#include <chrono>
#include <cstring>
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

constexpr std::size_t kRoom = 65536;

[[noreturn]] void fail(GError* error) {
    const std::unique_ptr<GError, FreeWith<g_error_free>> owner{error};
    throw std::runtime_error(error->message);
}

ObjectRef<OrvexRequest> makeRequest() {
    return ObjectRef<OrvexRequest>{
        orvex_request_new("fingerprintRequest", "fingerprint", "1.0", "application/octet-stream")};
}

/// A question of so many bytes that costs its reader next to nothing, and holds none of them.
struct Question {
    GInputStream parent;
    std::size_t left;
};

struct QuestionClass {
    GInputStreamClass parent;
};

G_DEFINE_TYPE(Question, question, G_TYPE_INPUT_STREAM)

gssize readQuestion(GInputStream* stream, void* buffer, gsize count, GCancellable* /*cancellable*/,
                    GError** /*error*/) {
    auto& left = reinterpret_cast<Question*>(stream)->left;
    const std::size_t amount = std::min(left, count);
    std::memset(buffer, 'u', amount);
    left -= amount;
    return static_cast<gssize>(amount);
}

/// On the thread that asks, as streams in memory do; by itself, a stream would take another one.
void readQuestionAsync(GInputStream* stream, void* buffer, gsize count, int /*priority*/,
                       GCancellable* cancellable, GAsyncReadyCallback callback, gpointer data) {
    const ObjectRef<GTask> task{g_task_new(stream, cancellable, callback, data)};
    g_task_return_int(task.get(), readQuestion(stream, buffer, count, nullptr, nullptr));
}

gssize endReading(GInputStream* /*stream*/, GAsyncResult* result, GError** error) {
    return g_task_propagate_int(G_TASK(result), error);
}

void question_class_init(QuestionClass* type) {
    type->parent.read_fn = readQuestion;
    type->parent.read_async = readQuestionAsync;
    type->parent.read_finish = endReading;
}

void question_init(Question* /*question*/) {}

ObjectRef<GInputStream> makeQuestion(std::size_t size) {
    auto* const question = static_cast<Question*>(g_object_new(question_get_type(), nullptr));
    question->left = size;
    return ObjectRef<GInputStream>{&question->parent};
}

/// One request, from nothing to the end of the answer.
void exchange(OrvexClient* client, std::istream& in, std::ostream& out) {
    std::size_t upload = 0;
    in >> upload;
    const ObjectRef<GInputStream> question = makeQuestion(upload);
    std::vector<char> room(kRoom);
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
