#include "slp/SlpDocument.h"

#include <climits>
#include <cstdint>
#include <ctime>
#include <functional>
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

// -- limits ---------------------------------------------------------------------------------------

std::string repeated(const std::string& text, int times) {
    std::string all;
    for (int number = 0; number < times; ++number) {
        all += text;
    }
    return all;
}

/// The texts that `make` gives for 0, 1 and so on.
std::string numbered(int count, const std::function<std::string(const std::string&)>& make) {
    std::string all;
    for (int number = 0; number < count; ++number) {
        all += make(std::to_string(number));
    }
    return all;
}

std::string attributes(int count, const std::string& name = "a", const std::string& value = "u") {
    return numbered(count, [&](const std::string& number) {
        return " " + name + number + "=\"" + value + "\"";
    });
}

/// Its response has as many attributes or namespaces, and a status.
std::string crowded(const std::string& name, int count) {
    return document(result("1", "cid:a"), "status=\"ok\"" + attributes(count - 1, name));
}

std::string declaring(const std::string& declarations, const std::string& text) {
    return "<!DOCTYPE x [" + declarations + "]>" + text;
}

std::string inUtf16(const std::string& text) {
    std::string wide = "\xff\xfe";
    for (const char c : text) {
        wide += {c, '\0'};
    }
    return wide;
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || !defined(NDEBUG) ||           \
    !defined(__LP64__)              // a 32-bit machine is a phone, or emulated
constexpr double kMostSeconds = 90; // memcheck takes 40; only the other figure is a goal
#else
constexpr double kMostSeconds = 0.5;
#endif

/// Seconds of this thread.
double processorTime() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

const std::string kResult = result("1", "cid:a");
const ResultMap kResults{{1, {"a"}}};

std::string dumpOf(const XmlDocument& document) {
    xmlChar* text = nullptr;
    int length = 0;
    if (document) {
        xmlDocDumpMemory(document.get(), &text, &length);
    }
    const XmlText owner(text);
    return owner ? asText(owner) : "none";
}

void expectTheLibrarysReading(const std::string& text) {
    const XmlDocument whole(
        xmlReadMemory(text.data(), static_cast<int>(text.size()), "", nullptr, 0));
    EXPECT_EQ(dumpOf(readSlpDocument(text)), dumpOf(whole)) << text.substr(0, 200);
}

TEST(ReadSlpDocument, ReadsAsTheLibraryDoes) {
    for (const std::string& text : std::vector<std::string>{
             document(kResult),
             "<a xmlns='u' xmlns:p='v' p:b='1' q:c='2'><p:d/><e xmlns=''/></a>",
             "<a>x<![CDATA[y]]>z&#65;&lt;<!--c--><?p i?>\xc3\xa9 ]] </a>",
             "<a b='1' b='2'/>",
             "<a>]]></a>",
             "<a>&#0;</a>",
             "<a/><b/>",
             "<a/>garbage",
             "<!-- <b c='--><a/>",
             declaring("<!ENTITY e 'x<b/>'><!ATTLIST b c CDATA 'd' xml:id ID #IMPLIED>",
                       "<a f='&e'/>"),
             declaring("<!ENTITY e 'x&#60;b/>'><!ATTLIST b c CDATA 'd' i ID #IMPLIED>",
                       "<a>&e;<b i='k'/>&e;</a>"),
             declaring("<!ENTITY e '<b>'>", "<a>&e;</a>"),
             declaring("<!ENTITY % p '<!ENTITY e \"1\">'>%p;%q;", "<a>&e;&f;</a>"),
             inUtf16("<a b='1'>\x01</a>"),
             inUtf16("<?xml version='1.0' encoding='UTF-16'?><a b='1'/>"),
             std::string("<?xml version='1.0' encoding='ISO-8859-1'?><a b='\xe9'/>"),
             std::string("<?xml version='1.0' encoding='none'?><a/>"),
             "\xef\xbb\xbf<a/>",
         }) {
        expectTheLibrarysReading(text);
    }
}

TEST(ReadSlpDocument, ReadsLongTextAsTheLibraryDoes) {
    const std::string text(11'000'000, 'x');
    expectTheLibrarysReading("<a>" + text + "</a>");
    expectTheLibrarysReading("<a><!--" + text + "--></a>");
    expectTheLibrarysReading("<a b='" + text + "'/>");
    expectTheLibrarysReading("<a>" + repeated("a b\n ", 2'200'000) + "</a>");
    expectTheLibrarysReading("<a><![CDATA[" + text.substr(0, 9'900'000) + "]]></a>");
}

TEST(ReadSlpDocument, ReadsInstructionsThatNameCatalogsAtOnce) {
    const std::string text = repeated("<?oasis-xml-catalog catalog='c'?>", 50'000);
    const double begin = processorTime();
    EXPECT_EQ(parse(text + document(kResult)).results, kResults);
    EXPECT_LT(processorTime() - begin, kMostSeconds);
}

TEST(ReadSlpDocument, TakesTwelveThousandAttributesOrNamespaces) {
    EXPECT_EQ(parse(crowded("a", 12'000)).results, kResults);
    EXPECT_FALSE(readSlpDocument(crowded("a", 12'001)));
    EXPECT_EQ(parse(crowded("xmlns:a", 12'000)).results, kResults);
    EXPECT_FALSE(readSlpDocument(crowded("xmlns:a", 12'001)));
}

TEST(ReadSlpDocument, CountsAttributesInUtf16) {
    EXPECT_TRUE(readSlpDocument(inUtf16(crowded("a", 12'000))));
    EXPECT_FALSE(readSlpDocument(inUtf16(crowded("a", 12'001))));
}

TEST(ReadSlpDocument, CountsNoEqualsSignsElsewhere) {
    const std::string signs(20'000, '=');
    EXPECT_EQ(parse(document("<!-- " + signs + " --><![CDATA[" + signs + "]]>" + signs + kResult,
                             "status='ok' x='" + signs + "'"))
                  .results,
              kResults);
}

TEST(ReadSlpDocument, RefusesGarbageBehindACrowdedRoot) {
    EXPECT_FALSE(readSlpDocument("<a" + attributes(11'000) + "/> garbage <"));
    EXPECT_FALSE(readSlpDocument("<a" + attributes(13'000) + "/> garbage <"));
}

TEST(ReadSlpDocument, TakesDeclarationsWhereverTheyStand) {
    const std::string comment = "<!--" + std::string(100'000, 'c') + "-->";
    const std::string text = declaring("<!ENTITY o 'ok'>" + std::string(5'000, ' '),
                                       document(kResult, "status=\"&o;\""));
    EXPECT_EQ(parse(comment + text).results, kResults);
    EXPECT_EQ(parse(inUtf16("<?p?> " + comment + text)).results, kResults);
}

/// A document type declaration of so many bytes.
std::string declarationsOf(std::size_t size) {
    const std::string start = "<!DOCTYPE x [<!--]>\"--><?p ]> ?><!ENTITY e ']>'>";
    return start + std::string(size - start.size() - 1, ' ') + "]>" + document(kResult);
}

TEST(ReadSlpDocument, Takes32000BytesOfDeclarations) {
    EXPECT_EQ(parse(declarationsOf(32'000)).results, kResults);
    EXPECT_FALSE(readSlpDocument(declarationsOf(32'001)));
}

TEST(ReadSlpDocument, CountsParameterEntitiesAsDeclarations) {
    const std::string entity = "<!ENTITY % p '" + std::string(999, ' ') + "'>";
    // The parser looks it up once when it has declared it.
    EXPECT_EQ(parse(declaring(entity + repeated("%p;", 31), document(kResult))).results, kResults);
    EXPECT_FALSE(readSlpDocument(declaring(entity + repeated("%p;", 32), document(kResult))));
}

// libxml2 2.9.14 may go round for ever when entities refer to each other in a circle and a
// parameter entity is where it finds out. Stopping the parser there crashes it.
TEST(ReadSlpDocument, RefusesParameterEntitiesThatReferToOthers) {
    for (const char* value : {"'&e;'", "\"<!ENTITY f '&#37;'>\"", "' %p; '", "'&#37;p;'"}) {
        const std::string entity = std::string("<!ENTITY \t% q ") + value + ">";
        EXPECT_FALSE(mayBeParsed(declaring(entity, document(kResult)))) << entity;
        EXPECT_FALSE(mayBeParsed(inUtf16(declaring(entity, document(kResult))))) << entity;
    }
    EXPECT_EQ(parse(declaring("<!ENTITY % q '<!ELEMENT x ANY>'>%q;", document(kResult))).results,
              kResults);
    EXPECT_EQ(parse(declaring("<!-- <!ENTITY % q '&e;'> -->", document(kResult))).results,
              kResults);
}

TEST(ReadSlpDocument, TakesTextOnlyInWellKnownEncodings) {
    const auto inEncoding = [](const std::string& name) {
        return "<?xml version='1.0' encoding='" + name + "'?>" +
               document(kResult + std::string(40'000, ' '));
    };
    for (const char* name : {"utf-8", "UTF8", "US-ASCII", "ISO-8859-15", "windows-1252"}) {
        EXPECT_TRUE(readSlpDocument(inEncoding(name))) << name;
    }
    EXPECT_FALSE(readSlpDocument(inEncoding("UTF-7")));
    EXPECT_FALSE(readSlpDocument("<?xml version='1.0' encoding='UTF-7'?>" + document(kResult)));
}

TEST(MayBeParsed, RefusesMarkupThatDoesNotEnd) {
    for (const char* text : {"<a><![CDATA[b</a>", "<a><!--b</a>", "<a><?b </a>", "<a b='</a>"}) {
        EXPECT_FALSE(mayBeParsed(text)) << text;
    }
}

/// Processor time that refusing the text takes.
double secondsToRefuse(const std::string& text) {
    const double begin = processorTime();
    EXPECT_FALSE(readSlpDocument(text)) << text.substr(0, 200);
    return processorTime() - begin;
}

std::string elements(const std::string& element, int count) {
    return document(kResult + repeated(element, count));
}

const std::string kCrowd = "<b" + attributes(150'000) + "/>";

struct Costly {
    const char* name;
    std::function<std::string()> make;
};

/// Each of these keeps libxml2 busy for more than a second, most of them for very much longer.
const Costly kCostly[] = {
    {"Attributes", [] { return crowded("a", 100'000); }},
    {"ManyCrowdedElements", [] { return elements("<b" + attributes(4000) + "/>", 100); }},
    {"NamespacesForManyElements",
     [] { return "<a" + attributes(10'000, "xmlns:a") + ">" + repeated("<b/>", 300'000); }},
    {"PrefixesAndNamespaces",
     [] {
         return elements("<b" + attributes(5'000, "xmlns:a") +
                             numbered(5'000, [](const auto& n) { return " a" + n + ":b=''"; }) +
                             "/>",
                         20);
     }},
    {"MessagesWithLongNames",
     [] { return elements("<" + std::string(1600, 'n') + attributes(12'000, "p:a") + "/>", 8); }},
    {"MessagesWithLongUris",
     [] {
         const std::string uri = "='u:" + std::string(4'000'000, 'u') + "'";
         return "<a xmlns:p" + uri + " xmlns:q" + uri + attributes(3'000, "p:a") +
                attributes(3'000, "q:a") + "/>";
     }},
    {"Faults", [] { return document(std::string(5'000'000, '&')); }},
    {"CrowdBehindAFault",
     [] { return document("<b c='&d'/>" + repeated("<b" + attributes(4000) + "/>", 100)); }},
    {"CrowdBehindAFaultyComment",
     [] {
         return document("<!--\xc3\xa9\x01-->" + repeated("<b" + attributes(4000) + "/>", 100));
     }},
    {"Names",
     [] { return document(numbered(400'000, [](const auto& n) { return "<a" + n + "/>"; })); }},
    {"Identifiers",
     [] {
         return document(
             numbered(200'000, [](const auto& n) { return "<a xml:id='i" + n + "'/>"; }));
     }},
    {"Instructions", [] { return document(repeated("<?a:b?>", 1'000'000)); }},
    {"EmptyEntity",
     [] { return declaring("<!ENTITY e ''>", document(repeated("&e;", 2'000'000))); }},
    {"NestedEntities", // the library allows the more the longer the document is
     [] {
         std::string entities = "<!ENTITY e0 'x'>";
         for (int level = 1; level < 7; ++level) {
             entities += "<!ENTITY e" + std::to_string(level) + " '" +
                         repeated("&#38;e" + std::to_string(level - 1) + ";", 18) + "'>";
         }
         return "<!--" + std::string(8'000'000, 'c') + "-->" +
                declaring(entities, document("<b c='&e6;'/>"));
     }},
    {"CrowdInACommentBehindABadCharacter",
     [] { return document("<!--\xef\xbf\xbe" + kCrowd + "-->"); }},
    {"CrowdInACommentBehindALoneSurrogate",
     [] {
         return inUtf16("<a><!--") + std::string("\x00\xdc", 2) +
                inUtf16(kCrowd + "--></a>").substr(2);
     }},
    {"CrowdInALongComment",
     [] { return document("<!--" + std::string(10'000'001, 'c') + kCrowd + "-->"); }},
    {"CrowdInAnInstruction", [] { return document("<?" + kCrowd + "?>"); }},
    {"CrowdInACommentThatIsNoneBehindADeclaration",
     [] {
         return declaring("<!ATTLIST a b CDATA \"<c><![CDATA[\">", "<!-- ]]>" + kCrowd + "-->");
     }},
    {"Elements", [] { return elements("<a/>", 3'000'000); }},
    {"Enumeration",
     [] {
         return declaring("<!ATTLIST a b (c" +
                              numbered(50'000, [](const auto& n) { return "|" + n; }) + ") 'c'>",
                          document(kResult));
     }},
    {"DefaultAttributes",
     [] {
         return declaring("<!ATTLIST a" +
                              numbered(1000, [](const auto& n) { return " b" + n + " CDATA ''"; }) +
                              ">",
                          elements("<a/>", 10'000));
     }},
    {"ReferencesInDefaultAttributes",
     [] {
         return declaring("<!ENTITY e '" + std::string(20'000, 'x') +
                              "'><!ATTLIST result oid CDATA '" + repeated("&e;", 1000) + "'>",
                          document(repeated(kResult, 100)));
     }},
    {"DefaultNamespace",
     [] {
         return declaring("<!ATTLIST a xmlns CDATA 'u:" + std::string(10'000, 'u') + "'>",
                          elements("<a/>", 100'000));
     }},
    {"ParameterEntities",
     [] {
         return declaring("<!ENTITY % p '" + repeated("<!ENTITY a \"\">", 600) + "'>" +
                              repeated("%p;", 7000),
                          document(kResult));
     }},
    {"EndlessBlanksInAParameterEntity", // the library itself would never come back
     [] {
         std::string bomb = "<!ENTITY e0 ''>";
         for (int level = 1; level < 6; ++level) {
             bomb += "<!ENTITY e" + std::to_string(level) + " '" +
                     repeated("&e" + std::to_string(level - 1) + ";", 7) + "'>";
         }
         return declaring(bomb + "<!ENTITY % p '<!ATTLIST a b CDATA \"&e5;\" c CDATA \"\"> '>"
                                 "<!ENTITY % q ' &#37;p; '>%q;",
                          document(kResult));
     }},
    {"UnknownEncoding",
     [] { return "<?xml version='1.0' encoding='UTF-7'?>" + crowded("a", 50'000); }},
};

TEST(ReadSlpDocument, RefusesWhatWouldCostMuchMoreThanItIsLong) {
    for (const Costly& costly : kCostly) {
        EXPECT_LT(secondsToRefuse(costly.make()), kMostSeconds) << costly.name;
    }
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

TEST(ParseSlpResponse, PutsInAsMuchTextAsADocumentMayHold) {
    const std::string status = "status=\"" + repeated("&e;", 9000) + "\"";
    const Outcome outcome = parse(withEntity(repeated("0", 1000), document("", status)));
    ASSERT_TRUE(outcome.error.has_value());
    EXPECT_EQ(outcome.error->code, 51);
    EXPECT_EQ(outcome.error->text.size(), 9'000'000);
}

TEST(ReadSlpDocument, RefusesEntitiesThatWouldCostHours) {
    const std::string status = "status=\"" + repeated("&f;", 20'000) + "\"";
    EXPECT_FALSE(readSlpDocument(withEntity(repeated("x", 900), document("", status))));
    // Entities without any text.
    const std::string hollow = "<!DOCTYPE x [<!ENTITY e \"\"><!ENTITY f \"" + repeated("&e;", 40) +
                               "\"><!ENTITY g \"" + repeated("&f;", 40) + "\">]>";
    const std::string empty = "status=\"" + repeated("&g;", 10'000) + "\"";
    EXPECT_FALSE(readSlpDocument(hollow + document("", empty)));
}

// libxml2 2.9.14 overlooks such a circle when a parameter entity stands in front of it.
TEST(ReadSlpDocument, RefusesEntitiesThatReferToThemselves) {
    const std::string circle = "<!ENTITY % p ''>%p;<!ENTITY a '&b;'><!ATTLIST x y CDATA '&a;'>";
    for (const char* last : {"<!ENTITY b '&a;'>", "<!ENTITY b '&#38;a;'>", "<!ENTITY b '&b;'>"}) {
        EXPECT_FALSE(readSlpDocument(declaring(circle + last, document("", "status='&a;'"))));
    }
}

TEST(ReadSlpDocument, RefusesVeryManyReferencesToLongEntities) {
    const std::string many = repeated(result("1", "cid:" + repeated("&e;", 1000)), 100);
    EXPECT_FALSE(readSlpDocument(withEntity(repeated("x", 900), document(many))));
}

TEST(ReadSlpDocument, TakesAHundredThousandResults) {
    constexpr int kCount = 100'000;
    const std::string own =
        "<p:result xmlns:p=\"http://www.example.com/slp\" oid=\"1\" p:href=\"cid:a\"></p:result>";
    for (const std::string& each : {result("1", "cid:a"), own}) {
        EXPECT_EQ(parse(document(repeated(each, kCount))).results.at(1).size(), kCount);
    }
    const std::string declared = "<!ATTLIST result oid CDATA \"1\">";
    const std::string results = repeated("<result href=\"cid:a\"/>", kCount);
    EXPECT_EQ(parse(declaring(declared, document(results))).results.at(1).size(), kCount);
}

} // namespace
} // namespace orvexd
