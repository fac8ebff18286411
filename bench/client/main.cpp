// A client for measurements: no main loop, no checks beyond what tells success from failure, times
// taken inside. Commands come on standard input, each is answered with one line.

#include "Calls.h"
#include "Exchange.h"
#include "ManyRequests.h"
#include "Probe.h"
#include "Start.h"
#include "Unfetched.h"

#include <iostream>
#include <map>
#include <sstream>

namespace orvexd::bench {
namespace {

void print(std::ostream& out, const std::vector<std::int64_t>& numbers) {
    out << '[';
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        out << (i == 0 ? "" : ", ") << numbers[i];
    }
    out << ']';
}

/// The connection with this chunk size, opened when it is needed first.
class Connections {
public:
    explicit Connections(const Bus& bus) : bus_(bus) {}

    dbus_uint32_t of(std::uint32_t chunkSize) {
        const auto [entry, added] = ids_.try_emplace(chunkSize, 0);
        if (added) {
            entry->second = openConnection(bus_, chunkSize);
        }
        return entry->second;
    }

    /// A new one in the place of that, with which its requests and their answers go.
    dbus_uint32_t anew(std::uint32_t chunkSize) {
        const auto old = ids_.find(chunkSize);
        if (old != ids_.end()) {
            closeConnection(bus_, old->second);
            ids_.erase(old);
        }
        return of(chunkSize);
    }

private:
    const Bus& bus_;
    std::map<std::uint32_t, dbus_uint32_t> ids_;
};

void exchange(const Bus& bus, Connections& connections, std::istream& in, std::ostream& out) {
    ExchangePlan plan;
    std::uint32_t chunkSize = 0;
    std::size_t answer = 0;
    in >> plan.upload >> plan.piece >> plan.perSecond >> chunkSize >> answer >> plan.fetchLate;
    const ExchangeTimes times = runExchange(bus, connections.of(chunkSize), plan, answer);
    out << "{\"asked\": " << nanoseconds(times.asked)
        << ", \"uploaded\": " << nanoseconds(times.uploaded)
        << ", \"done\": " << nanoseconds(times.done) << ", \"received\": " << times.received
        << ", \"chunks\": " << times.chunks << ", \"upload_marks\": ";
    print(out, times.uploadMarks);
    out << ", \"answer_marks\": ";
    print(out, times.answerMarks);
    out << '}';
}

/// One request as the client guide asks for it: on a connection of its own, and not over before two
/// calls behind the last chunk are answered.
void request(const Bus& bus, Connections& /*connections*/, std::istream& in, std::ostream& out) {
    ExchangePlan plan;
    in >> plan.upload;
    const Clock::time_point begin = Clock::now();
    const dbus_uint32_t connection = openConnection(bus, 65536);
    const ExchangeTimes times = runExchange(bus, connection, plan, 0);
    bus.send(makeCall("Ping", "org.freedesktop.DBus.Peer"));
    bus.call(makeCall("Ping", "org.freedesktop.DBus.Peer"));
    const Clock::duration done = Clock::now() - begin;
    closeConnection(bus, connection);
    out << "{\"done\": " << nanoseconds(done) << ", \"received\": " << times.received << '}';
}

void many(const Bus& bus, Connections& connections, std::istream& in, std::ostream& out) {
    std::size_t count = 0;
    std::size_t bytes = 0;
    in >> count >> bytes;
    out << nanoseconds(runManyRequests(bus, connections.of(65536), count, bytes));
}

void unfetched(const Bus& bus, Connections& connections, std::istream& in, std::ostream& out) {
    std::size_t count = 0;
    std::size_t bytes = 0;
    in >> count >> bytes;
    const Clock::time_point begin = startUnfetched(bus, connections.anew(65536), count, bytes);
    out << nanoseconds(begin.time_since_epoch());
}

void load(const Bus& bus, Connections& /*connections*/, std::istream& in, std::ostream& out) {
    std::size_t count = 0;
    in >> count;
    openLoad(bus, count);
    out << "\"ok\"";
}

void connects(const Bus& bus, Connections& /*connections*/, std::istream& in, std::ostream& out) {
    std::size_t count = 0;
    in >> count;
    print(out, timeConnects(bus, count));
}

void calls(const Bus& bus, Connections& connections, std::istream& in, std::ostream& out) {
    std::size_t count = 0;
    in >> count;
    const CallTimes times = timeCalls(bus, connections.of(64), count);
    out << "{\"prepare\": " << times.prepare << ", \"sendData\": ";
    print(out, times.sendData);
    out << ", \"getData\": ";
    print(out, times.getData);
    out << '}';
}

void probes(const Bus& bus, Connections& /*connections*/, std::istream& in, std::ostream& out) {
    int milliseconds = 0;
    int interval = 0;
    in >> milliseconds >> interval;
    print(out,
          probe(bus, std::chrono::milliseconds(milliseconds), std::chrono::microseconds(interval)));
}

void start(const Bus& bus, Connections& /*connections*/, std::istream& in, std::ostream& out) {
    std::vector<std::string> command;
    for (std::string word; in >> word;) {
        command.push_back(word);
    }
    out << nanoseconds(timeStart(bus, command));
}

using Command = void (*)(const Bus&, Connections&, std::istream&, std::ostream&);

const std::map<std::string, Command>& commands() {
    static const std::map<std::string, Command> kCommands = {
        {"exchange", exchange}, {"many", many},           {"load", load},
        {"connects", connects}, {"calls", calls},         {"probe", probes},
        {"start", start},       {"unfetched", unfetched}, {"request", request}};
    return kCommands;
}

void serve(const Bus& bus) {
    Connections connections(bus);
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream in(line);
        std::ostringstream out;
        std::string name;
        in >> name;
        const auto command = commands().find(name);
        if (command == commands().end()) {
            throw std::runtime_error("unknown command: " + line);
        }
        command->second(bus, connections, in, out);
        std::cout << out.str() << std::endl;
    }
}

constexpr const char* kUsage =
    "usage: bench_client\n"
    "\n"
    "Calls com.kelvra.orvexd on the system bus as lines of standard input say, and answers each "
    "line\n"
    "with one line of JSON; times are nanoseconds. Ends with its standard input.\n"
    "\n"
    "  exchange UPLOAD PIECE PER-SECOND CHUNK ANSWER LATE   one request, from prepare to the last\n"
    "                          chunk; LATE 1: getData when everything is sent, 0: at once\n"
    "  request UPLOAD          one request as the client guide asks for it, from connect to the\n"
    "                          answers of two calls behind the last chunk\n"
    "  many COUNT BYTES        one exchange of COUNT requests\n"
    "  unfetched COUNT BYTES   the same, but nobody fetches the answers; ends when all data is on "
    "its\n"
    "                          way, and tells the steady clock's time of prepare\n"
    "  load COUNT              opens COUNT connections, each with an attached request that waits\n"
    "  connects COUNT          round trips of connect\n"
    "  calls COUNT             round trips of prepare, sendData and getData in one exchange\n"
    "  probe MILLISECONDS INTERVAL   round trips of Get connectionStatus, one every INTERVAL µs\n"
    "  start PROGRAM ...       from exec to the name's owner\n";

} // namespace
} // namespace orvexd::bench

int main(int argc, char** /*argv*/) {
    using namespace orvexd::bench;
    if (argc != 1) {
        std::cerr << kUsage;
        return 2;
    }
    try {
        const Bus bus;
        serve(bus);
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "bench_client: " << error.what() << '\n';
        return 1;
    }
}
