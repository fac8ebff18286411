#include "dbus/ClientCalls.h"

#include <cstring>
#include <utility>

namespace orvexd {

namespace {

/// Memory that a message takes besides its texts and byte arrays, its place in a line included.
constexpr std::size_t kMessageCost = 1024;
/// A message of this size waits even when data fill the memory budget, as every request needs it. A
/// refused call, of which a client has one at the most, waits even when nothing has room.
constexpr std::size_t kSmallMessage = 4096;

// -- copies --------------------------------------------------------------------------------------

/// Bytes of an array or a text, which the copy takes along.
bool copyBytes(DBusMessageIter& from, DBusMessageIter& to, std::size_t& size) {
    DBusMessageIter elements;
    DBusMessageIter copies;
    dbus_message_iter_recurse(&from, &elements);
    const char* data = nullptr; // stays null for an empty array
    int length = 0;
    dbus_message_iter_get_fixed_array(&elements, &data, &length);
    size += static_cast<std::size_t>(length);
    return dbus_message_iter_open_container(&to, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE_AS_STRING,
                                            &copies) != FALSE &&
           (length == 0 || dbus_message_iter_append_fixed_array(&copies, DBUS_TYPE_BYTE, &data,
                                                                length) != FALSE) &&
           dbus_message_iter_close_container(&to, &copies) != FALSE;
}

bool copyBasic(DBusMessageIter& from, DBusMessageIter& to, std::size_t& size) {
    const int type = dbus_message_iter_get_arg_type(&from);
    DBusBasicValue value;
    dbus_message_iter_get_basic(&from, &value);
    if (type == DBUS_TYPE_STRING) {
        size += std::strlen(value.str);
    }
    return dbus_message_iter_append_basic(&to, type, &value) != FALSE;
}

/// Copies the leading arguments that the signature names, up to the first of another type: the
/// handler's own check finds it missing.
/// @return false without memory.
bool copyArguments(DBusMessage& from, DBusMessage& to, const char* signature, std::size_t& size) {
    DBusMessageIter source;
    DBusMessageIter target;
    (void)dbus_message_iter_init(&from, &source);
    dbus_message_iter_init_append(&to, &target);
    for (const char* type = signature; *type != '\0'; ++type) {
        if (dbus_message_iter_get_arg_type(&source) != *type) {
            return true;
        }
        if (*type != DBUS_TYPE_ARRAY) {
            if (!copyBasic(source, target, size)) {
                return false;
            }
        } else {
            ++type; // of the elements
            if (dbus_message_iter_get_element_type(&source) != *type) {
                return true;
            }
            if (!copyBytes(source, target, size)) {
                return false;
            }
        }
        (void)dbus_message_iter_next(&source);
    }
    return true;
}

/// What a handler needs of a message: whom to answer, the member, its arguments. No descriptors, no
/// further arguments.
/// @param size grows by the bytes of its texts and arrays.
/// @return null without memory.
BusMessage copyOf(DBusMessage& message, const char* arguments, std::size_t& size) {
    BusMessage copy(dbus_message_new(dbus_message_get_type(&message)));
    const bool isWhole =
        copy && dbus_message_set_sender(copy.get(), dbus_message_get_sender(&message)) != FALSE &&
        dbus_message_set_path(copy.get(), dbus_message_get_path(&message)) != FALSE &&
        dbus_message_set_interface(copy.get(), dbus_message_get_interface(&message)) != FALSE &&
        dbus_message_set_member(copy.get(), dbus_message_get_member(&message)) != FALSE &&
        copyArguments(message, *copy, arguments, size);
    if (!isWhole) {
        return nullptr;
    }
    dbus_message_set_serial(copy.get(), dbus_message_get_serial(&message));
    dbus_message_set_no_reply(copy.get(), dbus_message_get_no_reply(&message));
    return copy;
}

/// The names of the bus's answer; none when it is an error, or not a list.
ClientCalls::Names namesIn(DBusMessage& reply) {
    ClientCalls::Names names;
    DBusMessageIter arguments;
    if (dbus_message_get_type(&reply) != DBUS_MESSAGE_TYPE_METHOD_RETURN ||
        dbus_message_iter_init(&reply, &arguments) == FALSE ||
        dbus_message_iter_get_arg_type(&arguments) != DBUS_TYPE_ARRAY) {
        return names;
    }
    DBusMessageIter elements;
    dbus_message_iter_recurse(&arguments, &elements);
    while (dbus_message_iter_get_arg_type(&elements) == DBUS_TYPE_STRING) {
        const char* name = nullptr;
        dbus_message_iter_get_basic(&elements, &name);
        names.emplace(name);
        (void)dbus_message_iter_next(&elements);
    }
    return names;
}

} // namespace

// -- the way of a message ------------------------------------------------------------------------

DBusHandlerResult ClientCalls::receive(DBusMessage& message, const char* arguments,
                                       bool needsUser) {
    const char* const sender = dbus_message_get_sender(&message);
    if (sender == nullptr) {
        return kNotHandled; // it comes from no bus: a bus names every sender
    }
    const std::string name(sender);
    if (const auto line = lines_.find(name); line != lines_.end()) {
        waitOrRefuse(line->second, message, arguments);
        return kHandled;
    }
    if (!needsUser) {
        return receiver_.onMessage(message, {kNobody, name});
    }
    if (!users_.contains(name) && !askForUser(name)) {
        BusLink::refuse(message, DBUS_ERROR_NO_MEMORY,
                        "The bus cannot be asked whose call this is");
        return kHandled;
    }
    if (const auto line = lines_.find(name); line != lines_.end()) {
        waitOrRefuse(line->second, message, arguments);
        return kHandled;
    }
    const auto user = users_.find(name);
    if (user == users_.end()) {
        return kHandled; // it has left the bus already
    }
    const Client client{user->second, name};
    try {
        return receiver_.onMessage(message, client);
    } catch (const LimitExceeded& refusal) {
        Line& line = lines_[name];
        line.client = client;
        if (refusal.mayFit && wait(line, message, arguments, true)) {
            awaitNames(name);
        } else {
            lines_.erase(name);
            BusLink::refuse(message, DBUS_ERROR_LIMITS_EXCEEDED, refusal.sentence);
        }
    }
    return kHandled;
}

/// Puts a copy at the line's end.
/// @param isRefused a limit has refused it, and giving back may help.
/// @return false when the line or the memory is full.
bool ClientCalls::wait(Line& line, DBusMessage& message, const char* arguments,
                       bool isRefused) const {
    if (line.waiting.size() >= kMostMessages || line.bytes >= kMostBytes) {
        return false;
    }
    MemoryBudget& budget = MemoryBudget::process();
    if (!isRefused && !budget.hasRoom()) {
        return false;
    }
    std::size_t size = kMessageCost;
    BusMessage copy = copyOf(message, arguments, size);
    const bool hasRoom = size <= kSmallMessage || budget.hasRoomForData();
    if (!copy || !hasRoom) {
        return false;
    }
    line.bytes += size;
    line.waiting.push_back({std::move(copy), Charge(budget, size), namesAsked_ + 1});
    return true;
}

void ClientCalls::waitOrRefuse(Line& line, DBusMessage& message, const char* arguments) const {
    if (wait(line, message, arguments, false)) {
        return;
    }
    const bool isFull = line.waiting.size() >= kMostMessages || line.bytes >= kMostBytes;
    BusLink::refuse(message, DBUS_ERROR_LIMITS_EXCEEDED,
                    isFull ? "Client " + line.client.name + " has " +
                                 std::to_string(line.waiting.size()) + " messages of " +
                                 std::to_string(line.bytes) +
                                 " bytes waiting, the most that are allowed"
                           : std::string(LimitExceeded::kMemoryFull));
}

/// Hands the messages of a line to the receiver until one has to wait for the names.
void ClientCalls::handleWaiting(const std::string& name) {
    for (auto line = lines_.find(name); line != lines_.end(); line = lines_.find(name)) {
        if (line->second.waiting.empty()) {
            lines_.erase(line);
            return;
        }
        // Out of the line meanwhile: a call of quit ends all lines.
        Waiting first = std::move(line->second.waiting.front());
        line->second.waiting.pop_front();
        line->second.bytes -= first.charge.bytes();
        const Client client = line->second.client;
        if (!handle(first, client)) {
            line->second.bytes += first.charge.bytes();
            line->second.waiting.push_front(std::move(first));
            awaitNames(name);
            return;
        }
    }
}

/// @return false when a limit refuses it and newer names are needed.
bool ClientCalls::handle(const Waiting& waiting, const Client& client) {
    for (;;) {
        try {
            if (receiver_.onMessage(*waiting.message, client) == kNotHandled) {
                BusLink::refuseUnhandled(*waiting.message);
            }
            return true;
        } catch (const LimitExceeded& refusal) {
            if (refusal.mayFit && waiting.names > namesInHand_) {
                return false;
            }
            if (!refusal.mayFit || !receiver_.giveBack(refusal)) {
                BusLink::refuse(*waiting.message, DBUS_ERROR_LIMITS_EXCEEDED, refusal.sentence);
                return true;
            }
        }
    }
}

void ClientCalls::clear() {
    lines_.clear();
    heldLines_.clear();
    names_.cancel();
    namesForMemory_ = 0;
}

// -- the user of a name --------------------------------------------------------------------------

/// Begins a line, which ends when the bus has answered and its messages are handled.
/// @return false when the bus could not be asked.
bool ClientCalls::askForUser(const std::string& name) {
    Line& line = lines_[name];
    line.client.name = name;
    if (line.question.ask("GetConnectionUnixUser", name.c_str(),
                          [this, name](DBusMessage& reply) { onUser(name, reply); })) {
        return true;
    }
    lines_.erase(name);
    return false;
}

void ClientCalls::onUser(const std::string& name, DBusMessage& reply) {
    dbus_uint32_t uid = 0;
    Line& line = lines_.at(name);
    if (dbus_message_get_type(&reply) == DBUS_MESSAGE_TYPE_METHOD_RETURN &&
        dbus_message_get_args(&reply, nullptr, DBUS_TYPE_UINT32, &uid, DBUS_TYPE_INVALID) !=
            FALSE) {
        remember(name, uid);
        line.client.uid = uid;
        handleWaiting(name);
        return;
    }
    const std::deque<Waiting> dropped = std::move(line.waiting);
    lines_.erase(name);
    if (dbus_message_is_error(&reply, DBUS_ERROR_NAME_HAS_NO_OWNER) != FALSE) {
        return; // it has left
    }
    for (const Waiting& waiting : dropped) {
        BusLink::refuse(*waiting.message, DBUS_ERROR_FAILED,
                        "The bus does not say whose call this is");
    }
}

void ClientCalls::remember(const std::string& name, std::uint32_t uid) {
    if (users_.size() >= kMostNames) {
        users_.erase(usersOldestFirst_.front());
        usersOldestFirst_.pop_front();
    }
    users_.emplace(name, uid);
    usersOldestFirst_.push_back(name);
}

// -- the names on the bus ------------------------------------------------------------------------

void ClientCalls::requestMemory() {
    if (namesForMemory_ == 0) {
        namesForMemory_ = namesAsked_ + 1;
        askForNames();
    }
}

/// The line's first message waits for the names.
void ClientCalls::awaitNames(const std::string& name) {
    heldLines_.push_back(name);
    askForNames();
}

/// Asks unless a question is under way: who needs a newer answer than that one's gets the next.
void ClientCalls::askForNames() {
    if (names_.isPending()) {
        return;
    }
    ++namesAsked_;
    if (!names_.ask("ListNames", nullptr, [this](DBusMessage& reply) { onNames(&reply); })) {
        onNames(nullptr);
    }
}

/// @param reply null when the bus could not be asked. Without names nothing is given back.
void ClientCalls::onNames(DBusMessage* reply) {
    const std::vector<std::string> held = std::exchange(heldLines_, {});
    const Names onBus = reply != nullptr ? namesIn(*reply) : Names();
    if (!onBus.empty()) {
        receiver_.beginGivingBack(onBus);
    }
    if (namesForMemory_ != 0 && namesForMemory_ <= namesAsked_) {
        namesForMemory_ = 0;
        receiver_.giveBackMemory();
    }
    namesInHand_ = namesAsked_;
    for (const std::string& name : held) {
        handleWaiting(name);
    }
    namesInHand_ = 0;
    receiver_.endGivingBack();
    if (!heldLines_.empty() || namesForMemory_ != 0) {
        askForNames();
    }
}

} // namespace orvexd
