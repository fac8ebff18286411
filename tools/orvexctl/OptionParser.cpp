#include "OptionParser.h"

#include "Failure.h"
#include "Printable.h"

#include <charconv>
#include <utility>

namespace orvexd::ctl {

OptionParser::OptionParser(const std::string& command, const std::string& usage,
                           const std::string& summary)
    : program_{command.empty() ? "orvexctl" : "orvexctl " + command},
      context_{g_option_context_new(usage.c_str())} {
    g_option_context_set_summary(context_.get(), summary.c_str());
    g_option_context_set_main_group(context_.get(), g_option_group_new("", "", "", this, nullptr));
}

void OptionParser::setDescription(const std::string& text) {
    g_option_context_set_description(context_.get(), text.c_str());
}

void OptionParser::stopAtFirstWord() {
    g_option_context_set_strict_posix(context_.get(), TRUE);
}

void OptionParser::addFlag(const char* name, char letter, const char* help, bool& target) {
    add(name, letter, G_OPTION_FLAG_NO_ARG, help, nullptr,
        [&target](const std::string& /*argument*/) { target = true; });
}

void OptionParser::addText(const char* name, char letter, const char* help, const char* argument,
                           std::string& target) {
    add(name, letter, G_OPTION_FLAG_FILENAME, help, argument,
        [&target](const std::string& value) { target = value; });
}

void OptionParser::addNumber(const char* name, char letter, const char* help, const char* argument,
                             std::uint32_t& target, std::uint32_t smallest, std::uint32_t largest) {
    add(name, letter, G_OPTION_FLAG_NONE, help, argument,
        [&target, name, smallest, largest](const std::string& value) {
            target = parseNumber(value, std::string{"--"} + name, smallest, largest);
        });
}

void OptionParser::add(const char* name, char letter, GOptionFlags flags, const char* help,
                       const char* argument, Target target) {
    // GOption names the option to its callback as it was written: "--name" or "-n".
    entries_.push_back({std::string{"--"} + name, std::string{"-"} + letter, std::move(target)});
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): GOption's own convention
    auto* const callback = reinterpret_cast<gpointer>(take);
    table_.push_back({name, letter, flags, G_OPTION_ARG_CALLBACK, callback, help, argument});
}

std::vector<std::string> OptionParser::parse(const std::vector<std::string>& words) {
    table_.push_back({});
    g_option_group_add_entries(g_option_context_get_main_group(context_.get()), table_.data());
    g_set_prgname(program_.c_str());

    std::vector<TextRef> copies;
    std::vector<char*> arguments;
    const auto append = [&](const std::string& word) {
        copies.emplace_back(g_strdup(word.c_str()));
        arguments.push_back(copies.back().get());
    };
    append(program_);
    for (const std::string& word : words) {
        append(word);
    }
    auto count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    char** list = arguments.data();

    ErrorSlot error;
    if (g_option_context_parse(context_.get(), &count, &list, error.out()) == FALSE) {
        throw Failure::usage(printable(error->message) + ". See '" + program_ + " --help'.");
    }
    return {list + 1, list + count};
}

gboolean OptionParser::take(const char* option, const char* value, gpointer self,
                            GError** error) noexcept {
    try {
        for (const Entry& entry : static_cast<OptionParser*>(self)->entries_) {
            if (entry.longName == option || entry.shortName == option) {
                entry.target(value == nullptr ? "" : value);
            }
        }
        return TRUE;
    } catch (const std::exception& failure) {
        g_set_error_literal(error, G_OPTION_ERROR, G_OPTION_ERROR_BAD_VALUE, failure.what());
        return FALSE;
    }
}

std::uint32_t parseNumber(const std::string& text, const std::string& what, std::uint32_t smallest,
                          std::uint32_t largest) {
    std::uint32_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc{} || stop != end || number < smallest || number > largest) {
        throw Failure::usage(what + " must be a number from " + std::to_string(smallest) + " to " +
                             std::to_string(largest));
    }
    return number;
}

} // namespace orvexd::ctl
