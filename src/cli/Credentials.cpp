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
#include <utility>
#include <vector>

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

namespace {

// posix_spawn's C attribute objects, each with one owner: set up by Init,
// freed by Destroy.
template <typename Object, int (*Init)(Object*), int (*Destroy)(Object*)>
class SpawnObject {
public:
    SpawnObject() { Init(&m_object); }
    ~SpawnObject() { Destroy(&m_object); }
    SpawnObject(const SpawnObject&) = delete;
    SpawnObject& operator=(const SpawnObject&) = delete;
    Object* Get() { return &m_object; }

private:
    Object m_object{};
};

using SpawnActions =
    SpawnObject<posix_spawn_file_actions_t, posix_spawn_file_actions_init, posix_spawn_file_actions_destroy>;
using SpawnAttributes = SpawnObject<posix_spawnattr_t, posix_spawnattr_init, posix_spawnattr_destroy>;

// Texts that exec wants as a null-terminated array of pointers into them.
class ArgumentVector {
public:
    explicit ArgumentVector(std::vector<std::string> texts) : m_texts(std::move(texts)) {
        m_pointers.reserve(m_texts.size() + 1);
        for (std::string& text : m_texts) m_pointers.push_back(&text[0]);
        m_pointers.push_back(nullptr);
    }
    ArgumentVector(const ArgumentVector&) = delete;
    ArgumentVector& operator=(const ArgumentVector&) = delete;
    char* const* Get() const { return m_pointers.data(); }

private:
    std::vector<std::string> m_texts;
    std::vector<char*> m_pointers;
};

// This process's environment with the target's host, port and user in it.
std::vector<std::string> CommandEnvironment(const std::string& host, int port, const std::string& user) {
    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (std::strncmp(*entry, "MORVEL_TARGET_", 14) != 0) environment.emplace_back(*entry);
    }
    environment.push_back("MORVEL_TARGET_HOST=" + host);
    environment.push_back("MORVEL_TARGET_PORT=" + std::to_string(port));
    environment.push_back("MORVEL_TARGET_USER=" + user);
    return environment;
}

// Standard input from /dev/null, standard output into `output`, standard
// error left to the user; a process group of its own, so a time-out ends
// whatever it started too. It starts as any program does, with no signal
// blocked and none ignored: the run over many SMMs blocks SIGINT and SIGTERM
// in every thread, and a child would inherit that.
int Spawn(const std::vector<std::string>& words, const std::vector<std::string>& environment, int output,
          pid_t& child) {
    SpawnActions actions;
    posix_spawn_file_actions_addopen(actions.Get(), 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(actions.Get(), output, 1);
    SpawnAttributes attributes;
    sigset_t none;
    sigemptyset(&none);
    sigset_t all;
    sigfillset(&all);
    posix_spawnattr_setsigmask(attributes.Get(), &none);
    posix_spawnattr_setsigdefault(attributes.Get(), &all);
    posix_spawnattr_setflags(attributes.Get(), POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    posix_spawnattr_setpgroup(attributes.Get(), 0);
    const ArgumentVector argv(words);
    const ArgumentVector envp(environment);
    return ::posix_spawnp(&child, argv.Get()[0], actions.Get(), attributes.Get(), argv.Get(), envp.Get());
}

// What the command printed before its output ended or the deadline came.
struct FirstLine {
    std::string text;
    bool tooLong = false;
};

// Reads the command's output until it ends or `deadline`; keeps only the
// first line, and reads and drops the rest so the command can finish.
FirstLine ReadFirstLine(int output, std::chrono::steady_clock::time_point deadline) {
    FirstLine first;
    bool haveLine = false;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        pollfd watched{output, POLLIN, 0};
        const int ready = ::poll(&watched, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) break;
        char buffer[4096];
        const ssize_t got = ::read(output, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;  // end of output
        for (ssize_t i = 0; i < got && !haveLine && !first.tooLong; ++i) {
            if (buffer[i] == '\n') {
                haveLine = true;
            } else if (first.text.size() == PasswordCommand::kMaxLineBytes) {
                first.tooLong = true;
            } else {
                first.text.push_back(buffer[i]);
            }
        }
    }
    return first;
}

// The child's end: true and its wait status once it ended within the
// deadline; false after ending it (and its process group) at the deadline.
bool Reap(pid_t child, std::chrono::steady_clock::time_point deadline, int& status) {
    pid_t reaped = ::waitpid(child, &status, WNOHANG);
    while (reaped == 0 && std::chrono::steady_clock::now() < deadline) {
        // Output closed but not yet gone: wait for its end, within the limit.
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        reaped = ::waitpid(child, &status, WNOHANG);
    }
    if (reaped != 0) return true;
    ::kill(-child, SIGKILL);
    ::waitpid(child, &status, 0);
    return false;
}

std::string LimitText(std::chrono::milliseconds limit) {
    const auto ms = limit.count();
    return ms % 1000 == 0 ? std::to_string(ms / 1000) + " s" : std::to_string(ms) + " ms";
}

// The answer from how the command ended and what it printed.
PasswordCommand::Answer Judge(int status, FirstLine first) {
    PasswordCommand::Answer answer;
    if (WIFSIGNALED(status)) {
        answer.error = "the password command was ended by signal " + std::to_string(WTERMSIG(status));
    } else if (WEXITSTATUS(status) != 0) {
        answer.error = "the password command exited with status " + std::to_string(WEXITSTATUS(status));
    } else if (first.tooLong) {
        answer.error = "the password command printed a first line longer than 4096 bytes";
    } else {
        if (!first.text.empty() && first.text.back() == '\r') first.text.pop_back();
        if (first.text.empty()) {
            answer.error = "the password command printed no password";
        } else {
            answer.password = std::move(first.text);
        }
    }
    return answer;
}

}  // namespace

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
    pid_t child = -1;
    const int spawned = Spawn(m_words, CommandEnvironment(host, port, user), writeEnd.Get(), child);
    writeEnd = UniqueFd();
    if (spawned != 0) {
        answer.error = std::string("cannot run the password command: ") + std::strerror(spawned);
        return answer;
    }
    const auto deadline = std::chrono::steady_clock::now() + limit;
    FirstLine first = ReadFirstLine(readEnd.Get(), deadline);
    int status = 0;
    if (!Reap(child, deadline, status)) {
        answer.error = "the password command did not end within " + LimitText(limit);
        return answer;
    }
    return Judge(status, std::move(first));
}

}  // namespace MorvelCli
