// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/PasswordSource.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "host/Files.h"

namespace MorvelCli {
namespace {

// A password is a line of text; anything longer is not a password file.
constexpr size_t kMaxPasswordBytes = 4096;

// Reads up to the first '\n'. Returns 1 on a line end, 0 on end of input,
// -1 on a read error (errno kept), -2 when the line is too long.
int ReadLine(int fd, std::string& line) {
    line.clear();
    char c = 0;
    for (;;) {
        const ssize_t got = ::read(fd, &c, 1);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return -1;
        if (got == 0) return 0;
        if (c == '\n') return 1;
        if (line.size() >= kMaxPasswordBytes) return -2;
        line.push_back(c);
    }
}

void StripCarriageReturn(std::string& line) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
}

void Wipe(std::string& text) {
    volatile char* bytes = &text[0];
    for (size_t i = 0; i < text.size(); ++i) bytes[i] = 0;
    text.clear();
}

// The terminal state to put back if a signal ends the process during the prompt.
int g_terminalFd = -1;
termios g_savedTerminal;

const int kPromptSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

extern "C" void RestoreTerminalAndReraise(int signalNumber) {
    if (g_terminalFd >= 0) ::tcsetattr(g_terminalFd, TCSANOW, &g_savedTerminal);
    // Inside a signal handler there is nothing to do when these fail.
    static_cast<void>(::signal(signalNumber, SIG_DFL));
    static_cast<void>(::raise(signalNumber));
}

}  // namespace

const char* PasswordSource::OriginName(Origin origin) {
    switch (origin) {
        case Origin::Environment: return "MORVEL_BMC_PASSWORD";
        case Origin::File: return "the password file";
        case Origin::Prompt: return "the terminal";
    }
    return "";
}

bool PasswordSource::ReadFile(const std::string& path, std::string& password, std::vector<std::string>& warnings,
                              std::string& error) {
    Plexum::UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (file.Get() < 0) {
        error = "cannot read password file " + path + ": " + std::strerror(errno);
        return false;
    }
    struct stat status {};
    if (::fstat(file.Get(), &status) != 0) {
        error = "cannot read password file " + path + ": " + std::strerror(errno);
        return false;
    }
    std::string line;
    const int outcome = ReadLine(file.Get(), line);
    if (outcome == -1) {
        error = "cannot read password file " + path + ": " + std::strerror(errno);
        return false;
    }
    if (outcome == -2) {
        Wipe(line);
        error = "password file " + path + " has a first line longer than 4096 bytes";
        return false;
    }
    StripCarriageReturn(line);
    if (line.empty()) {
        error = "password file " + path + " has an empty first line";
        return false;
    }
    // Only a stored file can be too open; a pipe such as /dev/stdin is not stored.
    if (S_ISREG(status.st_mode) && (status.st_mode & (S_IRGRP | S_IROTH)) != 0) {
        warnings.push_back("password file " + path + " is readable by group or others (chmod 600 it)");
    }
    password = std::move(line);
    return true;
}

bool PasswordSource::Prompt(const std::string& terminal, const std::string& prompt, std::string& password,
                            std::string& error, bool* noTerminal) {
    if (noTerminal != nullptr) *noTerminal = false;
    Plexum::UniqueFd tty(::open(terminal.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    termios saved{};
    if (tty.Get() < 0 || ::tcgetattr(tty.Get(), &saved) != 0) {
        if (noTerminal != nullptr) *noTerminal = true;
        error = "no terminal to ask for the password on";
        return false;
    }
    termios quiet = saved;
    quiet.c_lflag &= static_cast<tcflag_t>(~(ECHO | ECHOE | ECHOK | ECHONL));

    g_savedTerminal = saved;
    g_terminalFd = tty.Get();
    struct sigaction restore {};
    restore.sa_handler = RestoreTerminalAndReraise;
    sigemptyset(&restore.sa_mask);
    struct sigaction previous[sizeof kPromptSignals / sizeof kPromptSignals[0]];
    for (size_t i = 0; i < sizeof kPromptSignals / sizeof kPromptSignals[0]; ++i) {
        ::sigaction(kPromptSignals[i], &restore, &previous[i]);
    }

    // Echo goes off before the prompt shows, so nothing typed after it is echoed or discarded.
    const bool ok = ::tcsetattr(tty.Get(), TCSAFLUSH, &quiet) == 0 &&
                    ::write(tty.Get(), prompt.data(), prompt.size()) == static_cast<ssize_t>(prompt.size());
    int failure = ok ? 0 : errno;
    std::string line;
    int outcome = 0;
    if (ok) {
        outcome = ReadLine(tty.Get(), line);
        if (outcome == -1) failure = errno;
    }
    ::tcsetattr(tty.Get(), TCSANOW, &saved);
    // The user's Enter was not echoed; end the prompt line ourselves.
    if (ok && ::write(tty.Get(), "\n", 1) != 1) {
        // Nothing to do: the password was read, the cosmetic line end is lost.
    }

    for (size_t i = 0; i < sizeof kPromptSignals / sizeof kPromptSignals[0]; ++i) {
        ::sigaction(kPromptSignals[i], &previous[i], nullptr);
    }
    g_terminalFd = -1;

    if (!ok) {
        error = std::string("cannot ask for the password on the terminal: ") + std::strerror(failure);
        return false;
    }
    if (outcome == -1) {
        error = std::string("cannot read the password from the terminal: ") + std::strerror(failure);
        return false;
    }
    if (outcome == -2) {
        Wipe(line);
        error = "the password typed is longer than 4096 bytes";
        return false;
    }
    StripCarriageReturn(line);
    if (outcome == 0 && line.empty()) {
        error = "no password entered";
        return false;
    }
    if (line.empty()) {
        error = "empty password entered";
        return false;
    }
    password = std::move(line);
    return true;
}

bool PasswordSource::Resolve(const Inputs& inputs, std::string& password, Origin& origin,
                             std::vector<std::string>& warnings, std::string& error) {
    if (inputs.environment != nullptr && inputs.environment[0] != '\0') {
        password = inputs.environment;
        origin = Origin::Environment;
        return true;
    }
    if (!inputs.passwordFile.empty()) {
        origin = Origin::File;
        return ReadFile(inputs.passwordFile, password, warnings, error);
    }
    origin = Origin::Prompt;
    bool noTerminal = false;
    if (Prompt(inputs.terminal, "Password: ", password, error, &noTerminal)) return true;
    if (noTerminal) {
        error =
            "no password: --bmc names none, MORVEL_BMC_PASSWORD is unset, no --password-file was given "
            "and there is no terminal to ask on";
    }
    return false;
}

}  // namespace MorvelCli
