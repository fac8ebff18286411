#include "networkmanager/ProxyQuestion.h"

#include <vector>

namespace trilba::live {

namespace {

std::vector<std::string> linesOf(char** texts) {
    std::vector<std::string> lines;
    for (char** text = texts; text != nullptr && *text != nullptr; ++text) {
        lines.emplace_back(*text);
    }
    return lines;
}

} // namespace

void ProxyQuestion::ask() {
    pending_ = std::make_unique<PendingAnswers>();
    g_proxy_resolver_lookup_async(g_proxy_resolver_get_default(), TRILBA_SERVER_URL,
                                  pending_->cancellable(), &PendingAnswers::arrive,
                                  pending_->expect([this](GObject* resolver, GAsyncResult* result) {
                                      onAnswer(resolver, result);
                                  }));
}

void ProxyQuestion::onAnswer(GObject* resolver, GAsyncResult* result) {
    GError* error = nullptr;
    const TextList texts(
        g_proxy_resolver_lookup_finish(G_PROXY_RESOLVER(resolver), result, &error));
    pending_.reset();
    if (const Error fault(error); fault) {
        answer_ = {{}, {}, std::string("the proxy could not be found out: ") + fault->message};
    } else {
        answer_ = proxyAnswerOf(linesOf(texts.get()));
    }
    onAnswer_();
}

} // namespace trilba::live
