// SPDX-License-Identifier: GPL-3.0-or-later
#include "host/BmcTarget.h"

#include <arpa/inet.h>

#include <cstring>

namespace Plexum {
namespace {

// Texts shown to the user never quote the parsed text: a mistyped target can
// hold pieces of the password anywhere.
const char* const kExpectedForm = "expected USER[:PASSWORD]@HOST[:PORT]";

bool IsControlOrBlank(unsigned char c) { return c <= 0x20 || c == 0x7f; }

bool ParsePort(const std::string& text, int& port) {
    // Digits only: no sign, no blanks, no hexadecimal; five digits at most so
    // the value cannot overflow before the range check.
    if (text.empty() || text.size() > 5) return false;
    int value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') return false;
        value = value * 10 + (c - '0');
    }
    if (value < 1 || value > 65535) return false;
    port = value;
    return true;
}

bool Fail(std::string& error, const std::string& reason) {
    error = reason;
    return false;
}

bool ParseHostPart(const std::string& text, BmcTarget& target, std::string& error) {
    if (text.empty()) return Fail(error, std::string("empty host; ") + kExpectedForm);
    std::string portText;
    bool hasPort = false;
    if (text[0] == '[') {
        const size_t close = text.find(']');
        if (close == std::string::npos) return Fail(error, "unclosed '[' in the host; write an IPv6 address as [ADDRESS] or [ADDRESS]:PORT");
        target.host = text.substr(1, close - 1);
        const std::string rest = text.substr(close + 1);
        if (!rest.empty()) {
            if (rest[0] != ':') return Fail(error, "unexpected text after ']' in the host; write an IPv6 address as [ADDRESS] or [ADDRESS]:PORT");
            hasPort = true;
            portText = rest.substr(1);
        }
        if (target.host.empty()) return Fail(error, "empty IPv6 address between '[' and ']'");
        in6_addr address{};
        if (::inet_pton(AF_INET6, target.host.c_str(), &address) != 1) {
            return Fail(error, "the host in brackets is not an IPv6 address");
        }
        target.ipv6 = true;
    } else {
        const size_t colon = text.find(':');
        if (colon != std::string::npos && text.find(':', colon + 1) != std::string::npos) {
            return Fail(error, "an IPv6 address must be written in brackets, e.g. [2001:db8::10] or [2001:db8::10]:443");
        }
        target.host = text.substr(0, colon);
        if (colon != std::string::npos) {
            hasPort = true;
            portText = text.substr(colon + 1);
        }
        if (target.host.empty()) return Fail(error, std::string("empty host; ") + kExpectedForm);
        for (const char c : target.host) {
            const unsigned char u = static_cast<unsigned char>(c);
            if (IsControlOrBlank(u)) return Fail(error, "blank or control character in the host");
            // These would change the meaning of the URL built from the host.
            if (std::strchr("[]/?#\\", c) != nullptr) return Fail(error, "invalid character in the host");
        }
    }
    target.port = 443;
    if (hasPort && !ParsePort(portText, target.port)) {
        return Fail(error, "invalid port; it must be a number from 1 to 65535");
    }
    return true;
}

}  // namespace

bool ParseBmcTarget(const std::string& text, BmcTarget& target, std::string& error) {
    BmcTarget parsed;
    const size_t at = text.rfind('@');
    if (at == std::string::npos) return Fail(error, std::string("no '@' before the host; ") + kExpectedForm);
    const std::string credentials = text.substr(0, at);
    const size_t colon = credentials.find(':');
    if (colon == std::string::npos) {
        parsed.user = credentials;
    } else {
        parsed.user = credentials.substr(0, colon);
        parsed.password = credentials.substr(colon + 1);
        parsed.hasPassword = true;
    }
    if (parsed.user.empty()) return Fail(error, std::string("empty user name; ") + kExpectedForm);
    if (!ParseHostPart(text.substr(at + 1), parsed, error)) return false;
    target = std::move(parsed);
    return true;
}

PlexumConnection::ConnectionInfo ToConnectionInfo(const BmcTarget& target) {
    PlexumConnection::ConnectionInfo info;
    info.address = target.host;
    info.port = target.port;
    info.username = target.user;
    info.password = target.password;
    info.addressType = target.ipv6 ? PlexumConnection::kAddressTypeIpv6 : PlexumConnection::kAddressTypeHostOrIpv4;
    return info;
}

}  // namespace Plexum
