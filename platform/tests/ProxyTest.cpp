#include "PlatformFixture.h"
#include "trilba/network/ProxyQuery.h"

#include <cstring>

namespace trilba::test {

using network::ProxyQuery;

class ProxyTest : public PlatformFixture {
protected:
    ProxyTest() { std::memset(query_.host, 'x', sizeof query_.host); }

    int lookUp() { return manager_->lookUpProxy("https://server.example:443/", &query_); }

    [[nodiscard]] std::string host() const {
        return {query_.host, strnlen(query_.host, sizeof query_.host)};
    }

    void expectUntouched() const {
        EXPECT_EQ(host(), std::string(sizeof query_.host, 'x'));
        EXPECT_EQ(query_.port, 8080U);
    }

    std::unique_ptr<network::IConnectionManager> manager_ = makeManager();
    ProxyQuery query_;
};

TEST_F(ProxyTest, WithoutFileThereIsNone) {
    EXPECT_EQ(lookUp(), network::kProxyNone);
    expectUntouched();
}

TEST_F(ProxyTest, WithoutHostThereIsNone) {
    write("[Proxy]\nPort=3128\n");
    EXPECT_NE(lookUp(), 0);
    expectUntouched();
}

TEST_F(ProxyTest, WithEmptyHostThereIsNone) {
    write("[Proxy]\nHost=\nPort=3128\n");
    EXPECT_NE(lookUp(), 0);
    expectUntouched();
}

TEST_F(ProxyTest, HostAndPortComeFromTheFile) {
    write("[Proxy]\nHost=127.0.0.1\nPort=3128\n");
    EXPECT_EQ(lookUp(), 0);
    EXPECT_EQ(host(), "127.0.0.1");
    EXPECT_EQ(query_.port, 3128U);
    EXPECT_EQ(query_.size, 140U);
}

TEST_F(ProxyTest, PresetPortStaysWhenTheFileNamesNone) {
    write("[Proxy]\nHost=proxy.example\n");
    query_.port = 4711;
    EXPECT_EQ(lookUp(), 0);
    EXPECT_EQ(query_.port, 4711U);
}

TEST_F(ProxyTest, EachLookUpReadsTheFile) {
    write("[Proxy]\nHost=first\n");
    EXPECT_EQ(lookUp(), 0);
    EXPECT_EQ(host(), "first");
    replace("[Proxy]\nHost=second\n");
    EXPECT_EQ(lookUp(), 0);
    EXPECT_EQ(host(), "second");
    fs::remove(file_);
    EXPECT_NE(lookUp(), 0);
}

TEST_F(ProxyTest, LongestHostEndsWithNul) {
    const std::string longest(131, 'h');
    write("[Proxy]\nHost=" + longest + "\n");
    EXPECT_EQ(lookUp(), 0);
    EXPECT_EQ(host(), longest);
    EXPECT_EQ(query_.host[131], '\0');
    EXPECT_EQ(query_.port, 8080U);
}

TEST_F(ProxyTest, LongerHostIsRefusedAndNothingIsWritten) {
    write("[Proxy]\nHost=" + std::string(132, 'h') + "\nPort=3128\n");
    EXPECT_EQ(lookUp(), network::kProxyHostTooLong);
    expectUntouched();
}

TEST_F(ProxyTest, QueryOfAnotherSizeIsRefused) {
    write("[Proxy]\nHost=proxy.example\n");
    query_.size = 139;
    EXPECT_EQ(lookUp(), network::kProxyBadQuery);
    expectUntouched();
}

TEST_F(ProxyTest, NullQueryIsRefused) {
    EXPECT_EQ(manager_->lookUpProxy("https://server.example:443/", nullptr),
              network::kProxyBadQuery);
}

TEST_F(ProxyTest, BadFileKeepsTheLastGoodProxy) {
    write("[Proxy]\nHost=proxy.example\nPort=1\n");
    EXPECT_EQ(lookUp(), 0);
    write("[Proxy]\nHost=other.example\nPort=none\n");
    EXPECT_EQ(lookUp(), 0);
    EXPECT_EQ(host(), "proxy.example");
    EXPECT_EQ(query_.port, 1U);
}

} // namespace trilba::test
