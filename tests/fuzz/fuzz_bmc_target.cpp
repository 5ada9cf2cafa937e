// SPDX-License-Identifier: GPL-3.0-or-later
// The host's --bmc parsing: any text. A parsed target written back in its
// canonical form parses to the same target; a refused one leaves the target
// as it was and gives a one-line reason.
//
// Input: the --bmc text.

#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "host/BmcTarget.h"

namespace {

bool SameTarget(const Plexum::BmcTarget& left, const Plexum::BmcTarget& right) {
    return left.user == right.user && left.password == right.password && left.hasPassword == right.hasPassword &&
           left.host == right.host && left.ipv6 == right.ipv6 && left.port == right.port;
}

std::string Canonical(const Plexum::BmcTarget& target) {
    std::string text = target.user;
    if (target.hasPassword) text += ":" + target.password;
    text += "@";
    text += target.ipv6 ? "[" + target.host + "]" : target.host;
    return text + ":" + std::to_string(target.port);
}

bool HasControl(const std::string& text) {
    for (const char c : text) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (u < 0x20 || u == 0x7f) return true;
    }
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);

    Plexum::BmcTarget untouched;
    untouched.user = "before";
    untouched.host = "before.invalid";
    untouched.port = 7;
    Plexum::BmcTarget target = untouched;
    std::string error;
    if (!Plexum::ParseBmcTarget(text, target, error)) {
        FUZZ_CHECK(SameTarget(target, untouched));
        FUZZ_CHECK(!error.empty() && !HasControl(error));
        return 0;
    }

    FUZZ_CHECK(!target.user.empty() && target.user.find(':') == std::string::npos);
    FUZZ_CHECK(!target.host.empty() && target.host.find('@') == std::string::npos);
    FUZZ_CHECK(target.port >= 1 && target.port <= 65535);
    FUZZ_CHECK(target.hasPassword || target.password.empty());
    if (!target.ipv6) FUZZ_CHECK(target.host.find_first_of(":[]/?#\\") == std::string::npos && !HasControl(target.host));

    Plexum::BmcTarget again;
    std::string againError;
    FUZZ_CHECK(Plexum::ParseBmcTarget(Canonical(target), again, againError));
    FUZZ_CHECK(SameTarget(again, target));

    const Plexum::PlexumConnection::ConnectionInfo info = Plexum::ToConnectionInfo(target);
    FUZZ_CHECK(info.address == target.host && info.port == target.port && info.username == target.user &&
               info.password == target.password);
    FUZZ_CHECK(info.addressType == (target.ipv6 ? Plexum::PlexumConnection::kAddressTypeIpv6
                                                : Plexum::PlexumConnection::kAddressTypeHostOrIpv4));
    return 0;
}
