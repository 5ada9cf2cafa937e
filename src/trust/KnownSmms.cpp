// SPDX-License-Identifier: GPL-3.0-or-later
#include "trust/KnownSmms.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sstream>

#include "host/Files.h"
#include "host/Text.h"

namespace Trust {

using Plexum::Lower;
using Plexum::MakeParentDirectories;
using Plexum::ReadBounded;
using Plexum::ReadEnd;
using Plexum::UniqueFd;

namespace {

// A file of pins is a few lines per SMM; anything far larger is not one.
constexpr size_t kMaxFileBytes = size_t{16} << 20;
constexpr int kDefaultPort = 443;

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

// Reads the whole file; "" and true when it does not exist.
bool ReadText(const std::string& path, std::string& text, std::string& error) {
    text.clear();
    UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.Get() < 0) {
        if (errno == ENOENT) return true;
        error = Failure("cannot read", path);
        return false;
    }
    switch (ReadBounded(file.Get(), kMaxFileBytes, text)) {
        case ReadEnd::Complete: return true;
        case ReadEnd::TooLarge: error = path + " is larger than 16 MiB"; return false;
        case ReadEnd::Failed: break;
    }
    error = Failure("cannot read", path);
    return false;
}

bool WriteAll(int fd, const std::string& text) {
    const char* data = text.data();
    size_t left = text.size();
    while (left > 0) {
        const ssize_t written = ::write(fd, data, left);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        data += written;
        left -= static_cast<size_t>(written);
    }
    return true;
}

// Replaces the file by a new one holding `text`: written, flushed to disk,
// then renamed over the old, so a reader sees the old file or the new, whole.
bool Replace(const std::string& path, const std::string& text, std::string& error) {
    std::string temporary = path + ".XXXXXX";
    UniqueFd file(::mkstemp(&temporary[0]));
    if (file.Get() < 0) {
        error = Failure("cannot write", temporary);
        return false;
    }
    const bool written = ::fchmod(file.Get(), 0600) == 0 && WriteAll(file.Get(), text) && ::fsync(file.Get()) == 0;
    if (!written || ::rename(temporary.c_str(), path.c_str()) != 0) {
        error = Failure("cannot write", path);
        ::unlink(temporary.c_str());
        return false;
    }
    const size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    UniqueFd directory(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.Get() >= 0) static_cast<void>(::fsync(directory.Get()));
    return true;
}

// Holds FILE.lock exclusively while it lives.
class FileLock {
public:
    FileLock(const std::string& path, std::string& error) : m_fd(::open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
        if (m_fd.Get() < 0) {
            error = Failure("cannot lock", path + ".lock");
            return;
        }
        while (::flock(m_fd.Get(), LOCK_EX) != 0) {
            if (errno != EINTR) {
                error = Failure("cannot lock", path + ".lock");
                m_fd = UniqueFd();
                return;
            }
        }
    }
    bool Held() const { return m_fd.Get() >= 0; }

private:
    UniqueFd m_fd;  // closing it releases the lock
};

}  // namespace

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
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        Entry entry;
        std::string extra;
        if (!(words >> entry.key) || entry.key[0] == '#') continue;
        if (!(words >> entry.pin >> entry.firstSeen) || (words >> extra) || !IsPin(entry.pin)) continue;
        entry.key = NormalKey(entry.key);
        entries.push_back(std::move(entry));
    }
    return entries;
}

KnownSmms::Found KnownSmms::Find(const std::string& key) const {
    Found found;
    std::string text;
    if (!ReadText(m_path, text, found.error)) return found;
    const std::string wanted = NormalKey(key);
    for (Entry& entry : Parse(text)) {
        if (entry.key == wanted) {
            found.entry = std::move(entry);
            break;
        }
    }
    return found;
}

KnownSmms::Change KnownSmms::Add(const std::string& key, const std::string& pin, const std::string& firstSeen) {
    Change change;
    if (!MakeParentDirectories(m_path, "known-SMMs", change.error)) return change;
    FileLock lock(m_path, change.error);
    if (!lock.Held()) return change;
    std::string text;
    if (!ReadText(m_path, text, change.error)) return change;
    const std::string wanted = NormalKey(key);
    for (const Entry& entry : Parse(text)) {
        if (entry.key != wanted) continue;
        change.outcome = entry.pin == pin ? Outcome::AlreadyThere : Outcome::Different;
        change.pin = entry.pin;
        return change;
    }
    if (!text.empty() && text.back() != '\n') text += '\n';
    text += wanted + " " + pin + " " + firstSeen + "\n";
    if (!Replace(m_path, text, change.error)) return change;
    change.outcome = Outcome::Added;
    change.pin = pin;
    return change;
}

KnownSmms::Change KnownSmms::Remove(const std::string& key) {
    Change change;
    struct stat status {};
    if (::stat(m_path.c_str(), &status) != 0 && errno == ENOENT) {
        change.outcome = Outcome::Absent;
        return change;
    }
    FileLock lock(m_path, change.error);
    if (!lock.Held()) return change;
    std::string text;
    if (!ReadText(m_path, text, change.error)) return change;
    const std::string wanted = NormalKey(key);
    std::istringstream lines(text);
    std::string kept;
    std::string line;
    bool removed = false;
    while (std::getline(lines, line)) {
        const std::vector<Entry> entry = Parse(line);
        if (!entry.empty() && entry.front().key == wanted) {
            removed = true;
            change.pin = entry.front().pin;
            continue;
        }
        kept += line + "\n";
    }
    if (!removed) {
        change.outcome = Outcome::Absent;
        return change;
    }
    if (!Replace(m_path, kept, change.error)) return change;
    change.outcome = Outcome::Removed;
    return change;
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
