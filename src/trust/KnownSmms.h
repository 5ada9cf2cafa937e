// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/UserPaths.h"

namespace Trust {

// The known-SMMs file: one line per SMM, "HOST[:PORT] sha256//BASE64 FIRST-SEEN-UTC",
// the pin being the SHA-256 of the DER SubjectPublicKeyInfo of the SMM's key, as
// libcurl's CURLOPT_PINNEDPUBLICKEY takes it. Blank lines and lines starting with
// '#' are comments; any other line that is not of that form is kept as it is
// but never matches. Every change rewrites the file atomically (a new file
// renamed over it) under a lock on FILE.lock, so concurrent runs and threads
// never lose or tear a line; the file and its lock are created with mode 0600.
class KnownSmms {
public:
    struct Entry {
        std::string key;        // HOST, or HOST:PORT when the port is not 443; IPv6 in brackets
        std::string pin;        // sha256//BASE64
        std::string firstSeen;  // YYYY-MM-DDTHH:MM:SSZ
    };

    // What a change did.
    enum class Outcome { Added, AlreadyThere, Different, Removed, Absent, Failed };
    struct Change {
        Outcome outcome = Outcome::Failed;
        std::string pin;    // Added/AlreadyThere: the recorded pin; Different: the pin already recorded
        std::string error;  // Failed: one line
    };

    explicit KnownSmms(std::string path) : m_path(std::move(path)) {}
    const std::string& Path() const { return m_path; }

    // known_smms by the rule of every per-user file (Plexum::UserFilePath);
    // empty when there is no home.
    static std::string DefaultPath(const Plexum::UserLookup& user = Plexum::UserLookup());
    // The key of an SMM: its host in lower case (an IPv6 literal in brackets), ":PORT" unless 443.
    static std::string Key(const std::string& host, bool ipv6, int port);
    // "sha256//" and 44 characters of base64 (32 bytes).
    static bool IsPin(const std::string& text);
    // The entries of a file's text; lines that are not entries are left out.
    static std::vector<Entry> Parse(const std::string& text);

    // The recorded entry of `key`; an error when the file exists but cannot be read.
    struct Found {
        std::optional<Entry> entry;
        std::string error;
    };
    Found Find(const std::string& key) const;

    // Records `pin` for `key` unless the key has a pin already (then the
    // outcome says whether it is the same), creating the file and its folder.
    Change Add(const std::string& key, const std::string& pin, const std::string& firstSeen);
    Change Remove(const std::string& key);

    // Now, as the file writes it.
    static std::string UtcNow();

private:
    std::string m_path;
};

}  // namespace Trust
