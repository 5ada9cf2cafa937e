// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>

namespace Plexum {

// A file descriptor with one owner, closed when the owner goes.
class UniqueFd {
public:
    explicit UniqueFd(int fd = -1) : m_fd(fd) {}
    ~UniqueFd();
    UniqueFd(UniqueFd&& other) noexcept : m_fd(other.Release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept;
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int Get() const { return m_fd; }
    int Release();

private:
    int m_fd;
};

// Writes all `size` bytes, going on after a partial write or an interrupted
// one; false when a write fails (errno says why) or writes nothing.
bool WriteAll(int fd, const char* data, size_t size);

// What tells a file from another, and from itself before a change: its
// device and inode, its size and the times of its last change.
struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    int64_t modifiedNs = 0;
    int64_t changedNs = 0;

    static FileIdentity Of(const struct stat& status);
    bool SameFile(const FileIdentity& other) const { return device == other.device && inode == other.inode; }
    bool operator==(const FileIdentity& other) const;
    bool operator!=(const FileIdentity& other) const { return !(*this == other); }
};

// An flock(2) lock on a lock file, held while the object lives. Runs that
// share a file agree on its lock file (FILE.lock) and take it around every
// change; the lock file itself never goes away.
class FileLock {
public:
    enum class Kind { Exclusive, Shared };
    // Opens `path` (created with mode 0600 when `create`) and waits for the lock.
    FileLock(const std::string& path, Kind kind, bool create);
    bool Held() const { return m_fd.Get() >= 0; }
    // When not held: errno of the failure, and "cannot lock PATH: REASON".
    int Errno() const { return m_errno; }
    const std::string& Error() const { return m_error; }

private:
    UniqueFd m_fd;  // closing it releases the lock
    int m_errno = 0;
    std::string m_error;
};

// Creates every missing folder above `path` with mode 0700 (what they will
// hold names SMMs and users); false and "cannot create KIND directory DIR:
// REASON" on failure.
bool MakeParentDirectories(const std::string& path, const std::string& kind, std::string& error);

// How ReadBounded ended: at the end of the file, past the limit, or on a
// read error (errno says which).
enum class ReadEnd { Complete, TooLarge, Failed };

// Reads `fd` to its end into `text`, but never more than `maxBytes` + 1 bytes,
// so that a file over the limit is told apart. The buffer grows with what is
// read: a configuration file of a few lines costs a few lines, not the limit.
ReadEnd ReadBounded(int fd, size_t maxBytes, std::string& text);

// Why dlopen() of `path` just failed: dlerror()'s text without the file name
// it usually starts with, which the caller's message names already.
std::string LoadFailure(const std::string& path);

}  // namespace Plexum
