#pragma once

#include "live/ProxyAnswer.h"
#include "networkmanager/ObjectHandles.h"

#include <functional>
#include <memory>
#include <string>

namespace trilba::live {

/// Asks the system's proxy resolver for the positioning server's proxy. Main-loop thread only.
class ProxyQuestion {
public:
    /// `onAnswer` runs when an answer has come.
    explicit ProxyQuestion(std::function<void()> onAnswer) : onAnswer_(std::move(onAnswer)) {}

    /// Asks; an answer that is still on its way is not waited for any more.
    void ask();

    [[nodiscard]] bool isPending() const { return pending_ != nullptr; }

    /// The latest answer.
    [[nodiscard]] const ProxyAnswer& answer() const { return answer_; }

private:
    void onAnswer(GObject* resolver, GAsyncResult* result);

    std::function<void()> onAnswer_;
    Object<GProxyResolver> resolver_;
    ProxyAnswer answer_;
    std::unique_ptr<PendingAnswers> pending_;
};

} // namespace trilba::live
