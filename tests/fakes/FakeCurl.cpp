#include "fakes/FakeCurl.h"

#include <algorithm>
#include <cstdarg>
#include <deque>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>

// The definitions below replace libcurl's; its type-checking macros would get in their way.
#undef curl_easy_setopt
#undef curl_easy_getinfo

namespace {

struct Handle {
    curl_read_callback read = nullptr;
    void* readData = nullptr;
    curl_write_callback write = nullptr;
    void* writeData = nullptr;
};

struct World {
    std::mutex mutex;
    std::vector<fake_curl::Option> options;
    std::deque<fake_curl::Script> scripts;
    bool failInit = false;
    int inits = 0;
    int handles = 0;
    int globals = 0;
    long flags = 0;
};

World& world() {
    static World instance;
    return instance;
}

std::string joinedLines(const curl_slist* list) {
    std::string lines;
    for (; list != nullptr; list = list->next) {
        lines += lines.empty() ? "" : "\n";
        lines += list->data;
    }
    return lines;
}

std::string pointerText(const void* pointer) {
    return pointer == nullptr ? "null" : "ptr";
}

std::string textOrNull(const char* text) {
    return text == nullptr ? "null" : text;
}

} // namespace

namespace fake_curl {

Transfer::Piece Transfer::read(std::size_t capacity, std::size_t itemSize) {
    constexpr char kGuard = '\x5a';
    constexpr std::size_t kGuardSize = 64;
    auto& handle = *static_cast<Handle*>(handle_);
    const std::size_t room = capacity * itemSize;
    std::vector<char> buffer(room + kGuardSize, kGuard);
    const std::size_t size = handle.read(buffer.data(), itemSize, capacity, handle.readData);
    EXPECT_TRUE(std::all_of(buffer.begin() + static_cast<std::ptrdiff_t>(room), buffer.end(),
                            [](char c) { return c == kGuard; }))
        << "the read callback wrote behind its buffer";
    if (size == CURL_READFUNC_ABORT) {
        return {{}, true};
    }
    EXPECT_LE(size, room);
    return {std::string(buffer.data(), std::min(size, room)), false};
}

bool Transfer::readAll(std::string& body, std::size_t capacity) {
    for (;;) {
        const Piece piece = read(capacity);
        if (piece.aborted) {
            return false;
        }
        if (piece.bytes.empty()) {
            return true;
        }
        body += piece.bytes;
    }
}

std::size_t Transfer::write(std::string_view bytes, std::size_t itemSize) {
    auto& handle = *static_cast<Handle*>(handle_);
    std::string copy(bytes);
    return handle.write(copy.data(), itemSize, copy.size() / itemSize, handle.writeData);
}

void Transfer::respond(std::string_view head, const std::vector<std::string>& pieces) {
    while (!head.empty()) {
        const std::size_t end = head.find('\n');
        const std::size_t length = end == std::string_view::npos ? head.size() : end + 1;
        write(head.substr(0, length));
        head.remove_prefix(length);
    }
    for (const std::string& piece : pieces) {
        write(piece);
    }
}

void reset() {
    World& w = world();
    const std::lock_guard guard(w.mutex);
    w.options.clear();
    w.scripts.clear();
    w.failInit = false;
    w.inits = 0;
}

void addScript(Script script) {
    const std::lock_guard guard(world().mutex);
    world().scripts.push_back(std::move(script));
}

void failInit(bool fail) {
    const std::lock_guard guard(world().mutex);
    world().failInit = fail;
}

std::vector<Option> options() {
    const std::lock_guard guard(world().mutex);
    return world().options;
}

std::string lastOption(CURLoption id) {
    const std::lock_guard guard(world().mutex);
    const auto& all = world().options;
    const auto found =
        std::find_if(all.rbegin(), all.rend(), [id](const Option& o) { return o.id == id; });
    return found == all.rend() ? std::string() : found->value;
}

int initCount() {
    const std::lock_guard guard(world().mutex);
    return world().inits;
}

int liveHandles() {
    const std::lock_guard guard(world().mutex);
    return world().handles;
}

int globalBalance() {
    const std::lock_guard guard(world().mutex);
    return world().globals;
}

long globalFlags() {
    const std::lock_guard guard(world().mutex);
    return world().flags;
}

} // namespace fake_curl

extern "C" {

CURLcode curl_global_init(long flags) {
    const std::lock_guard guard(world().mutex);
    ++world().globals;
    world().flags = flags;
    return CURLE_OK;
}

void curl_global_cleanup(void) {
    const std::lock_guard guard(world().mutex);
    --world().globals;
}

CURL* curl_easy_init(void) {
    const std::lock_guard guard(world().mutex);
    ++world().inits;
    if (world().failInit) {
        return nullptr;
    }
    ++world().handles;
    return std::make_unique<Handle>().release();
}

void curl_easy_cleanup(CURL* curl) {
    const std::unique_ptr<Handle> handle(static_cast<Handle*>(curl));
    const std::lock_guard guard(world().mutex);
    world().handles -= handle ? 1 : 0;
}

CURLcode curl_easy_setopt(CURL* curl, CURLoption option, ...) {
    if (curl == nullptr) {
        return CURLE_BAD_FUNCTION_ARGUMENT;
    }
    auto& handle = *static_cast<Handle*>(curl);
    std::va_list arguments;
    va_start(arguments, option);
    std::string value;
    if (option < CURLOPTTYPE_OBJECTPOINT) {
        value = std::to_string(va_arg(arguments, long));
    } else if (option == CURLOPT_READFUNCTION) {
        handle.read = va_arg(arguments, curl_read_callback);
        value = "ptr";
    } else if (option == CURLOPT_WRITEFUNCTION) {
        handle.write = va_arg(arguments, curl_write_callback);
        value = "ptr";
    } else if (option == CURLOPT_READDATA) {
        handle.readData = va_arg(arguments, void*);
        value = pointerText(handle.readData);
    } else if (option == CURLOPT_WRITEDATA) {
        handle.writeData = va_arg(arguments, void*);
        value = pointerText(handle.writeData);
    } else if (option == CURLOPT_HTTPHEADER) {
        value = joinedLines(va_arg(arguments, curl_slist*));
    } else if (option == CURLOPT_ERRORBUFFER || option >= CURLOPTTYPE_FUNCTIONPOINT) {
        value = pointerText(va_arg(arguments, void*));
    } else {
        value = textOrNull(va_arg(arguments, const char*));
    }
    va_end(arguments);
    const std::lock_guard guard(world().mutex);
    world().options.push_back({option, value});
    return CURLE_OK;
}

CURLcode curl_easy_getinfo(CURL* curl, CURLINFO /*info*/, ...) {
    return curl == nullptr ? CURLE_BAD_FUNCTION_ARGUMENT : CURLE_OK;
}

CURLcode curl_easy_perform(CURL* curl) {
    if (curl == nullptr) {
        return CURLE_BAD_FUNCTION_ARGUMENT;
    }
    fake_curl::Script script;
    {
        const std::lock_guard guard(world().mutex);
        if (!world().scripts.empty()) {
            script = std::move(world().scripts.front());
            world().scripts.pop_front();
        }
    }
    fake_curl::Transfer transfer(curl);
    return script ? script(transfer) : CURLE_COULDNT_CONNECT;
}

} // extern "C"
