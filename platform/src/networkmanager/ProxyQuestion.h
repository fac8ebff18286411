#pragma once

#include "live/ProxyAnswer.h"
#include "networkmanager/ObjectHandles.h"

#include <functional>
#include <memory>
#include <vector>

namespace trilba::live {

/// Asks the system's proxy resolver for the positioning server's proxy, and again when the settings
/// of a desktop change that it reads. Main-loop thread only.
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
    void watchSettings();
    void onAnswer(GObject* resolver, GAsyncResult* result);
    static void onSettingChanged(GSettings* settings, const char* key, gpointer self) noexcept;

    std::function<void()> onAnswer_;
    Object<GProxyResolver> resolver_;
    OneShot askAgain_{[this] { ask(); }};
    std::vector<SignalHandler> handlers_;
    ProxyAnswer answer_;
    std::unique_ptr<PendingAnswers> pending_;
};

} // namespace trilba::live
