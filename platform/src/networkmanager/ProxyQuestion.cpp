#include "networkmanager/ProxyQuestion.h"

#include <cstdlib>
#include <initializer_list>
#include <string>
#include <string_view>

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

using Schema = std::unique_ptr<GSettingsSchema, FreeWith<g_settings_schema_unref>>;
using Variant = std::unique_ptr<GVariant, FreeWith<g_variant_unref>>;

/// @return null where no such settings are installed, which would end the process.
Object<GSettings> settingsOf(const char* name) {
    const Schema schema(
        g_settings_schema_source_lookup(g_settings_schema_source_get_default(), name, TRUE));
    return Object<GSettings>(schema ? g_settings_new(name) : nullptr);
}

/// A key that was never read may change without a signal.
void readAll(GSettings& settings) {
    GSettingsSchema* found = nullptr;
    g_object_get(&settings, "settings-schema", &found, nullptr);
    const Schema schema(found);
    const TextList keys(g_settings_schema_list_keys(schema.get()));
    for (char** key = keys.get(); *key != nullptr; ++key) {
        const Variant value(g_settings_get_value(&settings, *key));
    }
}

} // namespace

void ProxyQuestion::ask() {
    if (!resolver_) {
        resolver_ = systemsResolver();
        watchSettings();
    }
    pending_ = std::make_unique<PendingAnswers>();
    g_proxy_resolver_lookup_async(resolver_.get(), TRILBA_SERVER_URL, pending_->cancellable(),
                                  &PendingAnswers::arrive,
                                  pending_->expect([this](GObject* resolver, GAsyncResult* result) {
                                      onAnswer(resolver, result);
                                  }));
}

/// A resolver does not tell that it would answer otherwise now. Those of the environment and of
/// libproxy have nothing to watch.
void ProxyQuestion::watchSettings() {
    if (std::string_view(G_OBJECT_TYPE_NAME(resolver_.get())) != "GProxyResolverGnome") {
        return;
    }
    for (const char* name : {"org.gnome.system.proxy", "org.gnome.system.proxy.http",
                             "org.gnome.system.proxy.https", "org.gnome.system.proxy.socks"}) {
        if (const auto settings = settingsOf(name)) {
            handlers_.emplace_back(settings.get(), "changed", G_CALLBACK(onSettingChanged), this);
            readAll(*settings);
        }
    }
}

/// The resolver may hear of it after this: it is asked in the next turn of the main loop, and once
/// for all keys that change together.
void ProxyQuestion::onSettingChanged(GSettings* /*settings*/, const char* /*key*/,
                                     gpointer self) noexcept {
    static_cast<ProxyQuestion*>(self)->askAgain_.runAt(g_get_monotonic_time());
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
