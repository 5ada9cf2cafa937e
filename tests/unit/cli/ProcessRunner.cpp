// SPDX-License-Identifier: GPL-3.0-or-later
#include "ProcessRunner.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>

namespace {

// A guard against a hang, far beyond what any run takes on a busy machine.
constexpr auto kTimeLimit = std::chrono::minutes(10);

std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) pointers.push_back(&text[0]);
    pointers.push_back(nullptr);
    return pointers;
}

// The folder of the system-wide configuration file when that file exists on
// this machine (a package installed it): the child then gets an empty tmpfs
// over it in a mount namespace of its own, so the tests see only the
// configuration they give. Empty when there is nothing to hide.
std::string SystemConfigToHide() {
    const std::string path = MORVEL_SYSTEM_CONFIG;
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return std::string();
    return path.substr(0, path.rfind('/'));
}

}  // namespace

ProcessResult RunMorvel(const ProcessRequest& request) {
    std::vector<std::string> argv{MORVEL_BINARY};
    argv.insert(argv.end(), request.arguments.begin(), request.arguments.end());
    std::vector<std::string> envp;
    envp.reserve(request.environment.size());
    for (const auto& entry : request.environment) envp.push_back(entry.first + "=" + entry.second);
    std::vector<char*> argvPointers = Pointers(argv);
    std::vector<char*> envpPointers = Pointers(envp);

    int out[2];
    int err[2];
    if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    int master = -1;
    std::string slaveName;
    if (request.withTerminal) {
        master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (master < 0 || ::grantpt(master) != 0 || ::unlockpt(master) != 0) throw std::runtime_error("no pty");
        slaveName = ::ptsname(master);
    }
    // Held open here so the master does not see a hang-up before the child opens its side.
    const int parentSlave = request.withTerminal ? ::open(slaveName.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC) : -1;

    const std::string hide = SystemConfigToHide();
    const pid_t child = ::fork();
    if (child < 0) throw std::runtime_error("fork failed");
    if (child == 0) {
        ::setsid();
        if (!hide.empty() &&
            (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
             ::mount("tmpfs", hide.c_str(), "tmpfs", 0, "mode=0755") != 0)) {
            static const char kMessage[] = "ProcessRunner: cannot hide the system configuration (needs root)\n";
            if (::write(err[1], kMessage, sizeof kMessage - 1) < 0) ::_exit(125);
            ::_exit(125);
        }
        if (request.withTerminal) {
            // The first terminal a session leader opens becomes its controlling terminal.
            if (::open(slaveName.c_str(), O_RDWR) < 0) ::_exit(126);
        }
        const int null = ::open("/dev/null", O_RDONLY);
        ::dup2(null, 0);
        ::dup2(err[1], 2);
        switch (request.standardOutput) {
            case ProcessRequest::Output::Pipe:
                ::dup2(out[1], 1);
                break;
            case ProcessRequest::Output::Closed:
                ::close(1);
                break;
            case ProcessRequest::Output::Full:
                if (::dup2(::open("/dev/full", O_WRONLY | O_CLOEXEC), 1) != 1) ::_exit(126);
                break;
        }
        if (request.openFileLimit != 0) {
            const rlimit limit{request.openFileLimit, request.openFileLimit};
            if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) ::_exit(126);
        }
        ::execve(argvPointers[0], argvPointers.data(), envpPointers.data());
        ::_exit(127);
    }
    ::close(out[1]);
    ::close(err[1]);

    ProcessResult result;
    result.pid = static_cast<int>(child);
    bool typed = false;
    bool outOpen = true;
    bool errOpen = true;
    const auto deadline = std::chrono::steady_clock::now() + kTimeLimit;
    while ((outOpen || errOpen) && std::chrono::steady_clock::now() < deadline) {
        pollfd entries[3] = {{outOpen ? out[0] : -1, POLLIN, 0},
                             {errOpen ? err[0] : -1, POLLIN, 0},
                             {master, POLLIN, 0}};
        if (::poll(entries, 3, 100) <= 0) continue;
        char buffer[4096];
        if (entries[0].revents != 0) {
            const ssize_t got = ::read(out[0], buffer, sizeof buffer);
            if (got > 0) result.out.append(buffer, static_cast<size_t>(got));
            else outOpen = false;
        }
        if (entries[1].revents != 0) {
            const ssize_t got = ::read(err[0], buffer, sizeof buffer);
            if (got > 0) result.err.append(buffer, static_cast<size_t>(got));
            else errOpen = false;
        }
        if (master >= 0 && entries[2].revents != 0) {
            const ssize_t got = ::read(master, buffer, sizeof buffer);
            if (got > 0) {
                result.terminal.append(buffer, static_cast<size_t>(got));
            } else {
                ::close(master);  // the child closed its terminal for good
                master = -1;
            }
        }
        if (!typed && !request.typeAfterPrompt.empty() && result.terminal.find("Password: ") != std::string::npos) {
            typed = true;
            if (::write(master, request.typeAfterPrompt.data(), request.typeAfterPrompt.size()) < 0) break;
        }
    }
    if (outOpen || errOpen) ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
    if (WIFEXITED(status)) result.exitStatus = WEXITSTATUS(status);
    ::close(out[0]);
    ::close(err[0]);
    if (master >= 0) ::close(master);
    if (parentSlave >= 0) ::close(parentSlave);
    return result;
}
