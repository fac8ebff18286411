#include "Advice.h"

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <vector>

namespace orvexd::ctl {
namespace {

constexpr std::uint32_t kNoConnection = 2204;
constexpr std::uint32_t kExchangeFailed = 2001;

/// Every failure of libcurl that clients have been seen to hear of.
const std::vector<CURLcode> kTransferFailures{
    CURLE_UNSUPPORTED_PROTOCOL, CURLE_COULDNT_RESOLVE_PROXY,
    CURLE_COULDNT_RESOLVE_HOST, CURLE_COULDNT_CONNECT,
    CURLE_WEIRD_SERVER_REPLY,   CURLE_PARTIAL_FILE,
    CURLE_WRITE_ERROR,          CURLE_OUT_OF_MEMORY,
    CURLE_OPERATION_TIMEDOUT,   CURLE_SSL_CONNECT_ERROR,
    CURLE_ABORTED_BY_CALLBACK,  CURLE_GOT_NOTHING,
    CURLE_SEND_ERROR,           CURLE_RECV_ERROR,
    CURLE_SSL_CERTPROBLEM,      CURLE_PEER_FAILED_VERIFICATION,
    CURLE_SSL_CACERT_BADFILE};

std::string adviceOn(CURLcode failure) {
    return std::string(adviceFor(kNoConnection, curl_easy_strerror(failure)));
}

TEST(Advice, IsThereForEachFailureOfATransfer) {
    const std::string general(adviceFor(kNoConnection, "Payment Required"));
    for (const CURLcode failure : kTransferFailures) {
        EXPECT_NE(adviceOn(failure), general) << curl_easy_strerror(failure);
    }
}

TEST(Advice, NamesTheFilesOfTheIdentityThatTheDaemonCannotUse) {
    EXPECT_NE(adviceOn(CURLE_SSL_CERTPROBLEM).find("SlpClient-key.pem"), std::string::npos);
    EXPECT_NE(adviceOn(CURLE_SSL_CACERT_BADFILE).find("Positioning_CA.pem"), std::string::npos);
}

TEST(Advice, NamesThreeCausesOfAServerThatIsNotTrusted) {
    const std::string advice = adviceOn(CURLE_PEER_FAILED_VERIFICATION);
    for (const char* cause : {"authority", "expired", "another host"}) {
        EXPECT_NE(advice.find(cause), std::string::npos) << advice;
    }
}

TEST(Advice, TellsWaitingForANetworkFromAPolicyThatForbidsIt) {
    EXPECT_NE(adviceFor(kNoConnection, "Connection error").find("bring up a network"),
              std::string_view::npos);
    EXPECT_NE(adviceFor(kNoConnection, "Current network connection not allowed").find("--policy"),
              std::string_view::npos);
}

TEST(Advice, SendsToTheDoctorForWhatTheServerSaid) {
    for (const char* text : {"missing MIME parts", "faulty MIME data", "could not parse document",
                             "Service Unavailable\r\nContent-Type: text/html"}) {
        EXPECT_NE(adviceFor(kExchangeFailed, text).find("orvexctl doctor --exchange"),
                  std::string_view::npos)
            << text;
    }
}

TEST(Advice, SaysThatAServerRefusedWhenTheTextIsItsReason) {
    EXPECT_NE(adviceFor(kNoConnection, "Not Found\r\nContent-Type: text/html").find("refused"),
              std::string_view::npos);
}

TEST(Advice, IsEmptyForWhatTheCodeSaysByItself) {
    EXPECT_EQ(adviceFor(kNoConnection, ""), "");
    EXPECT_EQ(adviceFor(2205, "whatever"), "");
}

TEST(FirstLine, EndsAtTheFirstLineBreak) {
    EXPECT_EQ(firstLine("Not Found\r\nContent-Type: text/html"), "Not Found");
    EXPECT_EQ(firstLine("one\ntwo"), "one");
    EXPECT_EQ(firstLine("whole"), "whole");
}

TEST(FirstLine, EscapesWhatCouldMoveTheCursor) {
    EXPECT_EQ(firstLine("\x1b[2Jgone\nmore"), "\\x1b[2Jgone");
}

} // namespace
} // namespace orvexd::ctl
