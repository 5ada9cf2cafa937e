// SPDX-License-Identifier: GPL-3.0-or-later
#include "trust/KnownSmms.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "host/Files.h"
#include "host/Log.h"
#include "host/Text.h"

namespace Trust {

using Plexum::FileIdentity;
using Plexum::FileLock;
using Plexum::Lower;
using Plexum::MakeParentDirectories;
using Plexum::ReadBounded;
using Plexum::ReadEnd;
using Plexum::UniqueFd;
using Plexum::WriteAll;

namespace {

// A file of pins is a few lines per SMM; anything far larger is not one.
constexpr size_t kMaxFileBytes = size_t{16} << 20;
constexpr int kDefaultPort = 443;

// The log record of each read of the file: one per run unless the file changes.
constexpr char kLogSource[] = "src/trust/KnownSmms";
constexpr int kReadLogLine = 1;

std::string Failure(const std::string& what, const std::string& path) {
    return what + " " + path + ": " + std::strerror(errno);
}

// "smm1:443" and "SMM1" are one key: lower case, no default port. Only the
// port word itself is dropped ("[::1]:443", "smm1:443"), so a key written back
// normalises to itself.
std::string NormalKey(const std::string& written) {
    std::string key = Lower(written);
    const std::string defaultPort = ":" + std::to_string(kDefaultPort);
    const bool bracketed = !key.empty() && key[0] == '[';
    const size_t hostEnd = bracketed ? key.find(']') + 1 : key.find(':');
    if (hostEnd != 0 && hostEnd != std::string::npos && key.compare(hostEnd, std::string::npos, defaultPort) == 0) {
        key.resize(hostEnd);
    }
    return key;
}

// The blanks that part words, as a stream's >> sees them.
bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r'; }

// The words of a line: at most `max`, and false when there are more.
bool SplitWords(std::string_view line, std::string_view* words, size_t max, size_t& count) {
    count = 0;
    size_t at = 0;
    while (true) {
        while (at < line.size() && IsBlank(line[at])) ++at;
        if (at == line.size()) return true;
        const size_t start = at;
        while (at < line.size() && !IsBlank(line[at])) ++at;
        if (count == max) return false;
        words[count++] = line.substr(start, at - start);
    }
}

// The entry a line holds: exactly three words, the second a pin, the first no comment.
std::optional<KnownSmms::Entry> ParseLine(std::string_view line) {
    std::string_view words[3];
    size_t count = 0;
    if (!SplitWords(line, words, 3, count) || count != 3 || words[0][0] == '#') return std::nullopt;
    KnownSmms::Entry entry{NormalKey(std::string(words[0])), std::string(words[1]), std::string(words[2])};
    if (!KnownSmms::IsPin(entry.pin)) return std::nullopt;
    return entry;
}

// Calls `each` with every line of `text`, without its line end.
template <typename Each>
void ForEachLine(const std::string& text, Each each) {
    size_t start = 0;
    while (start < text.size()) {
        const size_t end = text.find('\n', start);
        const size_t stop = end == std::string::npos ? text.size() : end;
        each(std::string_view(text).substr(start, stop - start));
        start = stop + 1;
    }
}

// Reads the open file to its end; "" or why not.
std::string ReadOpen(int fd, const std::string& path, std::string& text) {
    switch (ReadBounded(fd, kMaxFileBytes, text)) {
        case ReadEnd::Complete: return std::string();
        case ReadEnd::TooLarge: return path + " is larger than 16 MiB";
        case ReadEnd::Failed: break;
    }
    return Failure("cannot read", path);
}

// Reads the whole file; "" and no text when it does not exist.
std::string ReadText(const std::string& path, std::string& text) {
    text.clear();
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.Get() < 0) return errno == ENOENT ? std::string() : Failure("cannot read", path);
    return ReadOpen(file.Get(), path, text);
}

// Flushes the folder that holds `path`, so that a file created or renamed there stays.
void SyncFolderOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    const UniqueFd directory(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.Get() >= 0) static_cast<void>(::fsync(directory.Get()));
}

// Replaces the file by a new one holding `text`: written, flushed to disk,
// then renamed over the old, so a reader sees the old file or the new, whole.
bool Replace(const std::string& path, const std::string& text, std::string& error) {
    std::string temporary = path + ".XXXXXX";
    const UniqueFd file(::mkstemp(&temporary[0]));
    if (file.Get() < 0) {
        error = Failure("cannot write", temporary);
        return false;
    }
    const bool written =
        ::fchmod(file.Get(), 0600) == 0 && WriteAll(file.Get(), text.data(), text.size()) && ::fsync(file.Get()) == 0;
    if (!written || ::rename(temporary.c_str(), path.c_str()) != 0) {
        error = Failure("cannot write", path);
        ::unlink(temporary.c_str());
        return false;
    }
    SyncFolderOf(path);
    return true;
}

// Opens the file for appending, creating it private; `created` says whether it was new.
UniqueFd OpenForAppend(const std::string& path, bool& created) {
    UniqueFd file(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    created = file.Get() >= 0;
    // Whatever the umask let through, the file is private.
    if (created && ::fchmod(file.Get(), 0600) != 0) return UniqueFd();
    if (!created && errno == EEXIST) file = UniqueFd(::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    return file;
}

}  // namespace

KnownSmms::~KnownSmms() { Sync(); }

std::string KnownSmms::DefaultPath(const Plexum::UserLookup& user) {
    return Plexum::UserFilePath(Plexum::UserFolder::State, "known_smms", user);
}

std::string KnownSmms::Key(const std::string& host, bool ipv6, int port) {
    std::string key = ipv6 ? "[" + host + "]" : host;
    if (port != kDefaultPort) key += ":" + std::to_string(port);
    return NormalKey(key);
}

bool KnownSmms::IsPin(const std::string& text) {
    const std::string prefix = "sha256//";
    if (text.size() != prefix.size() + 44 || text.compare(0, prefix.size(), prefix) != 0) return false;
    // 32 bytes in base64: 43 characters of the alphabet and one '='.
    for (size_t i = prefix.size(); i + 1 < text.size(); ++i) {
        const char c = text[i];
        const bool ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/';
        if (!ok) return false;
    }
    return text.back() == '=';
}

std::vector<KnownSmms::Entry> KnownSmms::Parse(const std::string& text) {
    std::vector<Entry> entries;
    ForEachLine(text, [&entries](std::string_view line) {
        if (auto entry = ParseLine(line)) entries.push_back(std::move(*entry));
    });
    return entries;
}

void KnownSmms::Refresh(bool locked) const {
    struct stat status {};
    if (::stat(m_path.c_str(), &status) != 0) {
        m_snapshot = Snapshot();
        m_snapshot.current = errno == ENOENT;
        if (errno != ENOENT) m_snapshot.error = Failure("cannot read", m_path);
        return;
    }
    if (m_snapshot.current && m_snapshot.exists && m_snapshot.identity == FileIdentity::Of(status)) return;
    Read(locked);
}

void KnownSmms::Read(bool locked) const {
    m_snapshot = Snapshot();
    // A reader waits for a writer's line to be whole. Where no run has written
    // yet there is no lock file, and one that may not be created is not needed.
    std::optional<FileLock> shared;
    if (!locked) shared.emplace(m_path + ".lock", FileLock::Kind::Shared, false);
    const UniqueFd file(::open(m_path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status {};
    if (file.Get() < 0 || ::fstat(file.Get(), &status) != 0) {
        m_snapshot.current = errno == ENOENT;
        if (errno != ENOENT) m_snapshot.error = Failure("cannot read", m_path);
        return;
    }
    m_snapshot.current = true;
    m_snapshot.exists = true;
    m_snapshot.identity = FileIdentity::Of(status);
    std::string text;
    m_snapshot.error = ReadOpen(file.Get(), m_path, text);
    if (!m_snapshot.error.empty()) return;
    m_snapshot.endsWithLineEnd = text.empty() || text.back() == '\n';
    // The first line of a key is the one that counts.
    ForEachLine(text, [this](std::string_view line) {
        if (auto entry = ParseLine(line)) m_snapshot.index.emplace(entry->key, std::move(*entry));
    });
    const size_t pins = m_snapshot.index.size();
    PLEXUM_LOG(4, kLogSource, kReadLogLine) << "read " << pins << (pins == 1 ? " pin" : " pins") << " from " << m_path;
}

std::string KnownSmms::Load() const {
    const std::lock_guard<std::mutex> hold(m_mutex);
    Refresh(false);
    return m_snapshot.error;
}

KnownSmms::Found KnownSmms::Find(const std::string& key) const {
    Found found;
    const std::lock_guard<std::mutex> hold(m_mutex);
    Refresh(false);
    found.error = m_snapshot.error;
    if (!found.error.empty()) return found;
    const auto entry = m_snapshot.index.find(NormalKey(key));
    if (entry != m_snapshot.index.end()) found.entry = entry->second;
    return found;
}

KnownSmms::Change KnownSmms::Add(const std::string& key, const std::string& pin, const std::string& firstSeen) {
    Change change;
    const std::lock_guard<std::mutex> hold(m_mutex);
    if (!MakeParentDirectories(m_path, "known-SMMs", change.error)) return change;
    const FileLock lock(m_path + ".lock", FileLock::Kind::Exclusive, true);
    if (!lock.Held()) {
        change.error = lock.Error();
        return change;
    }
    // Under the lock: what another run recorded meanwhile counts.
    Refresh(true);
    if (!m_snapshot.error.empty()) {
        change.error = m_snapshot.error;
        return change;
    }
    const std::string wanted = NormalKey(key);
    const auto recorded = m_snapshot.index.find(wanted);
    if (recorded != m_snapshot.index.end()) {
        change.outcome = recorded->second.pin == pin ? Outcome::AlreadyThere : Outcome::Different;
        change.pin = recorded->second.pin;
        change.firstSeen = recorded->second.firstSeen;
        return change;
    }
    if (!Append(wanted + " " + pin + " " + firstSeen + "\n", change.error)) return change;
    m_snapshot.index.emplace(wanted, Entry{wanted, pin, firstSeen});
    change.outcome = Outcome::Added;
    change.pin = pin;
    change.firstSeen = firstSeen;
    return change;
}

// One write at the end of the file, after a line end when the last line has none.
bool KnownSmms::Append(const std::string& line, std::string& error) {
    bool created = false;
    const UniqueFd file = OpenForAppend(m_path, created);
    if (file.Get() < 0) {
        error = Failure("cannot write", m_path);
        return false;
    }
    m_created = m_created || created;
    const std::string text = m_snapshot.exists && !m_snapshot.endsWithLineEnd ? "\n" + line : line;
    struct stat status {};
    if (!WriteAll(file.Get(), text.data(), text.size()) || ::fstat(file.Get(), &status) != 0) {
        error = Failure("cannot write", m_path);
        m_snapshot.current = false;  // what reached the file is not known: read it again
        return false;
    }
    m_unsynced = true;
    m_snapshot.exists = true;
    m_snapshot.endsWithLineEnd = true;
    m_snapshot.identity = FileIdentity::Of(status);
    return true;
}

KnownSmms::Change KnownSmms::Remove(const std::string& key) {
    Change change;
    const std::lock_guard<std::mutex> hold(m_mutex);
    struct stat status {};
    if (::stat(m_path.c_str(), &status) != 0 && errno == ENOENT) {
        change.outcome = Outcome::Absent;
        return change;
    }
    const FileLock lock(m_path + ".lock", FileLock::Kind::Exclusive, true);
    if (!lock.Held()) {
        change.error = lock.Error();
        return change;
    }
    std::string text;
    change.error = ReadText(m_path, text);
    if (!change.error.empty()) return change;
    const std::string wanted = NormalKey(key);
    std::string kept;
    bool removed = false;
    ForEachLine(text, [&](std::string_view line) {
        const std::optional<Entry> entry = ParseLine(line);
        if (entry && entry->key == wanted) {
            removed = true;
            change.pin = entry->pin;
            return;
        }
        kept.append(line).append("\n");
    });
    if (!removed) {
        change.outcome = Outcome::Absent;
        return change;
    }
    m_snapshot.current = false;
    if (!Replace(m_path, kept, change.error)) return change;
    change.outcome = Outcome::Removed;
    return change;
}

void KnownSmms::Sync() {
    if (!m_unsynced) return;
    const UniqueFd file(::open(m_path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.Get() >= 0) static_cast<void>(::fsync(file.Get()));
    if (m_created) SyncFolderOf(m_path);
    m_unsynced = false;
}

std::string KnownSmms::UtcNow() {
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    char text[32];
    const size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return std::string(text, length);
}

}  // namespace Trust
