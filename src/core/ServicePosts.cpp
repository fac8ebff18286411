#include "core/ServicePosts.h"

#include <utility>

namespace orvexd {

namespace {

void post(std::unique_ptr<MainLoopPost> record) {
    postToMainLoop(std::chrono::milliseconds(0), std::move(record));
}

} // namespace

std::unique_ptr<MainLoopPost> ServicePosts::makePost(MainLoopPost::Callback callback) const {
    return std::make_unique<MainLoopPost>(service_, lifetime_.watch(), callback);
}

void ServicePosts::postConnectionStatus(std::uint32_t status) const {
    auto record = makePost([](IServiceEvents& service, const MainLoopPost& event) {
        service.emitConnectionStatusChanged(event.value1);
    });
    record->value1 = status;
    post(std::move(record));
}

void ServicePosts::postRequestData(std::uint32_t connectionId, std::uint32_t requestId) const {
    auto record = makePost([](IServiceEvents& service, const MainLoopPost& event) {
        service.emitRequestData(event.value1, event.value2);
    });
    record->value1 = connectionId;
    record->value2 = requestId;
    post(std::move(record));
}

void ServicePosts::postChunk(std::uint32_t connectionId, std::uint32_t requestId, DeliveryCode code,
                             std::string bytes) const {
    auto record = makePost([](IServiceEvents& service, const MainLoopPost& event) {
        service.deliverChunk(event.value1, event.value2, event.text1,
                             static_cast<DeliveryCode>(event.value3));
    });
    record->value1 = connectionId;
    record->value2 = requestId;
    record->value3 = static_cast<std::uint32_t>(code);
    record->text1 = std::move(bytes);
    post(std::move(record));
}

void ServicePosts::postRequestFinished(std::uint32_t connectionId, std::uint32_t requestId) const {
    auto record = makePost([](IServiceEvents& service, const MainLoopPost& event) {
        service.dropPending(event.value1, event.value2);
    });
    record->value1 = connectionId;
    record->value2 = requestId;
    post(std::move(record));
}

void ServicePosts::postError(int code, std::string message, std::string keyList) const {
    auto record = makePost([](IServiceEvents& service, const MainLoopPost& event) {
        service.emitErrorSignal(event.value1, event.text1, event.text2);
    });
    record->value1 = static_cast<std::uint32_t>(code);
    record->text1 = std::move(message);
    record->text2 = std::move(keyList);
    post(std::move(record));
}

} // namespace orvexd
