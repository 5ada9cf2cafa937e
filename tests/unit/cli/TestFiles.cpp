#include "TestFiles.h"

#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace {

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) { return ::remove(path); }

}  // namespace

ScratchDirectory::ScratchDirectory() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && base[0] != '\0' ? base : "/tmp") + "/morvel-cli-test-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (::mkdtemp(buffer.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    m_path = buffer.data();
}

ScratchDirectory::~ScratchDirectory() { ::nftw(m_path.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS); }

std::string ScratchDirectory::Write(const std::string& name, const std::string& content, unsigned mode) const {
    const std::string path = m_path + "/" + name;
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) throw std::runtime_error("cannot create " + path);
    const ssize_t written = ::write(fd, content.data(), content.size());
    ::fchmod(fd, static_cast<mode_t>(mode));
    ::close(fd);
    if (written != static_cast<ssize_t>(content.size())) throw std::runtime_error("cannot write " + path);
    return path;
}

std::string ReadWholeFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

int FileMode(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) return -1;
    return static_cast<int>(status.st_mode & 07777);
}
