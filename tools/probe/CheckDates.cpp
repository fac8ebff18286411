#include "findings/Files.h"
#include "http/TransferOptions.h"
#include "probe/CheckFiles.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <sys/timex.h>
#include <vector>

namespace orvexd::probe {

namespace {

using findings::Checked;

constexpr std::time_t kSecondsPerDay = 24L * 60 * 60;
constexpr std::time_t kWarningDays = 30;

enum class Age { TooEarly, Good, EndsSoon, TooLate };

std::string textOfNow() {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    std::array<char, 32> text{};
    (void)gmtime_r(&now, &parts);
    (void)std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M UTC", &parts);
    return text.data();
}

Age ageOf(const X509* certificate) {
    std::time_t now = std::time(nullptr);
    std::time_t soon = now + kWarningDays * kSecondsPerDay;
    if (X509_cmp_time(X509_get0_notBefore(certificate), &now) > 0) {
        return Age::TooEarly;
    }
    if (X509_cmp_time(X509_get0_notAfter(certificate), &now) <= 0) {
        return Age::TooLate;
    }
    return X509_cmp_time(X509_get0_notAfter(certificate), &soon) <= 0 ? Age::EndsSoon : Age::Good;
}

void checkCertificate(const X509* certificate, const std::string& path, const Checked& report) {
    const std::string begin = textOf(X509_get0_notBefore(certificate));
    const std::string end = textOf(X509_get0_notAfter(certificate));
    switch (ageOf(certificate)) {
    case Age::TooEarly:
        report.broken("The certificate in " + path + " is not valid before " + begin +
                          "; the clock says " + textOfNow() + ".",
                      "Set the clock, or install another certificate.");
        break;
    case Age::TooLate:
        report.broken("The certificate in " + path + " has expired on " + end +
                          "; the clock says " + textOfNow() + ".",
                      "Install a new certificate, or set the clock.");
        break;
    case Age::EndsSoon:
        report.doubtful("The certificate in " + path + " expires on " + end + ".",
                        "Have a new one made in time.");
        break;
    case Age::Good:
        report.fine("The certificate in " + path + " is valid until " + end + ".");
        break;
    }
}

bool isValid(const X509* certificate) {
    const Age age = ageOf(certificate);
    return age == Age::Good || age == Age::EndsSoon;
}

/// The authority that is good for longest, whichever are old: one that is valid is enough.
const X509* bestOf(const Certificates& authorities) {
    const auto isWorse = [](const CertificateRef& a, const CertificateRef& b) {
        if (isValid(a.get()) != isValid(b.get())) {
            return isValid(b.get());
        }
        return ASN1_TIME_compare(X509_get0_notAfter(a.get()), X509_get0_notAfter(b.get())) < 0;
    };
    return std::max_element(authorities.begin(), authorities.end(), isWorse)->get();
}

/// What the device sends to the server besides its own.
void checkIntermediates(const Certificates& certificates, const std::string& path,
                        const Checked& report) {
    for (std::size_t i = 1; i < certificates.size(); ++i) {
        if (!isValid(certificates[i].get())) {
            report.doubtful("Certificate " + std::to_string(i + 1) + " in " + path +
                                " is not valid now: it is that of " +
                                describe(certificates[i].get()) + ".",
                            "The server may refuse the device's for it. Install a new one.");
        }
    }
}

bool isSynchronised() {
    timex clock{};
    return adjtimex(&clock) != TIME_ERROR && (clock.status & STA_UNSYNC) == 0;
}

/// When the newest of the three files and this program were written, in seconds.
std::int64_t newestFile(const std::string& files) {
    std::int64_t newest = findings::factsOf("/proc/self/exe").modified;
    for (const char* name :
         {TransferOptions::kCertificate, TransferOptions::kKey, TransferOptions::kAuthority}) {
        newest = std::max(newest, findings::factsOf(files + name).modified);
    }
    return newest;
}

/// One file may be old; that all of them are not valid now is rather the clock's fault.
bool isOutsideOfAll(const std::vector<const X509*>& certificates) {
    return certificates.size() > 1 &&
           std::none_of(certificates.begin(), certificates.end(), &isValid);
}

void checkClock(const std::vector<const X509*>& certificates, const std::string& files,
                const Checked& report) {
    const bool synchronised = isSynchronised();
    const std::string state = synchronised ? "synchronised" : "not synchronised";
    const std::string now = "The clock says " + textOfNow() + " and is " + state;
    const std::string advice =
        "Set the clock, and let something keep it right, such as systemd-timesyncd.";
    if (isOutsideOfAll(certificates)) {
        report.broken(now + ". No certificate is valid now: the clock is wrong, or all are old.",
                      advice);
    } else if (std::time(nullptr) + kSecondsPerDay < newestFile(files)) {
        report.doubtful(now + ", but files were written later: the clock is wrong.", advice);
    } else {
        report.fine(now + ".");
    }
}

} // namespace

void checkDates(const Identity& identity, const std::string& files, const Checked& report) {
    std::vector<const X509*> certificates;
    if (!identity.client.empty()) {
        certificates.push_back(identity.client.front().get());
        checkCertificate(certificates.back(), files + TransferOptions::kCertificate, report);
        checkIntermediates(identity.client, files + TransferOptions::kCertificate, report);
    }
    if (!identity.authorities.empty()) {
        certificates.push_back(bestOf(identity.authorities));
        checkCertificate(certificates.back(), files + TransferOptions::kAuthority, report);
    }
    checkClock(certificates, files, report);
}

} // namespace orvexd::probe
