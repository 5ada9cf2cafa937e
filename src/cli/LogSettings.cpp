// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/LogSettings.h"

#include <algorithm>

#include "host/GlobalConfig.h"

namespace MorvelCli {
namespace {

constexpr int kDefaultMaxBytes = 16 << 20;
constexpr int kDefaultKeep = 3;
// Each rotation renames every kept file: a bound keeps that short.
constexpr int kMostKept = 1000;

}  // namespace

Plexum::LogRotation ConfiguredLogRotation() {
    const int maxBytes = Plexum::GetGlobalConfigValue("LOG_MAX_BYTES", kDefaultMaxBytes);
    const int keep = Plexum::GetGlobalConfigValue("LOG_KEEP", kDefaultKeep);
    Plexum::LogRotation rotation;
    rotation.maxBytes = maxBytes > 0 ? static_cast<uint64_t>(maxBytes) : 0;
    rotation.keep = static_cast<unsigned>(std::clamp(keep, 0, kMostKept));
    return rotation;
}

}  // namespace MorvelCli
