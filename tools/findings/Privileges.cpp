#include "findings/Privileges.h"

#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace orvexd::findings {

namespace {

using Capabilities = std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3>;

// The C library has no functions for these calls.

bool read(Capabilities& capabilities) noexcept {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-vararg): syscall is declared so
    return syscall(SYS_capget, &header, capabilities.data()) == 0;
}

bool set(const Capabilities& capabilities) noexcept {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-vararg)
    return syscall(SYS_capset, &header, capabilities.data()) == 0;
}

} // namespace

WithoutCapabilities::WithoutCapabilities(bool wanted) : dropped_(wanted && read(before_)) {
    if (dropped_) {
        Capabilities none = before_;
        for (auto& word : none) {
            word.effective = 0;
        }
        dropped_ = set(none);
    }
}

WithoutCapabilities::~WithoutCapabilities() {
    if (dropped_) {
        (void)set(before_);
    }
}

void dropCapabilitiesForGood() noexcept {
    for (unsigned long capability = 0; capability <= CAP_LAST_CAP; ++capability) {
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-vararg)
        (void)prctl(PR_CAPBSET_DROP, capability, 0, 0, 0);
    }
    (void)set({});
}

} // namespace orvexd::findings
