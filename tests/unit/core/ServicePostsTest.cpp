#include "core/ServicePosts.h"

#include "fakes/MainContext.h"

#include <array>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <vector>

namespace orvexd {
namespace {

using test::drainMainContext;
using test::iterateUntil;

/// Writes down each call as text.
class RecordingService : public IServiceEvents {
public:
    bool isExchangePermitted() override { return true; }
    void emitConnectionStatusChanged(std::uint32_t status) override {
        note("status " + std::to_string(status));
    }
    void emitRequestData(std::uint32_t connectionId, std::uint32_t requestId) override {
        note("requestData " + ids(connectionId, requestId));
    }
    void emitErrorSignal(std::uint32_t code, const std::string& message,
                         const std::string& requests) override {
        note("error " + std::to_string(code) + " [" + message + "] [" + requests + "]");
    }
    void deliverChunk(std::uint32_t connectionId, std::uint32_t requestId, const std::string& bytes,
                      DeliveryCode code) override {
        note("chunk " + ids(connectionId, requestId) + " " +
             std::to_string(static_cast<std::uint32_t>(code)) + " [" + bytes + "]");
    }
    void resumeUpload(std::uint32_t connectionId, std::uint32_t requestId) override {
        note("room " + ids(connectionId, requestId));
    }
    void dropPending(std::uint32_t connectionId, std::uint32_t requestId) override {
        note("finished " + ids(connectionId, requestId));
    }
    void watchClient(const std::string& name) override { note("watch " + name); }
    void onMemoryShort() override { note("memory short"); }

    std::vector<std::string> calls;
    std::function<void()> inside; ///< run in the middle of each call

private:
    static std::string ids(std::uint32_t connectionId, std::uint32_t requestId) {
        return std::to_string(connectionId) + ":" + std::to_string(requestId);
    }
    void note(const std::string& call) {
        if (inside) {
            inside();
        }
        calls.push_back(call);
    }
};

using Calls = std::vector<std::string>;

class ServicePostsTest : public testing::Test {
protected:
    void arrive(std::size_t count) {
        EXPECT_TRUE(iterateUntil([&] { return service_.calls.size() >= count; }));
        drainMainContext();
    }

    RecordingService service_;
    ServicePosts posts_{service_};
};

TEST_F(ServicePostsTest, ConnectionStatusCarriesTheStatus) {
    posts_.postConnectionStatus(5);
    arrive(1);
    EXPECT_EQ(service_.calls, Calls{"status 5"});
}

TEST_F(ServicePostsTest, RequestDataCarriesBothIds) {
    posts_.postRequestData(3, 17);
    arrive(1);
    EXPECT_EQ(service_.calls, Calls{"requestData 3:17"});
}

TEST_F(ServicePostsTest, ChunkCarriesIdsCodeAndBytes) {
    posts_.postChunk(5, 2, DeliveryCode::PartContinues, "first");
    posts_.postChunk(5, 2, DeliveryCode::PartComplete, "");
    posts_.postChunk(5, 2, DeliveryCode::ResponseComplete, std::string("a\0b", 3));
    arrive(3);
    EXPECT_EQ(service_.calls, (Calls{"chunk 5:2 2301 [first]", "chunk 5:2 2302 []",
                                     std::string("chunk 5:2 2303 [a\0b]", 20)}));
}

TEST_F(ServicePostsTest, RequestFinishedCarriesBothIds) {
    posts_.postRequestFinished(4294967295U, 1);
    arrive(1);
    EXPECT_EQ(service_.calls, Calls{"finished 4294967295:1"});
}

TEST_F(ServicePostsTest, ErrorCarriesCodeMessageAndKeys) {
    posts_.postError(2204, "Connection error", "1:2 1:3");
    arrive(1);
    EXPECT_EQ(service_.calls, Calls{"error 2204 [Connection error] [1:2 1:3]"});
}

TEST_F(ServicePostsTest, EachPostArrivesOnce) {
    posts_.postConnectionStatus(1);
    arrive(1);
    drainMainContext();
    EXPECT_EQ(service_.calls.size(), 1U);
}

TEST_F(ServicePostsTest, NothingArrivesInsideThePost) {
    posts_.postConnectionStatus(1);
    EXPECT_TRUE(service_.calls.empty());
    arrive(1);
}

TEST_F(ServicePostsTest, PostsOfAllKindsArriveInTheirOrder) {
    posts_.postRequestData(1, 1);
    posts_.postChunk(1, 1, DeliveryCode::PartContinues, "x");
    posts_.postError(43, "m", "1:1");
    posts_.postRequestFinished(1, 1);
    posts_.postConnectionStatus(0);
    arrive(5);
    EXPECT_EQ(service_.calls, (Calls{"requestData 1:1", "chunk 1:1 2301 [x]", "error 43 [m] [1:1]",
                                     "finished 1:1", "status 0"}));
}

TEST_F(ServicePostsTest, ChunksInQuickSuccessionArriveInTheirOrder) {
    Calls expected;
    std::thread worker([&] {
        for (int number = 0; number < 3000; ++number) {
            posts_.postChunk(1, 2, DeliveryCode::PartContinues, std::to_string(number));
        }
    });
    for (int number = 0; number < 3000; ++number) {
        expected.push_back("chunk 1:2 2301 [" + std::to_string(number) + "]");
    }
    arrive(3000);
    worker.join();
    EXPECT_EQ(service_.calls, expected);
}

TEST_F(ServicePostsTest, PostIssuedWhileAHandlerRunsArrivesAfterIt) {
    service_.inside = [&] {
        service_.inside = nullptr;
        std::thread([&] { posts_.postConnectionStatus(3); }).join();
        EXPECT_TRUE(service_.calls.empty());
    };
    posts_.postRequestData(1, 1);
    arrive(2);
    EXPECT_EQ(service_.calls, (Calls{"requestData 1:1", "status 3"}));
}

TEST_F(ServicePostsTest, PostsThatOutliveTheirSenderAreDropped) {
    auto posts = std::make_unique<ServicePosts>(service_);
    posts->postConnectionStatus(1);
    posts->postChunk(1, 1, DeliveryCode::PartContinues, std::string(1000, 'x'));
    posts.reset();
    posts_.postConnectionStatus(3); // behind the two others
    arrive(1);
    EXPECT_EQ(service_.calls, Calls{"status 3"});
}

} // namespace
} // namespace orvexd
