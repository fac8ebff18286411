#pragma once

#include "config/ConfHandler.h"
#include "dbus/DbusService.h"
#include "fakes/FakeBus.h"
#include "fakes/FakePlatform.h"
#include "fakes/MainContext.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace orvexd::test {

/// A main loop that counts how often it is asked to quit.
class CountingMainLoop : public IMainLoop {
public:
    bool init(int /*argc*/, char** /*argv*/) override { return false; }
    void deinit() override {}
    int run() override { return 1; }
    void quit() override { ++quits; }
    DbusService* getService() override { return service.get(); }
    bool checkEnvironment() override { return false; }

    std::unique_ptr<DbusService> service;
    int quits = 0;
};

/// A service on a bus of the test's own.
class ServiceFixture : public testing::Test {
protected:
    ServiceFixture() {
        fake_platform::reset();
        ConfHandler::confItems().clear();
        make();
    }
    ~ServiceFixture() override {
        mainLoop_.service.reset();
        ConfHandler::confItems().clear();
        drainMainContext();
    }
    ServiceFixture(const ServiceFixture&) = delete;
    ServiceFixture& operator=(const ServiceFixture&) = delete;

    void make() { mainLoop_.service = std::make_unique<DbusService>(mainLoop_); }
    DbusService& service() { return *mainLoop_.service; }

    template <typename... Arguments>
    static BusMessage call(const char* member, Arguments... arguments) {
        BusMessage message = fake_bus::call(member);
        dbus_message_append_args(message.get(), arguments..., DBUS_TYPE_INVALID);
        return message;
    }

    /// A call whose arguments are numbers only.
    static BusMessage numbers(const char* member, const std::vector<dbus_uint32_t>& values) {
        BusMessage message = fake_bus::call(member);
        for (const dbus_uint32_t& value : values) {
            dbus_message_append_args(message.get(), DBUS_TYPE_UINT32, &value, DBUS_TYPE_INVALID);
        }
        return message;
    }

    static BusMessage connectCall() {
        const char* bytes = "x";
        const dbus_uint32_t chunkSize = 1000;
        return call("connect", DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &bytes, 1, DBUS_TYPE_ARRAY,
                    DBUS_TYPE_BYTE, &bytes, 1, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &bytes, 1,
                    DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &bytes, 1, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE,
                    &bytes, 1, DBUS_TYPE_UINT32, &chunkSize);
    }

    static BusMessage statusQuestion() {
        BusMessage message = fake_bus::call("Get", "org.freedesktop.DBus.Properties");
        const char* interface = "com.kelvra.orvexd";
        const char* property = "connectionStatus";
        dbus_message_append_args(message.get(), DBUS_TYPE_STRING, &interface, DBUS_TYPE_STRING,
                                 &property, DBUS_TYPE_INVALID);
        return message;
    }

    DBusHandlerResult receive(const BusMessage& message) { return bus_.receive(*message); }

    /// The number that an answer carries as its first argument; -1 when there is none.
    static std::int64_t numberOf(const BusMessage& answer) {
        dbus_uint32_t value = 0;
        const bool found = answer && dbus_message_get_args(answer.get(), nullptr, DBUS_TYPE_UINT32,
                                                           &value, DBUS_TYPE_INVALID) != FALSE;
        return found ? static_cast<std::int64_t>(value) : -1;
    }

    /// The text of an error; empty for another message.
    static std::string errorOf(const BusMessage& answer) {
        BusError error;
        return answer && dbus_set_error_from_message(error.get(), answer.get()) != FALSE
                   ? std::string(error.name()) + ' ' + error.message()
                   : std::string();
    }

    fake_bus::FakeBus bus_;
    CountingMainLoop mainLoop_;
};

/// A service that serves already.
class ServingFixture : public ServiceFixture {
protected:
    ServingFixture() { begin(); }

    /// A new service on the bus.
    void begin() {
        mainLoop_.service.reset();
        make();
        service().setUpBus();
        bus_.calls.clear();
    }
};

} // namespace orvexd::test
