// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <string>

#include "host/ConnectionInfo.h"

namespace Plexum {

// USER[:PASSWORD]@HOST[:PORT], HOST an IPv6 literal in brackets when it is one.
// The user is the text before the first ':' (or before the last '@' when there
// is no ':' in front of it), the host the text after the last '@', the password
// what lies between. Returns false with a one-line reason that never contains
// the password.
struct BmcTarget {
    std::string user;
    std::string password;
    bool hasPassword = false;
    std::string host;
    bool ipv6 = false;
    int port = 443;
};

bool ParseBmcTarget(const std::string& text, BmcTarget& target, std::string& error);

// The connection record for a parsed target.
PlexumConnection::ConnectionInfo ToConnectionInfo(const BmcTarget& target);

}  // namespace Plexum
