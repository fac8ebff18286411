#pragma once

// Places in the daemon at which a tracer may look on: USDT probes of the provider "orvexd". Their
// names and arguments are listed in docs/tracing.md and kept stable.
//
// A probe is one instruction that does nothing, and a note in the program file that tells a tracer
// where the arguments are. So a call passes values that are at hand: what would have to be
// composed, counted or looked up is left to the tracer. On a 32-bit processor a tracer sees no
// argument that is longer than a register. Sizes are of the processor's own width for that reason;
// an answer of more than 4 GiB shows a size that has wrapped there.
//
// Texts are not terminated unless the list says so.

#include <cstddef>
#include <cstdint>

#ifndef ORVEXD_NO_PROBES // what the probes cost is measured against a build without them
#define SDT_USE_VARIADIC // so that the header defines STAP_PROBEV
#include <sys/sdt.h>
#define ORVEXD_PROBE(name, ...) STAP_PROBEV(orvexd, name, __VA_ARGS__)
#else
namespace orvexd::probe {
template <typename... Arguments> constexpr void pass(const Arguments&... /*unused*/) noexcept {}
} // namespace orvexd::probe
#define ORVEXD_PROBE(name, ...) ::orvexd::probe::pass(__VA_ARGS__)
#endif

namespace orvexd::probe {

/// Marks a function that consists of its probe: the note then names the caller's registers.
#define ORVEXD_PROBE_FUNCTION [[gnu::always_inline]] inline

// -- requests: any thread ------------------------------------------------------------------------

/// A client has made a request. @param client unique name on the bus, terminated.
ORVEXD_PROBE_FUNCTION void requestNew(std::uint32_t connectionId, std::uint32_t requestId,
                                      bool prepared, std::uint32_t policy, std::uint32_t uid,
                                      const char* client) noexcept {
    ORVEXD_PROBE(request_new, connectionId, requestId, static_cast<std::uint32_t>(prepared), policy,
                 uid, client);
}

/// The state has changed; see RequestState.
ORVEXD_PROBE_FUNCTION void requestState(std::uint32_t connectionId, std::uint32_t requestId,
                                        unsigned before, unsigned now) noexcept {
    ORVEXD_PROBE(request_state, connectionId, requestId, before, now);
}

/// A call is answered with the daemon's own error. @param member terminated.
ORVEXD_PROBE_FUNCTION void callRefused(int code, const char* member) noexcept {
    ORVEXD_PROBE(call_refused, code, member);
}

/// errorSignal is about to be sent. @param keys of the requests, terminated.
ORVEXD_PROBE_FUNCTION void requestsFailed(std::uint32_t code, const char* text, std::size_t size,
                                          const char* keys) noexcept {
    ORVEXD_PROBE(requests_failed, code, text, size, keys);
}

// -- an exchange: worker -------------------------------------------------------------------------

/// The worker has begun. @param requests how many its message carries.
ORVEXD_PROBE_FUNCTION void exchangeBegin(std::size_t requests) noexcept {
    ORVEXD_PROBE(exchange_begin, requests);
}

/// The worker is about to post the outcome. @param code 0 or one of the failure codes.
ORVEXD_PROBE_FUNCTION void exchangeEnd(int code, const char* text, std::size_t size) noexcept {
    ORVEXD_PROBE(exchange_end, code, text, size);
}

/// The connection stands and libcurl asks for the first bytes, or the transfer has ended before.
/// @param result of the server's certificate, 0 for a good one; libcurl's CURLINFO_SSL_VERIFYRESULT
ORVEXD_PROBE_FUNCTION void tlsVerified(long result) noexcept {
    ORVEXD_PROBE(tls_verify, result);
}

/// What libcurl says of a transfer that has ended.
/// @param curlCode CURLcode. @param status of HTTP, 0 when none has come.
ORVEXD_PROBE_FUNCTION void transferEnd(int curlCode, long status, std::size_t bytesUp,
                                       std::size_t bytesDown, long microseconds) noexcept {
    ORVEXD_PROBE(transfer_end, curlCode, status, bytesUp, bytesDown, microseconds);
}

/// When the phases of a transfer had ended, in microseconds since its beginning; 0 for one whose
/// end it has not reached.
/// @param connected to the proxy, if there is one; its CONNECT belongs to the next phase.
/// @param uploaded libcurl has been told that the body is complete.
/// @param answered the first byte of the server's answer has come.
ORVEXD_PROBE_FUNCTION void transferPhases(long resolved, long connected, long secured,
                                          long uploaded, long answered, long whole) noexcept {
    ORVEXD_PROBE(transfer_phases, resolved, connected, secured, uploaded, answered, whole);
}

/// Bytes of the message go to libcurl.
ORVEXD_PROBE_FUNCTION void bytesSent(std::size_t bytes) noexcept {
    ORVEXD_PROBE(bytes_sent, bytes);
}

/// Bytes of the response have come from libcurl, those of heads included.
ORVEXD_PROBE_FUNCTION void bytesReceived(std::size_t bytes) noexcept {
    ORVEXD_PROBE(bytes_received, bytes);
}

/// The upload waits for a client's data. @param milliseconds until it goes on without.
ORVEXD_PROBE_FUNCTION void dataWaitBegin(std::uint32_t connectionId, std::uint32_t requestId,
                                         long milliseconds) noexcept {
    ORVEXD_PROBE(data_wait_begin, connectionId, requestId, milliseconds);
}

/// The wait is over. @param arrived false: the part ends with what it has.
ORVEXD_PROBE_FUNCTION void dataWaitEnd(std::uint32_t connectionId, std::uint32_t requestId,
                                       bool arrived) noexcept {
    ORVEXD_PROBE(data_wait_end, connectionId, requestId, static_cast<std::uint32_t>(arrived));
}

// -- the response: worker ------------------------------------------------------------------------

/// A head is complete. @param code 0, or the failure code of what is wrong with it.
ORVEXD_PROBE_FUNCTION void responseHead(const char* head, std::size_t size, int code) noexcept {
    ORVEXD_PROBE(response_head, head, size, code);
}

/// What a part of the response is for.
enum class Part : std::uint32_t {
    Nobody = 0,   ///< its Content-Id is neither the start part's nor announced
    Document = 1, ///< the start part
    Data = 2,     ///< a request's
};

/// The header block of a part has been read. Connection and request are 0 unless it is a request's.
ORVEXD_PROBE_FUNCTION void partBegin(Part kind, std::uint32_t connectionId, std::uint32_t requestId,
                                     const char* contentId, std::size_t size) noexcept {
    ORVEXD_PROBE(part_begin, static_cast<std::uint32_t>(kind), connectionId, requestId, contentId,
                 size);
}

/// The next delimiter, or the end of the response, ends the part.
ORVEXD_PROBE_FUNCTION void partEnd(Part kind, std::uint32_t connectionId,
                                   std::uint32_t requestId) noexcept {
    ORVEXD_PROBE(part_end, static_cast<std::uint32_t>(kind), connectionId, requestId);
}

/// Something is wrong with the response; a later fault takes the place of an earlier one.
ORVEXD_PROBE_FUNCTION void responseFault(int code, const char* text, std::size_t size) noexcept {
    ORVEXD_PROBE(response_fault, code, text, size);
}

/// The worker waits for room in the memory budget, so that nothing is read from the server.
ORVEXD_PROBE_FUNCTION void roomWaitBegin(std::uint32_t connectionId,
                                         std::uint32_t requestId) noexcept {
    ORVEXD_PROBE(room_wait_begin, connectionId, requestId);
}

/// That wait is over. @param isThere false: the time was up.
ORVEXD_PROBE_FUNCTION void roomWaitEnd(std::uint32_t connectionId, std::uint32_t requestId,
                                       bool isThere) noexcept {
    ORVEXD_PROBE(room_wait_end, connectionId, requestId, static_cast<std::uint32_t>(isThere));
}

// -- an answer on its way to the client ----------------------------------------------------------

/// The client asks for the next chunk. Main loop.
ORVEXD_PROBE_FUNCTION void chunkWanted(std::uint32_t connectionId,
                                       std::uint32_t requestId) noexcept {
    ORVEXD_PROBE(chunk_wanted, connectionId, requestId);
}

/// A chunk goes to the main loop. Any thread. @param code see DeliveryCode.
ORVEXD_PROBE_FUNCTION void chunkPosted(std::uint32_t connectionId, std::uint32_t requestId,
                                       unsigned code, std::size_t bytes) noexcept {
    ORVEXD_PROBE(chunk_posted, connectionId, requestId, code, bytes);
}

/// The chunk has been given to libdbus as the answer to a held call. Main loop.
ORVEXD_PROBE_FUNCTION void chunkDelivered(std::uint32_t connectionId, std::uint32_t requestId,
                                          unsigned code, std::size_t bytes) noexcept {
    ORVEXD_PROBE(chunk_delivered, connectionId, requestId, code, bytes);
}

// -- network and main loop -----------------------------------------------------------------------

/// The connection status has changed; see StatusBit. Main loop.
ORVEXD_PROBE_FUNCTION void networkStatus(std::uint32_t before, std::uint32_t now) noexcept {
    ORVEXD_PROBE(network_status, before, now);
}

/// Work for the main loop is queued. Any thread. @param post names it until it has run.
ORVEXD_PROBE_FUNCTION void postQueued(const void* post) noexcept {
    ORVEXD_PROBE(post_queued, post);
}

/// Its turn has come, also when nothing is to be done any more. Main loop.
ORVEXD_PROBE_FUNCTION void postRun(const void* post) noexcept {
    ORVEXD_PROBE(post_run, post);
}

#undef ORVEXD_PROBE_FUNCTION
#undef ORVEXD_PROBE

} // namespace orvexd::probe
