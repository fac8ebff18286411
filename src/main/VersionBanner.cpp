#include "main/VersionBanner.h"

#include "support/Version.h"

#include <cstdio>
#include <string>
#include <trilba/core/SystemInfo.h>

namespace orvexd {

void printVersionBanner() {
    std::string platformId;
    trilba::core::SystemInfo::getPlatformId(platformId);
    std::printf("trilba %i.%i.%i [%s] orvexd built: %s %s\n", version::kMajor, version::kMinor,
                version::kBuild, platformId.c_str(), __DATE__, __TIME__);
}

} // namespace orvexd
