#include "request/OutgoingPart.h"

#include <utility>

namespace orvexd {

void OutgoingPart::writeHeader(std::string_view boundary, std::string_view contentId) {
    const Lock guard(lock_);
    header_.append("\r\n--").append(boundary).append("\r\n");
    header_.append("Content-Type: ").append(parameters_->contentType).append("\r\n");
    header_.append("Content-Transfer-Encoding: ")
        .append(parameters_->transferEncoding)
        .append("\r\n");
    header_.append("Content-Id: ").append(contentId).append("\r\n");
    transferEncoding_ = parameters_->transferEncoding;
}

void OutgoingPart::append(std::string_view bytes, bool last) {
    const Lock guard(lock_);
    store(bytes, last);
}

bool OutgoingPart::appendIfAccepting(std::string_view bytes, bool last) {
    const Lock guard(lock_);
    if (!accepting_) {
        return false;
    }
    if (!charge_.hasRoomForData()) {
        countEvent(Statistic::RefusedData);
        return false;
    }
    store(bytes, last);
    return true;
}

void OutgoingPart::store(std::string_view bytes, bool last) {
    if (!headerStored_) {
        header_.append("\r\n");
        bytes_.append(header_);
        header_ = std::string();
        headerStored_ = true;
    }
    bytes_.append(bytes);
    charge_.set(bytes_.footprint());
    lastDataGiven_ = last;
}

OutgoingPart::Piece OutgoingPart::take(std::span<char> room) {
    started_ = true;
    const Lock guard(lock_);
    const std::size_t taken = bytes_.takeInto(room);
    const bool finished = bytes_.empty() && lastDataGiven_;
    if (finished) {
        accepting_ = false;
        bytes_.clear();
    }
    charge_.set(bytes_.footprint());
    const bool hasRoom = bytes_.size() <= kPromptBytes && std::exchange(roomAwaited_, false);
    return {taken, finished, hasRoom};
}

bool OutgoingPart::isCrowded() {
    const Lock guard(lock_);
    roomAwaited_ = bytes_.size() > kPromptBytes;
    return roomAwaited_;
}

bool OutgoingPart::isAccepting() const {
    const Lock guard(lock_);
    return accepting_;
}

void OutgoingPart::setAccepting(bool accepting) {
    const Lock guard(lock_);
    accepting_ = accepting;
}

} // namespace orvexd
