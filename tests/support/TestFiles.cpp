// SPDX-License-Identifier: GPL-3.0-or-later
#include "support/TestFiles.h"

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
    std::string path = m_path + "/" + name;
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

std::string WithoutTimeStamp(const std::string& line) {
    static const char kPattern[] = "dddd-dd-dd dd:dd:dd.ddd ";
    const size_t length = sizeof kPattern - 1;
    bool ok = line.size() > length;
    for (size_t i = 0; ok && i < length; ++i) {
        const char c = line[i];
        ok = kPattern[i] == 'd' ? (c >= '0' && c <= '9') : c == kPattern[i];
    }
    return ok ? line.substr(length) : "MALFORMED " + line;
}

std::string WithoutTimeStampAndLine(const std::string& line) {
    std::string rest = WithoutTimeStamp(line);
    if (rest.compare(0, 10, "MALFORMED ") == 0) return rest;
    // "LEVEL source:line text": drop ":line" from the second field.
    const size_t sourceStart = rest.find(' ');
    const size_t textStart = sourceStart == std::string::npos ? std::string::npos : rest.find(' ', sourceStart + 1);
    const size_t colon = textStart == std::string::npos ? std::string::npos : rest.rfind(':', textStart);
    if (colon == std::string::npos || colon <= sourceStart || colon + 1 == textStart) return "MALFORMED " + line;
    for (size_t i = colon + 1; i < textStart; ++i) {
        if (rest[i] < '0' || rest[i] > '9') return "MALFORMED " + line;
    }
    return rest.substr(0, colon) + rest.substr(textStart);
}
