// What is wrong with a platform file, line by line.

#include "FileCheck.h"

#include <gtest/gtest.h>

namespace trilba::test {

namespace {

struct Row {
    const char* name;
    const char* text;
    const char* findings; ///< "LINE fault: part of the text" or "LINE warning: ...", one a line
};

void PrintTo(const Row& row, std::ostream* out) {
    *out << row.name;
}

std::string shown(const std::vector<Finding>& findings) {
    std::string text;
    for (const Finding& finding : findings) {
        text += std::to_string(finding.line) + (finding.isFault ? " fault: " : " warning: ") +
                finding.text + '\n';
    }
    return text;
}

class FileCheckTable : public ::testing::TestWithParam<Row> {};

TEST_P(FileCheckTable, NamesLineAndReason) {
    EXPECT_EQ(shown(checkFile(GetParam().text, false)), GetParam().findings);
}

TEST_P(FileCheckTable, FindsAFaultIfTheLibraryDoesNotUseTheFile) {
    const auto findings = checkFile(GetParam().text, false);
    const bool hasFault = std::any_of(findings.begin(), findings.end(),
                                      [](const Finding& finding) { return finding.isFault; });
    EXPECT_EQ(hasFault, !parseSettings(GetParam().text)) << shown(findings);
}

constexpr const char* kList = "[Connections]\nList=a;\n[Connection a]\n";

INSTANTIATE_TEST_SUITE_P(
    Good, FileCheckTable,
    ::testing::Values(
        Row{"empty", "", ""}, Row{"comments", "# one\n ; two\n\n", ""},
        Row{"everything",
            "[Platform]\nSource = auto ; a comment\n[System]\nPlatformId=x\nImei=490154203237518\n"
            "Imsi=262\nMmf=fw\n[Location]\nNetworkPositioning=0\n[Connections]\nList=a; b ;\n"
            "[Connection a]\nKind=1\nActive=true\nFlagged=false\n[Connection b]\nKind=+2\n"
            "[Proxy]\nHost=h\nPort=65535\n[NetworkManager]\nKindOne=wifi;\nFlagMetered=true\n",
            ""}));

INSTANTIATE_TEST_SUITE_P(
    Values, FileCheckTable,
    ::testing::Values(
        Row{"kind by name", "[Connections]\nList=a;\n[Connection a]\nKind=wifi\n",
            "4 fault: Kind=wifi: Kind is a number: 1 for a network without costs, 2 for a mobile "
            "one\n"},
        Row{"odd kind", "[Connections]\nList=a;\n[Connection a]\nKind=7\n",
            "4 warning: Kind=7: Kind is known as 1 or 2 only: any other counts as restricted\n"},
        Row{"no value", "[Connections]\nList=a;\n[Connection a]\nActive=\n",
            "4 fault: Active=: Active is true or false\n"},
        Row{"truth", "[Location]\nNetworkPositioning=yes\n",
            "2 fault: NetworkPositioning=yes: NetworkPositioning is true or false\n"},
        Row{"port", "[Proxy]\nHost=h\nPort=0\n",
            "3 fault: Port=0: Port is a number from 1 to "
            "65535\n"},
        Row{"large number", "[Proxy]\nPort=99999999999\n",
            "2 fault: Port=99999999999: Port is a number from 1 to 65535\n"},
        Row{"source", "[Platform]\nSource=connman\n",
            "2 fault: Source=connman: Source is auto, file or networkmanager\n"},
        Row{"type", "[NetworkManager]\nKindOne=ethernet;wify;\n",
            "2 warning: KindOne=ethernet;wify;: KindOne has \"wify\", which is no known type of "
            "connections: did you mean wifi?\n"},
        Row{"backslash", "[System]\nMmf=a\\q\n",
            "2 warning: Mmf=a\\q: Mmf takes \\\\ for a backslash\n"},
        Row{"backslash at the end", "[System]\nPlatformId=a\\\n",
            "2 warning: PlatformId=a\\: PlatformId takes \\\\ for a backslash\n"},
        Row{"backslash in a list", "[Connections]\nList=a\\b;\n",
            "2 warning: \"a\\b\" is left out: there is no [Connection a\\b]\n"
            "2 fault: List=a\\b;: List takes \\\\ for a backslash\n"},
        Row{"good backslashes", "[System]\nMmf=a\\\\q\\s\n[NetworkManager]\nKindOne=vlan;\n", ""},
        Row{"letters in a number", "[System]\nImei=49015420323751x\n",
            "2 warning: Imei=49015420323751x: Imei consists of digits\n"},
        Row{"host as a URL", "[Proxy]\nHost=http://h:1\n",
            "2 warning: Host=http://h:1: Host is a name or an address, not a URL\n"},
        Row{"no UTF-8", "[System]\nMmf=\xff\n", "2 fault: the value of Mmf is not UTF-8\n"},
        Row{"bad value that nobody reads", "[Connection a]\nKind=wifi\n",
            "1 warning: [Connection a] is ignored: List in [Connections] has no \"a\"\n"
            "2 warning: Kind=wifi: Kind is a number: 1 for a network without costs, 2 for a mobile "
            "one\n"}));

INSTANTIATE_TEST_SUITE_P(
    Names, FileCheckTable,
    ::testing::Values(
        Row{"group", "[Conections]\nList=\n",
            "1 warning: [Conections] is not known: did you mean "
            "Connections?\n"},
        Row{"group in small letters", "[connection a]\n",
            "1 warning: [connection a] is not known: did you mean Connection, with a capital "
            "letter?\n"},
        Row{"key", "[Proxy]\nhost=h\n",
            "2 warning: host is not known in [Proxy]: did you mean "
            "Host?\n"},
        Row{"strange key", "[Proxy]\nPassword=x\n",
            "2 warning: Password is not known in [Proxy]\n"},
        Row{"listed only", "[Connections]\nList=a;\n",
            "2 warning: \"a\" is left out: there is no [Connection a]\n"},
        Row{"key twice", "[Proxy]\nPort=x\nPort=1\n",
            "3 warning: Port was given before: this one counts\n"},
        Row{"group twice", "[Proxy]\n[Proxy]\n",
            "2 warning: [Proxy] has begun before: both parts "
            "count\n"}));

INSTANTIATE_TEST_SUITE_P(
    Syntax, FileCheckTable,
    ::testing::Values(Row{"line without a value", "[System]\nImei\n",
                          "2 fault: the line is no group, no key with a value and no comment\n"},
                      Row{"key outside", "Kind=1\n",
                          "1 fault: the key stands before the first group\n"},
                      Row{"group without an end", "[System\nImei=1\n",
                          "1 fault: a group's line ends with ]\n2 fault: the key stands before the "
                          "first group\n"},
                      Row{"only GLib knows", "[Sys\ttem]\n",
                          "1 warning: [Sys\ttem] is not known: did you mean System?\n"
                          "0 fault: GLib cannot read the file as a key file\n"}));

TEST(FileCheck, FindsAZeroByte) {
    using namespace std::string_view_literals;
    EXPECT_EQ(shown(checkFile("[System]\nImei=\0\n"sv, false)),
              "2 fault: the file holds a zero byte\n");
}

TEST(FileCheck, WarnsOfConnectionsThatAnotherSourceTells) {
    EXPECT_EQ(shown(checkFile(std::string(kList) + "Kind=1\n", true)),
              "1 warning: [Connections] is ignored: another source tells the connections\n"
              "3 warning: [Connection a] is ignored: another source tells the connections\n");
}

TEST(FileCheck, WarnsOfAHostThatIsTooLong) {
    EXPECT_EQ(checkFile("[Proxy]\nHost=" + std::string(131, 'h') + "\n", false).size(), 0U);
    EXPECT_EQ(checkFile("[Proxy]\nHost=" + std::string(132, 'h') + "\n", false).size(), 1U);
}

} // namespace

} // namespace trilba::test
