#include "Advice.h"

#include "../orvexctl/Printable.h"
#include "slp/ResponseHead.h"
#include "slp/SlpDocument.h"
#include "slp/TextSearch.h"

#include <algorithm>
#include <charconv>
#include <utility>

namespace orvexd::check {

namespace {

using ctl::printable;

constexpr auto kNone = std::string_view::npos;

std::string quoted(std::string_view text) {
    constexpr std::size_t kMost = 80;
    return "\"" + printable(text.substr(0, kMost)) + (text.size() > kMost ? "…\"" : "\"");
}

std::string lower(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), asciiLower);
    return result;
}

/// The line that begins at a place, without its end.
std::string_view lineAt(std::string_view text, std::size_t at) {
    return text.substr(at, text.find_first_of("\r\n", at) - at);
}

/// Where a header line of this name begins, in lower case and with its colon; npos without one.
std::size_t findHeader(std::string_view head, const std::string& name) {
    const std::string text = lower(head);
    const std::size_t found = text.find("\n" + name);
    return found == kNone ? (text.starts_with(name) ? 0 : kNone) : found + 1;
}

/// The value of a parameter as its author meant it: with '=' and blanks between quotation marks.
std::string meantParameter(std::string_view line, const std::string& name) {
    const std::string text = lower(line);
    std::size_t at = 0;
    while ((at = text.find(name, at)) != kNone) {
        const bool isWhole = at > 0 && (text[at - 1] == ';' || text[at - 1] == ' ');
        const std::size_t equals = text.find_first_not_of(' ', at + name.size());
        if (isWhole && equals != kNone && text[equals] == '=') {
            std::string_view value = line.substr(equals + 1);
            if (value.starts_with('"')) {
                value.remove_prefix(1);
                return std::string(value.substr(0, value.find('"')));
            }
            return std::string(value.substr(0, value.find_first_of("; \r\n")));
        }
        at += name.size();
    }
    return {};
}

std::string percentDecoded(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        unsigned byte = 0;
        const char* const digits = text.data() + 1;
        const bool isCode = text.front() == '%' && text.size() >= 3 &&
                            std::from_chars(digits, digits + 2, byte, 16).ptr == digits + 2;
        result += isCode ? static_cast<char>(byte) : text.front();
        text.remove_prefix(isCode ? 3 : 1);
    }
    return result;
}

std::string_view trimmed(std::string_view text, std::string_view what) {
    const std::size_t begin = std::min(text.find_first_not_of(what), text.size());
    const std::size_t end = text.find_last_not_of(what);
    return text.substr(begin, end == kNone ? 0 : end + 1 - begin);
}

/// Why an id is not the wanted one although its author may think so; empty when it is quite
/// another.
std::string differenceOf(std::string_view id, std::string_view wanted) {
    if (trimmed(id, "<>") == trimmed(wanted, "<>")) {
        return "one of them is in angle brackets, and the daemon compares byte by byte";
    }
    if (trimmed(id, " \t") == trimmed(wanted, " \t")) {
        return "there are blanks at its end, which the daemon keeps";
    }
    if (lower(id) == lower(wanted)) {
        return "upper and lower case differ";
    }
    if (percentDecoded(id) == percentDecoded(wanted)) {
        return "one of them is percent-encoded, and the daemon decodes nothing";
    }
    if (percentDecoded(trimmed(id, "<>")) == percentDecoded(trimmed(wanted, "<>"))) {
        return "angle brackets and percent-encoding differ, and the daemon compares byte by byte";
    }
    return {};
}

} // namespace

Advice::Advice(const Recording& recording) : recording_(recording) {
    checkHeads();
    if (!boundary_.empty()) {
        cutBody();
        checkParts();
        checkAnnounced();
    }
}

// -- heads ---------------------------------------------------------------------------------------

void Advice::checkHeads() {
    const auto& heads = recording_.heads();
    if (heads.empty()) {
        fault(recording_.body().substr(0, 0),
              "there is no head: record it (curl -i), or name the body's type with --content-type");
        return;
    }
    for (const std::string_view& head : heads) {
        const bool isLast = &head == &heads.back();
        const std::size_t end = findBytes(head, kBlankLine);
        if (end == kNone) {
            fault(head, "the head has no empty line; its lines have to end in CR LF");
        }
        const auto parsed = parseResponseHead(head.substr(0, end));
        const bool names = parsed.multipart && !parsed.multipart->boundary.empty();
        if (names && boundary_.empty()) {
            boundary_ = parsed.multipart->boundary;
            startId_ = parsed.multipart->startId;
        }
        if (names && !isLast) {
            fault(head, "an interim head, or a proxy's, that names a boundary: the daemon keeps it "
                        "and takes the next head for a part of the body");
        } else if (isLast) {
            checkStatus(head);
            checkContentType(head);
        }
        checkOtherHeaders(head);
    }
}

void Advice::checkStatus(std::string_view head) {
    const std::size_t blank = head.find(' ');
    int status = 0;
    if (blank != kNone) {
        (void)std::from_chars(head.data() + blank + 1, head.data() + head.size(), status);
    }
    if (status >= 400) {
        fault(head, "the status " + std::to_string(status) + " is code " +
                        std::to_string(statusToErrorCode(status)) +
                        "; clients read it only if nothing else is wrong with the answer");
    } else if (status >= 300) {
        note(head, "the daemon follows no redirection");
    }
}

void Advice::checkContentType(std::string_view head) {
    const std::size_t found = findIgnoringCase(head, "content-type");
    const std::size_t own = findHeader(head, "content-type:");
    if (own == kNone) {
        fault(head, "the head has no Content-Type");
    }
    if (found == kNone) {
        return;
    }
    if (own != kNone && found != own) {
        const std::size_t begin = head.rfind('\n', found) + 1; // npos + 1 is 0
        fault(head.substr(found),
              "the daemon takes the first line with \"content-type\" in it for Content-Type: " +
                  quoted(lineAt(head, begin)) + " has to come behind it, or not at all");
        return;
    }
    const std::string_view line = lineAt(head, found);
    const std::string_view next = head.substr(std::min(head.find('\n', found), head.size()));
    if (next.size() > 1 && (next[1] == ' ' || next[1] == '\t')) {
        fault(next.substr(1), "the daemon reads Content-Type to the end of its line only");
    }
    checkStart(line);
    checkBoundary(line);
}

void Advice::checkStart(std::string_view line) {
    const std::string read = contentTypeParameter(line, "start");
    const std::string meant = meantParameter(line, "start");
    if (read.empty() && meant.empty()) {
        fault(line, "Content-Type has no parameter start; it names the Content-Id of the part with "
                    "the SLP document");
    } else if (read != meant && findIgnoringCase(line, "start-info") != kNone) {
        fault(line, "the daemon finds the first \"start\": it reads " + quoted(read) +
                        "; put start in front of start-info");
    } else if (read != meant) {
        fault(line,
              "start is " + quoted(meant) + ", but the daemon reads " + quoted(read) +
                  ": it finds the first \"start\", leaves out = ' and \", and ends at a blank "
                  "or ;");
    }
}

void Advice::checkBoundary(std::string_view line) {
    const std::string read = contentTypeParameter(line, "boundary");
    const std::string meant = meantParameter(line, "boundary");
    if (read.empty() && meant.empty()) {
        fault(line, "Content-Type has no boundary");
    } else if (read != meant) {
        fault(line, "the boundary is " + quoted(meant) + ", but the daemon reads " + quoted(read) +
                        ": it leaves out = ' and \", and ends at a blank or ;. Use letters, "
                        "digits, '-', '_' and '.' only");
    }
}

void Advice::checkOtherHeaders(std::string_view head) {
    const std::size_t encoding = findHeader(head, "content-encoding:");
    if (encoding != kNone) {
        fault(head.substr(encoding), "the daemon does not ask for " +
                                         quoted(lineAt(head, encoding)) + " and undoes nothing");
    }
}

// -- body ----------------------------------------------------------------------------------------

void Advice::cutBody() {
    const std::string delimiter = "--" + boundary_;
    const std::string_view body = recording_.body();
    std::size_t at = findBytes(body, delimiter);
    if (at == kNone) {
        fault(body, "the body has no delimiter " + quoted(delimiter));
        return;
    }
    while (at != kNone) {
        const std::string_view rest = body.substr(at + delimiter.size());
        const std::size_t next = findBytes(body, delimiter, at + delimiter.size());
        if (rest.starts_with("--")) {
            isClosed_ = true;
            if (rest.size() > 2 && rest.substr(2) != "\r\n") {
                fault(rest, "only CR LF may come behind the closing delimiter");
            }
            return;
        }
        Part part;
        part.whole = body.substr(at, next == kNone ? kNone : next - at);
        if (at >= 1 && body[at - 1] != '\n') {
            fault(part.whole,
                  "the delimiter is not at the beginning of a line; the daemon takes it "
                  "for one all the same, also in the middle of data");
        }
        parts_.push_back(std::move(part));
        at = next;
    }
}

void Advice::checkParts() {
    for (Part& part : parts_) {
        checkPartHeaders(part);
    }
    const auto start =
        std::find_if(parts_.begin(), parts_.end(), [](const Part& part) { return part.isStart; });
    for (const Part& part : parts_) {
        if (part.isStart) {
            checkDocument(part);
        } else if (part.hasHeaders && start != parts_.end()) {
            matchPart(part);
        }
    }
    if (!hasDocument_ && !parts_.empty()) {
        const auto near = std::find_if(parts_.begin(), parts_.end(), [this](const Part& part) {
            return !differenceOf(part.id, startId_).empty();
        });
        std::string text =
            "no part has the Content-Id " + quoted(startId_) + ", so there is no SLP document";
        if (near != parts_.end()) {
            text += ": it is " + quoted(near->id) + " here; " + differenceOf(near->id, startId_);
        }
        fault(near != parts_.end() ? near->whole : parts_.front().whole, std::move(text));
    }
    if (!isClosed_ && !parts_.empty()) {
        note(recording_.body().substr(recording_.body().size()),
             "the closing delimiter is missing; the daemon takes the last part for complete");
    }
}

void Advice::checkPartHeaders(Part& part) {
    const std::size_t lineEnd = std::min(part.whole.find('\n'), part.whole.size() - 1) + 1;
    const std::size_t end = findBytes(part.whole, kBlankLine, lineEnd < 2 ? 0 : lineEnd - 2);
    if (end == kNone) {
        const bool hasBareLines = part.whole.find("\n\n") != kNone;
        fault(part.whole, hasBareLines ? "lines have to end in CR LF; these end in LF"
                                       : "the part has no empty line behind its header lines");
        return;
    }
    part.hasHeaders = true;
    part.headers = part.whole.substr(0, end);
    part.data = part.whole.substr(end + kBlankLine.size());
    part.id = headerValue(part.headers, "content-id");
    part.isStart = part.id == startId_;
    const std::size_t own = findHeader(part.headers, "content-id:");
    if (own == kNone) {
        fault(part.whole, "the part has no Content-Id");
    } else if (findIgnoringCase(part.headers, "content-id") != own) {
        fault(part.headers.substr(findIgnoringCase(part.headers, "content-id")),
              "the daemon takes the first \"content-id\" of a header block for Content-Id");
    }
    const std::string encoding = lower(headerValue(part.headers, "content-transfer-encoding"));
    if (encoding == "base64" || encoding == "quoted-printable") {
        const std::string text =
            "the part is encoded as " + encoding + ", and the daemon decodes nothing";
        if (part.isStart) {
            fault(part.whole, text);
        } else {
            note(part.whole, text + ": the client gets it as it is");
        }
    }
}

void Advice::checkDocument(const Part& start) {
    hasDocument_ = true;
    std::string_view text = start.data;
    const XmlDocument document = readSlpDocument(text);
    if (!document) {
        fault(start.data, "the SLP document cannot be parsed as XML, or passes the limits that "
                          "orvexd(8) names");
        return;
    }
    ResultMap results;
    if (const auto error = parseSlpResponse(xmlDocGetRootElement(document.get()), results)) {
        fault(start.data, "the SLP document is refused: " + quoted(error->text));
        return;
    }
    document_ = start.data;
    for (const auto& [oid, ids] : results) {
        largestOid_ = std::max(largestOid_, static_cast<std::uint32_t>(std::max(oid, 0)));
        for (const std::string& id : ids) {
            announced_.push_back({oid, id});
        }
    }
    if (results.empty()) {
        fault(start.data, "the SLP document has no result; every request needs one");
    }
}

void Advice::matchPart(const Part& part) {
    if (!hasDocument_) {
        fault(part.whole, "the part comes before the SLP document, which has to be the first: "
                          "nobody expects it yet, and its data are dropped");
        return;
    }
    bool isExpected = false;
    for (Announced& announced : announced_) {
        if (announced.id == part.id) {
            announced.hasCome = true;
            isExpected = true;
        }
    }
    const std::string next = headerValue(part.headers, "x-slp-next-part-id");
    if (isExpected && !next.empty()) {
        announced_.push_back({0, next});
    }
    if (isExpected) {
        return;
    }
    for (const Announced& announced : announced_) {
        const std::string difference = differenceOf(part.id, announced.id);
        if (!difference.empty()) {
            fault(part.whole, "nobody expects the Content-Id " + quoted(part.id) +
                                  "; announced is " + quoted(announced.id) + ": " + difference);
            return;
        }
    }
    note(part.whole, "nobody expects the Content-Id " + quoted(part.id) + "; the part is dropped");
}

void Advice::checkAnnounced() {
    for (const Announced& announced : announced_) {
        if (!announced.hasCome) {
            fault(document_,
                  "the part " + quoted(announced.id) + " is announced" +
                      (announced.oid > 0 ? " for request " + std::to_string(announced.oid)
                                         : std::string(" as a next part")) +
                      " and does not come");
        }
    }
}

void Advice::expectRequests(std::uint32_t requests) {
    for (std::uint32_t oid = 1; oid <= requests && !document_.empty(); ++oid) {
        const bool isNamed =
            std::any_of(announced_.begin(), announced_.end(), [oid](const Announced& announced) {
                return announced.oid == static_cast<int>(oid);
            });
        if (!isNamed) {
            fault(document_, "no result has the oid " + std::to_string(oid) +
                                 "; one request without a result spoils the answer of all");
        }
    }
}

// -- findings ------------------------------------------------------------------------------------

std::vector<Finding> Advice::findings() const {
    std::vector<Finding> sorted = findings_;
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const Finding& a, const Finding& b) { return a.line < b.line; });
    return sorted;
}

void Advice::fault(std::string_view place, std::string text) {
    add(place, true, std::move(text));
}

void Advice::note(std::string_view place, std::string text) {
    add(place, false, std::move(text));
}

void Advice::add(std::string_view place, bool isFault, std::string text) {
    const std::size_t line = place.data() == nullptr ? 0 : recording_.lineOf(place.data());
    findings_.push_back({line, isFault, std::move(text)});
}

} // namespace orvexd::check
