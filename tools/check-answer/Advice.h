#pragma once

#include "Recording.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace orvexd::check {

/// Something that whoever wrote the server should know.
struct Finding {
    std::size_t line = 0; ///< in the file, from 1; 0: it has none
    bool isFault = true;  ///< false: no reason to refuse the answer by itself
    std::string text;
};

/// Looks for what servers usually get wrong. It explains; the verdict is the parser's.
class Advice {
public:
    explicit Advice(const Recording& recording);

    /// In the order of the file.
    [[nodiscard]] std::vector<Finding> findings() const;

    /// The largest number of a request for which the document has a result, 0 without any.
    [[nodiscard]] std::uint32_t largestOid() const noexcept { return largestOid_; }

    /// Adds a finding for each request of the message that the document does not name.
    void expectRequests(std::uint32_t requests);

private:
    struct Part {
        std::string_view whole;   ///< from its delimiter to the next one
        std::string_view headers; ///< without the empty line
        std::string_view data;
        std::string id;
        bool hasHeaders = false;
        bool isStart = false;
    };
    struct Announced {
        int oid = 0;
        std::string id;
        bool hasCome = false;
    };

    void checkHeads();
    void checkStatus(std::string_view head);
    void checkContentType(std::string_view head);
    void checkStart(std::string_view line);
    void checkBoundary(std::string_view line);
    void checkOtherHeaders(std::string_view head);
    void cutBody();
    void checkParts();
    void checkPartHeaders(Part& part);
    void checkDocument(const Part& start);
    void matchPart(const Part& part);
    void checkAnnounced();
    void fault(std::string_view place, std::string text);
    void note(std::string_view place, std::string text);
    void add(std::string_view place, bool isFault, std::string text);

    const Recording& recording_;
    std::string startId_;
    std::string boundary_;
    std::vector<Part> parts_;
    std::vector<Announced> announced_;
    std::string_view document_;
    bool hasDocument_ = false;
    bool isClosed_ = false;
    std::uint32_t largestOid_ = 0;
    std::vector<Finding> findings_;
};

} // namespace orvexd::check
