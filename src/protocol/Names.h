#pragma once

/// Names that clients, the bus configuration and the server know. This folder includes nothing, so
/// that tools, tests and clients can use it without the daemon's libraries.
namespace orvexd::bus {

inline constexpr const char* kName = "com.kelvra.orvexd";
inline constexpr const char* kInterface = "com.kelvra.orvexd";
/// Path of the emitted signals; calls are served on every path.
inline constexpr const char* kPath = "/com/kelvra/orvexd";
inline constexpr const char* kMatchRule = "interface='com.kelvra.orvexd'";
inline constexpr const char* kErrorName = "com.kelvra.orvexd.Error";
inline constexpr const char* kPropertiesInterface = "org.freedesktop.DBus.Properties";

// Methods that clients call.
inline constexpr const char* kConnect = "connect";
inline constexpr const char* kDisconnect = "disconnect";
inline constexpr const char* kAttach = "attach";
inline constexpr const char* kPrepare = "prepare";
inline constexpr const char* kSendData = "sendData";
inline constexpr const char* kGetData = "getData";
inline constexpr const char* kQuit = "quit";
inline constexpr const char* kQuitDelayed = "quitDelayed";
/// The one signal that clients send.
inline constexpr const char* kCancel = "cancel";

// Signals that the daemon sends, and its property.
inline constexpr const char* kConnectionStatusChanged = "connectionStatusChanged";
inline constexpr const char* kRequestData = "requestData";
inline constexpr const char* kErrorSignal = "errorSignal";
inline constexpr const char* kConnectionStatus = "connectionStatus";

} // namespace orvexd::bus

/// Version of the platform's client library that this daemon speaks for; the banner and the SLP
/// message carry it.
namespace orvexd::version {

inline constexpr int kMajor = 3;
inline constexpr int kMinor = 0;
inline constexpr int kBuild = 1415;

} // namespace orvexd::version
