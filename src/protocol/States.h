#pragma once

namespace orvexd {

/// Life of a request. The states only rise, except that each further response part goes through
/// Receiving and PartReceived again. Clients do not see them.
enum class RequestState : unsigned {
    Created = 0,          ///< waiting, in no transfer queue
    Queued = 1,           ///< waiting for its turn in the current exchange
    Sending = 2,          ///< its client is asked for data
    Sent = 3,             ///< all its data has been taken
    Receiving = 4,        ///< bytes of a response part are arriving
    PartReceived = 5,     ///< a response part is complete, more are announced
    AllPartsReceived = 6, ///< as many parts as announced are complete
    Delivered = 7,        ///< every byte has been handed to the client
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
