// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/Files.h"
#include "host/UserPaths.h"

namespace Trust {

// The known-SMMs file: one line per SMM, "HOST[:PORT] sha256//BASE64 FIRST-SEEN-UTC",
// the pin being the SHA-256 of the DER SubjectPublicKeyInfo of the SMM's key, as
// libcurl's CURLOPT_PINNEDPUBLICKEY takes it. Blank lines and lines starting with
// '#' are comments; any other line that is not of that form is kept as it is
// but never matches.
//
// One object serves a whole run, from any number of threads: the file is read
// once into an index and read again only when it is no longer the file that
// was read (another inode, size or change time). Writers take a lock on
// FILE.lock: a new pin is appended as one line in one write, a removal
// rewrites the file atomically (a new file renamed over it); readers hold the
// same lock shared while they read, so nobody sees a torn line and two runs
// at once lose no line. The file and its lock are created with mode 0600.
// Appended pins reach the disk (fsync) once, when the object goes, rather than
// a flush per SMM under the lock: a pin lost to a power cut before then is
// recorded again at the next first contact, as if that run had not happened.
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
        std::string pin;        // Added/AlreadyThere: the recorded pin; Different: the pin already recorded
        std::string firstSeen;  // Added/AlreadyThere/Different: when the recorded pin was first seen
        std::string error;      // Failed: one line
    };

    explicit KnownSmms(std::string path) : m_path(std::move(path)) {}
    ~KnownSmms();
    KnownSmms(const KnownSmms&) = delete;
    KnownSmms& operator=(const KnownSmms&) = delete;
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
    // Brings the index up to date with the file now (Find does it too); "" or why the file cannot be read.
    std::string Load() const;

    // Records `pin` for `key` unless the key has a pin already (then the
    // outcome says whether it is the same), creating the file and its folder.
    Change Add(const std::string& key, const std::string& pin, const std::string& firstSeen);
    Change Remove(const std::string& key);

    // Now, as the file writes it.
    static std::string UtcNow();

private:
    // The file as last read: what it holds, or why it could not be read.
    struct Snapshot {
        bool current = false;  // false: read it again before answering
        bool exists = false;
        Plexum::FileIdentity identity;
        bool endsWithLineEnd = true;
        std::string error;
        std::unordered_map<std::string, Entry> index;
    };

    // These run with m_mutex held; `locked`: FILE.lock is held exclusively by the caller.
    void Refresh(bool locked) const;
    void Read(bool locked) const;
    bool Append(const std::string& line, std::string& error);
    void Sync();

    std::string m_path;
    mutable std::mutex m_mutex;
    mutable Snapshot m_snapshot;
    bool m_unsynced = false;  // pins appended and not yet on disk
    bool m_created = false;   // and the file was created by this object
};

}  // namespace Trust
