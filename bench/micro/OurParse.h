#pragma once

#include "Bodies.h"
#include "request/RequestData.h"

#include <memory>
#include <vector>

namespace orvexd::bench {

/// Pieces in which a client of libcurl gets a response. No delimiter and no header block lies
/// across two of them, as the protocol asks of a server.
std::vector<std::string_view> cutResponse(const Response& response, std::size_t piece);

/// Requests of one connection, as the parser gets them. `receiver` gets their chunks.
std::vector<std::shared_ptr<RequestData>> makeQueue(std::size_t requests = 1,
                                                    const char* encoding = "binary",
                                                    std::uint32_t chunkSize = 65536,
                                                    IChunkReceiver* receiver = nullptr);

/// Parses a response for a client that keeps pace: whatever the request has stored is fetched when
/// the next piece comes. @return false when something was wrong with the response.
bool parseOurs(const Response& response, const std::vector<std::string_view>& pieces);

} // namespace orvexd::bench
