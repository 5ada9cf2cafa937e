// SPDX-License-Identifier: GPL-3.0-or-later
#include "host/Files.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Plexum {

UniqueFd::~UniqueFd() {
    if (m_fd >= 0) ::close(m_fd);
}

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
        if (m_fd >= 0) ::close(m_fd);
        m_fd = other.Release();
    }
    return *this;
}

int UniqueFd::Release() {
    const int fd = m_fd;
    m_fd = -1;
    return fd;
}

bool WriteAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        data += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

FileIdentity FileIdentity::Of(const struct stat& status) {
    constexpr int64_t kNs = 1000000000;
    FileIdentity identity;
    identity.device = status.st_dev;
    identity.inode = status.st_ino;
    identity.size = status.st_size;
    identity.modifiedNs = static_cast<int64_t>(status.st_mtim.tv_sec) * kNs + status.st_mtim.tv_nsec;
    identity.changedNs = static_cast<int64_t>(status.st_ctim.tv_sec) * kNs + status.st_ctim.tv_nsec;
    return identity;
}

bool FileIdentity::operator==(const FileIdentity& other) const {
    return SameFile(other) && size == other.size && modifiedNs == other.modifiedNs && changedNs == other.changedNs;
}

FileLock::FileLock(const std::string& path, Kind kind, bool create)
    : m_fd(::open(path.c_str(), (create ? O_RDWR | O_CREAT : O_RDONLY) | O_CLOEXEC, 0600)) {
    int failure = m_fd.Get() < 0 ? errno : 0;
    while (failure == 0 && ::flock(m_fd.Get(), kind == Kind::Exclusive ? LOCK_EX : LOCK_SH) != 0) {
        if (errno != EINTR) failure = errno;
    }
    if (failure != 0) {
        m_fd = UniqueFd();
        m_errno = failure;
        m_error = "cannot lock " + path + ": " + std::strerror(failure);
    }
}

bool MakeParentDirectories(const std::string& path, const std::string& kind, std::string& error) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
        const std::string dir = path.substr(0, slash);
        if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
            error = "cannot create ";
            error.append(kind).append(" directory ").append(dir).append(": ").append(std::strerror(errno));
            return false;
        }
    }
    return true;
}

ReadEnd ReadBounded(int fd, size_t maxBytes, std::string& text) {
    text.clear();
    char buffer[65536];
    while (text.size() <= maxBytes) {
        // The byte past the limit is asked for, without overflowing at SIZE_MAX.
        const size_t left = maxBytes - text.size();
        const ssize_t got = ::read(fd, buffer, left < sizeof buffer ? left + 1 : sizeof buffer);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return ReadEnd::Failed;
        if (got == 0) return ReadEnd::Complete;
        text.append(buffer, static_cast<size_t>(got));
    }
    return ReadEnd::TooLarge;
}

std::string LoadFailure(const std::string& path) {
    const char* const reason = ::dlerror();
    std::string text = reason != nullptr ? reason : "unknown error";
    if (text.compare(0, path.size() + 2, path + ": ") == 0) text.erase(0, path.size() + 2);
    return text;
}

}  // namespace Plexum
