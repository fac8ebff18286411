#include "JsonLine.h"

namespace orvexd::ctl {

JsonLine::JsonLine() : builder_{json_builder_new()} {
    json_builder_begin_object(builder_.get());
}

void JsonLine::addNumber(const char* name, std::uint32_t value) {
    json_builder_set_member_name(builder_.get(), name);
    json_builder_add_int_value(builder_.get(), value);
}

void JsonLine::addText(const char* name, const std::string& value) {
    json_builder_set_member_name(builder_.get(), name);
    json_builder_add_string_value(builder_.get(), value.c_str());
}

void JsonLine::addTruth(const char* name, bool value) {
    json_builder_set_member_name(builder_.get(), name);
    json_builder_add_boolean_value(builder_.get(), value ? TRUE : FALSE);
}

void JsonLine::addTexts(const char* name, const std::vector<std::string>& values) {
    json_builder_set_member_name(builder_.get(), name);
    json_builder_begin_array(builder_.get());
    for (const std::string& value : values) {
        json_builder_add_string_value(builder_.get(), value.c_str());
    }
    json_builder_end_array(builder_.get());
}

std::string JsonLine::text() {
    using JsonNodeRef = std::unique_ptr<JsonNode, FreeWith<json_node_unref>>;
    json_builder_end_object(builder_.get());
    const JsonNodeRef root{json_builder_get_root(builder_.get())};
    return TextRef{json_to_string(root.get(), FALSE)}.get();
}

std::string timeStamp() {
    using TimeRef = std::unique_ptr<GDateTime, FreeWith<g_date_time_unref>>;
    const TimeRef now{g_date_time_new_now_local()};
    return TextRef{g_date_time_format(now.get(), "%Y-%m-%dT%H:%M:%S.%f%:z")}.get();
}

} // namespace orvexd::ctl
