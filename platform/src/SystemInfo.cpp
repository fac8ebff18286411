#include "trilba/core/SystemInfo.h"

#include "PlatformFile.h"

namespace trilba::core {

void SystemInfo::getPlatformId(std::string& id) {
    id = PlatformFile::now()->platformId;
}
void SystemInfo::getImei(std::string& imei) {
    imei = PlatformFile::now()->imei;
}
void SystemInfo::getImsi(std::string& imsi) {
    imsi = PlatformFile::now()->imsi;
}
void SystemInfo::getMMF(std::string& firmwareId) {
    firmwareId = PlatformFile::now()->mmf;
}

} // namespace trilba::core
