#pragma once

#include <memory>
#include <string>
#include <vector>

namespace orvexd {
class RequestData;
}

namespace orvexd::probe {

/// One request as the daemon would put it on the wire.
class Message {
public:
    Message();

    [[nodiscard]] const std::vector<std::shared_ptr<RequestData>>& requests() const noexcept {
        return requests_;
    }
    [[nodiscard]] const std::vector<std::string>& headerLines() const noexcept { return lines_; }

    /// The next bytes, up to `size`. @return how many; 0 at the end.
    std::size_t read(char* to, std::size_t size);

private:
    std::vector<std::shared_ptr<RequestData>> requests_;
    std::vector<std::string> lines_;
    std::string body_;
    std::size_t at_ = 0;
};

} // namespace orvexd::probe
