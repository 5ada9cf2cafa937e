// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <map>
#include <string>
#include <utility>

#include "host/UserPaths.h"

// A user lookup that sees only `variables` (any other is unset) and finds
// `databaseHome` in the password database ("": no entry).
inline Plexum::UserLookup FakeUserLookup(std::map<std::string, std::string> variables,
                                         std::string databaseHome = std::string()) {
    Plexum::UserLookup lookup;
    lookup.variable = [variables = std::move(variables)](const char* name) {
        const auto found = variables.find(name);
        return found == variables.end() ? std::string() : found->second;
    };
    lookup.databaseHome = [databaseHome = std::move(databaseHome)] { return databaseHome; };
    return lookup;
}
