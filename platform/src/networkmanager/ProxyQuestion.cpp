#include "networkmanager/ProxyQuestion.h"

#include <cstdlib>
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

/// @return null where it is not installed or has nothing to say.
Object<GProxyResolver> libproxysResolver() {
    // The question for a protocol that does not exist makes GLib load its modules, and no more.
    const Object<GProxy> none(g_proxy_get_default_for_protocol("none"));
    GIOExtensionPoint* point = g_io_extension_point_lookup(G_PROXY_RESOLVER_EXTENSION_POINT_NAME);
    GIOExtension* extension =
        point == nullptr ? nullptr : g_io_extension_point_get_extension_by_name(point, "libproxy");
    if (extension == nullptr) {
        return nullptr;
    }
    Object<GProxyResolver> resolver(
        G_PROXY_RESOLVER(g_object_new(g_io_extension_get_type(extension), nullptr)));
    return g_proxy_resolver_is_supported(resolver.get()) ? std::move(resolver) : nullptr;
}

/// GLib itself asks the resolver of a desktop first, which a daemon has no use for, and which
/// brings a thread and a search for the session's bus along. An environment that names one is
/// obeyed.
Object<GProxyResolver> systemsResolver() {
    const bool isNamed = std::getenv("GIO_USE_PROXY_RESOLVER") != nullptr;
    auto resolver = isNamed ? nullptr : libproxysResolver();
    return resolver ? std::move(resolver) : shared(g_proxy_resolver_get_default());
}

} // namespace

void ProxyQuestion::ask() {
    if (!resolver_) {
        resolver_ = systemsResolver();
    }
    pending_ = std::make_unique<PendingAnswers>();
    g_proxy_resolver_lookup_async(resolver_.get(), TRILBA_SERVER_URL, pending_->cancellable(),
                                  &PendingAnswers::arrive,
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
