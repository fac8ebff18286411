#pragma once

#include <array>
#include <linux/capability.h>

namespace orvexd::findings {

/// As long as it lives, this thread is root by number only, as the service is: the kernel asks for
/// the modes of files and folders.
class WithoutCapabilities {
public:
    /// @param wanted false: nothing changes.
    explicit WithoutCapabilities(bool wanted);
    ~WithoutCapabilities();
    WithoutCapabilities(const WithoutCapabilities&) = delete;
    WithoutCapabilities& operator=(const WithoutCapabilities&) = delete;

private:
    bool dropped_;
    std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> before_{};
};

/// This process, and what it is going to execute, has no capability any more.
void dropCapabilitiesForGood() noexcept;

} // namespace orvexd::findings
