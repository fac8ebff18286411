#pragma once

#include "GioHandles.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <string>
#include <vector>

namespace orvexd::ctl {

/// Reads the words of one command with GOption. Targets keep their value when their option is
/// absent, and that value is the default to mention in the help text.
class OptionParser {
public:
    /// @param command name of the command; empty for the options in front of it.
    /// @param usage what the help shows behind the options, for example "CONNECTION REQUEST".
    OptionParser(const std::string& command, const std::string& usage, const std::string& summary);

    /// Text below the list of options in the help.
    void setDescription(const std::string& text);

    /// Stops at the first word that is no option, and leaves it and the rest.
    void stopAtFirstWord();

    // `name`, `help` and `argument` must live as long as the parser.
    void addFlag(const char* name, char letter, const char* help, bool& target);
    /// The argument's exact bytes.
    void addText(const char* name, char letter, const char* help, const char* argument,
                 std::string& target);
    void addNumber(const char* name, char letter, const char* help, const char* argument,
                   std::uint32_t& target, std::uint32_t smallest = 0,
                   std::uint32_t largest = std::numeric_limits<std::uint32_t>::max());

    /// Sets the targets. Prints the help and ends the process with status 0 when asked to.
    /// @return the words that are no options. @throws Failure when an option is wrong.
    std::vector<std::string> parse(const std::vector<std::string>& words);

private:
    using Target = std::function<void(const std::string& argument)>;

    void add(const char* name, char letter, GOptionFlags flags, const char* help,
             const char* argument, Target target);
    static gboolean take(const char* option, const char* value, gpointer self,
                         GError** error) noexcept;

    using ContextRef = std::unique_ptr<GOptionContext, FreeWith<g_option_context_free>>;

    struct Entry {
        std::string longName;
        std::string shortName;
        Target target;
    };

    std::string program_;
    ContextRef context_;
    std::deque<Entry> entries_;
    std::vector<GOptionEntry> table_;
};

/// Reads an id or another number that stands alone. @throws Failure when it is none.
std::uint32_t parseNumber(const std::string& text, const std::string& what,
                          std::uint32_t smallest = 0,
                          std::uint32_t largest = std::numeric_limits<std::uint32_t>::max());

} // namespace orvexd::ctl
