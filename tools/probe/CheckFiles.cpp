#include "probe/CheckFiles.h"

#include "findings/Files.h"
#include "http/TransferOptions.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <glib.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <optional>
#include <string_view>

namespace orvexd::probe {

namespace {

using findings::Checked;
using findings::FileFacts;

constexpr const char* kInstall =
    "Install the device's own file there, owned by root, with mode 0600.";

/// Facts that keep a daemon from reading a file at all.
bool isReadable(const std::string& path, const FileFacts& facts, bool sandboxed,
                const Checked& report) {
    const std::string chown = "Give it to root: chown root:root " + path;
    const std::string hidden = findings::hiddenFolderOf(path);
    if (facts.error == EACCES) {
        report.broken(path +
                          " cannot be reached: root without privileges, as the daemon is, may "
                          "not pass " +
                          findings::closedFolderOf(path) + ".",
                      "Give the folder to root, with mode 0755 or 0700.");
        return false;
    }
    if (!facts.exists()) {
        report.broken(path + " cannot be found: " + facts.reason() + ".", kInstall);
        return false;
    }
    if (!facts.isRegular()) {
        report.broken(path + " is no regular file.", kInstall);
        return false;
    }
    if (sandboxed && !hidden.empty()) {
        report.broken(path + " is below " + hidden + ", which the service does not see.",
                      "Keep the files themselves, not links, in a folder below /usr or /etc.");
    }
    if (facts.owner != 0 && !facts.isForAll()) {
        report.broken(path + " belongs to user " + std::to_string(facts.owner) +
                          " and not to root: the sandboxed daemon cannot read it.",
                      chown);
        return false;
    }
    if (facts.owner != 0) {
        report.doubtful(path + " belongs to user " + std::to_string(facts.owner) +
                            ", who may replace it.",
                        chown);
    }
    return true;
}

std::optional<std::string> readFile(const std::string& path, bool sandboxed,
                                    const Checked& report) {
    if (!isReadable(path, findings::factsOf(path), sandboxed, report)) {
        return std::nullopt;
    }
    auto text = findings::textOf(path);
    if (!text) {
        const std::string why = g_strerror(errno);
        report.broken(path + " cannot be read: " + why + ". Its mode is " +
                          findings::factsOf(path).modeText() + ".",
                      kInstall);
    }
    return text;
}

BioRef bioOf(const std::string& text) {
    return BioRef(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

/// What a file holds up to its end, or up to a block that is damaged.
struct Blocks {
    Certificates certificates;
    bool isDamaged = false;
};

Blocks blocksOf(const std::string& text) {
    Blocks found;
    const BioRef bio = bioOf(text);
    while (X509* certificate = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr)) {
        found.certificates.emplace_back(certificate);
    }
    // Without another block at the end it finds no first line.
    const auto reason = ERR_peek_last_error();
    found.isDamaged =
        ERR_GET_LIB(reason) != ERR_LIB_PEM || ERR_GET_REASON(reason) != PEM_R_NO_START_LINE;
    ERR_clear_error();
    return found;
}

Certificates readCertificates(const std::string& path, bool sandboxed, const Checked& report) {
    const auto text = readFile(path, sandboxed, report);
    if (!text) {
        return {};
    }
    Blocks found = blocksOf(*text);
    if (found.isDamaged) {
        report.broken(path + " is damaged behind " + std::to_string(found.certificates.size()) +
                          " good certificates: the daemon refuses all of it.",
                      kInstall);
        return {};
    }
    if (found.certificates.empty()) {
        report.broken(path + " holds no certificate in PEM form.", kInstall);
    }
    return std::move(found.certificates);
}

/// OpenSSL's wish for the pass phrase. No phrase fits into less room.
int givePassphrase(char* buffer, int size, int /*writing*/, void* asked) noexcept {
    const KeyPassphrase passphrase;
    *static_cast<bool*>(asked) = true;
    const std::size_t length = std::strlen(passphrase.text());
    if (size < 0 || length > static_cast<std::size_t>(size)) {
        return -1;
    }
    std::memcpy(buffer, passphrase.text(), length);
    return static_cast<int>(length);
}

KeyRef readKey(const std::string& path, bool sandboxed, const Checked& report) {
    const auto text = readFile(path, sandboxed, report);
    if (!text) {
        return nullptr;
    }
    bool encrypted = false;
    KeyRef key(PEM_read_bio_PrivateKey(bioOf(*text).get(), nullptr, &givePassphrase, &encrypted));
    ERR_clear_error();
    if (!key && encrypted) {
        report.broken(path + " does not open with the pass phrase of this build.",
                      "Encrypt it with the pass phrase that ORVEXD_KEY_PASSPHRASE was set to when "
                      "the daemon was built.");
    } else if (!key) {
        report.broken(path + " holds no private key in PEM form.", kInstall);
    } else if (const FileFacts facts = findings::factsOf(path); facts.isForOthers()) {
        report.doubtful(path + " has mode " + facts.modeText() + ": others can read the key.",
                        "chmod 600 " + path);
    } else if (!encrypted) {
        report.doubtful(path + " is not encrypted.",
                        "Encrypt it with the pass phrase of the build.");
    }
    return key;
}

/// Frees the list, not what is in it.
struct ListFree {
    void operator()(STACK_OF(X509) * list) const noexcept { sk_X509_free(list); }
};
using ListRef = std::unique_ptr<STACK_OF(X509), ListFree>;

/// Whether the authorities have signed the device's certificate; 0 when they have, otherwise
/// OpenSSL's reason. The dates are another check's.
int verify(const Identity& identity) {
    const StoreRef store(X509_STORE_new());
    for (const CertificateRef& authority : identity.authorities) {
        (void)X509_STORE_add_cert(store.get(), authority.get());
    }
    const ListRef between(sk_X509_new_null());
    for (std::size_t i = 1; i < identity.client.size(); ++i) {
        (void)sk_X509_push(between.get(), identity.client[i].get());
    }
    const StoreContextRef context(X509_STORE_CTX_new());
    if (X509_STORE_CTX_init(context.get(), store.get(), identity.client.front().get(),
                            between.get()) != 1) {
        return X509_V_ERR_UNSPECIFIED;
    }
    X509_VERIFY_PARAM_set_flags(X509_STORE_CTX_get0_param(context.get()),
                                X509_V_FLAG_NO_CHECK_TIME | X509_V_FLAG_PARTIAL_CHAIN);
    const bool good = X509_verify_cert(context.get()) == 1;
    const int reason = X509_STORE_CTX_get_error(context.get());
    ERR_clear_error();
    return good ? X509_V_OK : reason;
}

bool fit(const Identity& identity, const std::string& files, const Checked& report) {
    bool good = true;
    if (identity.key &&
        X509_check_private_key(identity.client.front().get(), identity.key.get()) != 1) {
        ERR_clear_error();
        report.broken(files + TransferOptions::kKey + " is not the key of the certificate in " +
                          files + TransferOptions::kCertificate + ".",
                      "Install a certificate and a key that were made for each other.");
        good = false;
    }
    if (identity.authorities.empty()) {
        return good;
    }
    if (const int reason = verify(identity); reason != X509_V_OK) {
        report.doubtful(
            "The certificate in " + files + TransferOptions::kCertificate + " was not signed by " +
                files + TransferOptions::kAuthority + " (" + X509_verify_cert_error_string(reason) +
                "): it is that of " + describe(identity.client.front().get()) + ".",
            "A server that knows this authority alone refuses the certificate. Install the one "
            "that the operator of the server has made for the device, and the operator's "
            "authority.");
        good = false;
    }
    return good;
}

} // namespace

Identity checkFiles(const std::string& files, bool sandboxed, const Checked& report) {
    Identity identity;
    identity.client = readCertificates(files + TransferOptions::kCertificate, sandboxed, report);
    identity.key = readKey(files + TransferOptions::kKey, sandboxed, report);
    identity.authorities = readCertificates(files + TransferOptions::kAuthority, sandboxed, report);
    if (!identity.client.empty() && fit(identity, files, report) && identity.key &&
        !identity.authorities.empty()) {
        report.fine("The three files in " + files +
                    " fit each other, and the key opens with the pass phrase of this build.");
    }
    return identity;
}

} // namespace orvexd::probe
