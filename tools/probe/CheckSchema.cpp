#include "probe/CheckSchema.h"

#include "config/ConfHandler.h"
#include "findings/Files.h"
#include "support/XmlHandles.h"

#include <cerrno>

namespace orvexd::probe {

namespace {

constexpr const char* kName = "/orvexd.schema";
constexpr const char* kRootTag = "orvexdconfig";

/// What the daemon's own loader says; empty when it is content.
std::string faultOf(const std::string& path) {
    try {
        ConfHandler::load(path, kRootTag);
    } catch (const std::string& fault) {
        return fault;
    }
    return {};
}

} // namespace

void checkSchema(const std::string& files, const findings::Checked& report) {
    const std::string path = files + kName;
    const std::string advice = "Mend it as orvexd.schema(5) says, or remove it.";
    const findings::FileFacts facts = findings::factsOf(path);
    if (facts.error == ENOENT) {
        report.fine("There is no " + path + ", and none is needed.");
        return;
    }
    if (facts.exists() && !facts.isRegular()) { // who opens a FIFO may wait for ever
        report.broken(path + " is no regular file: the daemon may wait for it for ever.", advice);
        return;
    }
    silenceXmlErrors();
    if (const std::string fault = faultOf(path); !fault.empty()) {
        report.broken(path + " ends the daemon at its start: " + fault, advice);
    } else if (!XmlDocument(xmlReadFile(path.c_str(), nullptr, 0))) {
        report.doubtful(path + " is no XML, or cannot be read: the daemon ignores it.", advice);
    } else {
        report.fine(path + " is well formed.");
    }
}

} // namespace orvexd::probe
