#include "findings/Identity.h"

#include "findings/Files.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <glib.h>

namespace orvexd::findings {

namespace {

constexpr const char* kDeviceId = "KELVRA_UNIQUE_DEVICE_ID";
constexpr std::array kVariables = {kDeviceId, "KELVRA_IMEI_FRAGMENT", "KELVRA_DEVICE_MANUFACTURER",
                                   "KELVRA_DEVICE_FIRMWARE_VERSION",
                                   "KELVRA_DEVICE_TERMINAL_MODEL"};
/// Of the packaged example.
constexpr std::array<std::pair<const char*, const char*>, 2> kExamples = {
    {{"KELVRA_DEVICE_MANUFACTURER", "Example Devices"},
     {"KELVRA_DEVICE_TERMINAL_MODEL", "Model One"}}};

std::string valueOf(const Variables& variables, const char* name) {
    const auto found = variables.find(name);
    return found == variables.end() ? std::string() : found->second;
}

/// "00000000-0000-…" and the like name no device.
bool isZero(const std::string& id) {
    return id.find_first_not_of("0-") == std::string::npos;
}

std::string missingOf(const Variables& variables) {
    std::string missing;
    for (const char* name : kVariables) {
        if (valueOf(variables, name).empty()) {
            missing += (missing.empty() ? "" : ", ") + std::string(name);
        }
    }
    return missing;
}

std::string exampleOf(const Variables& variables) {
    for (const auto& [name, value] : kExamples) {
        if (valueOf(variables, name) == value) {
            return std::string(name) + "=\"" + value + "\"";
        }
    }
    return {};
}

std::string trimmed(std::string_view text) {
    constexpr const char* kBlanks = " \t\r";
    const std::size_t begin = text.find_first_not_of(kBlanks);
    return begin == std::string_view::npos
               ? std::string()
               : std::string(text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1));
}

bool isQuoted(const std::string& value) {
    return value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
           value.back() == value.front();
}

bool looksTheSameToAShell(const std::string& value) {
    return isQuoted(value) || value.find_first_of(" \t\"'`$\\;&|<>(){}*?#~") == std::string::npos;
}

bool startsComment(std::string_view line) {
    const std::size_t begin = line.find_first_not_of(" \t\r");
    return begin != std::string_view::npos && (line[begin] == '#' || line[begin] == ';');
}

/// To the service manager, a backslash at its end makes the next line a part of a comment, too.
bool continuesComment(std::string_view line) {
    const std::size_t last = line.find_last_not_of('\\');
    const std::size_t backslashes = line.size() - (last == std::string_view::npos ? 0 : last + 1);
    return backslashes % 2 == 1;
}

void readLine(const std::string& line, EnvironmentFile& file) {
    const std::size_t equals = line.find('=');
    if (line.empty()) {
        return;
    }
    if (g_utf8_validate(line.data(), static_cast<gssize>(line.size()), nullptr) == FALSE &&
        file.fault.empty()) {
        file.fault = "a byte that is no UTF-8 in the line " + line.substr(0, equals);
    }
    if (equals == std::string::npos || equals == 0) {
        file.oddLine = file.oddLine.empty() ? line : file.oddLine;
        return;
    }
    std::string value = trimmed(std::string_view(line).substr(equals + 1));
    if (!looksTheSameToAShell(value) && file.oddLine.empty()) {
        file.oddLine = line;
    }
    if (isQuoted(value)) {
        value = value.substr(1, value.size() - 2);
    }
    file.variables[trimmed(std::string_view(line).substr(0, equals))] = value;
}

void checkAccess(const std::string& path, const FileFacts& facts, const Checked& report) {
    if (facts.owner != 0) {
        report.doubtful(path + " belongs to user " + std::to_string(facts.owner) + ".",
                        "Give it to root: chown root:root " + path);
    } else if (facts.isForOthers()) {
        report.doubtful(path + " has mode " + facts.modeText() + ": others can read it.",
                        "The identity of the device is root's alone: chmod 600 " + path);
    }
}

} // namespace

void checkVariables(const Variables& variables, const std::string& place, const Checked& report) {
    const std::string missing = missingOf(variables);
    const std::string example = exampleOf(variables);
    if (!missing.empty()) {
        report.broken("Missing or empty in " + place + ": " + missing +
                          ". The daemon does not start without them.",
                      "Write the device's own values there, as described in orvexd(8).");
    } else if (isZero(valueOf(variables, kDeviceId))) {
        report.broken(std::string(kDeviceId) + " in " + place +
                          " is the packaged example's, which names no device.",
                      "Write the device's own values there, as described in orvexd(8).");
    } else if (!example.empty()) {
        report.doubtful("The values in " + place + " are still the packaged example's: " + example +
                            ".",
                        "Write the device's own values there, as described in orvexd(8).");
    } else {
        report.fine("All five variables are set in " + place + ".");
    }
}

EnvironmentFile readEnvironment(std::string_view text) {
    EnvironmentFile file;
    bool isSwallowed = false; // by the comment before it
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        const std::string_view line = text.substr(0, end);
        const bool isComment = isSwallowed || startsComment(line);
        if (isSwallowed && !startsComment(line) && file.oddLine.empty()) {
            file.oddLine = line;
        }
        if (!isComment) {
            readLine(trimmed(line), file);
        }
        isSwallowed = isComment && continuesComment(line);
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return file;
}

void checkIdentityFile(const std::string& path, const std::optional<Variables>& daemon,
                       const Checked& report) {
    const FileFacts facts = factsOf(path);
    if (facts.error == EACCES) {
        report.unknown(path + " cannot be seen by this user.", "Ask again as root.");
        return;
    }
    if (!facts.exists()) {
        if (daemon && missingOf(*daemon).empty()) {
            checkVariables(*daemon, "the running daemon, though there is no " + path, report);
            return;
        }
        report.broken(path + " cannot be found: " + facts.reason() + ".",
                      "Install it with the five variables of orvexd(8), readable by root only.");
        return;
    }
    if (!facts.isRegular()) {
        report.broken(path + " is no regular file.",
                      "Replace it by one with the five variables of orvexd(8).");
        return;
    }
    checkAccess(path, facts, report);
    const auto text = textOf(path);
    if (!text) {
        report.unknown(path + " cannot be read by this user.", "Ask again as root.");
        return;
    }
    const EnvironmentFile file = readEnvironment(*text);
    if (!file.fault.empty()) {
        report.broken("The service manager refuses " + path + ": there is " + file.fault + ".",
                      "Write the file in UTF-8.");
    }
    if (!file.oddLine.empty()) {
        report.doubtful("A shell and the service manager read this line of " + path +
                            " differently: " + file.oddLine,
                        "Put the value into double quotes.");
    }
    checkVariables(file.variables, path, report);
    if (daemon && missingOf(file.variables).empty() &&
        std::any_of(kVariables.begin(), kVariables.end(), [&](const char* name) {
            return valueOf(*daemon, name) != valueOf(file.variables, name);
        })) {
        report.doubtful("The running daemon has other values than " + path + ".",
                        "Restart it to make the file count: systemctl restart orvexd");
    }
}

} // namespace orvexd::findings
