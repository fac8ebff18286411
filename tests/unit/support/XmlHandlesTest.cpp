#include "support/XmlHandles.h"

#include <gtest/gtest.h>
#include <string>
#include <thread>

namespace orvexd {
namespace {

XmlDocument parse(const std::string& text) {
    return XmlDocument(
        xmlReadMemory(text.data(), static_cast<int>(text.size()), "test", nullptr, 0));
}

TEST(XmlHandles, DocumentAndTextAreOwned) {
    const XmlDocument document = parse("<root>some text</root>");
    ASSERT_TRUE(document);
    const xmlNode* root = xmlDocGetRootElement(document.get());
    EXPECT_STREQ(nodeName(*root), "root");
    const XmlText text(xmlNodeGetContent(root));
    EXPECT_STREQ(asText(text), "some text");
}

TEST(XmlHandles, AbsentTextStaysNull) {
    const XmlDocument document = parse("<root/>");
    const XmlText absent(xmlGetProp(xmlDocGetRootElement(document.get()), asXml("status")));
    EXPECT_EQ(asText(absent), nullptr);
}

TEST(XmlHandles, PlainCharactersGoInAsTheyAre) {
    const XmlDocument document = parse("<root status='ok'/>");
    const XmlText status(xmlGetProp(xmlDocGetRootElement(document.get()), asXml("status")));
    EXPECT_STREQ(asText(status), "ok");
}

/// Handlers of libxml2 are per thread, so each test uses a thread of its own.
std::string printedBy(void (*work)()) {
    testing::internal::CaptureStderr();
    std::thread(work).join();
    return testing::internal::GetCapturedStderr();
}

TEST(XmlHandles, LibraryPrintsParseErrorsUntilItIsSilenced) {
    EXPECT_NE(printedBy([] { parse("<a><b></a>"); }), "");
}

TEST(XmlHandles, NothingIsPrintedForABrokenDocument) {
    EXPECT_EQ(printedBy([] {
                  silenceXmlErrors();
                  EXPECT_FALSE(parse("<a><b></a>"));
              }),
              "");
}

TEST(XmlHandles, NothingIsPrintedWhenInvalidTextIsDumped) {
    EXPECT_EQ(printedBy([] {
                  silenceXmlErrors();
                  const XmlDocument document(xmlNewDoc(asXml("1.0")));
                  xmlNode* root = xmlNewNode(nullptr, asXml("root"));
                  xmlDocSetRootElement(document.get(), root);
                  xmlNewProp(root, asXml("type"), asXml("\xFF\x01"));
                  xmlChar* dumped = nullptr;
                  int size = 0;
                  xmlDocDumpFormatMemory(document.get(), &dumped, &size, 1);
                  const XmlText owned(dumped);
              }),
              "");
}

} // namespace
} // namespace orvexd
