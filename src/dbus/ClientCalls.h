#pragma once

#include "core/OrvexMain.h"
#include "dbus/BusLink.h"
#include "support/BusHandles.h"
#include "support/MemoryBudget.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace orvexd {

/// Finds out whose the clients' messages are, and holds those that cannot be handled yet: the first
/// ones of a new name on the bus until the bus has named its user, and one that a limit refuses
/// until it is known who has left the bus and what can be given back. Behind a message that is held
/// all later ones of the same client wait, so that each client's messages are handled in the order
/// in which they came. Nobody waits for another client's messages, and the main loop for none.
///
/// What waits are copies. libdbus stops reading from the bus when the messages that are not
/// released yet exceed its limits. If the messages themselves waited, a client could send so much
/// before the bus answers that the answer is never read. A copy has nothing but the arguments that
/// its member takes, so its size is known and counts in the memory budget.
///
/// Main loop's thread.
class ClientCalls {
public:
    using Names = std::unordered_set<std::string>;

    /// Who handles the messages and gives back what clients have left behind.
    class IReceiver {
    public:
        virtual ~IReceiver() = default;
        /// Handles a message.
        /// @throws LimitExceeded when a limit refuses it: nothing has changed then.
        virtual DBusHandlerResult onMessage(DBusMessage& message, const Client& client) = 0;
        /// From now on until `endGivingBack` it is known what clients have left behind that are not
        /// on the bus any more.
        /// @param onBus all names, unique ones included.
        virtual void beginGivingBack(const Names& onBus) = 0;
        /// Gives back as much of it as the memory budget needs, nothing when nothing is known.
        virtual void giveBackMemory() = 0;
        /// Gives back the oldest of it.
        /// @return false when there is nothing left that counts for the refusal.
        virtual bool giveBack(const LimitExceeded& refusal) = 0;
        virtual void endGivingBack() = 0;
    };

    /// The most that waits of one client. A message is taken whole when the client was below.
    static constexpr std::size_t kMostMessages = 1024;
    static constexpr std::size_t kMostBytes = std::size_t{8} * 1024 * 1024;
    /// Names whose users are remembered. One that is forgotten is asked for again.
    static constexpr std::size_t kMostNames = 1024;

    /// @param receiver must outlive this object.
    explicit ClientCalls(IReceiver& receiver) noexcept : receiver_(receiver) {}

    /// Hands a message to the receiver, now or later.
    /// @param arguments signature of the leading arguments that its handler reads: of u, b, s, ay.
    /// @param needsUser its user has to be known. Any message waits behind others of its sender.
    DBusHandlerResult receive(DBusMessage& message, const char* arguments, bool needsUser);

    /// Has the receiver give back memory as soon as it is known who has left the bus.
    void requestMemory();

    /// Forgets the messages that wait, without an answer, and gives up all questions to the bus.
    void clear();

private:
    /// A message that waits.
    struct Waiting {
        BusMessage message;
        Charge charge;
        std::uint64_t names; ///< number of the first list of names that is new enough for it
    };

    /// The messages of one sender that wait, in order. It exists as long as the sender's user is
    /// asked for, or its first message waits for the names.
    struct Line {
        Client client; ///< the user is known once the question has been answered
        BusQuestion question;
        std::deque<Waiting> waiting;
        std::size_t bytes = 0;
    };

    bool askForUser(const std::string& name);
    void onUser(const std::string& name, DBusMessage& reply);
    void remember(const std::string& name, std::uint32_t uid);

    bool wait(Line& line, DBusMessage& message, const char* arguments, bool isRefused) const;
    void waitOrRefuse(Line& line, DBusMessage& message, const char* arguments) const;
    void handleWaiting(const std::string& name);
    bool handle(const Waiting& waiting, const Client& client);

    void awaitNames(const std::string& name);
    void askForNames();
    void onNames(DBusMessage* reply);

    /// User id of clients whose messages need none.
    static constexpr std::uint32_t kNobody = 0xffff'ffff;

    IReceiver& receiver_;
    std::map<std::string, Line> lines_; // by the sender's name

    std::unordered_map<std::string, std::uint32_t> users_; // by name
    std::deque<std::string> usersOldestFirst_;

    BusQuestion names_;
    std::uint64_t namesAsked_ = 0;       // number of the newest question
    std::uint64_t namesInHand_ = 0;      // number of the one whose answer is at hand, 0 for none
    std::uint64_t namesForMemory_ = 0;   // number of the first one that memory needs, 0 for none
    std::vector<std::string> heldLines_; // whose first message waits for the names
};

} // namespace orvexd
