// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <functional>
#include <string>

namespace Plexum {

// The value of an environment variable that is set and not empty, else null:
// an empty variable means the same as none.
const char* Environment(const char* name);

// The running user's home directory in the password database (getpwuid_r),
// or empty when it has none.
std::string PasswordDatabaseHome();

// What decides where a user's files are: the environment and the password
// database. The process's own by default; tests hand in others.
struct UserLookup {
    // The variable's value; empty when it is unset or empty.
    std::function<std::string(const char* name)> variable = [](const char* name) {
        const char* value = Environment(name);
        return std::string(value != nullptr ? value : "");
    };
    std::function<std::string()> databaseHome = PasswordDatabaseHome;
};

// The user's home: $HOME when set and not empty, else the password
// database's; empty when neither knows one.
std::string HomeDirectory(const UserLookup& lookup = UserLookup());

// The two kinds of per-user file: what the user writes (the configuration),
// and what morvel keeps for itself (the log, the known SMMs).
enum class UserFolder { Config, State };

// One rule for every per-user file of morvel:
//   Config: $XDG_CONFIG_HOME/morvel/NAME   State: $XDG_STATE_HOME/morvel/NAME
// when that variable is an absolute path (the XDG base directory rules ignore
// a relative one), else HOME/.config/morvel/NAME or HOME/.local/state/morvel/NAME
// with HOME as HomeDirectory finds it; empty when there is no home at all.
std::string UserFilePath(UserFolder folder, const std::string& name, const UserLookup& lookup = UserLookup());

}  // namespace Plexum
