#pragma once

namespace orvexd::bus {

inline constexpr const char* kName = "com.kelvra.orvexd";
inline constexpr const char* kInterface = "com.kelvra.orvexd";
/// Path of the emitted signals; calls are served on every path.
inline constexpr const char* kPath = "/com/kelvra/orvexd";
inline constexpr const char* kMatchRule = "interface='com.kelvra.orvexd'";
inline constexpr const char* kErrorName = "com.kelvra.orvexd.Error";
inline constexpr const char* kPropertiesInterface = "org.freedesktop.DBus.Properties";

} // namespace orvexd::bus
