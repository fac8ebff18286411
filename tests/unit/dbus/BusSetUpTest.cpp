// Life of the service on the bus: set-up step by step, every failure of it, teardown.

#include "dbus/BusLink.h"
#include "dbus/ServiceFixture.h"
#include "fakes/FakeThreads.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace orvexd {
namespace {

using Calls = std::vector<std::string>;

class BusSetUp : public test::ServiceFixture {};

TEST_F(BusSetUp, TakesItsStepsInOrder) {
    EXPECT_TRUE(service().setUpBus());
    EXPECT_EQ(
        bus_.calls,
        (Calls{"dbus_bus_get system", "dbus_threads_init_default",
               "dbus_connection_set_max_received_size 262144",
               "dbus_connection_set_max_received_unix_fds 64",
               "dbus_connection_set_max_message_unix_fds 253", "dbus_connection_setup_with_g_main",
               "dbus_bus_request_name com.kelvra.orvexd 6",
               "dbus_bus_add_match interface='com.kelvra.orvexd'", "dbus_connection_add_filter"}));
}

TEST_F(BusSetUp, GivesTheMainLoopToTheFilter) {
    service().setUpBus();
    EXPECT_EQ(bus_.filterData, static_cast<IMainLoop*>(&mainLoop_));
}

TEST_F(BusSetUp, MayBeRepeatedWithoutASecondFilter) {
    service().setUpBus();
    bus_.calls.clear();
    EXPECT_TRUE(service().setUpBus());
    EXPECT_EQ(
        bus_.calls,
        (Calls{"dbus_threads_init_default", "dbus_connection_set_max_received_size 262144",
               "dbus_connection_set_max_received_unix_fds 64",
               "dbus_connection_set_max_message_unix_fds 253", "dbus_connection_setup_with_g_main",
               "dbus_bus_request_name com.kelvra.orvexd 6",
               "dbus_bus_add_match interface='com.kelvra.orvexd'"}));
}

TEST_F(BusSetUp, FailsWhenAnotherKeepsTheName) {
    bus_.nameReply = DBUS_REQUEST_NAME_REPLY_EXISTS;
    EXPECT_FALSE(service().setUpBus());
    EXPECT_EQ(bus_.filter, nullptr);
}

TEST_F(BusSetUp, GoesOnWithEveryOtherAnswerAboutTheName) {
    for (const int reply :
         {DBUS_REQUEST_NAME_REPLY_IN_QUEUE, DBUS_REQUEST_NAME_REPLY_ALREADY_OWNER}) {
        bus_.nameReply = reply;
        EXPECT_TRUE(service().setUpBus()) << reply;
    }
}

TEST_F(BusSetUp, WithoutABusQuitsAndStops) {
    bus_.failing = "dbus_bus_get";
    EXPECT_FALSE(service().setUpBus());
    EXPECT_EQ(mainLoop_.quits, 1);
    EXPECT_EQ(bus_.calls, Calls{"dbus_bus_get system"});
}

TEST_F(BusSetUp, StopsWhenTheNameIsRefused) {
    bus_.failing = "dbus_bus_request_name";
    EXPECT_FALSE(service().setUpBus());
    EXPECT_EQ(bus_.calls.back(), "dbus_bus_request_name com.kelvra.orvexd 6");
}

TEST_F(BusSetUp, StopsWhenTheMatchRuleIsRefused) {
    bus_.failing = "dbus_bus_add_match";
    EXPECT_FALSE(service().setUpBus());
    EXPECT_EQ(bus_.calls.back(), "dbus_bus_add_match interface='com.kelvra.orvexd'");
}

TEST_F(BusSetUp, FailsWithoutMemoryForTheFilter) {
    bus_.failing = "dbus_connection_add_filter";
    EXPECT_FALSE(service().setUpBus());
    bus_.calls.clear();
    mainLoop_.service.reset();
    EXPECT_EQ(bus_.calls, (Calls{"dbus_connection_set_exit_on_disconnect no",
                                 "dbus_bus_remove_match interface='com.kelvra.orvexd'",
                                 "dbus_connection_unref"}))
        << "nothing to remove";
}

TEST_F(BusSetUp, IsUndoneWithTheService) {
    service().setUpBus();
    bus_.calls.clear();
    mainLoop_.service.reset();
    EXPECT_EQ(bus_.calls, (Calls{"dbus_connection_set_exit_on_disconnect no",
                                 "dbus_bus_remove_match interface='com.kelvra.orvexd'",
                                 "dbus_connection_remove_filter", "dbus_connection_unref"}));
    EXPECT_EQ(BusLink::connection(), nullptr);
    EXPECT_EQ(fake_platform::liveObjects(), 0);
}

TEST_F(BusSetUp, IsUndoneWhenTheWorkerHasEnded) {
    fake_threads::reset();
    fake_threads::holdUntilJoined(true);
    fake_platform::connect(1);
    make(); // knows of the connection
    service().setUpBus();
    receive(connectCall());
    receive(numbers("prepare", {1, 2, 10}));
    ASSERT_EQ(fake_threads::started(), 1);
    std::vector<int> joined;
    bus_.onCall = [&joined] { joined.push_back(fake_threads::joined()); };
    mainLoop_.service.reset();
    EXPECT_EQ(joined, (std::vector<int>{1, 1, 1, 1}));
    fake_threads::reset();
}

TEST_F(BusSetUp, LeavesNothingToUndoWhenItWasNotTried) {
    mainLoop_.service.reset();
    EXPECT_TRUE(bus_.calls.empty());
}

TEST_F(BusSetUp, WorksForTheNextService) {
    service().setUpBus();
    mainLoop_.service.reset();
    make();
    bus_.calls.clear();
    EXPECT_TRUE(service().setUpBus());
    EXPECT_EQ(bus_.calls.front(), "dbus_bus_get system");
}

TEST_F(BusSetUp, LeavesMessagesAloneWhenTheServiceIsGone) {
    service().setUpBus();
    mainLoop_.service.reset();
    EXPECT_EQ(receive(fake_bus::call("quit")), DBUS_HANDLER_RESULT_NOT_YET_HANDLED);
}

} // namespace
} // namespace orvexd
