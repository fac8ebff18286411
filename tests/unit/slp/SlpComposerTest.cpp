#include "slp/SlpComposer.h"

#include "fakes/FakePlatform.h"
#include "request/RequestData.h"
#include "support/Deployment.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace orvexd {
namespace {

const std::string kHeaderLines = "\r\n--BOUNDARY\r\n"
                                 "Content-Type: text/xml; charset=UTF-8\r\n"
                                 "Content-Transfer-Encoding: 8bit\r\n"
                                 "Content-Id: slpHeaderPart\r\n"
                                 "\r\n";

class SlpComposer : public testing::Test {
protected:
    void SetUp() override { fake_platform::reset(); }
    void TearDown() override { fake_platform::reset(); }

    RequestData& add(const std::string& element, const std::string& type,
                     const std::string& version) {
        auto connection = std::make_shared<ConnectionParameters>();
        connection->elementName = element;
        connection->type = type;
        connection->version = version;
        const auto id = static_cast<std::uint32_t>(queue_.size() + 100);
        queue_.push_back(std::make_shared<RequestData>(1, id, true, std::move(connection)));
        return *queue_.back();
    }

    std::string compose() {
        std::string prefix;
        EXPECT_EQ(composeSlpHeaderPart("BOUNDARY", queue_, parameters_, prefix), 0);
        return prefix;
    }

    /// The document with the given lines inside `SlpRequest` and further attributes of it.
    static std::string documentOf(const std::string& requests, const std::string& more = "") {
        const std::string open = "  <SlpRequest type=\"terminal\" platform=\"test-platform\" "
                                 "swId=\"oem.ubuntu\" swVersion=\"3.0.1415\"" +
                                 more;
        return std::string("<?xml version=\"1.0\"?>\n<SimpleLocationProtocol version=\"2.0\" "
                           "xmlns=\"") +
               deployment::kSlpNamespace + "\">\n" + open +
               (requests.empty() ? "/>\n" : ">\n" + requests + "  </SlpRequest>\n") +
               "</SimpleLocationProtocol>\n";
    }

    Parameters parameters_;
    std::vector<std::shared_ptr<RequestData>> queue_;
};

TEST_F(SlpComposer, WritesTheExactBytesForThreeRequests) {
    add("fingerprint", "fingerprint", "1.0");
    add("position", "position", "1.1");
    add("fingerprint", "fingerprint", "1.0");
    EXPECT_EQ(compose(),
              kHeaderLines + documentOf("    <fingerprint type=\"fingerprint\" version=\"1.0\" "
                                        "oid=\"1\" href=\"cid:part1\"/>\n"
                                        "    <position type=\"position\" version=\"1.1\" "
                                        "oid=\"2\" href=\"cid:part2\"/>\n"
                                        "    <fingerprint type=\"fingerprint\" version=\"1.0\" "
                                        "oid=\"3\" href=\"cid:part3\"/>\n"));
}

TEST_F(SlpComposer, NumbersTheRequestsInQueueOrder) {
    for (int count = 0; count < 3; ++count) {
        add("e", "t", "v");
    }
    (void)compose();
    for (std::uint32_t index = 1; index <= 3; ++index) {
        EXPECT_EQ(queue_[index - 1]->messageIndex(), index);
        EXPECT_EQ(queue_[index - 1]->contentId(), "part" + std::to_string(index));
    }
}

TEST_F(SlpComposer, StartsAtOneAgainInEveryMessage) {
    RequestData& first = add("e", "t", "v");
    RequestData& second = add("e", "t", "v");
    (void)compose();
    EXPECT_EQ(second.messageIndex(), 2U);
    queue_.erase(queue_.begin());
    (void)first;
    EXPECT_NE(compose().find("oid=\"1\" href=\"cid:part1\""), std::string::npos);
    EXPECT_EQ(queue_[0]->messageIndex(), 1U);
    EXPECT_EQ(queue_[0]->contentId(), "part1");
}

TEST_F(SlpComposer, WritesAnEmptyRequestForAnEmptyQueue) {
    EXPECT_EQ(compose(), kHeaderLines + documentOf(""));
}

TEST_F(SlpComposer, AppendsToWhatIsThere) {
    std::string prefix = "before";
    EXPECT_EQ(composeSlpHeaderPart("BOUNDARY", queue_, parameters_, prefix), 0);
    EXPECT_EQ(prefix, "before" + kHeaderLines + documentOf(""));
}

TEST_F(SlpComposer, EndsWithTheLineBreakOfTheDocument) {
    add("e", "t", "v");
    const std::string prefix = compose();
    EXPECT_TRUE(prefix.starts_with("\r\n--BOUNDARY\r\n"));
    EXPECT_TRUE(prefix.ends_with(">\n"));
}

TEST_F(SlpComposer, WritesTheIdentityInItsOrder) {
    parameters_.set("fwId", "fw-1.0");
    parameters_.set("imei", "490154203237518");
    parameters_.set("imsi", "262011234567890");
    EXPECT_EQ(compose(), kHeaderLines + documentOf("", " imsi=\"262011234567890\" "
                                                       "imei=\"490154203237518\" fwId=\"fw-1.0\""));
}

TEST_F(SlpComposer, LeavesAnEmptyIdentityOut) {
    parameters_.set("imsi", "");
    parameters_.set("imei", "49");
    parameters_.set("fwId", "");
    EXPECT_EQ(compose(), kHeaderLines + documentOf("", " imei=\"49\""));
}

TEST_F(SlpComposer, WritesAnEmptyTypeAndVersionAsEmptyAttributes) {
    add("e", "", "");
    EXPECT_EQ(compose(), kHeaderLines + documentOf("    <e type=\"\" version=\"\" oid=\"1\" "
                                                   "href=\"cid:part1\"/>\n"));
}

TEST_F(SlpComposer, TakesTheSixValuesFromTheParameters) {
    parameters_.set("orvexd/slp/version", "A");
    parameters_.set("orvexd/slp/xmlns", "B");
    parameters_.set("orvexd/slpreq/type", "C");
    parameters_.set("orvexd/slpreq/platform", "D");
    parameters_.set("orvexd/slpreq/swId", "E");
    parameters_.set("orvexd/slpreq/swVersion", "F");
    EXPECT_EQ(compose(), kHeaderLines + "<?xml version=\"1.0\"?>\n"
                                        "<SimpleLocationProtocol version=\"A\" xmlns=\"B\">\n"
                                        "  <SlpRequest type=\"C\" platform=\"D\" swId=\"E\" "
                                        "swVersion=\"F\"/>\n"
                                        "</SimpleLocationProtocol>\n");
}

TEST_F(SlpComposer, WritesAParameterThatIsPresentAndEmpty) {
    parameters_.set("orvexd/slpreq/swId", "");
    EXPECT_NE(compose().find(" swId=\"\" swVersion=\"3.0.1415\""), std::string::npos);
}

TEST_F(SlpComposer, WritesAnEmptyPlatformId) {
    fake_platform::change([](fake_platform::State& state) { state.platformId.clear(); });
    EXPECT_NE(compose().find("<SlpRequest type=\"terminal\" platform=\"\" swId="),
              std::string::npos);
}

TEST_F(SlpComposer, EscapesWhatXmlNeedsEscapedInAttributes) {
    add("e", "<a & \"b\" 'c'>", "x\r\n\ty");
    EXPECT_EQ(compose(),
              kHeaderLines +
                  documentOf("    <e type=\"&lt;a &amp; &quot;b&quot; 'c'&gt;\" "
                             "version=\"x&#13;&#10;&#9;y\" oid=\"1\" href=\"cid:part1\"/>\n"));
}

TEST_F(SlpComposer, WritesNonAsciiCharactersOfAttributesAsReferences) {
    add("e", "caf\xc3\xa9", "\xe2\x82\xac");
    EXPECT_EQ(compose(),
              kHeaderLines + documentOf("    <e type=\"caf&#xE9;\" version=\"&#x20AC;\" oid=\"1\" "
                                        "href=\"cid:part1\"/>\n"));
}

TEST_F(SlpComposer, ValidatesNoElementName) {
    add("", "t", "v");
    add("a b<", "t", "v");
    add("p:\xc3\xa9", "t", "v");
    EXPECT_EQ(compose(),
              kHeaderLines +
                  documentOf(
                      "    < type=\"t\" version=\"v\" oid=\"1\" href=\"cid:part1\"/>\n"
                      "    <a b< type=\"t\" version=\"v\" oid=\"2\" href=\"cid:part2\"/>\n"
                      "    <p:\xc3\xa9 type=\"t\" version=\"v\" oid=\"3\" href=\"cid:part3\"/>\n"));
}

TEST_F(SlpComposer, EndsNamesAndValuesAtTheirFirstNul) {
    add(std::string("e\0f", 3), std::string("t\0u", 3), std::string("\0v", 2));
    EXPECT_EQ(compose(), kHeaderLines + documentOf("    <e type=\"t\" version=\"\" oid=\"1\" "
                                                   "href=\"cid:part1\"/>\n"));
}

TEST_F(SlpComposer, WritesTheDocumentAndPrintsNothingForBytesThatAreNotUtf8) {
    testing::internal::CaptureStderr();
    for (const char* bytes :
         {"\xe9", "caf\xe9 x", "\x01\x02", "\xf8\x88\x80\x80", "\xc3", "\xff"}) {
        add(std::string("e") + bytes, bytes, bytes);
    }
    const std::string prefix = compose();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_TRUE(prefix.starts_with(kHeaderLines + "<?xml version=\"1.0\"?>\n")) << prefix;
    EXPECT_TRUE(prefix.ends_with("oid=\"6\" href=\"cid:part6\"/>\n  </SlpRequest>\n"
                                 "</SimpleLocationProtocol>\n"))
        << prefix;
}

TEST_F(SlpComposer, NumbersTenThousandRequests) {
    for (int count = 0; count < 10000; ++count) {
        add("e", "t", "v");
    }
    const std::string prefix = compose();
    EXPECT_NE(prefix.find("oid=\"10000\" href=\"cid:part10000\"/>\n  </SlpRequest>"),
              std::string::npos);
    EXPECT_EQ(queue_.back()->messageIndex(), 10000U);
}

} // namespace
} // namespace orvexd
