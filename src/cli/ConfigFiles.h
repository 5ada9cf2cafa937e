// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <string>
#include <vector>

#include "host/GlobalConfig.h"
#include "host/UserPaths.h"

namespace MorvelCli {

// The system-wide configuration file, fixed by the build (MORVEL_SYSTEM_CONFIG).
std::string SystemConfigPath();

// The user's file: morvel.conf by the rule of every per-user file (Plexum::UserFilePath).
std::string UserConfigPath(const Plexum::UserLookup& user = Plexum::UserLookup());

// Which files make the configuration, the one that wins first: the explicit
// file alone (--config, else $MORVEL_CONFIG when not empty), required; else
// the user's file, then the system's, each skipped when it does not exist.
std::vector<Plexum::ConfigLayer> ConfigSearchPath(bool hasConfig, const std::string& config,
                                                  const char* morvelConfig, const Plexum::UserLookup& user,
                                                  const std::string& systemPath);

// The text of the log record that names the files read: "configuration read
// from A" or "... from A and B".
std::string ConfigurationReadRecord(const std::vector<std::string>& files);

// A key the software reads, its built-in default and, for a key that is
// unset by default, what that means.
struct KnownConfigKey {
    const char* name;
    const char* defaultValue;  // nullptr: unset
    const char* unsetMeaning;
};
// In the order --show-config prints them (that of README's table).
const std::vector<KnownConfigKey>& KnownConfigKeys();

// Whether a key's value is never shown: names holding PASSWORD, PASSWD,
// SECRET, TOKEN, CREDENTIAL or KEY in any letter case.
bool IsSecretKeyName(const std::string& key);

// What `morvel --show-config` prints; see README, "Configuration".
std::string ShowConfigText(const Plexum::ConfigSettings& settings);

}  // namespace MorvelCli
