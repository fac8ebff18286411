#pragma once

#include "trilba/Export.h"

#include <string>

namespace trilba::core {

/// Who this device is: the values of `[System]` in the platform file as it is at the moment of the
/// call, or without that group what a live source said last. Any thread; reads the file; never
/// fails: what nobody tells has its default.
class TRILBA_API SystemInfo {
public:
    /// Fills `id` with `PlatformId`, default "linux-generic", or the system's own of a live source.
    static void getPlatformId(std::string& id);

    /// Fills `imei` with the device identity `Imei`, default empty.
    static void getImei(std::string& imei);

    /// Fills `imsi` with the subscriber identity `Imsi`, default empty.
    static void getImsi(std::string& imsi);

    /// Fills `firmwareId` with `Mmf`, default empty.
    static void getMMF(std::string& firmwareId);
};

} // namespace trilba::core
