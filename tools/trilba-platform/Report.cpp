#include "Report.h"

#include "Handles.h"

#include <algorithm>
#include <json-glib/json-glib.h>
#include <sstream>

namespace trilba::tool {

namespace {

constexpr int kWidth = 12;              // of the first column
constexpr std::uint32_t kPreset = 8080; // the daemon's port of a proxy that names none

template <typename T> using Object = std::unique_ptr<T, FreeWith<g_object_unref>>;
using Node = std::unique_ptr<JsonNode, FreeWith<json_node_unref>>;

const char* nameOf(SourceName source) {
    return source == SourceName::File ? "file" : "networkmanager";
}

/// A line of its own for each label; what comes from outside cannot move the cursor.
std::string line(const std::string& label, const std::string& value) {
    std::string text = label;
    text.resize(std::max<std::size_t>(kWidth, label.size() + 1), ' ');
    for (const char c : value) {
        text += g_ascii_iscntrl(c) ? '?' : c;
    }
    while (text.ends_with(' ')) {
        text.pop_back();
    }
    return text + '\n';
}

const network::ConnectionInfo* inUse(const Settings& answers) {
    const auto found = std::find_if(answers.connections.begin(), answers.connections.end(),
                                    [](const auto& entry) { return entry.active; });
    return found == answers.connections.end() ? nullptr : &*found;
}

/// The daemon's number for the state of the network.
unsigned statusNumber(const Settings& answers) {
    const network::ConnectionInfo* entry = inUse(answers);
    if (entry == nullptr) {
        return 0;
    }
    if (entry->kind == 1) {
        return 3;
    }
    return entry->kind == 2 && !entry->flagged ? 1 : 5;
}

std::string statusWords(unsigned number) {
    switch (number) {
    case 0:
        return "not connected (0)";
    case 1:
        return "connected (1)";
    case 3:
        return "connected, kind 1 (3)";
    default:
        return "connected, restricted (5)";
    }
}

std::string wordsOf(const network::ConnectionInfo& entry, bool isUsed) {
    return entry.name + ": kind " + std::to_string(entry.kind) +
           (entry.active ? ", active" : ", not active") + (entry.flagged ? ", flagged" : "") +
           (isUsed ? ", in use" : "");
}

std::string proxyOf(const Settings& answers) {
    if (answers.proxyHost.empty()) {
        return "none";
    }
    return answers.proxyHost + ':' + std::to_string(answers.proxyPort.value_or(kPreset));
}

std::string permissionOf(const Settings& answers) {
    return std::string(answers.networkPositioning.value_or(true) ? "permitted" : "not permitted") +
           (answers.networkPositioning ? " (by the file)" : " (default)");
}

std::string orNone(const std::string& text) {
    return text.empty() ? "none" : text;
}

/// Writes JSON.
class Writer {
public:
    Writer() : builder_(json_builder_new()) {}

    void beginObject() { json_builder_begin_object(builder_.get()); }
    void endObject() { json_builder_end_object(builder_.get()); }
    void beginArray(const char* name) {
        key(name);
        json_builder_begin_array(builder_.get());
    }
    void endArray() { json_builder_end_array(builder_.get()); }
    void key(const char* name) { json_builder_set_member_name(builder_.get(), name); }
    void text(const char* name, const std::string& value) {
        key(name);
        // The file's own text may be anything.
        const Text valid(g_utf8_make_valid(value.data(), static_cast<gssize>(value.size())));
        json_builder_add_string_value(builder_.get(), valid.get());
    }
    void number(const char* name, std::int64_t value) {
        key(name);
        json_builder_add_int_value(builder_.get(), value);
    }
    void truth(const char* name, bool value) {
        key(name);
        json_builder_add_boolean_value(builder_.get(), value);
    }

    [[nodiscard]] std::string finish() const {
        const Node root(json_builder_get_root(builder_.get()));
        const Object<JsonGenerator> generator(json_generator_new());
        json_generator_set_root(generator.get(), root.get());
        const Text text(json_generator_to_data(generator.get(), nullptr));
        return text.get();
    }

private:
    Object<JsonBuilder> builder_;
};

void writeConnections(Writer& writer, const Settings& answers) {
    writer.beginArray("connections");
    for (const auto& entry : answers.connections) {
        writer.beginObject();
        writer.text("name", entry.name);
        writer.number("kind", entry.kind);
        writer.truth("active", entry.active);
        writer.truth("flagged", entry.flagged);
        writer.truth("inUse", &entry == inUse(answers));
        writer.endObject();
    }
    writer.endArray();
}

void writeAnswers(Writer& writer, const Settings& answers) {
    writer.number("status", statusNumber(answers));
    writeConnections(writer, answers);
    if (!answers.proxyHost.empty()) {
        writer.text("proxyHost", answers.proxyHost);
        writer.number("proxyPort", answers.proxyPort.value_or(kPreset));
    }
    writer.text("platformId", answers.platformId);
    writer.text("imei", answers.imei);
    writer.text("imsi", answers.imsi);
    writer.text("firmwareId", answers.mmf);
    writer.truth("positioningPermitted", answers.networkPositioning.value_or(true));
}

void writeFindings(Writer& writer, const Report& report) {
    writer.beginArray("remarks");
    for (const Remark& remark : report.description.remarks) {
        writer.beginObject();
        writer.text("severity", remark.isFault ? "fault" : "warning");
        writer.text("text", remark.text);
        writer.endObject();
    }
    writer.endArray();
    writer.beginArray("findings");
    for (const Finding& finding : report.file.findings) {
        writer.beginObject();
        writer.number("line", finding.line);
        writer.text("severity", finding.isFault ? "fault" : "warning");
        writer.text("text", finding.text);
        writer.endObject();
    }
    writer.endArray();
}

} // namespace

std::string Report::text() const {
    const Settings& answers = description.answers;
    std::string text = line("source", nameOf(description.source));
    text += line("file", description.path + (file.exists ? "" : " (does not exist)"));
    text += line("status", statusWords(statusNumber(answers)));
    for (const auto& entry : answers.connections) {
        text += line("connection", wordsOf(entry, &entry == inUse(answers)));
    }
    text += line("proxy", proxyOf(answers));
    text += line("platform", orNone(answers.platformId));
    text += line("IMEI", orNone(answers.imei));
    text += line("IMSI", orNone(answers.imsi));
    text += line("firmware", orNone(answers.mmf));
    text += line("positioning", permissionOf(answers));
    for (const Remark& remark : description.remarks) {
        text += line(remark.isFault ? "fault:" : "warning:", remark.text);
    }
    for (const Finding& finding : file.findings) {
        const std::string where =
            description.path + ':' + (finding.line > 0 ? std::to_string(finding.line) + ':' : "");
        text += line(where, (finding.isFault ? "fault: " : "warning: ") + finding.text);
    }
    return text;
}

std::string Report::json() const {
    Writer writer;
    writer.beginObject();
    writer.text("source", nameOf(description.source));
    writer.text("file", description.path);
    writer.truth("fileExists", file.exists);
    writer.truth("answered", description.hasAnswered);
    writeAnswers(writer, description.answers);
    writeFindings(writer, *this);
    writer.endObject();
    return writer.finish() + '\n';
}

int Report::status() const {
    const auto isFault = [](const auto& each) { return each.isFault; };
    if (std::any_of(file.findings.begin(), file.findings.end(), isFault) ||
        std::any_of(description.remarks.begin(), description.remarks.end(), isFault)) {
        return 2;
    }
    return file.findings.empty() && description.remarks.empty() ? 0 : 1;
}

} // namespace trilba::tool
