// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/Credentials.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <signal.h>

#include <chrono>
#include <cstdint>
#include <sstream>
#include <thread>
#include <utility>

#include "support/TestFiles.h"

namespace {

using MorvelCli::CredentialsFile;
using MorvelCli::PasswordCommand;

CredentialsFile Parsed(const std::string& text) {
    CredentialsFile::Loaded loaded = CredentialsFile::Parse(text, "creds");
    EXPECT_EQ(loaded.error, "");
    EXPECT_TRUE(loaded.file);
    return loaded.file ? *loaded.file : CredentialsFile();
}

std::string ErrorOf(const std::string& text) {
    const CredentialsFile::Loaded loaded = CredentialsFile::Parse(text, "creds");
    EXPECT_FALSE(loaded.file) << text;
    return loaded.error;
}

TEST(CredentialsFile, FirstMatchingLineWins) {
    const CredentialsFile file = Parsed("# row 7\n"
                                        "\n"
                                        "row7-smm[01-20]  admin  pw one\n"
                                        "row7-smm[15-40]\tadmin\tpw two\r\n"
                                        "row7-smm[01-40]  ops    ops pw\n"
                                        "[fd00::5]        admin  v6 pw\n"
                                        "*                admin  fallback\n");
    EXPECT_EQ(file.Lines(), 5u);
    EXPECT_EQ(file.PasswordFor("row7-smm15", "admin"), "pw one");
    EXPECT_EQ(file.PasswordFor("ROW7-SMM21", "admin"), "pw two");
    EXPECT_EQ(file.PasswordFor("row7-smm21", "ops"), "ops pw");
    EXPECT_EQ(file.PasswordFor("[FD00::5]", "admin"), "v6 pw");
    EXPECT_EQ(file.PasswordFor("elsewhere", "admin"), "fallback");
    EXPECT_EQ(file.PasswordFor("elsewhere", "ops"), std::nullopt);
    EXPECT_EQ(file.PasswordFor("row7-smm1", "admin"), "fallback");
}

TEST(CredentialsFile, MalformedLinesNameTheLineNotThePassword) {
    EXPECT_EQ(ErrorOf("smm01 admin\n"), "creds:1: expected HOST-PATTERN USER PASSWORD");
    EXPECT_EQ(ErrorOf("# fine\nsmm01\n"), "creds:2: expected HOST-PATTERN USER PASSWORD");
    EXPECT_EQ(ErrorOf("smm[9-1] admin S3cret\n"), "creds:1: 'smm[9-1]': descending range 9-1");
    EXPECT_EQ(ErrorOf("smm[1-3 admin S3cret\n"), "creds:1: 'smm[1-3': unbalanced brackets");
}

TEST(CredentialsFile, AFileOpenToOthersIsRefused) {
    ScratchDirectory scratch;
    const std::string open = scratch.Write("open", "* admin S3cret\n", 0640);
    EXPECT_EQ(CredentialsFile::Load(open).error, "credentials file " + open + " is readable by group or others; chmod 600 it");
    const std::string closed = scratch.Write("closed", "* admin S3cret\n", 0600);
    const CredentialsFile::Loaded loaded = CredentialsFile::Load(closed);
    ASSERT_TRUE(loaded.file) << loaded.error;
    EXPECT_EQ(loaded.file->PasswordFor("x", "admin"), "S3cret");
    EXPECT_EQ(CredentialsFile::Load(scratch.Path() + "/missing").error,
              "cannot read credentials file " + scratch.Path() + "/missing: No such file or directory");
    EXPECT_EQ(CredentialsFile::Load(scratch.Path()).error, "credentials file " + scratch.Path() + " is not a regular file");
}

TEST(CredentialsFile, AFileOverAMebibyteIsRefused) {
    ScratchDirectory scratch;
    const std::string line = "smm01 admin S3cret\n";
    std::string content = line;
    while (content.size() < (size_t{1} << 20)) content += "#" + std::string(62, 'x') + "\n";
    content.resize(size_t{1} << 20);
    content.back() = '\n';
    ASSERT_EQ(content.size(), size_t{1} << 20);
    const CredentialsFile::Loaded exact = CredentialsFile::Load(scratch.Write("exact", content));
    ASSERT_TRUE(exact.file) << exact.error;
    EXPECT_EQ(exact.file->PasswordFor("smm01", "admin"), "S3cret");
    const std::string over = scratch.Write("over", content + "\n");
    const CredentialsFile::Loaded loaded = CredentialsFile::Load(over);
    EXPECT_FALSE(loaded.file);
    EXPECT_EQ(loaded.error, "credentials file " + over + " is larger than 1 MiB");
}

std::vector<std::string> WordsOf(const std::string& command) {
    const PasswordCommand::Parsed parsed = PasswordCommand::Parse(command);
    EXPECT_EQ(parsed.error, "") << command;
    return parsed.command ? parsed.command->Words() : std::vector<std::string>();
}

TEST(PasswordCommand, WordsWithoutAShell) {
    EXPECT_EQ(WordsOf("pass show smm/x"), (std::vector<std::string>{"pass", "show", "smm/x"}));
    EXPECT_EQ(WordsOf("  sh  -c 'pass show smm/\"$MORVEL_TARGET_HOST\"' "),
              (std::vector<std::string>{"sh", "-c", "pass show smm/\"$MORVEL_TARGET_HOST\""}));
    EXPECT_EQ(WordsOf("a\\ b \"c \\\"d\\\"\" ''"), (std::vector<std::string>{"a b", "c \"d\"", ""}));
    EXPECT_EQ(PasswordCommand::Parse("say 'open").error, "unclosed single quote in the password command");
    EXPECT_EQ(PasswordCommand::Parse("say \"open").error, "unclosed double quote in the password command");
    EXPECT_EQ(PasswordCommand::Parse("   ").error, "empty password command");
}

// Far beyond what any of these scripts takes, however busy the machine: only the
// test of the limit itself runs into one.
constexpr std::chrono::milliseconds kNoLimit = std::chrono::minutes(10);

PasswordCommand::Answer RunScript(const std::string& script, std::chrono::milliseconds limit = kNoLimit) {
    const PasswordCommand::Parsed parsed = PasswordCommand::Parse("/bin/sh -c '" + script + "'");
    EXPECT_TRUE(parsed.command);
    return parsed.command->Run("smm07", 8443, "ops", limit);
}

TEST(PasswordCommand, TheFirstLineIsThePassword) {
    const auto answer = RunScript("echo \"pw-$MORVEL_TARGET_HOST-$MORVEL_TARGET_PORT-$MORVEL_TARGET_USER\"; echo second");
    EXPECT_EQ(answer.error, "");
    EXPECT_EQ(answer.password, "pw-smm07-8443-ops");
    EXPECT_EQ(RunScript("printf \"a b c\\r\\n\"").password, "a b c");
    EXPECT_EQ(RunScript("printf last-line-without-end").password, "last-line-without-end");
}

TEST(PasswordCommand, FailuresNeverRepeatWhatItPrinted) {
    struct Case {
        std::string script;
        std::string error;
    };
    const Case cases[] = {
        {"echo Zq9secret; exit 3", "the password command exited with status 3"},
        {"echo; echo Zq9secret", "the password command printed no password"},
        {"true", "the password command printed no password"},
        {"kill -9 $$", "the password command was ended by signal 9"},
        {"head -c 5000 /dev/zero | tr \"\\\\0\" x; echo", "the password command printed a first line longer than 4096 bytes"},
    };
    for (const Case& c : cases) {
        const auto answer = RunScript(c.script);
        EXPECT_FALSE(answer.password) << c.script;
        EXPECT_EQ(answer.error, c.error) << c.script;
    }
    const auto missing = PasswordCommand::Parse("/no/such/program").command->Run("h", 443, "u", kNoLimit);
    EXPECT_EQ(missing.error, "cannot run the password command: No such file or directory");
}

TEST(PasswordCommand, AMebibyteOfOutputGivesItsFirstLine) {
    const auto answer = RunScript("echo Zq9pw; head -c 1048576 /dev/zero");
    EXPECT_EQ(answer.password, "Zq9pw");
}

TEST(PasswordCommand, ACommandThatDoesNotEndIsStoppedAtTheLimit) {
    // The command would sleep for an hour: only the limit ends it (a run that
    // waited for it would hang here until CTest's own time-out).
    const auto answer = RunScript("echo early; sleep 3600", std::chrono::milliseconds(300));
    EXPECT_FALSE(answer.password);
    EXPECT_EQ(answer.error, "the password command did not end within 300 ms");
}

// The command's own view of its signals, from its /proc/self/status:
// {blocked, ignored} of the 31 standard signals, as bit masks.
std::pair<uint64_t, uint64_t> SignalsSeenByTheCommand() {
    const PasswordCommand::Parsed parsed =
        PasswordCommand::Parse("awk '/^Sig(Blk|Ign):/ { printf \"%s \", $2 }' /proc/self/status");
    EXPECT_EQ(parsed.error, "");
    const PasswordCommand::Answer answer = parsed.command->Run("smm07", 443, "ops", kNoLimit);
    EXPECT_EQ(answer.error, "");
    std::istringstream masks(answer.password.value_or(""));
    uint64_t blocked = ~uint64_t{0};
    uint64_t ignored = ~uint64_t{0};
    masks >> std::hex >> blocked >> ignored;
    EXPECT_FALSE(masks.fail()) << answer.password.value_or("");
    // Signals 32 and 33 are the C library's own: its posix_spawn leaves them
    // ignored in every child, and no program uses them.
    constexpr uint64_t kStandard = (uint64_t{1} << 31) - 1;
    return {blocked, ignored & kStandard};
}

TEST(PasswordCommand, StartsWithNoSignalBlockedOrIgnored) {
    // As a worker of a run over many SMMs calls it: SIGINT and SIGTERM blocked
    // in the thread; and a process that ignores SIGHUP and SIGPIPE (nohup, a
    // library) must not hand that on either.
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    struct sigaction hangup {};
    struct sigaction pipe {};
    ASSERT_EQ(::sigaction(SIGHUP, &ignore, &hangup), 0);
    ASSERT_EQ(::sigaction(SIGPIPE, &ignore, &pipe), 0);
    std::pair<uint64_t, uint64_t> seen;
    std::thread worker([&seen] {
        sigset_t blocked;
        sigemptyset(&blocked);
        sigaddset(&blocked, SIGINT);
        sigaddset(&blocked, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
        seen = SignalsSeenByTheCommand();
    });
    worker.join();
    ::sigaction(SIGHUP, &hangup, nullptr);
    ::sigaction(SIGPIPE, &pipe, nullptr);
    EXPECT_EQ(seen.first, 0u) << std::hex << seen.first;
    EXPECT_EQ(seen.second, 0u) << std::hex << seen.second;
}

}  // namespace
