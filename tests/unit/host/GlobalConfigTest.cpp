// SPDX-License-Identifier: GPL-3.0-or-later
#include "host/GlobalConfig.h"

#include <gtest/gtest.h>

#include "support/TestFiles.h"

namespace {

using Plexum::GetGlobalConfigValue;
using Plexum::GlobalConfig;

class GlobalConfigTest : public ::testing::Test {
protected:
    void SetUp() override { GlobalConfig::Clear(); }
    void TearDown() override { GlobalConfig::Clear(); }

    static std::string Item(const std::string& key) {
        std::string value = "<unset>";
        GlobalConfig::GetConfigItem(key, value);
        return value;
    }
};

TEST_F(GlobalConfigTest, UnsetKey) {
    std::string value = "untouched";
    EXPECT_EQ(GlobalConfig::GetConfigItem("SMM_NETWORK_CHECK_RETRY_COUNT", value), -1);
    EXPECT_EQ(value, "untouched");
}

TEST_F(GlobalConfigTest, ParsesLines) {
    std::string error;
    ASSERT_TRUE(GlobalConfig::LoadText("# comment\n"
                                       "\n"
                                       "   \n"
                                       "  # indented comment\n"
                                       "SMM_NETWORK_CHECK_RETRY_COUNT=3\n"
                                       "  SPACED KEY  = value with blanks \n"
                                       "URL=https://h/?a=b=c\n"
                                       "WINDOWS=crlf\r\n"
                                       "EMPTY=\n"
                                       "DUP=first\n"
                                       "DUP=second\n"
                                       "lower=case\n"
                                       "NO_FINAL_LINE_END=yes",
                                       "test.conf", error))
        << error;
    EXPECT_EQ(error, "");
    EXPECT_EQ(Item("SMM_NETWORK_CHECK_RETRY_COUNT"), "3");
    EXPECT_EQ(Item("SPACED KEY"), " value with blanks ");
    EXPECT_EQ(Item("URL"), "https://h/?a=b=c");
    EXPECT_EQ(Item("WINDOWS"), "crlf");
    EXPECT_EQ(Item("EMPTY"), "");
    EXPECT_EQ(Item("DUP"), "second");
    EXPECT_EQ(Item("lower"), "case");
    EXPECT_EQ(Item("LOWER"), "<unset>");
    EXPECT_EQ(Item("NO_FINAL_LINE_END"), "yes");
    EXPECT_EQ(Item("# comment"), "<unset>");
}

TEST_F(GlobalConfigTest, LoadReplacesTheWholeConfiguration) {
    std::string error;
    GlobalConfig::SetItem("OLD", "1");
    ASSERT_TRUE(GlobalConfig::LoadText("NEW=2\n", "t", error));
    EXPECT_EQ(Item("OLD"), "<unset>");
    EXPECT_EQ(Item("NEW"), "2");
}

TEST_F(GlobalConfigTest, LineWithoutKey) {
    GlobalConfig::SetItem("KEPT", "yes");
    for (const char* line : {"no equals sign", "=value", "  = value", "\t=x"}) {
        std::string error;
        EXPECT_FALSE(GlobalConfig::LoadText(std::string("A=1\n# c\n") + line + "\nB=2\n", "/etc/morvel.conf", error))
            << line;
        EXPECT_EQ(error, "/etc/morvel.conf:3: expected KEY=VALUE") << line;
        EXPECT_EQ(Item("KEPT"), "yes") << "a failed load leaves the configuration alone";
        EXPECT_EQ(Item("A"), "<unset>");
    }
}

TEST_F(GlobalConfigTest, LineNumbersCountCrLfLines) {
    std::string error;
    EXPECT_FALSE(GlobalConfig::LoadText("A=1\r\n\r\nbad\r\n", "f", error));
    EXPECT_EQ(error, "f:3: expected KEY=VALUE");
}

TEST_F(GlobalConfigTest, LoadFile) {
    ScratchDirectory dir;
    std::string error;
    const std::string path = dir.Write("morvel.conf", "REDFISH_STARTUP_WAIT_TIME = 12\n");
    ASSERT_TRUE(GlobalConfig::LoadFile(path, error)) << error;
    EXPECT_EQ(Item("REDFISH_STARTUP_WAIT_TIME"), " 12");
    EXPECT_EQ(GetGlobalConfigValue("REDFISH_STARTUP_WAIT_TIME", 180), 12);

    const std::string bad = dir.Write("bad.conf", "oops\n");
    EXPECT_FALSE(GlobalConfig::LoadFile(bad, error));
    EXPECT_EQ(error, bad + ":1: expected KEY=VALUE");
    EXPECT_EQ(Item("REDFISH_STARTUP_WAIT_TIME"), " 12");
}

TEST_F(GlobalConfigTest, LoadFileErrors) {
    ScratchDirectory dir;
    std::string error;
    EXPECT_FALSE(GlobalConfig::LoadFile(dir.Path() + "/none.conf", error));
    EXPECT_EQ(error, "cannot read configuration file " + dir.Path() + "/none.conf: No such file or directory");

    EXPECT_FALSE(GlobalConfig::LoadFile(dir.Path(), error));
    EXPECT_EQ(error, "cannot read configuration file " + dir.Path() + ": Is a directory");

    const std::string big = dir.Write("big.conf", "A=" + std::string(1 << 20, 'x') + "\n");
    EXPECT_FALSE(GlobalConfig::LoadFile(big, error));
    EXPECT_EQ(error, "configuration file " + big + " is larger than 1 MiB");

    const std::string exact = dir.Write("exact.conf", "A=" + std::string((1 << 20) - 3, 'x') + "\n");
    EXPECT_TRUE(GlobalConfig::LoadFile(exact, error)) << error;
}

TEST_F(GlobalConfigTest, ParseTextKeepsLineNumbers) {
    Plexum::ConfigSettings settings;
    std::string error;
    ASSERT_TRUE(GlobalConfig::ParseText("# c\nA=1\n\nB= 2 \r\nA=3\n", "f.conf", settings, error)) << error;
    ASSERT_EQ(settings.size(), 2u);
    EXPECT_EQ(settings["A"].value, "3");
    EXPECT_EQ(settings["A"].file, "f.conf");
    EXPECT_EQ(settings["A"].line, 5);
    EXPECT_EQ(settings["B"].value, " 2 ");
    EXPECT_EQ(settings["B"].line, 4);
    EXPECT_EQ(Item("A"), "<unset>") << "parsing installs nothing";
}

// The search path's merge: the first layer that sets a key wins it, a key in
// none stays unset, an optional file that does not exist is skipped.
TEST_F(GlobalConfigTest, ReadLayersMergesPerKey) {
    ScratchDirectory dir;
    const std::string user = dir.Write("user.conf", "SHARED=user\nUSER_ONLY=u\n");
    const std::string system = dir.Write("system.conf", "# all the keys\nSYSTEM_ONLY=s\nSHARED=system\n");
    Plexum::ConfigSettings merged;
    std::vector<std::string> read;
    std::string error;
    ASSERT_TRUE(GlobalConfig::ReadLayers({{user, false}, {system, false}}, merged, read, error)) << error;
    EXPECT_EQ(read, (std::vector<std::string>{user, system}));
    ASSERT_EQ(merged.size(), 3u);
    EXPECT_EQ(merged["SHARED"].value, "user");
    EXPECT_EQ(merged["SHARED"].file, user);
    EXPECT_EQ(merged["SHARED"].line, 1);
    EXPECT_EQ(merged["USER_ONLY"].value, "u");
    EXPECT_EQ(merged["SYSTEM_ONLY"].value, "s");
    EXPECT_EQ(merged["SYSTEM_ONLY"].file, system);
    EXPECT_EQ(merged["SYSTEM_ONLY"].line, 2);

    ASSERT_TRUE(GlobalConfig::ReadLayers({{dir.Path() + "/none.conf", false}, {system, false}}, merged, read, error));
    EXPECT_EQ(read, std::vector<std::string>{system});
    EXPECT_EQ(merged["SHARED"].value, "system");
    EXPECT_EQ(merged.count("USER_ONLY"), 0u);

    // A folder above it that is a file: it cannot exist either.
    ASSERT_TRUE(GlobalConfig::ReadLayers({{user + "/morvel.conf", false}, {dir.Path() + "/no/x.conf", false}}, merged,
                                         read, error));
    EXPECT_TRUE(read.empty());
    EXPECT_TRUE(merged.empty());

    GlobalConfig::Install(Plexum::ConfigSettings{{"K", {"v", "f", 1}}});
    EXPECT_EQ(Item("K"), "v");
}

TEST_F(GlobalConfigTest, ReadLayersErrors) {
    ScratchDirectory dir;
    const std::string good = dir.Write("good.conf", "A=1\n");
    Plexum::ConfigSettings merged{{"OLD", {"x", "f", 1}}};
    std::vector<std::string> read{"old"};
    std::string error;
    // A required file must exist.
    EXPECT_FALSE(GlobalConfig::ReadLayers({{dir.Path() + "/none.conf", true}}, merged, read, error));
    EXPECT_EQ(error, "cannot read configuration file " + dir.Path() + "/none.conf: No such file or directory");
    // One that exists but cannot be read is an error at every level.
    EXPECT_FALSE(GlobalConfig::ReadLayers({{good, false}, {dir.Path(), false}}, merged, read, error));
    EXPECT_EQ(error, "cannot read configuration file " + dir.Path() + ": Is a directory");
    const std::string bad = dir.Write("bad.conf", "A=1\nbad\n");
    EXPECT_FALSE(GlobalConfig::ReadLayers({{bad, false}, {good, false}}, merged, read, error));
    EXPECT_EQ(error, bad + ":2: expected KEY=VALUE");
    EXPECT_EQ(merged.size(), 1u) << "a failed read leaves the results alone";
    EXPECT_EQ(read, std::vector<std::string>{"old"});
}

TEST_F(GlobalConfigTest, IntegerValues) {
    struct Case {
        const char* text;
        int expected;
    };
    const Case cases[] = {
        {"5", 5},           {" 7 ", 7},         {"\t9\r", 9},       {"+5", 5},          {"-5", -5},
        {"0", 0},           {"007", 7},         {"2147483647", 2147483647},             {"-2147483648", -2147483647 - 1},
        {"+-5", -1},        {"++5", -1},        {"-+5", -1},        {"+", -1},          {"-", -1},
        {"", -1},           {"   ", -1},        {"5x", -1},         {"x5", -1},         {"1 2", -1},
        {"0x10", -1},       {"1e3", -1},        {"2147483648", -1}, {"-2147483649", -1}, {"3.5", -1},
    };
    for (const Case& c : cases) {
        GlobalConfig::SetItem("N", c.text);
        EXPECT_EQ(GetGlobalConfigValue("N", -1), c.expected) << "'" << c.text << "'";
    }
    EXPECT_EQ(GetGlobalConfigValue("UNSET", 24), 24);
}

TEST_F(GlobalConfigTest, SetAndClear) {
    GlobalConfig::SetItem("K", "v");
    EXPECT_EQ(Item("K"), "v");
    GlobalConfig::SetItem("K", "w");
    EXPECT_EQ(Item("K"), "w");
    GlobalConfig::Clear();
    EXPECT_EQ(Item("K"), "<unset>");
}

}  // namespace
