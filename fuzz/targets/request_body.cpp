// The body of a request as libcurl's read callback fetches it, with clients that send whatever
// whenever, and buffers of any size.
//
// Input: a sequence of commands, see `run`.
//
// Properties: never more than the buffer is written; the bytes are those of the stream, each slice
// on its own with CR LF for bare line feeds unless its part is binary.

#include "config/MapWrapper.h"
#include "http/DataSignal.h"
#include "http/ExchangeParts.h"
#include "http/LineEnds.h"
#include "http/RequestBody.h"
#include "support/Check.h"
#include "support/ExactCopy.h"
#include "support/Input.h"
#include "support/Target.h"

#include <array>
#include <curl/curl.h>
#include <string>
#include <string_view>
#include <vector>

namespace orvexd::fuzz {
namespace {

using test::makeRequest;
using test::PartKind;

constexpr const char* kBoundary = "boundary";

std::string plainLineEnds(std::string_view text) {
    std::string result;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] == '\n' && at > 0 && text[at - 1] != '\r') {
            result += '\r';
        }
        result += text[at];
    }
    return result;
}

/// The upload as it should be: whole strings, and one slice after the other.
class PlainUpload {
public:
    struct Part {
        bool binary = false;
        std::string header;  ///< goes out with the first data
        std::string pending; ///< not taken yet
        bool headerEmitted = false;
        bool last = false;
    };

    PlainUpload(std::string prefix, std::vector<Part> parts)
        : prefix_(std::move(prefix)), parts_(std::move(parts)) {}

    bool accepts(std::size_t part) const { return static_cast<int>(part) == current_ && !closed_; }

    void append(std::size_t part, std::string_view data, bool last) {
        Part& to = parts_[part];
        if (!to.headerEmitted) {
            to.pending += to.header;
            to.headerEmitted = true;
        }
        to.pending += data;
        to.last = last;
    }

    std::string read(std::size_t capacity) {
        if (!carry_.empty()) {
            return takeFront(carry_, capacity);
        }
        const std::size_t limit =
            capacity >= 2048 ? capacity - 1024 : std::max<std::size_t>(1, capacity / 2);
        bool binary = false;
        std::string slice = takeSlice(limit, binary);
        if (!binary) {
            slice = plainLineEnds(slice);
        }
        carry_ = slice.substr(std::min(slice.size(), capacity));
        return slice.substr(0, capacity);
    }

private:
    static std::string takeFront(std::string& from, std::size_t most) {
        std::string front = from.substr(0, most);
        from.erase(0, front.size());
        return front;
    }

    std::string takeSlice(std::size_t limit, bool& binary) {
        if (complete_) {
            return {};
        }
        if (current_ < 0) {
            std::string slice = takeFront(prefix_, limit);
            if (prefix_.empty()) {
                advance();
            }
            return slice;
        }
        while (true) {
            if (closed_) {
                complete_ = true;
                binary = false;
                return std::string("\r\n--") + kBoundary + "--\r\n";
            }
            const auto index = static_cast<std::size_t>(current_);
            Part& part = parts_[index];
            binary = part.binary;
            std::string slice = takeFront(part.pending, limit);
            const bool finished = part.pending.empty() && part.last;
            if (finished) {
                advance();
            }
            if (!slice.empty()) {
                return slice;
            }
            if (!finished) {
                append(index, {}, true); // nobody waits here: the part ends with what it has
            }
        }
    }

    void advance() {
        if (current_ + 1 >= static_cast<int>(parts_.size())) {
            closed_ = true;
        } else {
            ++current_;
        }
    }

    std::string prefix_;
    std::vector<Part> parts_;
    int current_ = -1;
    bool closed_ = false;
    bool complete_ = false;
    std::string carry_;
};

/// One upload and its plain counterpart.
class Upload {
public:
    Upload(Input& input, std::string prefix) {
        constexpr std::array<const char*, 4> kEncodings = {"binary", "8bit", "", "Binary"};
        constexpr std::array<const char*, 3> kTypes = {"position", "fingerprint", ""};
        std::vector<PlainUpload::Part> plain;
        for (std::size_t count = 1 + input.number(3), index = 1; index <= count; ++index) {
            PartKind kind;
            kind.transferEncoding = kEncodings[input.number(kEncodings.size())];
            kind.type = kTypes[input.number(kTypes.size())];
            queue_.push_back(makeRequest(static_cast<std::uint32_t>(index), true, kind));
            queue_.back()->setContentId("part");
            queue_.back()->setState(RequestState::Queued);
            plain.push_back({kind.transferEncoding == "binary",
                             test::partHead(kBoundary, "part", kind),
                             {},
                             false,
                             false});
            // The clients of these requests are not waited for.
            parameters_.set("orvexd/wait_timeout/" + kind.type, input.number(2) == 0 ? "0" : "-1");
        }
        expected_ = std::make_unique<PlainUpload>(prefix, std::move(plain));
        body_ = std::make_unique<RequestBody>(queue_, kBoundary, std::move(prefix), signal_, owner_,
                                              parameters_);
    }

    std::size_t parts() const { return queue_.size(); }

    void send(std::size_t part, std::string_view data, bool last) {
        const bool taken = queue_[part]->appendIfAccepting(data, last);
        check(taken == expected_->accepts(part), "data is taken from the current part's client");
        if (taken) {
            expected_->append(part, data, last);
            signal_.notifyData();
        }
    }

    /// @return false at the end of the body.
    bool read(std::size_t capacity) {
        const ExactRoom buffer(capacity);
        const std::size_t size = body_->readBody(buffer.span());
        if (cancelled_ || capacity == 0) {
            check(size == CURL_READFUNC_ABORT, "a cancelled upload is aborted");
            return false;
        }
        check(size <= capacity, "never more than the buffer");
        const std::string expected = expected_->read(capacity);
        check(buffer.view().substr(0, size) == expected, "the bytes are the stream's", [&] {
            return std::string(buffer.view().substr(0, size)) + "\ninstead of\n" + expected;
        });
        return size > 0;
    }

    void cancel() {
        signal_.requestCancel();
        cancelled_ = true;
    }

private:
    test::Queue queue_;
    DataSignal signal_;
    test::RecordingOwner owner_;
    Parameters parameters_;
    std::unique_ptr<PlainUpload> expected_;
    std::unique_ptr<RequestBody> body_;
    bool cancelled_ = false;
};

std::size_t readCapacity(Input& input) {
    constexpr std::array<std::size_t, 8> kUsual = {65524, 16384, 2048, 2047, 1024, 4096, 1, 2};
    const std::size_t choice = input.number(16);
    return choice < kUsual.size() ? kUsual[choice] : choice * 256 + input.byte();
}

/// A line of the input, repeated: long texts need no long inputs.
std::string readData(Input& input) {
    constexpr std::array<std::size_t, 8> kTimes = {1, 0, 2, 10, 100, 1000, 4096, 7};
    const std::size_t times = kTimes[input.number(kTimes.size())];
    std::string unit(input.line());
    if (unit.ends_with('$')) {
        unit.back() = '\n';
    }
    std::string data;
    for (std::size_t count = 0; count < times && data.size() < 256UL * 1024; ++count) {
        data += unit;
    }
    return data;
}

void run(Input input) {
    const std::string prefix = readData(input);
    if (prefix.empty()) {
        return; // the composer always has something to say
    }
    Upload upload(input, prefix);
    while (!input.empty()) {
        switch (input.command("rrdDwx")) {
        case 'r': // libcurl reads
            (void)upload.read(readCapacity(input));
            break;
        case 'd': // a client sends some data
            upload.send(input.number(upload.parts()), readData(input), false);
            break;
        case 'D': // a client sends its last data
            upload.send(input.number(upload.parts()), readData(input), true);
            break;
        case 'x':
            upload.cancel();
            break;
        default: { // the text rule on its own
            const std::string text = readData(input);
            const ExactRoom room(input.number(64));
            std::string overflow;
            const std::size_t size = normalizeLineEnds(text, room.span(), overflow);
            check(std::string(room.view().substr(0, size)) + overflow == plainLineEnds(text),
                  "the text rule");
            check(overflow.empty() || size == room.view().size(), "what fits is not left over");
        }
        }
    }
    while (upload.read(4096)) {
    }
}

} // namespace
} // namespace orvexd::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    orvexd::fuzz::run(orvexd::fuzz::Input(data, size));
    return 0;
}
