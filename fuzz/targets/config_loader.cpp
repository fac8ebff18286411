// The configuration file.
//
// Input: the file's bytes.
//
// Properties: the loader accepts or throws one of its three messages; the file store then holds
// what another reading of the file yields; no file stays open, and nothing else is opened.

#include "config/ConfHandler.h"
#include "support/Check.h"
#include "support/Target.h"
#include "support/XmlHandles.h"

#include <filesystem>
#include <iterator>
#include <libxml/parser.h>
#include <map>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

namespace orvexd::fuzz {
namespace {

/// A file that exists in memory only.
class MemoryFile {
public:
    MemoryFile(const std::uint8_t* data, std::size_t size) : fd_(memfd_create("config", 0)) {
        check(fd_ >= 0, "a file can be made");
        check(write(fd_, data, size) == static_cast<ssize_t>(size), "the file can be written");
    }
    ~MemoryFile() { close(fd_); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;
    MemoryFile(MemoryFile&&) = delete;
    MemoryFile& operator=(MemoryFile&&) = delete;

    std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }

private:
    int fd_;
};

std::ptrdiff_t openFiles() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

/// What the file means.
struct Reading {
    std::map<std::string, std::string> items;
    std::string thrown; ///< empty: nothing
};

std::string_view nameOf(const xmlNode* node) {
    return node == nullptr ? std::string_view() : reinterpret_cast<const char*>(node->name);
}

xmlNode* elementFrom(xmlNode* node) {
    while (node != nullptr && node->type != XML_ELEMENT_NODE) {
        node = node->next;
    }
    return node;
}

std::string contentOf(xmlNode* node) {
    const XmlText text(xmlNodeGetContent(node));
    return text ? asText(text) : "";
}

Reading readFile(const std::string& path) {
    Reading reading;
    const XmlDocument document(xmlReadFile(path.c_str(), nullptr, 0));
    if (!document) {
        return reading;
    }
    xmlNode* root = elementFrom(document->children);
    if (nameOf(root) != "orvexdconfig") {
        reading.thrown = "Invalid root tag name: " + path;
        return reading;
    }
    for (xmlNode* item = elementFrom(root->children); item != nullptr;
         item = elementFrom(item->next)) {
        if (nameOf(item) != "item") {
            reading.thrown = "Parse XML error -- malformed document, invalid tag-name: ";
            reading.thrown.append(nameOf(item));
            return reading;
        }
        xmlNode* key = elementFrom(item->children);
        xmlNode* value = key == nullptr ? nullptr : elementFrom(key->next);
        if (nameOf(key) != "key" || nameOf(value) != "value") {
            reading.thrown =
                "Parse XML error -- malformed document key or value not found from item-node: item";
            return reading;
        }
        reading.items[contentOf(key)] = contentOf(value);
    }
    return reading;
}

xmlExternalEntityLoader& originalLoader() {
    static xmlExternalEntityLoader loader = nullptr;
    return loader;
}

xmlParserInput* loadFileOnly(const char* url, const char* id, xmlParserCtxt* context) {
    check(url != nullptr && std::string_view(url).starts_with("/proc/self/fd/"),
          "nothing but the file is opened");
    return originalLoader()(url, id, context);
}

} // namespace
} // namespace orvexd::fuzz

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    orvexd::silenceXmlErrors(); // as the program does when it starts
    orvexd::fuzz::originalLoader() = xmlGetExternalEntityLoader();
    xmlSetExternalEntityLoader(orvexd::fuzz::loadFileOnly);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace orvexd;
    const fuzz::MemoryFile file(data, size);
    const fuzz::Reading reading = fuzz::readFile(file.path());
    const std::ptrdiff_t openBefore = fuzz::openFiles();
    ConfHandler::confItems().clear();
    std::string thrown;
    try {
        ConfHandler::load(file.path(), "orvexdconfig");
    } catch (const std::string& message) {
        thrown = message;
    }
    fuzz::check(thrown == reading.thrown, "the loader accepts or names the fault");
    fuzz::check(fuzz::openFiles() == openBefore, "no file stays open");
    for (const auto& [key, value] : reading.items) {
        fuzz::check(ConfHandler::confItems().get(key, "absent") == value, "every item is stored");
    }
    return 0;
}
