#include "Connection.h"

#include "Upload.h"

#include <linux/tcp.h> // the C library knows less of tcp_info
#include <netinet/in.h>
#include <sstream>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace orvexd::bench {

namespace {

class Socket {
public:
    explicit Socket(int handle) noexcept : handle_(handle) {}
    ~Socket() { close(handle_); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    Socket(Socket&&) = delete;
    Socket& operator=(Socket&&) = delete;
    int get() const noexcept { return handle_; }

private:
    int handle_;
};

/// The client sends nothing behind its CONNECT before it has the answer.
bool openTunnel(int socket) {
    std::string head;
    while (!head.ends_with("\r\n\r\n")) {
        char bytes[4096]; // NOLINT(*-avoid-c-arrays)
        const ssize_t got = recv(socket, bytes, sizeof bytes, 0);
        if (got <= 0) {
            return false;
        }
        head.append(bytes, static_cast<std::size_t>(got));
    }
    constexpr std::string_view kAnswer = "HTTP/1.1 200 OK\r\n\r\n";
    return send(socket, kAnswer.data(), kAnswer.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(kAnswer.size());
}

bool receive(SSL* tls, Upload& upload) {
    std::vector<char> bytes(kRecord);
    std::size_t got = 0;
    do {
        if (SSL_read_ex(tls, bytes.data(), bytes.size(), &got) != 1) {
            return false;
        }
    } while (!upload.feed({bytes.data(), got}));
    return true;
}

tcp_info segments(int socket) {
    tcp_info info{};
    socklen_t size = sizeof info;
    getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size);
    return info;
}

} // namespace

std::string serveConnection(int socket, SSL_CTX* context, const AnswerPlan& plan) {
    const Socket owned(socket);
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (!openTunnel(socket)) {
        return {};
    }
    const Tls tls(SSL_new(context));
    BIO* wire = BIO_new_socket(socket, BIO_NOCLOSE);
    SSL_set_bio(tls.get(), wire, wire); // takes the BIO over
    if (SSL_accept(tls.get()) != 1) {
        return {};
    }
    const std::uint64_t handshakeIn = BIO_number_read(wire);
    const std::uint64_t handshakeOut = BIO_number_written(wire);
    Upload upload;
    if (!receive(tls.get(), upload)) {
        return {};
    }
    const std::uint64_t answer = sendAnswer(tls.get(), upload.requests(), plan);
    SSL_shutdown(tls.get());
    char rest = 0;
    while (SSL_read(tls.get(), &rest, 1) > 0) { // until the client has closed
    }
    const tcp_info info = segments(socket);
    std::ostringstream counts;
    counts << "{\"requests\": " << upload.requests() << ", \"head\": " << upload.headBytes()
           << ", \"document\": " << upload.documentBytes() << ", \"body\": " << upload.bodyBytes()
           << ", \"answer\": " << answer << ", \"handshake_in\": " << handshakeIn
           << ", \"handshake_out\": " << handshakeOut << ", \"wire_in\": " << BIO_number_read(wire)
           << ", \"wire_out\": " << BIO_number_written(wire)
           << ", \"segments_in\": " << info.tcpi_segs_in
           << ", \"segments_out\": " << info.tcpi_segs_out << "}";
    return counts.str();
}

} // namespace orvexd::bench
