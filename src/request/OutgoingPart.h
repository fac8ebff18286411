#pragma once

#include "support/ByteQueue.h"
#include "support/MemoryBudget.h"
#include "support/Statistics.h"
#include "support/Threads.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace orvexd {

/// A client of the daemon, as the bus knows it.
struct Client {
    std::uint32_t uid = 0; ///< root when nobody says otherwise
    std::string name = {}; ///< unique name on the bus
};

/// What one user has in the daemon. Main loop's thread.
struct User {
    std::uint32_t uid = 0;
    std::size_t connections = 0;   ///< that are open
    std::size_t requests = 0;      ///< that live, those of closed connections included
    std::size_t argumentBytes = 0; ///< of the connections' records
};

/// What counts for a user, and in the memory of the process, for as long as this lives. Main loop's
/// thread.
template <std::size_t User::*kWhat> class Share {
public:
    /// @param user null: nothing counts.
    /// @param memory bytes that it takes in the process.
    Share(std::shared_ptr<User> user, std::size_t amount, std::size_t memory) noexcept
        : user_(std::move(user)),
          amount_(user_ ? amount : 0),
          charge_(MemoryBudget::process(), user_ ? memory : 0) {
        if (user_) {
            user_.get()->*kWhat += amount_;
        }
    }
    ~Share() {
        if (user_) {
            user_.get()->*kWhat -= amount_;
        }
    }
    Share(Share&&) noexcept = default; // leaves no user behind
    Share(const Share&) = delete;
    Share& operator=(const Share&) = delete;
    Share& operator=(Share&&) = delete;

private:
    std::shared_ptr<User> user_;
    std::size_t amount_;
    Charge charge_;
};

/// Who opened a connection. Nobody changes it once it is made.
struct Opener {
    std::shared_ptr<User> user;
    std::string name; ///< unique name on the bus
    Share<&User::argumentBytes> argumentBytes;
};

/// What a client gave when it connected. All requests of the connection share one record, which
/// nobody changes once it is made, so any thread may read it.
///
/// The five strings are the client's bytes as they came. They may hold anything, zero bytes and
/// line breaks included, and go into the message unchecked.
struct ConnectionParameters {
    std::string elementName;      ///< element that stands for a request in the SLP message
    std::string type;             ///< "type" attribute of that element
    std::string version;          ///< "version" attribute of that element
    std::string transferEncoding; ///< Content-Transfer-Encoding of the request's part
    std::string contentType;      ///< Content-Type of the request's part
    std::uint32_t chunkSize = 0;  ///< largest number of response bytes in one delivery
    [[no_unique_address]] Counted<Statistic::Connections> counted = {};
    std::shared_ptr<const Opener> opener = {}; ///< null: nobody's, and counted for nobody

    /// The user that the connection and its requests count for; null for nobody.
    [[nodiscard]] std::shared_ptr<User> user() const noexcept {
        return opener ? opener->user : nullptr;
    }
    /// Whether the ids of the connection mean something to the client. They mean something to
    /// root and to the user who opened it.
    [[nodiscard]] bool isKnownTo(const Client& client) const noexcept {
        return client.uid == 0 || !opener || opener->user->uid == client.uid;
    }
};

/// The MIME part in which a request's data goes to the server, while the client still delivers it.
///
/// What is not taken yet counts in the process's memory budget. Only one part accepts data at a
/// time, the current one of the exchange, so its bytes are all that a user has under way.
///
/// The main loop appends, the worker takes; one lock guards what both touch. Lock order: the
/// transfer's data mutex comes before this lock. Nobody who holds this lock takes that mutex.
class OutgoingPart {
public:
    /// Bytes that may wait for the transfer before the client is slowed down.
    static constexpr std::size_t kPromptBytes = std::size_t{8} * 1024 * 1024;

    /// What one take has brought.
    struct Piece {
        std::size_t bytes; ///< how many bytes were copied
        bool finished;     ///< nothing is left and the client marked its data as complete
        bool hasRoom;      ///< the part was crowded, is not any more, and somebody waits for that
    };

    /// @param parameters of the client's connection: content type and transfer encoding.
    /// @param budget must outlive this object.
    OutgoingPart(std::shared_ptr<const ConnectionParameters> parameters,
                 MemoryBudget& budget) noexcept
        : parameters_(std::move(parameters)), charge_(budget) {}

    /// Composes the part's header lines: delimiter, Content-Type, Content-Transfer-Encoding,
    /// Content-Id. They wait for the first data, so that an empty line can follow them. Worker.
    /// @param boundary of the exchange's multipart body.
    /// @throws std::bad_alloc.
    void writeHeader(std::string_view boundary, std::string_view contentId);

    /// Content-Transfer-Encoding of the part; empty before `writeHeader`. Worker.
    [[nodiscard]] const std::string& transferEncoding() const noexcept { return transferEncoding_; }

    /// Stores client data. The header and its empty line go in front of the first data. Any thread.
    /// @param last the data ends the part; a later call with false takes that back.
    /// @throws std::bad_alloc; nothing of the data is stored then.
    void append(std::string_view bytes, bool last);

    /// `append` if the transfer asks for this part's data. Test and append are one step, so that
    /// data is either taken or refused, never lost in between. Any thread.
    /// @return false when the part does not accept data, or when there is no room for it.
    [[nodiscard]] bool appendIfAccepting(std::string_view bytes, bool last);

    /// Moves up to room.size() bytes into `room`. A take that finishes the part ends the acceptance
    /// of data in the same step, so that no data is accepted and then left behind. Worker.
    [[nodiscard]] Piece take(std::span<char> room);

    /// Whether more than `kPromptBytes` wait for the transfer. If so, the take that ends that says
    /// so. Main loop.
    [[nodiscard]] bool isCrowded();

    /// True while the transfer asks the client for this part's data. Any thread.
    [[nodiscard]] bool isAccepting() const;
    /// Begins or ends the acceptance of data. Worker.
    void setAccepting(bool accepting);

    /// True once `take` has been called, whether it found bytes or not. Worker.
    [[nodiscard]] bool hasStarted() const noexcept { return started_; }

private:
    void store(std::string_view bytes, bool last);

    const std::shared_ptr<const ConnectionParameters> parameters_;
    std::string transferEncoding_; // worker
    bool started_ = false;         // worker

    mutable Mutex lock_;
    std::string header_;         // guarded by lock_; empty again once it is in bytes_
    bool headerStored_ = false;  // guarded by lock_
    ByteQueue bytes_;            // guarded by lock_
    bool lastDataGiven_ = false; // guarded by lock_
    bool accepting_ = false;     // guarded by lock_
    bool roomAwaited_ = false;   // guarded by lock_
    Charge charge_;              // guarded by lock_; what bytes_ takes
};

} // namespace orvexd
