#include "config/ConfHandler.h"

#include "support/XmlHandles.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <optional>
#include <string>

namespace orvexd {
namespace {

constexpr const char* kRootTag = "orvexdconfig";
constexpr const char* kNoKeyOrValue =
    "Parse XML error -- malformed document key or value not found from item-node: item";

/// A directory of its own for the file, and an empty store; nothing may be printed.
class ConfHandlerTest : public testing::Test {
protected:
    ConfHandlerTest() {
        std::string name = (std::filesystem::temp_directory_path() / "orvexd-conf-XXXXXX").string();
        directory_ = mkdtemp(name.data());
        silenceXmlErrors(); // as the daemon does when it starts
        ConfHandler::confItems().clear();
        testing::internal::CaptureStderr();
        testing::internal::CaptureStdout();
    }
    ~ConfHandlerTest() override {
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        ConfHandler::confItems().clear();
        std::filesystem::remove_all(directory_);
    }
    ConfHandlerTest(const ConfHandlerTest&) = delete;
    ConfHandlerTest& operator=(const ConfHandlerTest&) = delete;

    std::string path() const { return (directory_ / "orvexd.schema").string(); }

    /// Loads a file with this content. @return the text that was thrown, if one was.
    std::optional<std::string> load(const std::string& content) const {
        std::ofstream(path(), std::ios::binary) << content;
        return loadPath(path());
    }

    /// Loads a document with these children of the root.
    std::optional<std::string> loadItems(const std::string& items) const {
        return load("<?xml version=\"1.0\"?>\n<orvexdconfig>" + items + "</orvexdconfig>\n");
    }

    static std::optional<std::string> loadPath(const std::string& path) {
        try {
            ConfHandler::load(path, kRootTag);
        } catch (const std::string& text) {
            return text;
        }
        return std::nullopt;
    }

    static std::string item(const std::string& key, const std::string& value) {
        return "<item><key>" + key + "</key><value>" + value + "</value></item>";
    }

    std::filesystem::path directory_;
};

// -- the store -----------------------------------------------------------------------------------

TEST_F(ConfHandlerTest, AbsentKeyIsEmpty) {
    EXPECT_EQ(ConfHandler::get("orvexd/connect_timeout"), "");
}

TEST_F(ConfHandlerTest, ParameterThatWasSetIsFound) {
    ConfHandler::setParameter("orvexd/connect_timeout", "7");
    EXPECT_EQ(ConfHandler::get("orvexd/connect_timeout"), "7");
    EXPECT_EQ(ConfHandler::confItems().get("orvexd/connect_timeout"), "7");
}

TEST_F(ConfHandlerTest, SettingAnEmptyValueStoresIt) {
    ConfHandler::setParameter("key", "");
    EXPECT_EQ(ConfHandler::confItems().get("key", "default"), "");
}

TEST_F(ConfHandlerTest, StoreIsOneForTheProcess) {
    EXPECT_EQ(&ConfHandler::confItems(), &ConfHandler::confItems());
}

// -- loading -------------------------------------------------------------------------------------

TEST_F(ConfHandlerTest, MissingFileChangesNothing) {
    ConfHandler::setParameter("key", "before");
    EXPECT_EQ(loadPath(path()), std::nullopt);
    EXPECT_EQ(ConfHandler::get("key"), "before");
}

TEST_F(ConfHandlerTest, ItemsGoIntoTheStore) {
    EXPECT_EQ(loadItems(item("orvexd/connect_timeout", "30") +
                        item("network/max_connection_open_duration", "60")),
              std::nullopt);
    EXPECT_EQ(ConfHandler::get("orvexd/connect_timeout"), "30");
    EXPECT_EQ(ConfHandler::get("network/max_connection_open_duration"), "60");
}

TEST_F(ConfHandlerTest, EntriesOfBeforeStay) {
    ConfHandler::setParameter("other", "kept");
    EXPECT_EQ(loadItems(item("key", "value")), std::nullopt);
    EXPECT_EQ(ConfHandler::get("other"), "kept");
}

TEST_F(ConfHandlerTest, EmptyRootStoresNothing) {
    EXPECT_EQ(load("<orvexdconfig/>"), std::nullopt);
    EXPECT_EQ(load("<orvexdconfig> <!-- nothing --> text </orvexdconfig>"), std::nullopt);
}

TEST_F(ConfHandlerTest, LaterItemWins) {
    EXPECT_EQ(loadItems(item("key", "first") + item("key", "second")), std::nullopt);
    EXPECT_EQ(ConfHandler::get("key"), "second");
}

TEST_F(ConfHandlerTest, LaterEmptyItemWinsToo) {
    EXPECT_EQ(loadItems(item("key", "first") + item("key", "")), std::nullopt);
    EXPECT_EQ(ConfHandler::confItems().get("key", "default"), "");
}

TEST_F(ConfHandlerTest, ChildrenBehindTheValueAreIgnored) {
    EXPECT_EQ(loadItems("<item><key>a</key><value>1</value><value>2</value><key>b</key>"
                        "<note/></item>"),
              std::nullopt);
    EXPECT_EQ(ConfHandler::get("a"), "1");
    EXPECT_EQ(ConfHandler::get("b"), "");
}

TEST_F(ConfHandlerTest, TextAndCommentsBetweenElementsAreIgnored) {
    EXPECT_EQ(loadItems("text<!-- a --><item> text <!-- b --><key>a</key> more <!-- c -->"
                        "<?instruction?><value>1</value></item>tail"),
              std::nullopt);
    EXPECT_EQ(ConfHandler::get("a"), "1");
}

TEST_F(ConfHandlerTest, ContentIsAllDescendantText) {
    EXPECT_EQ(loadItems("<item><key>or<b>vexd</b>/x</key><value><![CDATA[<1>]]>&amp;<i>2</i>"
                        "</value></item>"),
              std::nullopt);
    EXPECT_EQ(ConfHandler::get("orvexd/x"), "<1>&2");
}

TEST_F(ConfHandlerTest, BlanksOfKeyAndValueStay) {
    EXPECT_EQ(loadItems("<item><key> a </key><value>\n1 </value></item>"), std::nullopt);
    EXPECT_EQ(ConfHandler::get(" a "), "\n1 ");
    EXPECT_EQ(ConfHandler::get("a"), "");
}

TEST_F(ConfHandlerTest, EmptyKeyIsStored) {
    EXPECT_EQ(loadItems("<item><key/><value>1</value></item>"), std::nullopt);
    EXPECT_EQ(ConfHandler::get(""), "1");
}

TEST_F(ConfHandlerTest, AttributesAndNamespacesDoNotMatter) {
    EXPECT_EQ(load("<c:orvexdconfig xmlns:c='urn:c' version='1'><c:item id='1'>"
                   "<c:key lang='x'>a</c:key><c:value>1</c:value></c:item></c:orvexdconfig>"),
              std::nullopt);
    EXPECT_EQ(ConfHandler::get("a"), "1");
}

TEST_F(ConfHandlerTest, NonAsciiTextIsKeptAsUtf8) {
    EXPECT_EQ(load("<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><orvexdconfig><item><key>\xE9"
                   "</key><value>\xFC</value></item></orvexdconfig>"),
              std::nullopt);
    EXPECT_EQ(ConfHandler::get("\xC3\xA9"), "\xC3\xBC");
}

TEST_F(ConfHandlerTest, KeysWithAndWithoutFinalSlashAreTwoKeys) {
    EXPECT_EQ(loadItems(item("orvexd/wait_timeout/", "1") + item("orvexd/wait_timeout", "2")),
              std::nullopt);
    EXPECT_EQ(ConfHandler::get("orvexd/wait_timeout/"), "1");
    EXPECT_EQ(ConfHandler::get("orvexd/wait_timeout"), "2");
}

// -- not a document ------------------------------------------------------------------------------

TEST_F(ConfHandlerTest, FileThatIsNotXmlChangesNothing) {
    ConfHandler::setParameter("key", "before");
    for (const std::string& content :
         {std::string(), std::string("plain text"), std::string("\0\1\2\3", 4),
          std::string("<orvexdconfig><item>"), std::string("<orvexdconfig></config>"),
          std::string("<orvexdconfig/><orvexdconfig/>"),
          std::string("<orvexdconfig>&undefined;</orvexdconfig>"),
          std::string("<orvexdconfig>\xFF\xFE</orvexdconfig>")}) {
        EXPECT_EQ(load(content), std::nullopt) << testing::PrintToString(content);
        EXPECT_EQ(ConfHandler::get("key"), "before");
    }
}

TEST_F(ConfHandlerTest, NothingOfAnItemBeforeASyntaxErrorIsStored) {
    EXPECT_EQ(load("<orvexdconfig>" + item("a", "1") + "<item></orvexdconfig>"), std::nullopt);
    EXPECT_EQ(ConfHandler::get("a"), "");
}

TEST_F(ConfHandlerTest, DirectoryInPlaceOfTheFileChangesNothing) {
    std::filesystem::create_directory(path());
    EXPECT_EQ(loadPath(path()), std::nullopt);
}

TEST_F(ConfHandlerTest, ExternalEntitiesAreNotRead) {
    std::ofstream(directory_ / "secret") << "secret";
    const std::string secret = (directory_ / "secret").string();
    EXPECT_EQ(load("<!DOCTYPE orvexdconfig [<!ENTITY e SYSTEM \"" + secret +
                   "\">]><orvexdconfig><item><key>a</key><value>&e;</value></item>"
                   "</orvexdconfig>"),
              std::nullopt);
    EXPECT_EQ(ConfHandler::get("a"), "");
}

TEST_F(ConfHandlerTest, EntityBombEndsSoon) {
    std::string definitions = "<!ENTITY e0 \"aaaaaaaaaa\">";
    for (int level = 1; level < 30; ++level) {
        const std::string below = "&e" + std::to_string(level - 1) + ";";
        definitions += "<!ENTITY e" + std::to_string(level) + " \"" + below + below + "\">";
    }
    (void)load("<!DOCTYPE orvexdconfig [" + definitions +
               "]><orvexdconfig version=\"&e29;\"/>"); // refused or read: it only has to end
    EXPECT_EQ(ConfHandler::get("a"), "");
}

TEST_F(ConfHandlerTest, LargeFileIsReadWhole) {
    constexpr int kItems = 20000;
    std::string items;
    for (int number = 0; number < kItems; ++number) {
        items += item("key" + std::to_string(number), std::string(20, 'v'));
    }
    items += item("long", std::string(1000000, 'x'));
    EXPECT_EQ(loadItems(items), std::nullopt);
    EXPECT_EQ(ConfHandler::get("key0"), std::string(20, 'v'));
    EXPECT_EQ(ConfHandler::get("key19999"), std::string(20, 'v'));
    EXPECT_EQ(ConfHandler::get("long").size(), 1000000U);
}

// -- wrong structure -----------------------------------------------------------------------------

TEST_F(ConfHandlerTest, WrongRootIsToldWithTheFilesPath) {
    EXPECT_EQ(load("<config/>"), "Invalid root tag name: " + path());
}

TEST_F(ConfHandlerTest, RootNameIsCaseSensitive) {
    EXPECT_EQ(load("<Orvexdconfig/>"), "Invalid root tag name: " + path());
}

TEST_F(ConfHandlerTest, ItemsUnderAWrongRootAreNotStored) {
    EXPECT_NE(load("<config>" + item("a", "1") + "</config>"), std::nullopt);
    EXPECT_EQ(ConfHandler::get("a"), "");
}

TEST_F(ConfHandlerTest, RootIsComparedWithTheTagThatWasAskedFor) {
    std::ofstream(path()) << "<config>" << item("a", "1") << "</config>";
    EXPECT_NO_THROW(ConfHandler::load(path(), "config"));
    EXPECT_EQ(ConfHandler::get("a"), "1");
}

TEST_F(ConfHandlerTest, ElementThatIsNoItemIsToldByName) {
    EXPECT_EQ(loadItems("<entry/>"),
              "Parse XML error -- malformed document, invalid tag-name: entry");
}

TEST_F(ConfHandlerTest, ItemsBeforeTheFaultStayAndThoseBehindItAreNotRead) {
    EXPECT_EQ(loadItems(item("a", "1") + "<Item/>" + item("b", "2")),
              "Parse XML error -- malformed document, invalid tag-name: Item");
    EXPECT_EQ(ConfHandler::get("a"), "1");
    EXPECT_EQ(ConfHandler::get("b"), "");
}

TEST_F(ConfHandlerTest, ValueBeforeKeyIsAFault) {
    EXPECT_EQ(loadItems("<item><value>1</value><key>a</key></item>"), kNoKeyOrValue);
}

TEST_F(ConfHandlerTest, ItemWithoutKeyAndValueIsAFault) {
    EXPECT_EQ(loadItems("<item/>"), kNoKeyOrValue);
    EXPECT_EQ(loadItems("<item>text</item>"), kNoKeyOrValue);
}

TEST_F(ConfHandlerTest, KeyWithoutValueIsAFault) {
    EXPECT_EQ(loadItems("<item><key>a</key></item>"), kNoKeyOrValue);
}

TEST_F(ConfHandlerTest, ElementInFrontOfTheKeyIsAFault) {
    EXPECT_EQ(loadItems("<item><note/><key>a</key><value>1</value></item>"), kNoKeyOrValue);
}

TEST_F(ConfHandlerTest, ElementBetweenKeyAndValueIsAFault) {
    EXPECT_EQ(loadItems("<item><key>a</key><note/><value>1</value></item>"), kNoKeyOrValue);
}

TEST_F(ConfHandlerTest, NamesOfKeyAndValueAreCaseSensitive) {
    EXPECT_EQ(loadItems("<item><Key>a</Key><value>1</value></item>"), kNoKeyOrValue);
    EXPECT_EQ(loadItems("<item><key>a</key><Value>1</Value></item>"), kNoKeyOrValue);
}

TEST_F(ConfHandlerTest, NothingOfAFaultyItemIsStored) {
    EXPECT_EQ(loadItems(item("a", "1") + "<item><key>b</key></item>"), kNoKeyOrValue);
    EXPECT_EQ(ConfHandler::get("a"), "1");
    EXPECT_EQ(ConfHandler::confItems().get("b", "absent"), "absent");
}

} // namespace
} // namespace orvexd
