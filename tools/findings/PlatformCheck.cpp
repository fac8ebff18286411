#include "findings/PlatformCheck.h"

#include "findings/Files.h"
#include "findings/Identity.h"
#include "support/FreeWith.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <glib.h>
#include <map>
#include <memory>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace orvexd::findings {

namespace {

using KeyFileRef = std::unique_ptr<GKeyFile, FreeWith<g_key_file_unref>>;
using ErrorRef = std::unique_ptr<GError, FreeWith<g_error_free>>;
using TextRef = std::unique_ptr<char, FreeWith<g_free>>;
using ListRef = std::unique_ptr<char*, FreeWith<g_strfreev>>;

enum class Type { Text, Truth, Number, Port, Names };
using Keys = std::map<std::string, Type>;

constexpr const char* kNotInForce =
    "Until then the library keeps to what the file said before, or to its defaults.";
constexpr std::string_view kConnectionGroup = "Connection ";
constexpr int kLargestPort = 65535;

const Keys* keysOf(const std::string& group) {
    static const std::map<std::string, Keys> kGroups = {
        {"System",
         {{"PlatformId", Type::Text},
          {"Imei", Type::Text},
          {"Imsi", Type::Text},
          {"Mmf", Type::Text}}},
        {"Location", {{"NetworkPositioning", Type::Truth}}},
        {"Connections", {{"List", Type::Names}}},
        {"Proxy", {{"Host", Type::Text}, {"Port", Type::Port}}}};
    static const Keys kConnection = {
        {"Kind", Type::Number}, {"Active", Type::Truth}, {"Flagged", Type::Truth}};
    if (group.starts_with(kConnectionGroup)) {
        return &kConnection;
    }
    const auto found = kGroups.find(group);
    return found == kGroups.end() ? nullptr : &found->second;
}

/// Line of a group's head, or of a key in it, counted from 1; 0 when it is not found.
std::size_t lineOf(const std::string& text, const std::string& group, const std::string& key) {
    std::size_t number = 0;
    bool inside = false;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        const std::string line = text.substr(at, end - at);
        ++number;
        at = end + 1;
        if (!line.empty() && line.front() == '[') {
            inside = line.starts_with("[" + group + "]");
            if (inside && key.empty()) {
                return number;
            }
        } else if (inside && line.starts_with(key) &&
                   line.find_first_not_of(" \t", key.size()) == line.find('=')) {
            return number;
        }
    }
    return 0;
}

/// What is found wrong while the file is read.
class Reader {
public:
    Reader(GKeyFile* file, std::string path, const std::string& text, const Checked& report)
        : file_(file), path_(std::move(path)), text_(text), report_(report) {}

    /// @return true when nothing was found.
    bool read() {
        const ListRef groups(g_key_file_get_groups(file_, nullptr));
        for (char** group = groups.get(); *group != nullptr; ++group) {
            readGroup(*group);
        }
        readList();
        return good_;
    }

private:
    void readGroup(const std::string& group) {
        // Another source of the platform's state may have groups of its own.
        const Keys* known = keysOf(group);
        if (known == nullptr) {
            return;
        }
        const ListRef keys(g_key_file_get_keys(file_, group.c_str(), nullptr, nullptr));
        for (char** key = keys.get(); key != nullptr && *key != nullptr; ++key) {
            const auto found = known->find(*key);
            if (found == known->end()) {
                doubt(at(group, *key) + " is no key of [" + group + "]: nothing reads it.",
                      "Look for a slip of the pen; trilba-platform.conf(5) lists the keys.");
            } else {
                readValue(group, *key, found->second);
            }
        }
    }

    void readValue(const std::string& group, const char* key, Type type) {
        GError* fault = nullptr;
        int number = 1;
        switch (type) {
        case Type::Truth:
            (void)g_key_file_get_boolean(file_, group.c_str(), key, &fault);
            break;
        case Type::Number:
        case Type::Port:
            number = g_key_file_get_integer(file_, group.c_str(), key, &fault);
            break;
        case Type::Text:
            (void)TextRef(g_key_file_get_string(file_, group.c_str(), key, &fault));
            break;
        case Type::Names:
            (void)ListRef(g_key_file_get_string_list(file_, group.c_str(), key, nullptr, &fault));
            break;
        }
        const ErrorRef error(fault);
        if (error) {
            breakWith(at(group, key) + " is not of its key's type: " + error->message);
        } else if (type == Type::Port && (number < 1 || number > kLargestPort)) {
            breakWith(at(group, key) + " is no port: it must be a number from 1 to 65535.");
        }
    }

    /// The library leaves out names without a group, and groups without a name.
    void readList() {
        const ListRef names(
            g_key_file_get_string_list(file_, "Connections", "List", nullptr, nullptr));
        std::vector<std::string> listed;
        for (char** name = names.get(); name != nullptr && *name != nullptr; ++name) {
            listed.emplace_back(g_strstrip(*name));
        }
        std::for_each(listed.begin(), listed.end(),
                      [this](const std::string& name) { checkName(name); });
        const ListRef groups(g_key_file_get_groups(file_, nullptr));
        for (char** group = groups.get(); *group != nullptr; ++group) {
            const std::string text = *group;
            if (text.starts_with(kConnectionGroup) &&
                std::find(listed.begin(), listed.end(), text.substr(kConnectionGroup.size())) ==
                    listed.end()) {
                doubt("[" + text + "] is not in the list of [Connections]: the library ignores it.",
                      "Add the name to List=.");
            }
        }
    }

    /// A name of the list.
    void checkName(const std::string& name) {
        const std::string group = std::string(kConnectionGroup) + name;
        if (!name.empty() && g_key_file_has_group(file_, group.c_str()) == FALSE) {
            doubt(at("Connections", "List") + " names \"" + name + "\", but there is no [" + group +
                      "]: the library leaves it out.",
                  "Add the group, or take the name from the list.");
        }
    }

    [[nodiscard]] std::string at(const std::string& group, const std::string& key) const {
        const std::size_t line = lineOf(text_, group, key);
        std::string place = path_;
        if (line != 0) {
            place.append(", line ").append(std::to_string(line));
        }
        const TextRef value(g_key_file_get_value(file_, group.c_str(), key.c_str(), nullptr));
        return place.append(": ").append(key).append("=").append(value ? value.get() : "");
    }

    void doubt(std::string why, std::string advice) {
        good_ = false;
        report_.doubtful(std::move(why), std::move(advice));
    }

    void breakWith(std::string why) {
        good_ = false;
        report_.broken(std::move(why), std::string("Mend the line. ") + kNotInForce);
    }

    GKeyFile* file_;
    std::string path_;
    const std::string& text_;
    const Checked& report_;
    bool good_ = true;
};

bool checkContent(const std::string& path, const std::string& text, const Checked& report) {
    if (text.empty()) {
        report.doubtful(path + " is empty: every default holds, so there is no connection.",
                        "Describe the device there; see trilba-platform.conf(5).");
        return false;
    }
    if (text.find('\0') != std::string::npos) {
        report.broken(path + " holds a NUL byte, so it is no text.",
                      std::string("Write it anew. ") + kNotInForce);
        return false;
    }
    const KeyFileRef file(g_key_file_new());
    GError* fault = nullptr;
    (void)g_key_file_load_from_data(file.get(), text.data(), text.size(), G_KEY_FILE_NONE, &fault);
    if (const ErrorRef error(fault); error) {
        report.broken(path + " is no key file: " + error->message,
                      std::string("Mend it; trilba-platform.conf(5) has an example. ") +
                          kNotInForce);
        return false;
    }
    return Reader(file.get(), path, text, report).read();
}

bool hasExampleImei(const std::string& text) {
    const KeyFileRef file(g_key_file_new());
    (void)g_key_file_load_from_data(file.get(), text.data(), text.size(), G_KEY_FILE_NONE, nullptr);
    const TextRef imei(g_key_file_get_string(file.get(), "System", "Imei", nullptr));
    return imei && kExampleImei == g_strchomp(imei.get());
}

/// @return false when what the file holds does not count.
bool checkAccess(const std::string& path, const FileFacts& facts, bool sandboxed,
                 const Checked& report) {
    if (!facts.isRegular()) {
        report.broken(path + " is no regular file.", "Replace it by one.");
        return false;
    }
    if (facts.owner != 0) {
        const std::string why = path + " belongs to user " + std::to_string(facts.owner);
        const std::string advice = "Give it to root: chown root:root " + path;
        if (facts.isForAll()) {
            report.doubtful(why + ", who may change what the daemon believes.", advice);
        } else {
            report.broken(why + ": the sandboxed daemon cannot read it.", advice);
        }
    } else if ((facts.mode & (S_IWGRP | S_IWOTH)) != 0) {
        report.doubtful(path + " has mode " + facts.modeText() + ": others may change it.",
                        "chmod 644 " + path);
    }
    const std::string hidden = hiddenFolderOf(path);
    if (sandboxed && !hidden.empty()) {
        report.broken(path + " is below " + hidden + ", which the service does not see.",
                      "Keep the file below /etc.");
    }
    return true;
}

/// A file at which this process may not look.
void tellHidden(const std::string& path, bool sandboxed, const Checked& report) {
    if (sandboxed && geteuid() == 0) {
        report.broken(path + " cannot be read by the service: " + g_strerror(EACCES) + ".",
                      "Let root read it, and search the folders on the way, without privileges.");
    } else {
        report.unknown(path + " cannot be read by this user: " + g_strerror(EACCES) + ".",
                       "Ask again as root.");
    }
}

} // namespace

void checkPlatformFile(const std::string& path, bool sandboxed, bool explained,
                       const Checked& report) {
    const FileFacts facts = factsOf(path);
    if (!facts.exists() && explained) {
        return;
    }
    if (facts.error == EACCES) {
        tellHidden(path, sandboxed, report);
        return;
    }
    if (!facts.exists()) {
        report.doubtful(path + " cannot be found: " + facts.reason() +
                            ". Every default holds, so there is no connection.",
                        "Describe the device there; see trilba-platform.conf(5).");
        return;
    }
    if (!checkAccess(path, facts, sandboxed, report)) {
        return;
    }
    const auto text = textOf(path);
    if (!text) {
        tellHidden(path, sandboxed, report);
        return;
    }
    const bool isGood = explained || checkContent(path, *text, report);
    const bool isExample = hasExampleImei(*text);
    if (isExample) {
        report.broken(path + ": the Imei is the example's, which is no device's.",
                      "Write the device's own. The identity that the server sees comes from this "
                      "file, not from the five variables.");
    }
    if (isGood && !isExample && !explained) {
        report.fine(path + " is well formed.");
    }
}

} // namespace orvexd::findings
