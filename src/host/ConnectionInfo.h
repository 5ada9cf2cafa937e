// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <string>

namespace Plexum {
namespace PlexumConnection {

// One managed controller's connection, as the host parsed it from --bmc.
struct ConnectionInfo {
    std::string address;       // host name or address; IPv6 literals without brackets
    int32_t port = 0;          // Redfish HTTPS port
    std::string username;
    std::string password;
    int32_t addressType = 0;   // kAddressTypeIpv6 when address is an IPv6 literal
};

constexpr int32_t kAddressTypeHostOrIpv4 = 0;
constexpr int32_t kAddressTypeIpv6 = 1;

}  // namespace PlexumConnection
}  // namespace Plexum
