#include "FileCheck.h"

#include "Handles.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <map>
#include <set>
#include <sstream>
#include <utility>

namespace trilba {

namespace {

enum class Type { Text, Digits, Truth, Kind, Port, Host, List, Types, Source };

struct KnownKey {
    std::string_view group;
    std::string_view key;
    Type type;
};

constexpr std::string_view kConnection = "Connection "; // and a name

constexpr std::array<KnownKey, 14> kKnown{{
    {"Platform", "Source", Type::Source},
    {"System", "PlatformId", Type::Text},
    {"System", "Imei", Type::Digits},
    {"System", "Imsi", Type::Digits},
    {"System", "Mmf", Type::Text},
    {"Location", "NetworkPositioning", Type::Truth},
    {"Connections", "List", Type::List},
    {kConnection, "Kind", Type::Kind},
    {kConnection, "Active", Type::Truth},
    {kConnection, "Flagged", Type::Truth},
    {"Proxy", "Host", Type::Host},
    {"Proxy", "Port", Type::Port},
    {"NetworkManager", "KindOne", Type::Types},
    {"NetworkManager", "FlagMetered", Type::Truth},
}};

/// Of NetworkManager's connections; the library knows some by their short names, too.
constexpr std::array<std::string_view, 29> kConnectionTypes{"ethernet",
                                                            "802-3-ethernet",
                                                            "wifi",
                                                            "802-11-wireless",
                                                            "bt",
                                                            "bluetooth",
                                                            "gsm",
                                                            "cdma",
                                                            "pppoe",
                                                            "adsl",
                                                            "bridge",
                                                            "bond",
                                                            "team",
                                                            "vlan",
                                                            "macvlan",
                                                            "veth",
                                                            "dummy",
                                                            "generic",
                                                            "wireguard",
                                                            "vpn",
                                                            "tun",
                                                            "ip-tunnel",
                                                            "vxlan",
                                                            "infiniband",
                                                            "wpan",
                                                            "6lowpan",
                                                            "ovs-bridge",
                                                            "ovs-interface",
                                                            "802-11-olpc-mesh"};

constexpr std::size_t kLongestHost = 131; // bytes that a proxy query has room for

std::string trimmed(std::string_view text) {
    constexpr std::string_view kSpace = " \t\r";
    const auto begin = text.find_first_not_of(kSpace);
    if (begin == std::string_view::npos) {
        return {};
    }
    return std::string(text.substr(begin, text.find_last_not_of(kSpace) - begin + 1));
}

std::string quoted(const std::string& text) {
    return '"' + text + '"';
}

/// The group whose keys a group has: all connections have the same.
std::string_view familyOf(std::string_view group) {
    return group.starts_with(kConnection) ? kConnection : group;
}

bool isKnownGroup(std::string_view group) {
    return std::any_of(kKnown.begin(), kKnown.end(),
                       [&](const KnownKey& known) { return known.group == familyOf(group); });
}

const KnownKey* findKey(std::string_view group, std::string_view key) {
    const auto* const found =
        std::find_if(kKnown.begin(), kKnown.end(), [&](const KnownKey& known) {
            return known.group == familyOf(group) && known.key == key;
        });
    return found == kKnown.end() ? nullptr : found;
}

std::string lower(std::string_view text) {
    const Text folded(g_ascii_strdown(text.data(), static_cast<gssize>(text.size())));
    return folded.get();
}

/// How many letters have to be put in, taken out or replaced.
std::size_t distance(const std::string& left, const std::string& right) {
    std::vector<std::size_t> row(right.size() + 1);
    for (std::size_t i = 0; i < row.size(); ++i) {
        row[i] = i;
    }
    for (std::size_t i = 1; i <= left.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i);
        for (std::size_t j = 1; j <= right.size(); ++j) {
            const std::size_t replaced = diagonal + (left[i - 1] == right[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({replaced, row[j] + 1, row[j - 1] + 1});
        }
    }
    return row.back();
}

template <typename Names> std::string suggestion(std::string_view word, const Names& names) {
    constexpr std::size_t kLikely = 2;
    for (const std::string_view name : names) {
        if (word.size() < 40 && distance(lower(word), lower(name)) <= kLikely) {
            return ": did you mean " + std::string(name) + '?';
        }
    }
    return {};
}

std::string suggestedGroup(const std::string& group) {
    if (group.starts_with("connection ")) {
        return ": did you mean Connection, with a capital letter?";
    }
    std::array<std::string_view, kKnown.size()> names;
    std::transform(kKnown.begin(), kKnown.end(), names.begin(),
                   [](const KnownKey& known) { return known.group; });
    return suggestion(group, names);
}

std::string suggestedKey(const std::string& group, const std::string& key) {
    std::vector<std::string_view> names;
    for (const KnownKey& known : kKnown) {
        if (known.group == familyOf(group)) {
            names.push_back(known.key);
        }
    }
    return suggestion(key, names);
}

bool isTruth(const std::string& value) {
    return value == "true" || value == "false" || value == "1" || value == "0";
}

bool isDigits(const std::string& value) {
    return std::all_of(value.begin(), value.end(), [](char c) { return g_ascii_isdigit(c); });
}

/// As GLib reads it.
std::optional<int> numberOf(const std::string& value) {
    int number = 0;
    const char* const begin = value.data() + (value.starts_with('+') ? 1 : 0);
    const char* const end = value.data() + value.size();
    const auto [stopped, error] = std::from_chars(begin, end, number);
    return error == std::errc() && stopped == end && begin != end ? std::optional(number)
                                                                  : std::nullopt;
}

struct Judgement {
    bool isFault = false;
    std::string text; ///< empty: the value is good
};

Judgement fault(std::string text) {
    return {true, std::move(text)};
}

Judgement warning(std::string text) {
    return {false, std::move(text)};
}

Judgement judgeKind(const std::string& value) {
    const auto number = numberOf(value);
    if (!number) {
        return fault("is a number: 1 for a network without costs, 2 for a mobile one");
    }
    if (*number != 1 && *number != 2) {
        return warning("is known as 1 or 2 only: any other counts as restricted");
    }
    return {};
}

Judgement judgePort(const std::string& value) {
    const auto number = numberOf(value);
    const bool isPort =
        number && *number >= 1 && *number <= std::numeric_limits<std::uint16_t>::max();
    return isPort ? Judgement() : fault("is a number from 1 to 65535");
}

Judgement judgeHost(const std::string& value) {
    if (value.size() > kLongestHost) {
        return warning("has more than 131 bytes: no proxy is used");
    }
    if (value.find("//") != std::string::npos) {
        return warning("is a name or an address, not a URL");
    }
    return {};
}

Judgement judgeSource(const std::string& value) {
    const bool isKnown = value == "auto" || value == "file" || value == "networkmanager";
    return isKnown ? Judgement() : fault("is auto, file or networkmanager");
}

Judgement judgeTypes(const std::string& value) {
    std::istringstream names(value);
    for (std::string name; std::getline(names, name, ';');) {
        name = trimmed(name);
        if (std::find(kConnectionTypes.begin(), kConnectionTypes.end(), name) ==
            kConnectionTypes.end()) {
            return warning("has " + quoted(name) + ", which is no known type of connections" +
                           suggestion(name, kConnectionTypes));
        }
    }
    return {};
}

/// Whether GLib looks for backslashes in values of this type.
bool hasEscapes(Type type) {
    return type != Type::Truth && type != Type::Kind && type != Type::Port;
}

bool isList(Type type) {
    return type == Type::List || type == Type::Types;
}

bool hasBadEscape(Type type, const std::string& value) {
    const std::string good = isList(type) ? "sntr\\;" : "sntr\\";
    for (std::size_t i = 0; i < value.size(); ++i) {
        if (value[i] == '\\' && (++i == value.size() || good.find(value[i]) == std::string::npos)) {
            return true;
        }
    }
    return false;
}

Judgement judge(Type type, const std::string& value) {
    if (hasEscapes(type) && hasBadEscape(type, value)) {
        return {isList(type), "takes \\\\ for a backslash"}; // GLib gives no such list
    }
    switch (type) {
    case Type::Digits:
        return isDigits(value) ? Judgement() : warning("consists of digits");
    case Type::Truth:
        return isTruth(value) ? Judgement() : fault("is true or false");
    case Type::Kind:
        return judgeKind(value);
    case Type::Port:
        return judgePort(value);
    case Type::Host:
        return judgeHost(value);
    case Type::Source:
        return judgeSource(value);
    case Type::Types:
        return judgeTypes(value);
    case Type::Text:
    case Type::List:
        break;
    }
    return {};
}

/// Reads a file line by line, and looks at the values when it has seen the last line: of a key that
/// is there twice the last one counts.
class Check {
public:
    explicit Check(bool ignoresConnections) : ignoresConnections_(ignoresConnections) {}

    std::vector<Finding> run(std::string_view text) {
        std::istringstream lines(withoutTrailingComments(text));
        std::string line;
        for (line_ = 1; std::getline(lines, line); ++line_) {
            read(trimmed(line));
        }
        judgeNames();
        for (const auto& [place, value] : values_) {
            judgeValue(place.first, place.second, value);
        }
        std::stable_sort(findings_.begin(), findings_.end(),
                         [](const Finding& a, const Finding& b) { return a.line < b.line; });
        return std::move(findings_);
    }

private:
    struct Value {
        int line;
        std::string text;
    };

    void add(int line, bool isFault, const std::string& text) {
        findings_.push_back({line, isFault, text});
    }

    void read(const std::string& line) {
        if (line.empty() || line.starts_with('#')) {
            return;
        }
        if (line.starts_with('[')) {
            readGroup(line);
        } else if (const auto equals = line.find('='); equals == std::string::npos || equals == 0) {
            add(line_, true, "the line is no group, no key with a value and no comment");
        } else if (group_.empty()) {
            add(line_, true, "the key stands before the first group");
        } else {
            readKey(trimmed(line.substr(0, equals)), trimmed(line.substr(equals + 1)));
        }
    }

    void readGroup(const std::string& line) {
        if (!line.ends_with(']')) {
            add(line_, true, "a group's line ends with ]");
            return;
        }
        group_ = line.substr(1, line.size() - 2);
        if (!isKnownGroup(group_)) {
            add(line_, false, "[" + group_ + "] is not known" + suggestedGroup(group_));
        } else if (ignoresConnections_ && isConnectionGroup(group_)) {
            add(line_, false, "[" + group_ + "] is ignored: another source tells the connections");
        }
        if (!groups_.try_emplace(group_, line_).second) {
            add(line_, false, "[" + group_ + "] has begun before: both parts count");
        }
    }

    void readKey(const std::string& key, const std::string& value) {
        if (isKnownGroup(group_) && findKey(group_, key) == nullptr) {
            add(line_, false,
                key + " is not known in [" + group_ + "]" + suggestedKey(group_, key));
        }
        const auto [place, isNew] = values_.try_emplace({group_, key}, Value{line_, value});
        if (!isNew) {
            add(line_, false, key + " was given before: this one counts");
            place->second = {line_, value};
        }
    }

    /// Names in the list and the groups of connections belong together.
    void judgeNames() {
        const auto list = values_.find({"Connections", "List"});
        if (list != values_.end()) {
            std::istringstream names(list->second.text);
            for (std::string name; std::getline(names, name, ';');) {
                name = trimmed(name);
                listed_.insert(std::string(kConnection) + name);
                if (!groups_.contains(std::string(kConnection) + name)) {
                    add(list->second.line, false,
                        quoted(name) + " is left out: there is no [Connection " + name + "]");
                }
            }
        }
        for (const auto& [group, line] : groups_) {
            if (group.starts_with(kConnection) && !listed_.contains(group)) {
                add(line, false,
                    "[" + group + "] is ignored: List in [Connections] has no " +
                        quoted(group.substr(kConnection.size())));
            }
        }
    }

    void judgeValue(const std::string& group, const std::string& key, const Value& value) {
        const KnownKey* known = findKey(group, key);
        if (known == nullptr) {
            return;
        }
        if (!g_utf8_validate(value.text.data(), static_cast<gssize>(value.text.size()), nullptr)) {
            add(value.line, isRead(group), "the value of " + key + " is not UTF-8");
            return;
        }
        const Judgement judgement = judge(known->type, value.text);
        if (!judgement.text.empty()) {
            add(value.line, judgement.isFault && isRead(group),
                key + "=" + value.text + ": " + key + ' ' + judgement.text);
        }
    }

    /// The library looks at the values of listed connections only.
    [[nodiscard]] bool isRead(const std::string& group) const {
        return !group.starts_with(kConnection) || listed_.contains(group);
    }

    const bool ignoresConnections_;
    int line_ = 0;
    std::string group_;
    std::map<std::string, int> groups_; // by name, with the line where it begins
    std::map<std::pair<std::string, std::string>, Value> values_;
    std::set<std::string> listed_;
    std::vector<Finding> findings_;
};

} // namespace

std::vector<Finding> checkFile(std::string_view text, bool ignoresConnections) {
    if (const auto zero = text.find('\0'); zero != std::string_view::npos) {
        const auto line = 1 + std::count(text.begin(), text.begin() + static_cast<int>(zero), '\n');
        return {{static_cast<int>(line), true, "the file holds a zero byte"}};
    }
    auto findings = Check(ignoresConnections).run(text);
    const bool hasFault = std::any_of(findings.begin(), findings.end(),
                                      [](const Finding& finding) { return finding.isFault; });
    if (!hasFault && !parseSettings(text)) {
        findings.push_back({0, true, "GLib cannot read the file as a key file"});
    }
    return findings;
}

} // namespace trilba
