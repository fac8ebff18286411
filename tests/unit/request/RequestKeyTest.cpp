#include "request/RequestData.h"

#include <gtest/gtest.h>

namespace orvexd {
namespace {

TEST(RequestKey, IsConnectionColonRequestInDecimal) {
    EXPECT_EQ(requestKey(3, 17), "3:17");
    EXPECT_EQ(requestKey(0, 0), "0:0");
    EXPECT_EQ(requestKey(4294967295U, 4294967295U), "4294967295:4294967295");
}

TEST(RequestKey, KeysSortAsText) {
    EXPECT_LT(requestKey(10, 2), requestKey(2, 5));
}

TEST(RequestKey, FirstKeyOfAListHasNoBlank) {
    std::string list;
    appendKey(list, "1:2");
    EXPECT_EQ(list, "1:2");
}

TEST(RequestKey, KeysOfAListAreSeparatedByOneBlank) {
    std::string list;
    appendKey(list, "1:2");
    appendKey(list, "1:3");
    appendKey(list, "10:4");
    EXPECT_EQ(list, "1:2 1:3 10:4");
}

} // namespace
} // namespace orvexd
