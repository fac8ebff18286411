#include "http/TransferOptions.h"

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace orvexd::test {
namespace {

class SocketOptionTest : public testing::Test {
protected:
    SocketOptionTest() : socket_(::socket(AF_INET, SOCK_STREAM, 0)) {}
    void TearDown() override { ::close(socket_); }

    int segmentSize() const {
        int size = 0;
        socklen_t length = sizeof size;
        EXPECT_EQ(getsockopt(socket_, IPPROTO_TCP, TCP_MAXSEG, &size, &length), 0);
        return size;
    }

    int socket_;
};

TEST_F(SocketOptionTest, ClampsTheSegmentSizeOfTheConnection) {
    ASSERT_NE(segmentSize(), 1200);
    EXPECT_EQ(TransferOptions::socketOptionCallback(nullptr, socket_, CURLSOCKTYPE_IPCXN),
              CURL_SOCKOPT_OK);
    EXPECT_EQ(segmentSize(), 1200);
}

TEST_F(SocketOptionTest, LeavesSocketsOfAnotherPurposeAlone) {
    const int before = segmentSize();
    EXPECT_EQ(TransferOptions::socketOptionCallback(nullptr, socket_, CURLSOCKTYPE_ACCEPT),
              CURL_SOCKOPT_OK);
    EXPECT_EQ(segmentSize(), before);
}

TEST_F(SocketOptionTest, GoesOnWhenTheSystemRefuses) {
    EXPECT_EQ(TransferOptions::socketOptionCallback(nullptr, -1, CURLSOCKTYPE_IPCXN),
              CURL_SOCKOPT_OK);
}

} // namespace
} // namespace orvexd::test
