#include "trilba/core/SystemInfo.h"

#include "Answers.h"

namespace trilba::core {

void SystemInfo::getPlatformId(std::string& id) {
    id = answersNow()->platformId;
}
void SystemInfo::getImei(std::string& imei) {
    imei = answersNow()->imei;
}
void SystemInfo::getImsi(std::string& imsi) {
    imsi = answersNow()->imsi;
}
void SystemInfo::getMMF(std::string& firmwareId) {
    firmwareId = answersNow()->mmf;
}

} // namespace trilba::core
