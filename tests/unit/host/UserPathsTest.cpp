// SPDX-License-Identifier: GPL-3.0-or-later
#include "host/UserPaths.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "support/FakeUserLookup.h"

namespace {

using Plexum::UserFilePath;
using Plexum::UserFolder;

TEST(UserFilePath, AnAbsoluteXdgVariableWins) {
    const auto user = FakeUserLookup({{"XDG_CONFIG_HOME", "/xdg/config"}, {"XDG_STATE_HOME", "/xdg/state"},
                                      {"HOME", "/home/u"}},
                                     "/db/home");
    EXPECT_EQ(UserFilePath(UserFolder::Config, "morvel.conf", user), "/xdg/config/morvel/morvel.conf");
    EXPECT_EQ(UserFilePath(UserFolder::State, "known_smms", user), "/xdg/state/morvel/known_smms");
}

TEST(UserFilePath, ElseHome) {
    // Unset, empty and relative XDG variables alike.
    for (const char* xdg : {"", "relative/dir"}) {
        const auto user = FakeUserLookup({{"XDG_CONFIG_HOME", xdg}, {"XDG_STATE_HOME", xdg}, {"HOME", "/home/u"}},
                                         "/db/home");
        EXPECT_EQ(UserFilePath(UserFolder::Config, "morvel.conf", user), "/home/u/.config/morvel/morvel.conf") << xdg;
        EXPECT_EQ(UserFilePath(UserFolder::State, "morvel.log", user), "/home/u/.local/state/morvel/morvel.log") << xdg;
    }
    const auto user = FakeUserLookup({{"HOME", "/home/u"}}, "/db/home");
    EXPECT_EQ(UserFilePath(UserFolder::State, "known_smms", user), "/home/u/.local/state/morvel/known_smms");
}

TEST(UserFilePath, ElseThePasswordDatabasesHome) {
    const char* const homes[] = {"", nullptr};
    for (const char* home : homes) {
        std::map<std::string, std::string> variables = {{"XDG_STATE_HOME", "state"}};
        if (home != nullptr) variables["HOME"] = home;
        const auto user = FakeUserLookup(variables, "/db/home");
        EXPECT_EQ(UserFilePath(UserFolder::State, "known_smms", user), "/db/home/.local/state/morvel/known_smms");
        EXPECT_EQ(UserFilePath(UserFolder::Config, "morvel.conf", user), "/db/home/.config/morvel/morvel.conf");
        EXPECT_EQ(Plexum::HomeDirectory(user), "/db/home");
    }
}

TEST(UserFilePath, NoHomeAtAllIsNoPath) {
    const auto user = FakeUserLookup({{"XDG_STATE_HOME", "relative"}}, "");
    EXPECT_EQ(UserFilePath(UserFolder::State, "morvel.log", user), "");
    EXPECT_EQ(UserFilePath(UserFolder::Config, "morvel.conf", user), "");
    // An absolute XDG variable needs no home.
    EXPECT_EQ(UserFilePath(UserFolder::Config, "morvel.conf", FakeUserLookup({{"XDG_CONFIG_HOME", "/c"}})),
              "/c/morvel/morvel.conf");
}

// Sets an environment variable for one test and puts the old value back after it.
class ScopedVariable {
public:
    explicit ScopedVariable(const char* name) : m_name(name) {
        const char* old = std::getenv(name);
        if (old != nullptr) m_old = old;
    }
    ~ScopedVariable() {
        if (m_old) {
            ::setenv(m_name, m_old->c_str(), 1);
        } else {
            ::unsetenv(m_name);
        }
    }
    ScopedVariable(const ScopedVariable&) = delete;
    ScopedVariable& operator=(const ScopedVariable&) = delete;
    void Set(const char* value) { ASSERT_EQ(::setenv(m_name, value, 1), 0); }

private:
    const char* m_name;
    std::optional<std::string> m_old;
};

TEST(UserFilePath, TheProcessLookupReadsTheEnvironmentAndThePasswordDatabase) {
    ScopedVariable state("XDG_STATE_HOME");
    ScopedVariable home("HOME");
    passwd record{};
    passwd* entry = nullptr;
    char buffer[16384];
    ASSERT_EQ(::getpwuid_r(::getuid(), &record, buffer, sizeof buffer, &entry), 0);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(Plexum::PasswordDatabaseHome(), entry->pw_dir);
    state.Set("");
    home.Set("");
    EXPECT_EQ(Plexum::Environment("HOME"), nullptr);
    EXPECT_EQ(UserFilePath(UserFolder::State, "morvel.log"), std::string(entry->pw_dir) + "/.local/state/morvel/morvel.log");
    home.Set("/elsewhere");
    EXPECT_STREQ(Plexum::Environment("HOME"), "/elsewhere");
    EXPECT_EQ(UserFilePath(UserFolder::State, "morvel.log"), "/elsewhere/.local/state/morvel/morvel.log");
    state.Set("/state");
    EXPECT_EQ(UserFilePath(UserFolder::State, "morvel.log"), "/state/morvel/morvel.log");
}

}  // namespace
