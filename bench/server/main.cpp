// A positioning server and the proxy in front of it, as quick as OpenSSL: for measurements in which
// the server must not be what is measured. It checks nothing but the client's certificate.

#include "Connection.h"

#include <arpa/inet.h>
#include <csignal>
#include <iostream>
#include <mutex>
#include <netinet/in.h>
#include <openssl/err.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace orvexd::bench {
namespace {

/// What all threads share.
class Server {
public:
    explicit Server(const std::string& keys) : context_(SSL_CTX_new(TLS_server_method())) {
        const std::string authority = keys + "/Positioning_CA.pem";
        const bool loaded =
            SSL_CTX_use_certificate_chain_file(context_.get(), (keys + "/server.pem").c_str()) ==
                1 &&
            SSL_CTX_use_PrivateKey_file(context_.get(), (keys + "/server-key.pem").c_str(),
                                        SSL_FILETYPE_PEM) == 1 &&
            SSL_CTX_load_verify_locations(context_.get(), authority.c_str(), nullptr) == 1;
        if (!loaded) {
            throw std::runtime_error("cannot load the PEM files of " + keys);
        }
        SSL_CTX_set_verify(context_.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT,
                           nullptr);
        SSL_CTX_set_mode(context_.get(), SSL_MODE_AUTO_RETRY);
        SSL_CTX_set_session_cache_mode(context_.get(), SSL_SESS_CACHE_OFF);
        // Tickets are resumed without a cache, but by a server that asks for certificates only if
        // the session says whose it is.
        constexpr std::string_view kOwner = "bench_server";
        SSL_CTX_set_session_id_context(context_.get(),
                                       reinterpret_cast<const unsigned char*>(kOwner.data()),
                                       static_cast<unsigned>(kOwner.size()));
    }

    void serve(int socket) {
        const std::string counts = serveConnection(socket, context_.get(), plan());
        const std::lock_guard guard(lock_);
        if (reporting_ && !counts.empty()) {
            std::cout << counts << std::endl;
        }
    }

    void setPlan(const AnswerPlan& plan) {
        const std::lock_guard guard(lock_);
        plan_ = plan;
        std::cout << "ok" << std::endl;
    }

    void setReporting(bool reporting) {
        const std::lock_guard guard(lock_);
        reporting_ = reporting;
        std::cout << "ok" << std::endl;
    }

private:
    AnswerPlan plan() {
        const std::lock_guard guard(lock_);
        return plan_;
    }

    TlsContext context_;
    std::mutex lock_;
    AnswerPlan plan_;        // guarded by lock_
    bool reporting_ = false; // guarded by lock_
};

/// A socket that listens on a free port of the loopback interface, whose number it prints.
int listenOnLoopback() {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    if (bind(listener, generic, size) != 0 || listen(listener, SOMAXCONN) != 0 ||
        getsockname(listener, generic, &size) != 0) {
        throw std::runtime_error("cannot listen on 127.0.0.1");
    }
    std::cout << ntohs(address.sin_port) << std::endl;
    return listener;
}

void acceptForever(int listener, Server& server) {
    while (true) {
        const int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection >= 0) {
            std::thread([&server, connection] { server.serve(connection); }).detach();
        }
    }
}

void readCommands(Server& server) {
    std::string command;
    while (std::cin >> command) {
        if (command == "answer") {
            AnswerPlan plan;
            std::cin >> plan.bytes >> plan.perSecond;
            server.setPlan(plan);
        } else if (command == "report") {
            int reporting = 0;
            std::cin >> reporting;
            server.setReporting(reporting != 0);
        } else {
            throw std::runtime_error("unknown command " + command);
        }
    }
}

constexpr const char* kUsage =
    "usage: bench_server KEYS\n"
    "\n"
    "Serves SLP exchanges with the keys of the directory KEYS and prints its port. Ends with its\n"
    "standard input, from which it reads, answering each with \"ok\":\n"
    "\n"
    "  answer BYTES PER-SECOND   data of each request's part; bytes per second, 0 for no limit\n"
    "  report 0|1                whether each exchange is reported in a line of JSON\n";

} // namespace
} // namespace orvexd::bench

int main(int argc, char** argv) {
    using namespace orvexd::bench;
    if (argc != 2) {
        std::cerr << kUsage;
        return 2;
    }
    (void)std::signal(SIGPIPE, SIG_IGN); // clients may leave in the middle
    try {
        Server server(argv[1]);
        const int listener = listenOnLoopback();
        std::thread([&server, listener] { acceptForever(listener, server); }).detach();
        readCommands(server);
        std::_Exit(0); // the threads use what an ordinary end would destroy
    } catch (const std::exception& error) {
        std::cerr << "bench_server: " << error.what() << '\n';
        return 1;
    }
}
