// SPDX-License-Identifier: GPL-3.0-or-later
#include "host/UserPaths.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

namespace Plexum {

const char* Environment(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr && value[0] != '\0' ? value : nullptr;
}

std::string PasswordDatabaseHome() {
    // getpwuid_r: getpwuid's static record is not safe if a module runs threads.
    const long suggested = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(suggested > 0 ? static_cast<size_t>(suggested) : 16384);
    passwd record{};
    passwd* entry = nullptr;
    int error = 0;
    while ((error = ::getpwuid_r(::getuid(), &record, buffer.data(), buffer.size(), &entry)) == ERANGE &&
           buffer.size() < (size_t{1} << 20)) {
        buffer.resize(buffer.size() * 2);
    }
    if (error == 0 && entry != nullptr && entry->pw_dir != nullptr) return entry->pw_dir;
    return std::string();
}

std::string HomeDirectory(const UserLookup& lookup) {
    const std::string home = lookup.variable("HOME");
    return home.empty() ? lookup.databaseHome() : home;
}

std::string UserFilePath(UserFolder folder, const std::string& name, const UserLookup& lookup) {
    const bool config = folder == UserFolder::Config;
    const std::string xdg = lookup.variable(config ? "XDG_CONFIG_HOME" : "XDG_STATE_HOME");
    if (!xdg.empty() && xdg[0] == '/') return xdg + "/morvel/" + name;
    const std::string home = HomeDirectory(lookup);
    if (home.empty()) return std::string();
    return home + (config ? "/.config/morvel/" : "/.local/state/morvel/") + name;
}

}  // namespace Plexum
