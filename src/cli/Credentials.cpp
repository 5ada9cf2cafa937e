// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/Credentials.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <thread>

#include "fleet/HostRange.h"
#include "host/Files.h"
#include "host/Text.h"

extern char** environ;

namespace MorvelCli {

using Fleet::ExpandHostList;
using Fleet::kMaxExpandedHosts;
using Plexum::Lower;
using Plexum::ReadBounded;
using Plexum::ReadEnd;
using Plexum::Trim;
using Plexum::UniqueFd;

namespace {

// A credentials file is a few lines per site; anything far larger is a mistake.
constexpr size_t kMaxCredentialsBytes = 1 << 20;

std::string Failure(const std::string& what) { return what + ": " + std::strerror(errno); }

// The first word of `line` from `at` on, moving `at` past it and the blanks after.
std::string TakeWord(const std::string& line, size_t& at) {
    const size_t begin = line.find_first_not_of(" \t", at);
    if (begin == std::string::npos) {
        at = line.size();
        return std::string();
    }
    const size_t end = std::min(line.find_first_of(" \t", begin), line.size());
    at = std::min(line.find_first_not_of(" \t", end), line.size());
    return line.substr(begin, end - begin);
}

}  // namespace

CredentialsFile::Loaded CredentialsFile::Load(const std::string& path) {
    Loaded loaded;
    struct stat status {};
    UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.Get() < 0 || ::fstat(file.Get(), &status) != 0) {
        loaded.error = Failure("cannot read credentials file " + path);
        return loaded;
    }
    if (!S_ISREG(status.st_mode)) {
        loaded.error = "credentials file " + path + " is not a regular file";
        return loaded;
    }
    // Passwords for a whole fleet must not be open to anyone else on the machine.
    if ((status.st_mode & (S_IRGRP | S_IROTH)) != 0) {
        loaded.error = "credentials file " + path + " is readable by group or others; chmod 600 it";
        return loaded;
    }
    std::string text;
    const ReadEnd end = ReadBounded(file.Get(), kMaxCredentialsBytes, text);
    if (end == ReadEnd::Failed) {
        loaded.error = "cannot read credentials file " + path;
        return loaded;
    }
    if (end == ReadEnd::TooLarge) {
        loaded.error = "credentials file " + path + " is larger than 1 MiB";
        return loaded;
    }
    return Parse(text, path);
}

CredentialsFile::Loaded CredentialsFile::Parse(const std::string& text, const std::string& name) {
    Loaded loaded;
    CredentialsFile parsed;
    std::istringstream lines(text);
    std::string line;
    size_t expanded = 0;
    for (size_t number = 1; std::getline(lines, line); ++number) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        const std::string where = name + ":" + std::to_string(number) + ": ";
        size_t at = 0;
        const std::string pattern = TakeWord(line, at);
        if (pattern.empty() || pattern[0] == '#') continue;
        Line entry;
        entry.user = TakeWord(line, at);
        entry.password = Trim(line.substr(at));
        if (entry.user.empty() || entry.password.empty()) {
            loaded.error = where + "expected HOST-PATTERN USER PASSWORD";
            return loaded;
        }
        entry.anyHost = pattern == "*";
        if (!entry.anyHost) {
            if (auto error = ExpandHostList(pattern, kMaxExpandedHosts - expanded, entry.hosts)) {
                loaded.error = where + error->message;
                return loaded;
            }
            expanded += entry.hosts.size();
            for (std::string& host : entry.hosts) host = Lower(host);
        }
        parsed.m_lines.push_back(std::move(entry));
    }
    loaded.file = std::move(parsed);
    return loaded;
}

std::optional<std::string> CredentialsFile::PasswordFor(const std::string& host, const std::string& user) const {
    const std::string wanted = Lower(host);
    for (const Line& line : m_lines) {
        if (line.user != user) continue;
        if (line.anyHost || std::find(line.hosts.begin(), line.hosts.end(), wanted) != line.hosts.end()) {
            return line.password;
        }
    }
    return std::nullopt;
}

PasswordCommand::Parsed PasswordCommand::Parse(const std::string& command) {
    Parsed parsed;
    PasswordCommand words;
    std::string word;
    bool inWord = false;
    char quote = '\0';
    for (size_t i = 0; i < command.size(); ++i) {
        const char c = command[i];
        if (quote != '\0') {
            if (c == quote) {
                quote = '\0';
            } else if (c == '\\' && quote == '"' && i + 1 < command.size()) {
                word += command[++i];
            } else {
                word += c;
            }
        } else if (c == ' ' || c == '\t' || c == '\n') {
            if (inWord) words.m_words.push_back(std::move(word));
            word.clear();
            inWord = false;
        } else if (c == '\'' || c == '"') {
            quote = c;
            inWord = true;
        } else if (c == '\\' && i + 1 < command.size()) {
            word += command[++i];
            inWord = true;
        } else {
            word += c;
            inWord = true;
        }
    }
    if (quote != '\0') {
        parsed.error = std::string("unclosed ") + (quote == '\'' ? "single" : "double") + " quote in the password command";
        return parsed;
    }
    if (inWord) words.m_words.push_back(std::move(word));
    if (words.m_words.empty()) {
        parsed.error = "empty password command";
        return parsed;
    }
    parsed.command = std::move(words);
    return parsed;
}

PasswordCommand::Answer PasswordCommand::Run(const std::string& host, int port, const std::string& user,
                                             std::chrono::milliseconds limit) const {
    Answer answer;
    int pipeEnds[2];
    if (::pipe2(pipeEnds, O_CLOEXEC) != 0) {
        answer.error = Failure("cannot run the password command");
        return answer;
    }
    UniqueFd readEnd(pipeEnds[0]);
    UniqueFd writeEnd(pipeEnds[1]);

    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (std::strncmp(*entry, "MORVEL_TARGET_", 14) != 0) environment.emplace_back(*entry);
    }
    environment.push_back("MORVEL_TARGET_HOST=" + host);
    environment.push_back("MORVEL_TARGET_PORT=" + std::to_string(port));
    environment.push_back("MORVEL_TARGET_USER=" + user);
    std::vector<char*> envp;
    envp.reserve(environment.size() + 1);
    for (std::string& entry : environment) envp.push_back(&entry[0]);
    envp.push_back(nullptr);
    std::vector<std::string> words = m_words;
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words) argv.push_back(&word[0]);
    argv.push_back(nullptr);

    // Standard input from /dev/null, standard output into the pipe, standard
    // error left to the user; a process group of its own, so a time-out ends
    // whatever it started too.
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, writeEnd.Get(), 1);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setpgroup(&attributes, 0);
    pid_t child = -1;
    const int spawned = ::posix_spawnp(&child, argv[0], &actions, &attributes, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    writeEnd = UniqueFd();
    if (spawned != 0) {
        answer.error = std::string("cannot run the password command: ") + std::strerror(spawned);
        return answer;
    }

    const auto deadline = std::chrono::steady_clock::now() + limit;
    std::string first;
    bool haveLine = false;
    bool tooLong = false;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        pollfd watched{readEnd.Get(), POLLIN, 0};
        const int ready = ::poll(&watched, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) break;
        char buffer[4096];
        const ssize_t got = ::read(readEnd.Get(), buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;  // end of output
        // Only the first line is kept; the rest is read and dropped so the command can finish.
        for (ssize_t i = 0; i < got && !haveLine && !tooLong; ++i) {
            if (buffer[i] == '\n') {
                haveLine = true;
            } else if (first.size() == kMaxLineBytes) {
                tooLong = true;
            } else {
                first.push_back(buffer[i]);
            }
        }
    }
    const bool inTime = std::chrono::steady_clock::now() < deadline;
    int status = 0;
    pid_t reaped = ::waitpid(child, &status, WNOHANG);
    while (inTime && reaped == 0) {
        // Output closed but not yet gone: wait for its end, within the limit.
        if (std::chrono::steady_clock::now() >= deadline) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        reaped = ::waitpid(child, &status, WNOHANG);
    }
    if (reaped == 0) {
        ::kill(-child, SIGKILL);
        ::waitpid(child, &status, 0);
        const auto ms = limit.count();
        answer.error = "the password command did not end within " +
                       (ms % 1000 == 0 ? std::to_string(ms / 1000) + " s" : std::to_string(ms) + " ms");
        return answer;
    }
    if (WIFSIGNALED(status)) {
        answer.error = "the password command was ended by signal " + std::to_string(WTERMSIG(status));
    } else if (WEXITSTATUS(status) != 0) {
        answer.error = "the password command exited with status " + std::to_string(WEXITSTATUS(status));
    } else if (tooLong) {
        answer.error = "the password command printed a first line longer than 4096 bytes";
    } else {
        if (!first.empty() && first.back() == '\r') first.pop_back();
        if (first.empty()) {
            answer.error = "the password command printed no password";
        } else {
            answer.password = std::move(first);
        }
    }
    return answer;
}

}  // namespace MorvelCli
