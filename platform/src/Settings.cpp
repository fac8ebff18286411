#include "Settings.h"

#include "Handles.h"

#include <limits>
#include <utility>

namespace trilba {

namespace {

/// A value that is not of its key's type.
struct MalformedValue {};

/// The values of one group; an absent key or group gives nothing.
class Group {
public:
    Group(GKeyFile* file, std::string name) : file_(file), name_(std::move(name)) {}

    [[nodiscard]] bool exists() const { return g_key_file_has_group(file_, name_.c_str()); }

    [[nodiscard]] std::optional<std::string> text(const char* key) const {
        if (!has(key)) {
            return std::nullopt;
        }
        const Text value(g_key_file_get_string(file_, name_.c_str(), key, nullptr));
        if (!value) {
            throw MalformedValue{};
        }
        return g_strchomp(value.get());
    }

    [[nodiscard]] std::optional<bool> truth(const char* key) const {
        return typed<bool>(key, g_key_file_get_boolean);
    }

    [[nodiscard]] std::optional<int> number(const char* key) const {
        return typed<int>(key, g_key_file_get_integer);
    }

    [[nodiscard]] TextList list(const char* key) const {
        if (!has(key)) {
            return nullptr;
        }
        TextList values(g_key_file_get_string_list(file_, name_.c_str(), key, nullptr, nullptr));
        if (!values) {
            throw MalformedValue{};
        }
        return values;
    }

private:
    [[nodiscard]] bool has(const char* key) const {
        return exists() && g_key_file_has_key(file_, name_.c_str(), key, nullptr);
    }

    template <typename T, typename Get>
    [[nodiscard]] std::optional<T> typed(const char* key, Get get) const {
        if (!has(key)) {
            return std::nullopt;
        }
        GError* fault = nullptr;
        const auto value = get(file_, name_.c_str(), key, &fault);
        if (const Error error(fault); error) {
            throw MalformedValue{};
        }
        return static_cast<T>(value);
    }

    GKeyFile* file_;
    std::string name_;
};

void readSystem(const Group& group, Settings& settings) {
    settings.platformId = group.text("PlatformId").value_or(settings.platformId);
    settings.imei = group.text("Imei").value_or("");
    settings.imsi = group.text("Imsi").value_or("");
    settings.mmf = group.text("Mmf").value_or("");
}

void readConnections(GKeyFile* file, Settings& settings) {
    const TextList names = Group(file, "Connections").list("List");
    for (char** name = names.get(); name != nullptr && *name != nullptr; ++name) {
        const std::string trimmed = g_strstrip(*name);
        const Group group(file, "Connection " + trimmed);
        if (group.exists()) {
            settings.connections.add({trimmed, group.number("Kind").value_or(0),
                                      group.truth("Active").value_or(false),
                                      group.truth("Flagged").value_or(false)});
        }
    }
}

void readProxy(const Group& group, Settings& settings) {
    settings.proxyHost = group.text("Host").value_or("");
    const auto port = group.number("Port");
    if (!port) {
        return;
    }
    if (*port < 1 || *port > std::numeric_limits<std::uint16_t>::max()) {
        throw MalformedValue{};
    }
    settings.proxyPort = static_cast<std::uint32_t>(*port);
}

void readGroups(GKeyFile* file, Settings& settings) {
    const TextList groups(g_key_file_get_groups(file, nullptr));
    for (char** group = groups.get(); *group != nullptr; ++group) {
        settings.saysSystem = settings.saysSystem || std::string_view(*group) == "System";
        settings.saysProxy = settings.saysProxy || std::string_view(*group) == "Proxy";
        settings.saysConnections = settings.saysConnections || isConnectionGroup(*group);
    }
}

SourceWish sourceWish(const Group& group) {
    const std::string source = group.text("Source").value_or("auto");
    if (source == "file") {
        return SourceWish::File;
    }
    if (source == "networkmanager") {
        return SourceWish::NetworkManager;
    }
    if (source != "auto") {
        throw MalformedValue{};
    }
    return SourceWish::Auto;
}

void readNetworkManager(const Group& group, Settings& settings) {
    const TextList types = group.list("KindOne");
    for (char** type = types.get(); type != nullptr && *type != nullptr; ++type) {
        settings.kindOne.emplace_back(g_strstrip(*type));
    }
    settings.flagMetered = group.truth("FlagMetered").value_or(false);
}

} // namespace

bool isConnectionGroup(std::string_view name) {
    return name == "Connections" || name.starts_with("Connection ");
}

std::string withoutTrailingComments(std::string_view text) {
    std::string kept;
    kept.reserve(text.size());
    bool inComment = false;
    char before = '\n';
    for (const char c : text) {
        const bool mayBegin = before == ' ' || before == '\t' || before == '\n';
        inComment = c != '\n' && (inComment || (c == ';' && mayBegin));
        if (!inComment) {
            kept += c;
        }
        before = c;
    }
    return kept;
}

std::optional<Settings> parseSettings(std::string_view text) {
    // A text holds no NUL. A crash leaves blocks of them in a file that was being written.
    if (text.find('\0') != std::string_view::npos) {
        return std::nullopt;
    }
    const KeyFile file(g_key_file_new());
    const std::string lines = withoutTrailingComments(text);
    if (!g_key_file_load_from_data(file.get(), lines.data(), lines.size(), G_KEY_FILE_NONE,
                                   nullptr)) {
        return std::nullopt;
    }
    try {
        Settings settings;
        readSystem(Group(file.get(), "System"), settings);
        settings.networkPositioning = Group(file.get(), "Location").truth("NetworkPositioning");
        readConnections(file.get(), settings);
        readProxy(Group(file.get(), "Proxy"), settings);
        readGroups(file.get(), settings);
        settings.source = sourceWish(Group(file.get(), "Platform"));
        readNetworkManager(Group(file.get(), "NetworkManager"), settings);
        return settings;
    } catch (const MalformedValue&) {
        return std::nullopt;
    }
}

} // namespace trilba
