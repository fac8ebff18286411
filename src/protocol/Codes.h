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

/// Life of a request. The states only rise, with two exceptions: each further response part goes
/// through Receiving and PartReceived again, and a queued request is Created again when no worker
/// can be started. Clients do not see them.
enum class RequestState : unsigned {
    Created = 0,          ///< waiting, in no transfer queue
    Queued = 1,           ///< waiting for its turn in the current exchange
    Sending = 2,          ///< its client is asked for data
    Sent = 3,             ///< all its data has been taken
    Receiving = 4,        ///< bytes of a response part are arriving
    PartReceived = 5,     ///< a response part is complete, more are announced
    AllPartsReceived = 6, ///< as many parts as announced are complete
    Delivered = 7,        ///< the last chunk is on its way to the client
};

/// Bits of the connection status, the value of the property "connectionStatus". Only 0, 1, 3 and 5
/// occur.
enum StatusBit : unsigned {
    StatusConnected = 1, ///< an active connection exists
    StatusKindOne = 2,   ///< the first active one is of kind 1
    StatusFlagged = 4,   ///< it is flagged, or of a kind other than 1 and 2
};

/// Connection policies, the second argument of prepare and attach. Any value that is not named here
/// acts like KindOneOnly, 1 included.
enum ConnectionPolicy : unsigned {
    KindOneOnly = 0,   ///< the status must have StatusKindOne
    NotFlagged = 2,    ///< StatusKindOne, or no StatusFlagged; also without a connection
    AnyConnection = 3, ///< always
};

} // namespace orvexd
