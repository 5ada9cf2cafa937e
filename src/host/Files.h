// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

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
