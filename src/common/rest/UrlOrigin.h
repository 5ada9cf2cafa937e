// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <optional>
#include <string>

namespace Rest {

// Where a URL leads: scheme, host and port, compared when a secret must stay
// with the SMM it was meant for (a session token, the session to delete).
struct Origin {
    std::string scheme;  // lower case
    std::string host;    // lower case; an IPv6 literal in brackets, as a URL writes it
    int port = 0;        // the scheme's default when the URL writes none

    bool operator==(const Origin& other) const {
        return scheme == other.scheme && host == other.host && port == other.port;
    }
    bool operator!=(const Origin& other) const { return !(*this == other); }
};

// The origin of an absolute URL; empty when it has none (no scheme, no host, a bad port).
std::optional<Origin> OriginOf(const std::string& url);

// `reference` (absolute, or relative as a Location header may hold it)
// resolved against the absolute URL `base`; empty when either cannot be parsed.
std::string ResolveReference(const std::string& base, const std::string& reference);

}  // namespace Rest
