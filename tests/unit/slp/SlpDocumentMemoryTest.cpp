// The memory that a document takes, told before it is parsed.

#include "slp/SlpDocument.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <string>
#include <utility>
#include <vector>

namespace orvexd {
namespace {

std::string repeated(const std::string& text, std::size_t times) {
    std::string all;
    for (std::size_t number = 0; number < times; ++number) {
        all += text;
    }
    return all;
}

/// The least memory with which the document may be parsed.
std::size_t leastMemory(const std::string& document) {
    std::size_t tooLittle = 0;
    std::size_t enough = std::size_t{1} << 30U;
    while (enough - tooLittle > 1024) {
        const std::size_t middle = tooLittle + (enough - tooLittle) / 2;
        (mayBeParsed(document, middle) ? enough : tooLittle) = middle;
    }
    return enough;
}

const std::vector<std::pair<const char*, std::string>> kDocuments = {
    {"results", "<a>" + repeated("<result oid=\"1\" href=\"cid:part-12345\"/>", 2'000) + "</a>"},
    {"empty elements", "<a>" + repeated("<b/>", 20'000) + "</a>"},
    {"texts", "<a>" + repeated("<b>text</b>", 10'000) + "</a>"},
    {"attributes", "<a>" + repeated("<b c=\"\" d=\"0123456789\"/>", 5'000) + "</a>"},
    {"namespaces", "<a>" + repeated("<b xmlns=\"urn:x\" xmlns:c=\"urn:y\"/>", 5'000) + "</a>"},
    {"comments", "<a>" + repeated("<!---->", 20'000) + "</a>"},
    {"references", "<!DOCTYPE a [<!ENTITY e 'x'>]><a>" + repeated("&e;", 2'000) + "</a>"},
    {"defaults",
     "<!DOCTYPE a [<!ATTLIST b c CDATA 'x' d CDATA 'y'>]><a>" + repeated("<b/>", 5'000) + "</a>"},
    {"a long text", "<a>" + std::string(500'000, 'x') + "</a>"},
};

#if defined(__GLIBC__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

std::size_t allocated() {
    const auto info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

TEST(SlpDocumentMemory, IsNoMoreThanWasTold) {
    for (const auto& [name, text] : kDocuments) {
        const std::size_t before = allocated();
        const XmlDocument document = readSlpDocument(text);
        const std::size_t taken = allocated() - before;
        ASSERT_TRUE(document) << name;
        EXPECT_LE(taken, leastMemory(text)) << name;
    }
}

#endif

TEST(SlpDocumentMemory, ADocumentThatTakesMoreThanThereIsIsRefused) {
    for (const auto& [name, text] : kDocuments) {
        EXPECT_FALSE(readSlpDocument(text, text.size())) << name;
        EXPECT_TRUE(readSlpDocument(text, leastMemory(text))) << name;
    }
}

TEST(SlpDocumentMemory, AHundredThousandResultsTakeLessThanAnAccountHas) {
    const std::string results =
        repeated("<slp:result xmlns:slp=\"urn:slp\" oid=\"1\" href=\"cid:part-12345\"/>", 100'000);
    EXPECT_TRUE(mayBeParsed("<a>" + results + "</a>", std::size_t{96} * 1024 * 1024));
}

} // namespace
} // namespace orvexd
