#include "probe/Message.h"

#include "config/MapWrapper.h"
#include "http/Boundary.h"
#include "http/LineEnds.h"
#include "http/TransferOptions.h"
#include "request/RequestData.h"
#include "slp/SlpComposer.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <trilba/core/SystemInfo.h>

namespace orvexd::probe {

namespace {

constexpr std::uint32_t kChunkSize = 65536;
constexpr std::string_view kEmptyFingerprint = "<fingerprintRequest/>\n";

/// Who the device is, as the daemon tells the server.
void setIdentity(Parameters& parameters) {
    std::string value;
    trilba::core::SystemInfo::getImsi(value);
    parameters.set("imsi", value);
    trilba::core::SystemInfo::getImei(value);
    parameters.set("imei", value);
    trilba::core::SystemInfo::getMMF(value);
    parameters.set("fwId", value);
}

std::shared_ptr<const ConnectionParameters> fingerprint() {
    ConnectionParameters parameters;
    parameters.elementName = "fingerprintRequest";
    parameters.type = "fingerprint";
    parameters.version = "1.0";
    parameters.transferEncoding = "binary";
    parameters.contentType = "application/xml";
    parameters.chunkSize = kChunkSize;
    return std::make_shared<const ConnectionParameters>(std::move(parameters));
}

} // namespace

Message::Message() {
    const std::string boundary = generateBoundary();
    lines_ = TransferOptions::headerLines(boundary);
    requests_.push_back(std::make_shared<RequestData>(1, 1, true, fingerprint()));
    RequestData& request = *requests_.front();
    Parameters parameters;
    setIdentity(parameters);
    std::string head;
    (void)composeSlpHeaderPart(boundary, requests_, parameters, head);
    request.writePartHeader(boundary);
    request.appendRequestData(kEmptyFingerprint, true);
    std::array<char, 4096> part{};
    const OutgoingPart::Piece piece = request.takeRequestData(part);
    body_ = normalizeLineEnds(head) + std::string(part.data(), piece.bytes) + "\r\n--" + boundary +
            "--\r\n";
}

std::size_t Message::read(char* to, std::size_t size) {
    const std::size_t count = std::min(size, body_.size() - at_);
    body_.copy(to, count, at_);
    at_ += count;
    return count;
}

} // namespace orvexd::probe
