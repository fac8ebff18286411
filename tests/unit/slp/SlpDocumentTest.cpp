#include "slp/SlpDocument.h"

#include <climits>
#include <cstdint>
#include <gtest/gtest.h>
#include <limits>
#include <string>

namespace orvexd {
namespace {

using Ids = std::vector<std::string>;

std::string document(const std::string& results, const std::string& status = "status=\"ok\"") {
    return "<SimpleLocationProtocol><SlpResponse " + status + ">" + results +
           "</SlpResponse></SimpleLocationProtocol>";
}

std::string result(const std::string& oid, const std::string& href) {
    return "<result oid=\"" + oid + "\" href=\"" + href + "\"/>";
}

struct Outcome {
    ResultMap results;
    std::optional<SlpError> error;
};

Outcome parse(const std::string& text) {
    Outcome outcome;
    const XmlDocument parsed = readSlpDocument(text);
    EXPECT_TRUE(parsed) << text;
    outcome.error = parseSlpResponse(xmlDocGetRootElement(parsed.get()), outcome.results);
    return outcome;
}

void expectError(const std::string& text, int code, const std::string& message) {
    const Outcome outcome = parse(text);
    ASSERT_TRUE(outcome.error.has_value()) << text;
    EXPECT_EQ(outcome.error->code, code);
    EXPECT_EQ(outcome.error->text, message);
}

TEST(ReadSlpDocument, GivesNoneForBytesThatAreNoDocument) {
    EXPECT_FALSE(readSlpDocument(""));
    EXPECT_FALSE(readSlpDocument(std::string_view()));
    EXPECT_FALSE(readSlpDocument("no document"));
    EXPECT_FALSE(readSlpDocument("<a><b></a>"));
}

TEST(ReadSlpDocument, AcceptsALineBreakBehindTheRoot) {
    EXPECT_TRUE(readSlpDocument("<a/>\r\n"));
}

TEST(ReadSlpDocument, GivesNoneForMoreBytesThanTheLibraryCounts) {
    constexpr std::string_view kDocument = "<a/>";
    // Refused unread. As an int the first is the document's own size, the second is negative.
    constexpr std::uint64_t kWrapped = (std::uint64_t{1} << 32U) + kDocument.size();
    const std::size_t tooMany =
        kWrapped <= SIZE_MAX ? static_cast<std::size_t>(kWrapped) : std::size_t{INT_MAX} + 1;
    EXPECT_FALSE(readSlpDocument(std::string_view(kDocument.data(), tooMany)));
}

TEST(ReadSlpDocument, RefusesEntityBombsAndDepth) {
    std::string bomb = "<!DOCTYPE a [<!ENTITY e0 \"0123456789\">";
    for (int level = 1; level < 12; ++level) {
        bomb += "<!ENTITY e" + std::to_string(level) + " \"";
        for (int copy = 0; copy < 10; ++copy) {
            bomb += "&e" + std::to_string(level - 1) + ";";
        }
        bomb += "\">";
    }
    EXPECT_FALSE(readSlpDocument(bomb + "]><a b=\"&e11;\"/>"));
    std::string deep;
    for (int level = 0; level < 1000; ++level) {
        deep += "<a>";
    }
    EXPECT_FALSE(readSlpDocument(deep));
}

TEST(ReadSlpDocument, PrintsNothing) {
    testing::internal::CaptureStderr();
    (void)readSlpDocument("<a b='\xff'><&");
    (void)readSlpDocument("\x01");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(ParseSlpResponse, MapsNumbersToContentIdsInDocumentOrder) {
    const Outcome outcome =
        parse(document(result("1", "cid:a") + result("2", "cid:x") + result("1", "CID:b")));
    EXPECT_FALSE(outcome.error);
    EXPECT_EQ(outcome.results, (ResultMap{{1, {"a", "b"}}, {2, {"x"}}}));
}

TEST(ParseSlpResponse, AcceptsAResponseWithoutResults) {
    const Outcome outcome = parse(document(""));
    EXPECT_FALSE(outcome.error);
    EXPECT_TRUE(outcome.results.empty());
}

TEST(ParseSlpResponse, NeedsARoot) {
    ResultMap results;
    const auto error = parseSlpResponse(nullptr, results);
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->code, 1003);
    EXPECT_EQ(error->text, "SimpleLocationProtocol element faulty or does not exist");
}

TEST(ParseSlpResponse, NeedsTheExactNameOfTheRoot) {
    expectError("<simpleLocationProtocol/>", 1003,
                "SimpleLocationProtocol element faulty or does not exist");
    expectError("<SimpleLocationProtocols/>", 1003,
                "SimpleLocationProtocol element faulty or does not exist");
}

TEST(ParseSlpResponse, NeedsSlpResponseAsTheFirstElementOfTheRoot) {
    expectError("<SimpleLocationProtocol/>", 1003, "SlpResponse element faulty or does not exist");
    expectError("<SimpleLocationProtocol><x/><SlpResponse status=\"ok\"/></SimpleLocationProtocol>",
                1003, "SlpResponse element faulty or does not exist");
}

TEST(ParseSlpResponse, IgnoresFurtherChildrenOfTheRoot) {
    EXPECT_FALSE(
        parse("<SimpleLocationProtocol><SlpResponse status=\"ok\"/><x/></SimpleLocationProtocol>")
            .error);
}

TEST(ParseSlpResponse, IgnoresNamespacesAndOtherAttributes) {
    const Outcome outcome =
        parse("<s:SimpleLocationProtocol xmlns:s=\"urn:s\" version=\"9\"><s:SlpResponse x=\"y\" "
              "status=\"ok\"><s:result z=\"1\" s:oid=\"1\" href=\"cid:a\">text</s:result>"
              "</s:SlpResponse></s:SimpleLocationProtocol>");
    EXPECT_FALSE(outcome.error);
    EXPECT_EQ(outcome.results, (ResultMap{{1, {"a"}}}));
}

TEST(ParseSlpResponse, SkipsCommentsAndTextBetweenResults) {
    const Outcome outcome = parse(document(" \n<!-- c -->" + result("1", "cid:a") + "text<?pi x?>" +
                                           result("2", "cid:b") + "\n"));
    EXPECT_FALSE(outcome.error);
    EXPECT_EQ(outcome.results.size(), 2U);
}

TEST(ParseSlpResponse, RejectsAStatusInAnotherCaseWithItsOwnText) {
    expectError(document("", "status=\"OK\""), 51, "OK");
}

TEST(ParseSlpResponse, RejectsAnyOtherStatusWithItsOwnText) {
    expectError(document("", "status=\"ok \""), 51, "ok ");
    expectError(document("", "status=\"denied: \xc3\xa9\""), 51, "denied: \xc3\xa9");
    expectError(document("", "status=\"\""), 51, "");
}

TEST(ParseSlpResponse, RejectsAnAbsentStatusWithAnEmptyText) {
    expectError(document(result("1", "cid:a"), ""), 51, "");
}

TEST(ParseSlpResponse, RejectsOtherElementsThanResults) {
    expectError(document("<Result oid=\"1\" href=\"cid:a\"/>"), 1003,
                "SlpResponse included other elements than results");
}

TEST(ParseSlpResponse, RejectsAResultWithoutOidOrHref) {
    expectError(document("<result href=\"cid:a\"/>"), 1003, "oid or cid not found from result");
    expectError(document("<result oid=\"1\"/>"), 1003, "oid or cid not found from result");
}

TEST(ParseSlpResponse, RejectsAnOidWithACharacterThatIsNoDigit) {
    for (const char* oid : {"-1", "1 ", " 1", "+1", "0x1", "1.0", "\xc2\xb2"}) {
        expectError(document(result(oid, "cid:a")), 1003, "oid attribute has invalid value");
    }
}

TEST(ParseSlpResponse, LooksAtTheOidBeforeTheHref) {
    expectError(document(result("x", "y")), 1003, "oid attribute has invalid value");
}

TEST(ParseSlpResponse, AcceptsLeadingZeros) {
    EXPECT_EQ(parse(document(result("01", "cid:a"))).results, (ResultMap{{1, {"a"}}}));
}

TEST(ParseSlpResponse, TakesAnEmptyOidAsZero) {
    EXPECT_EQ(parse(document(result("", "cid:a"))).results, (ResultMap{{0, {"a"}}}));
}

TEST(ParseSlpResponse, TakesATooLongOidAsTheLargestNumber) {
    constexpr int kLargest = std::numeric_limits<int>::max();
    EXPECT_EQ(parse(document(result("2147483647", "cid:a") + result("2147483648", "cid:b") +
                             result(std::string(1000, '9'), "cid:c")))
                  .results,
              (ResultMap{{kLargest, {"a", "b", "c"}}}));
}

TEST(ParseSlpResponse, RejectsAnHrefThatDoesNotBeginWithCid) {
    for (const char* href : {"a", "", "cid", "ci", "http:a", " cid:a", "xcid:a"}) {
        expectError(document(result("1", href)), 1003, "cid attribute has invalid value");
    }
}

TEST(ParseSlpResponse, RejectsAnEmptyId) {
    expectError(document(result("1", "cid:")), 1003, "cid attribute has zero value");
}

TEST(ParseSlpResponse, AcceptsCidInAnyCaseAndKeepsTheCaseOfTheId) {
    EXPECT_EQ(parse(document(result("1", "CiD:Part-A cid:"))).results,
              (ResultMap{{1, {"Part-A cid:"}}}));
}

TEST(ParseSlpResponse, KeepsTheResultsInFrontOfAFault) {
    const Outcome outcome = parse(document(result("1", "cid:a") + result("2", "b")));
    EXPECT_TRUE(outcome.error);
    EXPECT_EQ(outcome.results, (ResultMap{{1, Ids{"a"}}}));
}

TEST(ParseSlpResponse, AddsToTheResultsOfAnEarlierDocument) {
    ResultMap results{{1, {"a"}}};
    const XmlDocument second = readSlpDocument(document(result("1", "cid:b")));
    EXPECT_FALSE(parseSlpResponse(xmlDocGetRootElement(second.get()), results));
    EXPECT_EQ(results, (ResultMap{{1, {"a", "b"}}}));
}

// -- crowded elements: the parser compares each attribute of an element with all others
// -------------

std::string crowded(const std::string& attribute, int count) {
    std::string attributes = "status=\"ok\"";
    for (int number = 0; number < count; ++number) {
        attributes += " " + attribute + std::to_string(number) + "=\"u\"";
    }
    return document(result("1", "cid:a"), attributes);
}

TEST(ReadSlpDocument, TakesHundredsOfAttributes) {
    EXPECT_EQ(parse(crowded("a", 500)).results, (ResultMap{{1, {"a"}}}));
    EXPECT_EQ(parse(crowded("xmlns:a", 500)).results, (ResultMap{{1, {"a"}}}));
}

TEST(ReadSlpDocument, RefusesAnElementOfVeryManyAttributesBeforeItCostsMinutes) {
    EXPECT_FALSE(readSlpDocument(crowded("a", 200000)));
}

TEST(ReadSlpDocument, RefusesAnElementOfVeryManyNamespaces) {
    EXPECT_FALSE(readSlpDocument(crowded("xmlns:a", 100000)));
}

/// A document that uses the entity `e` of the declarations in front of it.
std::string declaring(const std::string& declarations) {
    return "<!DOCTYPE x [" + declarations + "]>" + document("&e;" + result("1", "cid:a"));
}

TEST(ReadSlpDocument, TakesAFewDeclarations) {
    const std::string entity = "<!ENTITY e '" + result("2", "cid:b") + "'>";
    EXPECT_TRUE(readSlpDocument(declaring(entity)));
    const std::string defaults =
        "<!ENTITY e ''><!ATTLIST result" + std::string(1500, ' ') + "a CDATA ''>";
    EXPECT_EQ(parse(declaring(defaults)).results, (ResultMap{{1, {"a"}}}));
}

TEST(ReadSlpDocument, RefusesAnEntityThatHoldsAnElementOfVeryManyAttributes) {
    std::string attributes;
    for (int number = 0; number < 4000; ++number) {
        attributes += " a" + std::to_string(number) + "=''";
    }
    EXPECT_FALSE(readSlpDocument(declaring("<!ENTITY e \"<q" + attributes + "/>\">")));
}

TEST(ReadSlpDocument, RefusesVeryManyAttributesThatElementsGetUnasked) {
    std::string attributes;
    for (int number = 0; number < 600; ++number) {
        attributes += " a" + std::to_string(number) + " CDATA ''";
    }
    EXPECT_FALSE(readSlpDocument(declaring("<!ENTITY e ''><!ATTLIST result" + attributes + ">")));
}

std::string withEntity(const std::string& text, const std::string& rest) {
    return "<!DOCTYPE x [<!ENTITY e \"" + text + "\"><!ENTITY f \"&e;&e;\">]>" + rest;
}

TEST(ParseSlpResponse, PutsEntitiesIntoTheAttributes) {
    const std::string results = result("&f;", "cid:&f;-&lt;&#65;&f;");
    const Outcome outcome = parse(withEntity("1", document(results, "status=\"ok\" x=\"&e;\"")));
    EXPECT_FALSE(outcome.error);
    EXPECT_EQ(outcome.results, (ResultMap{{11, {"11-<A11"}}}));
}

TEST(ParseSlpResponse, TakesAttributesFromTheirDeclaration) {
    const Outcome outcome = parse("<!DOCTYPE x [<!ATTLIST result oid CDATA \"7\">]>" +
                                  document("<result href=\"cid:a\"/>"));
    EXPECT_FALSE(outcome.error);
    EXPECT_EQ(outcome.results, (ResultMap{{7, {"a"}}}));
}

std::string repeated(const std::string& text, int times) {
    std::string all;
    for (int number = 0; number < times; ++number) {
        all += text;
    }
    return all;
}

TEST(ParseSlpResponse, PutsInAsMuchTextAsADocumentMayHold) {
    const std::string status = "status=\"" + repeated("&e;", 9000) + "\"";
    const Outcome outcome = parse(withEntity(repeated("0", 1000), document("", status)));
    ASSERT_TRUE(outcome.error.has_value());
    EXPECT_EQ(outcome.error->code, 51);
    EXPECT_EQ(outcome.error->text.size(), 9'000'000);
}

TEST(ParseSlpResponse, RejectsEntitiesThatWouldCostHours) {
    const std::string status = "status=\"" + repeated("&f;", 20'000) + "\"";
    expectError(withEntity(repeated("x", 900), document("", status)), 1003,
                "could not parse document");
    // Many values that are allowed by themselves, and entities without any text.
    const std::string many = repeated(result("1", "cid:" + repeated("&e;", 1000)), 100);
    expectError(withEntity(repeated("x", 900), document(many)), 1003, "could not parse document");
    const std::string hollow =
        "<!DOCTYPE x [<!ENTITY e \"\"><!ENTITY f \"" + repeated("&e;", 400) + "\">]>";
    const std::string empty = "status=\"" + repeated("&f;", 30'000) + "\"";
    expectError(hollow + document("", empty), 1003, "could not parse document");
}

TEST(ReadSlpDocument, TakesAsManyResultsAsThereAre) {
    std::string results;
    for (int number = 0; number < 20000; ++number) {
        results += result("1", "cid:a");
    }
    EXPECT_EQ(parse(document(results)).results.at(1).size(), 20000U);
}

} // namespace
} // namespace orvexd
