#pragma once

/// Failures inside the daemon are plain integers, returned or thrown. Clients read them from error
/// replies ("(41) unspecifiedError"), from the signal errorSignal and from the result of sendData.
namespace orvexd::failure {

inline constexpr int kNone = 0;
inline constexpr int kUnknownRequest = 41;      ///< no such request, or HTTP status 400
inline constexpr int kTransport = 43;           ///< libcurl failed, or another HTTP 4xx status
inline constexpr int kRefusedByServer = 51;     ///< SLP status not "ok", or not HTTP at all
inline constexpr int kServerError = 55;         ///< HTTP status 500 or above
inline constexpr int kNotAuthorized = 56;       ///< HTTP status 401 or 403
inline constexpr int kNotAccepting = 57;        ///< request not asked for data; no libcurl handle
inline constexpr int kUnknownConnection = 1001; ///< no such connection
inline constexpr int kFormat = 1003;            ///< MIME or SLP format error
inline constexpr int kExchangeFailed = 2001;    ///< the exchange failed, not for the network
inline constexpr int kBadArguments = 2002;      ///< D-Bus arguments do not match
inline constexpr int kNoConnection = 2204;      ///< no allowed network connection
inline constexpr int kNotPermitted = 2205;      ///< network positioning is not permitted

} // namespace orvexd::failure

namespace orvexd {

/// Tells a client with each chunk where the chunk stands in the response. getData returns the
/// number as a uint32.
enum class DeliveryCode : unsigned {
    PartContinues = 2301,    ///< more bytes of the same response part follow
    PartComplete = 2302,     ///< the chunk ends a part and further parts follow
    ResponseComplete = 2303, ///< the chunk ends the last part of the response
};

} // namespace orvexd
