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

}  // namespace Plexum
