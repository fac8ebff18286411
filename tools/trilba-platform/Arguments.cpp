#include "Arguments.h"

#include "Handles.h"

#include <array>

namespace trilba::tool {

namespace {

using Context = std::unique_ptr<GOptionContext, FreeWith<g_option_context_free>>;

constexpr const char* kSummary =
    "Prints the device as the platform library, and so the positioning daemon, sees it:\n"
    "where the answers come from, the connections, the proxy, the identity and the\n"
    "permission; and what is wrong with the platform file.";
constexpr const char* kDescription =
    "The exit status is 0 when nothing is wrong, 1 after warnings, and 2 after faults or\n"
    "wrong arguments. See trilba-platform(1).\n";
constexpr int kLongestWait = 3600;

} // namespace

Arguments readArguments(int argc, char** argv) {
    Arguments arguments;
    gboolean json = FALSE;
    gboolean watch = FALSE;
    gboolean version = FALSE;
    int wait = static_cast<int>(arguments.wait.count());
    char* chosenFile = nullptr;
    const std::array<GOptionEntry, 6> entries{{
        {"json", 'j', 0, G_OPTION_ARG_NONE, &json, "Print JSON, one document a line", nullptr},
        {"watch", 'w', 0, G_OPTION_ARG_NONE, &watch, "Print again after each change", nullptr},
        {"file", 'f', 0, G_OPTION_ARG_FILENAME, &chosenFile,
         "Use this platform file, as with TRILBA_PLATFORM_CONF", "PATH"},
        {"wait", 0, 0, G_OPTION_ARG_INT, &wait, "Wait at most so long for an answer (5)",
         "SECONDS"},
        {"version", 0, 0, G_OPTION_ARG_NONE, &version, "Print the version", nullptr},
        {},
    }};
    const Context context(g_option_context_new(nullptr));
    g_option_context_set_summary(context.get(), kSummary);
    g_option_context_set_description(context.get(), kDescription);
    g_option_context_add_main_entries(context.get(), entries.data(), nullptr);
    GError* error = nullptr;
    const bool isGood = g_option_context_parse(context.get(), &argc, &argv, &error);
    const Error fault(error);
    const Text file(chosenFile);
    if (!isGood) {
        arguments.fault = fault->message;
    } else if (argc > 1) {
        arguments.fault = std::string("unexpected argument ") + argv[1];
    } else if (wait < 0 || wait > kLongestWait) {
        arguments.fault = "--wait takes 0 to 3600 seconds";
    }
    arguments.json = json != FALSE;
    arguments.watch = watch != FALSE;
    arguments.version = version != FALSE;
    arguments.file = file ? file.get() : "";
    arguments.wait = std::chrono::seconds(wait);
    return arguments;
}

} // namespace trilba::tool
