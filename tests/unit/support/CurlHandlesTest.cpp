#include "support/CurlHandles.h"

#include "fakes/FakeCurl.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace orvexd {
namespace {

std::vector<std::string> linesOf(const HeaderList& list) {
    std::vector<std::string> lines;
    for (const curl_slist* line = list.get(); line != nullptr; line = line->next) {
        lines.emplace_back(line->data);
    }
    return lines;
}

TEST(HeaderList, IsNullWhileNoLineWasAppended) {
    const HeaderList list;
    EXPECT_EQ(list.get(), nullptr);
}

TEST(HeaderList, KeepsTheOrderOfTheLines) {
    HeaderList list;
    list.append("Expect:");
    list.append("Content-Type: multipart/related");
    list.append("Accept: */*");
    EXPECT_EQ(linesOf(list), (std::vector<std::string>{"Expect:", "Content-Type: multipart/related",
                                                       "Accept: */*"}));
}

TEST(HeaderList, CopiesTheLine) {
    HeaderList list;
    std::string line = "A: 1";
    list.append(line);
    line = "changed";
    EXPECT_EQ(linesOf(list), std::vector<std::string>{"A: 1"});
}

TEST(EasyHandle, CleansUpAtTheEndOfTheScope) {
    fake_curl::reset();
    const int before = fake_curl::liveHandles();
    {
        const EasyHandle handle(curl_easy_init());
        EXPECT_EQ(fake_curl::liveHandles(), before + 1);
    }
    EXPECT_EQ(fake_curl::liveHandles(), before);
}

} // namespace
} // namespace orvexd
