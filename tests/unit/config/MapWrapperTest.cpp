#include "config/MapWrapper.h"

#include <gtest/gtest.h>
#include <string>
#include <thread>

namespace orvexd {
namespace {

TEST(MapWrapper, AbsentKeyIsEmpty) {
    const Parameters parameters;
    EXPECT_EQ(parameters.get("orvexd/connect_timeout"), "");
}

TEST(MapWrapper, AbsentKeyGivesTheDefault) {
    const Parameters parameters;
    EXPECT_EQ(parameters.get("orvexd/connect_timeout", "30"), "30");
}

TEST(MapWrapper, PresentKeyBeatsTheDefault) {
    Parameters parameters;
    parameters.set("orvexd/connect_timeout", "5");
    EXPECT_EQ(parameters.get("orvexd/connect_timeout"), "5");
    EXPECT_EQ(parameters.get("orvexd/connect_timeout", "30"), "5");
}

TEST(MapWrapper, PresentEmptyValueBeatsTheDefault) {
    Parameters parameters;
    parameters.set("orvexd/slp/version", "");
    EXPECT_EQ(parameters.get("orvexd/slp/version"), "");
    EXPECT_EQ(parameters.get("orvexd/slp/version", "2.0"), "");
}

TEST(MapWrapper, LaterValueReplacesTheEarlierOne) {
    Parameters parameters;
    parameters.set("key", "first");
    parameters.set("key", "second");
    EXPECT_EQ(parameters.get("key"), "second");
}

TEST(MapWrapper, KeysDifferByEveryByte) {
    Parameters parameters;
    parameters.set("orvexd/wait_timeout/", "1");
    parameters.set("orvexd/wait_timeout", "2");
    parameters.set("Orvexd/wait_timeout", "3");
    parameters.set(std::string("a\0b", 3), "4");
    EXPECT_EQ(parameters.get("orvexd/wait_timeout/"), "1");
    EXPECT_EQ(parameters.get("orvexd/wait_timeout"), "2");
    EXPECT_EQ(parameters.get("Orvexd/wait_timeout"), "3");
    EXPECT_EQ(parameters.get("a"), "");
    EXPECT_EQ(parameters.get(std::string("a\0b", 3)), "4");
}

TEST(MapWrapper, EmptyKeyIsAKey) {
    Parameters parameters;
    parameters.set("", "value");
    EXPECT_EQ(parameters.get(""), "value");
}

TEST(MapWrapper, LookupReturnsACopy) {
    Parameters parameters;
    parameters.set("key", "before");
    const std::string value = parameters.get("key");
    parameters.set("key", "after");
    EXPECT_EQ(value, "before");
}

TEST(MapWrapper, ClearRemovesEveryEntry) {
    Parameters parameters;
    parameters.set("a", "1");
    parameters.set("b", "2");
    parameters.clear();
    EXPECT_EQ(parameters.get("a", "none"), "none");
    EXPECT_EQ(parameters.get("b", "none"), "none");
}

TEST(MapWrapper, IsReadWhileAnotherThreadWrites) {
    Parameters parameters;
    parameters.set("imei", "0");
    std::thread writer([&] {
        for (int number = 0; number < 20000; ++number) {
            parameters.set("imei", std::to_string(number));
            parameters.set("imsi" + std::to_string(number % 100), "x");
        }
    });
    for (int round = 0; round < 20000; ++round) {
        // never absent in between: replacing a value is one step
        ASSERT_NE(parameters.get("imei", "absent"), "absent");
    }
    writer.join();
    EXPECT_EQ(parameters.get("imei"), "19999");
}

TEST(MapWrapper, IsReadWhileAnotherThreadClearsIt) {
    Parameters parameters;
    parameters.set("imei", "0");
    std::thread writer([&] { parameters.clear(); });
    const std::string value = parameters.get("imei", "absent");
    writer.join();
    EXPECT_TRUE(value == "0" || value == "absent") << value;
    EXPECT_EQ(parameters.get("imei", "absent"), "absent");
}

} // namespace
} // namespace orvexd
