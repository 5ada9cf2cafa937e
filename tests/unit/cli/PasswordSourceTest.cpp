// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/PasswordSource.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <thread>

#include "support/TestFiles.h"

namespace {

using MorvelCli::PasswordSource;

struct FileOutcome {
    bool ok = false;
    std::string password;
    std::vector<std::string> warnings;
    std::string error;
};

FileOutcome ReadFile(const std::string& path) {
    FileOutcome outcome;
    outcome.ok = PasswordSource::ReadFile(path, outcome.password, outcome.warnings, outcome.error);
    return outcome;
}

TEST(PasswordFile, FirstLineWithoutLineEnd) {
    ScratchDirectory dir;
    for (const std::string content : {"s3:cr@t\n", "s3:cr@t\r\n", "s3:cr@t", "s3:cr@t\nsecond line\n"}) {
        const FileOutcome outcome = ReadFile(dir.Write("pw", content));
        EXPECT_TRUE(outcome.ok) << outcome.error;
        EXPECT_EQ(outcome.password, "s3:cr@t");
        EXPECT_TRUE(outcome.warnings.empty());
    }
}

TEST(PasswordFile, BlanksArePartOfThePassword) {
    ScratchDirectory dir;
    EXPECT_EQ(ReadFile(dir.Write("pw", " pass word \n")).password, " pass word ");
}

TEST(PasswordFile, WarnsWhenGroupOrOthersCanRead) {
    ScratchDirectory dir;
    for (const unsigned mode : {0640u, 0604u, 0644u}) {
        const std::string path = dir.Write("pw", "secret\n", mode);
        const FileOutcome outcome = ReadFile(path);
        EXPECT_TRUE(outcome.ok);
        EXPECT_EQ(outcome.password, "secret");
        ASSERT_EQ(outcome.warnings.size(), 1u) << mode;
        EXPECT_EQ(outcome.warnings[0], "password file " + path + " is readable by group or others (chmod 600 it)");
    }
    EXPECT_TRUE(ReadFile(dir.Write("pw", "secret\n", 0400)).warnings.empty());
}

TEST(PasswordFile, Errors) {
    ScratchDirectory dir;
    const FileOutcome missing = ReadFile(dir.Path() + "/none");
    EXPECT_FALSE(missing.ok);
    EXPECT_EQ(missing.error, "cannot read password file " + dir.Path() + "/none: No such file or directory");

    const FileOutcome directory = ReadFile(dir.Path());
    EXPECT_FALSE(directory.ok);
    EXPECT_EQ(directory.error, "cannot read password file " + dir.Path() + ": Is a directory");

    for (const std::string content : {"", "\n", "\r\n", "\nsecret\n"}) {
        const std::string path = dir.Write("empty", content);
        const FileOutcome empty = ReadFile(path);
        EXPECT_FALSE(empty.ok);
        EXPECT_EQ(empty.error, "password file " + path + " has an empty first line");
    }

    const std::string longPath = dir.Write("long", std::string(5000, 'x') + "\n");
    const FileOutcome tooLong = ReadFile(longPath);
    EXPECT_FALSE(tooLong.ok);
    EXPECT_EQ(tooLong.error, "password file " + longPath + " has a first line longer than 4096 bytes");
    EXPECT_TRUE(ReadFile(dir.Write("max", std::string(4096, 'y') + "\n")).ok);
}

TEST(PasswordFile, PipeIsAccepted) {
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    ASSERT_EQ(::write(fds[1], "piped\nrest\n", 11), 11);
    ::close(fds[1]);
    const FileOutcome outcome = ReadFile("/proc/self/fd/" + std::to_string(fds[0]));
    ::close(fds[0]);
    EXPECT_TRUE(outcome.ok) << outcome.error;
    EXPECT_EQ(outcome.password, "piped");
    EXPECT_TRUE(outcome.warnings.empty());
}

struct ResolveOutcome {
    bool ok = false;
    std::string password;
    PasswordSource::Origin origin = PasswordSource::Origin::Prompt;
    std::vector<std::string> warnings;
    std::string error;
};

ResolveOutcome Resolve(const PasswordSource::Inputs& inputs) {
    ResolveOutcome outcome;
    outcome.ok = PasswordSource::Resolve(inputs, outcome.password, outcome.origin, outcome.warnings, outcome.error);
    return outcome;
}

TEST(PasswordResolve, EnvironmentFirst) {
    ScratchDirectory dir;
    PasswordSource::Inputs inputs;
    inputs.environment = "from-env";
    inputs.passwordFile = dir.Write("pw", "from-file\n", 0644);
    const ResolveOutcome outcome = Resolve(inputs);
    EXPECT_TRUE(outcome.ok);
    EXPECT_EQ(outcome.password, "from-env");
    EXPECT_EQ(outcome.origin, PasswordSource::Origin::Environment);
    EXPECT_TRUE(outcome.warnings.empty()) << "the file is not read";
}

TEST(PasswordResolve, EmptyEnvironmentCountsAsUnset) {
    ScratchDirectory dir;
    PasswordSource::Inputs inputs;
    inputs.environment = "";
    inputs.passwordFile = dir.Write("pw", "from-file\n");
    const ResolveOutcome outcome = Resolve(inputs);
    EXPECT_TRUE(outcome.ok);
    EXPECT_EQ(outcome.password, "from-file");
    EXPECT_EQ(outcome.origin, PasswordSource::Origin::File);
}

TEST(PasswordResolve, FileErrorIsFinal) {
    ScratchDirectory dir;
    PasswordSource::Inputs inputs;
    inputs.passwordFile = dir.Path() + "/missing";
    const ResolveOutcome outcome = Resolve(inputs);
    EXPECT_FALSE(outcome.ok);
    EXPECT_EQ(outcome.origin, PasswordSource::Origin::File);
    EXPECT_EQ(outcome.error, "cannot read password file " + dir.Path() + "/missing: No such file or directory");
}

TEST(PasswordResolve, NoSourceAtAll) {
    ScratchDirectory dir;
    PasswordSource::Inputs inputs;
    inputs.terminal = dir.Path() + "/no-tty";
    ResolveOutcome outcome = Resolve(inputs);
    EXPECT_FALSE(outcome.ok);
    EXPECT_EQ(outcome.error,
              "no password: --bmc names none, MORVEL_BMC_PASSWORD is unset, no --password-file was given and "
              "there is no terminal to ask on");
    // A file that is not a terminal is no terminal either.
    inputs.terminal = dir.Write("plain", "secret\n");
    outcome = Resolve(inputs);
    EXPECT_FALSE(outcome.ok);
    EXPECT_EQ(outcome.error.substr(0, 12), "no password:");
}

TEST(PasswordResolve, OriginNames) {
    EXPECT_STREQ(PasswordSource::OriginName(PasswordSource::Origin::Environment), "MORVEL_BMC_PASSWORD");
    EXPECT_STREQ(PasswordSource::OriginName(PasswordSource::Origin::File), "the password file");
    EXPECT_STREQ(PasswordSource::OriginName(PasswordSource::Origin::Prompt), "the terminal");
}

// A pseudo terminal: the test types on the master side, the prompt reads the slave.
class PseudoTerminal {
public:
    PseudoTerminal() {
        m_master = ::posix_openpt(O_RDWR | O_NOCTTY);
        if (m_master >= 0 && ::grantpt(m_master) == 0 && ::unlockpt(m_master) == 0) {
            const char* name = ::ptsname(m_master);
            if (name != nullptr) m_slaveName = name;
        }
    }
    ~PseudoTerminal() {
        if (m_master >= 0) ::close(m_master);
    }
    int Master() const { return m_master; }
    const std::string& SlaveName() const { return m_slaveName; }

    // Everything the terminal shows until `expected` has appeared, or a guard
    // against a hang (never a bound on speed) has passed.
    std::string ReadUntil(const std::string& expected) const {
        std::string seen;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(10);
        while (seen.find(expected) == std::string::npos && std::chrono::steady_clock::now() < deadline) {
            pollfd entry{m_master, POLLIN, 0};
            if (::poll(&entry, 1, 100) <= 0) continue;
            char buffer[256];
            const ssize_t got = ::read(m_master, buffer, sizeof buffer);
            if (got <= 0) break;
            seen.append(buffer, static_cast<size_t>(got));
        }
        return seen;
    }

private:
    int m_master = -1;
    std::string m_slaveName;
};

struct PromptOutcome {
    bool ok = false;
    std::string password;
    std::string error;
};

TEST(PasswordPrompt, ReadsWithoutEchoAndRestoresTheTerminal) {
    PseudoTerminal terminal;
    ASSERT_FALSE(terminal.SlaveName().empty());
    // Keep the slave open so the terminal settings survive between the prompt's opens.
    const int keep = ::open(terminal.SlaveName().c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(keep, 0);
    termios before{};
    ASSERT_EQ(::tcgetattr(keep, &before), 0);
    ASSERT_NE(before.c_lflag & ECHO, 0u);

    auto prompt = std::async(std::launch::async, [&terminal] {
        PromptOutcome outcome;
        outcome.ok = PasswordSource::Prompt(terminal.SlaveName(), "Password: ", outcome.password, outcome.error);
        return outcome;
    });
    EXPECT_EQ(terminal.ReadUntil("Password: "), "Password: ");
    ASSERT_EQ(::write(terminal.Master(), "t0p:s@cret\n", 11), 11);
    const PromptOutcome outcome = prompt.get();
    EXPECT_TRUE(outcome.ok) << outcome.error;
    EXPECT_EQ(outcome.password, "t0p:s@cret");
    // Only the line end the prompt writes itself: the typed text was not echoed.
    EXPECT_EQ(terminal.ReadUntil("\n"), "\r\n");

    termios after{};
    ASSERT_EQ(::tcgetattr(keep, &after), 0);
    EXPECT_EQ(after.c_lflag, before.c_lflag);
    ::close(keep);
}

TEST(PasswordPrompt, EndOfInputAndEmptyLine) {
    for (const std::string& typed : {std::string("\x04"), std::string("\n")}) {
        PseudoTerminal terminal;
        ASSERT_FALSE(terminal.SlaveName().empty());
        const int keep = ::open(terminal.SlaveName().c_str(), O_RDWR | O_NOCTTY);
        auto prompt = std::async(std::launch::async, [&terminal] {
            PromptOutcome outcome;
            outcome.ok = PasswordSource::Prompt(terminal.SlaveName(), "Password: ", outcome.password, outcome.error);
            return outcome;
        });
        terminal.ReadUntil("Password: ");
        ASSERT_EQ(::write(terminal.Master(), typed.data(), typed.size()), static_cast<ssize_t>(typed.size()));
        const PromptOutcome outcome = prompt.get();
        EXPECT_FALSE(outcome.ok);
        EXPECT_EQ(outcome.error, typed == "\n" ? "empty password entered" : "no password entered");
        ::close(keep);
    }
}

}  // namespace
