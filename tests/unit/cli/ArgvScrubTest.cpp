// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/ArgvScrub.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// The bytes of the buffer after scrubbing, NULs included.
std::string Scrubbed(const std::string& value, bool expected) {
    std::vector<char> buffer(value.begin(), value.end());
    buffer.push_back('\0');
    EXPECT_EQ(MorvelCli::ScrubBmcValue(buffer.data()), expected) << value;
    return std::string(buffer.begin(), buffer.end() - 1);
}

TEST(ArgvScrub, HidesThePassword) {
    EXPECT_EQ(Scrubbed("admin:secret@10.0.0.5", true), std::string("admin:*@10.0.0.5\0\0\0\0\0", 21));
}

TEST(ArgvScrub, PasswordWithColonsAndAts) {
    EXPECT_EQ(Scrubbed("admin:p:a@s@[::1]:8443", true), std::string("admin:*@[::1]:8443\0\0\0\0", 22));
}

TEST(ArgvScrub, OneCharacterPassword) { EXPECT_EQ(Scrubbed("a:x@h", true), "a:*@h"); }

TEST(ArgvScrub, NothingToHide) {
    EXPECT_EQ(Scrubbed("admin@10.0.0.5:443", false), "admin@10.0.0.5:443");
    EXPECT_EQ(Scrubbed("admin:@host", false), "admin:@host");
    EXPECT_EQ(Scrubbed("ops@site@host", false), "ops@site@host");
    EXPECT_EQ(Scrubbed("", false), "");
    EXPECT_FALSE(MorvelCli::ScrubBmcValue(nullptr));
}

TEST(ArgvScrub, MalformedValueWithoutAt) {
    // Without '@' everything after the first ':' may be the password.
    EXPECT_EQ(Scrubbed("admin:secret", true), std::string("admin:*\0\0\0\0\0", 12));
}

TEST(ArgvScrub, EveryBmcWordOfArgv) {
    std::vector<std::string> words = {"morvel",  "smmlan",           "query",  "--bmc", "a:one@h1",
                                      "--bmc=b:two@h2", "--method", "x:y@z", "--bmcx", "c:three@h3", "--bmc"};
    std::vector<std::vector<char>> storage;
    std::vector<char*> argv;
    for (const std::string& word : words) {
        storage.emplace_back(word.begin(), word.end());
        storage.back().push_back('\0');
    }
    argv.reserve(storage.size());
    for (auto& bytes : storage) argv.push_back(bytes.data());
    EXPECT_EQ(MorvelCli::ScrubBmcPasswords(static_cast<int>(argv.size()), argv.data()), 2);
    EXPECT_STREQ(argv[4], "a:*@h1");
    EXPECT_STREQ(argv[5], "--bmc=b:*@h2");
    EXPECT_STREQ(argv[7], "x:y@z");
    EXPECT_STREQ(argv[9], "c:three@h3");
    EXPECT_STREQ(argv[10], "--bmc");
}

}  // namespace
