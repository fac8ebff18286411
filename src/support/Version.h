#pragma once

/// Version of the platform's client library that this daemon speaks for.
namespace orvexd::version {

inline constexpr int kMajor = 3;
inline constexpr int kMinor = 0;
inline constexpr int kBuild = 1415;

} // namespace orvexd::version
