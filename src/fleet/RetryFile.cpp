// SPDX-License-Identifier: GPL-3.0-or-later
#include "fleet/RetryFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "host/Files.h"

namespace Fleet {
namespace {

std::string FolderOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// "cannot write retry file PATH: REASON", the reason from errno.
std::string Failure(const std::string& path) { return "cannot write retry file " + path + ": " + std::strerror(errno); }

}  // namespace

std::string RetryFile::Text(const std::vector<Target>& targets, const std::vector<bool>& succeeded) {
    std::string text;
    for (size_t index = 0; index < targets.size(); ++index) {
        if (index < succeeded.size() && succeeded[index]) continue;
        text += targets[index].bmc.user + "@" + targets[index].label + "\n";
    }
    return text;
}

std::optional<std::string> RetryFile::CheckWritable() const {
    if (m_path.empty()) return "--retry-file needs a file name";
    struct stat status {};
    if (::stat(m_path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
        return "cannot write retry file " + m_path + ": " + std::strerror(EISDIR);
    }
    // The file is written into its folder and renamed: the folder must take a new file.
    if (::access(FolderOf(m_path).c_str(), W_OK | X_OK) != 0) return Failure(m_path);
    return std::nullopt;
}

std::optional<std::string> RetryFile::Write(const std::vector<Target>& targets, const std::vector<bool>& succeeded) const {
    const std::string text = Text(targets, succeeded);
    std::string temporary = m_path + ".XXXXXX";
    Plexum::UniqueFd file(::mkstemp(&temporary[0]));
    if (file.Get() < 0) return Failure(m_path);
    bool written = ::fchmod(file.Get(), 0600) == 0;
    for (size_t done = 0; written && done < text.size();) {
        const ssize_t wrote = ::write(file.Get(), text.data() + done, text.size() - done);
        if (wrote < 0 && errno == EINTR) continue;
        written = wrote > 0;
        if (written) done += static_cast<size_t>(wrote);
    }
    if (!written || ::fsync(file.Get()) != 0 || ::rename(temporary.c_str(), m_path.c_str()) != 0) {
        const std::string error = Failure(m_path);
        ::unlink(temporary.c_str());
        return error;
    }
    return std::nullopt;
}

}  // namespace Fleet
