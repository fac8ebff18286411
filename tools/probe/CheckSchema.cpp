#include "probe/CheckSchema.h"

#include "config/ConfHandler.h"
#include "findings/Files.h"
#include "support/XmlHandles.h"

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
    if (!findings::factsOf(path).exists()) {
        report.fine("There is no " + path + ", and none is needed.");
        return;
    }
    silenceXmlErrors();
    const std::string advice = "Mend it as orvexd.schema(5) says, or remove it.";
    if (const std::string fault = faultOf(path); !fault.empty()) {
        report.broken(path + " ends the daemon at its start: " + fault, advice);
    } else if (!XmlDocument(xmlReadFile(path.c_str(), nullptr, 0))) {
        report.doubtful(path + " is no XML, or cannot be read: the daemon ignores it.", advice);
    } else {
        report.fine(path + " is well formed.");
    }
}

} // namespace orvexd::probe
