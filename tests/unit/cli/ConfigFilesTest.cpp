// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/ConfigFiles.h"

#include <gtest/gtest.h>

#include <sstream>

#include "support/FakeUserLookup.h"
#include "support/TestFiles.h"

namespace {

using MorvelCli::ConfigSearchPath;
using MorvelCli::ShowConfigText;
using Plexum::ConfigLayer;
using Plexum::ConfigSettings;

std::vector<std::string> Described(const std::vector<ConfigLayer>& layers) {
    std::vector<std::string> described;
    described.reserve(layers.size());
    for (const ConfigLayer& layer : layers) described.push_back(layer.path + (layer.required ? " required" : " optional"));
    return described;
}

// XDG_CONFIG_HOME (absent when null) and HOME, and /db/home in the password database.
Plexum::UserLookup User(const char* xdgConfigHome, const char* home) {
    std::map<std::string, std::string> variables;
    if (xdgConfigHome != nullptr) variables["XDG_CONFIG_HOME"] = xdgConfigHome;
    if (home != nullptr) variables["HOME"] = home;
    return FakeUserLookup(variables, "/db/home");
}

TEST(ConfigSearchPath, ExplicitFileAlone) {
    EXPECT_EQ(Described(ConfigSearchPath(true, "/a.conf", "/env.conf", User("/xdg", "/home/u"), "/etc/morvel/morvel.conf")),
              std::vector<std::string>{"/a.conf required"});
    EXPECT_EQ(Described(ConfigSearchPath(false, "", "/env.conf", User("/xdg", "/home/u"), "/etc/morvel/morvel.conf")),
              std::vector<std::string>{"/env.conf required"});
}

TEST(ConfigSearchPath, UserThenSystem) {
    const std::vector<std::string> xdg = {"/xdg/morvel/morvel.conf optional", "/etc/morvel/morvel.conf optional"};
    EXPECT_EQ(Described(ConfigSearchPath(false, "", nullptr, User("/xdg", "/home/u"), "/etc/morvel/morvel.conf")), xdg);
    EXPECT_EQ(Described(ConfigSearchPath(false, "", "", User("/xdg", "/home/u"), "/etc/morvel/morvel.conf")), xdg);
    const std::vector<std::string> home = {"/home/u/.config/morvel/morvel.conf optional",
                                           "/etc/morvel/morvel.conf optional"};
    // Unset, empty and relative XDG_CONFIG_HOME all fall back to HOME.
    EXPECT_EQ(Described(ConfigSearchPath(false, "", nullptr, User(nullptr, "/home/u"), "/etc/morvel/morvel.conf")), home);
    EXPECT_EQ(Described(ConfigSearchPath(false, "", nullptr, User("", "/home/u"), "/etc/morvel/morvel.conf")), home);
    EXPECT_EQ(Described(ConfigSearchPath(false, "", nullptr, User("rel/x", "/home/u"), "/etc/morvel/morvel.conf")), home);
    // Without HOME, the password database's home.
    const std::vector<std::string> database = {"/db/home/.config/morvel/morvel.conf optional",
                                               "/etc/morvel/morvel.conf optional"};
    EXPECT_EQ(Described(ConfigSearchPath(false, "", nullptr, User(nullptr, nullptr), "/etc/morvel/morvel.conf")),
              database);
    EXPECT_EQ(Described(ConfigSearchPath(false, "", nullptr, User("", ""), "/etc/morvel/morvel.conf")), database);
}

TEST(ConfigSearchPath, RecordNamesEachFile) {
    EXPECT_EQ(MorvelCli::ConfigurationReadRecord({"/a"}), "configuration read from /a");
    EXPECT_EQ(MorvelCli::ConfigurationReadRecord({"/a", "/b"}), "configuration read from /a and /b");
}

TEST(ConfigKeys, SecretNames) {
    for (const char* name : {"BMC_PASSWORD", "db_passwd", "API_TOKEN", "ClientSecret", "SSH_KEY", "KEY", "CREDENTIALS"}) {
        EXPECT_TRUE(MorvelCli::IsSecretKeyName(name)) << name;
    }
    for (const MorvelCli::KnownConfigKey& key : MorvelCli::KnownConfigKeys()) {
        EXPECT_FALSE(MorvelCli::IsSecretKeyName(key.name)) << key.name;
    }
}

// --show-config and README's table of keys list the same keys in the same
// order with the same defaults.
TEST(ConfigKeys, MatchTheReadme) {
    std::istringstream lines(ReadWholeFile(MORVEL_README));
    std::vector<std::string> rows;
    bool inSection = false;
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("### ", 0) == 0 || line.rfind("## ", 0) == 0) inSection = line == "### Configuration keys";
        if (inSection && line.rfind("| `", 0) == 0) {
            const size_t second = line.find(" | ", 3);
            const size_t third = line.find(" | ", second + 3);
            rows.push_back(line.substr(3, line.find('`', 3) - 3) + " " + line.substr(second + 3, third - second - 3));
        }
    }
    std::vector<std::string> known;
    for (const MorvelCli::KnownConfigKey& key : MorvelCli::KnownConfigKeys()) {
        std::string row = std::string(key.name) + " ";
        if (key.defaultValue != nullptr) {
            row += key.defaultValue;
        } else {
            // README words an unset default its own way; the row just must not claim a value.
            const size_t space = rows.size() > known.size() ? rows[known.size()].find(' ') : std::string::npos;
            row += space == std::string::npos ? "?" : rows[known.size()].substr(space + 1);
            EXPECT_TRUE(row.find("none") != std::string::npos || row.find("the system's") != std::string::npos ||
                        row.find("$XDG_STATE_HOME") != std::string::npos)
                << row;
        }
        known.push_back(row);
    }
    EXPECT_EQ(rows, known);
}

TEST(ShowConfig, DefaultsOnly) {
    EXPECT_EQ(ShowConfigText(ConfigSettings()),
              "# built-in default\n"
              "SMM_NETWORK_CHECK_RETRY_COUNT=24\n"
              "# built-in default\n"
              "SMM_NETWORK_CHECK_SLEEP_TIME=5\n"
              "# built-in default\n"
              "REDFISH_STARTUP_WAIT_TIME=180\n"
              "# built-in default\n"
              "REST_MAX_BODY_BYTES=268435456\n"
              "# built-in default: unset (no workarounds)\n"
              "#IPMI_WORKAROUND_FLAGS=\n"
              "# built-in default\n"
              "IPMI_CIPHER_SUITE_ID=3\n"
              "# built-in default\n"
              "IPMI_PRIVILEGE_LEVEL=admin\n"
              "# built-in default\n"
              "IPMI_SESSION_TIMEOUT_MS=20000\n"
              "# built-in default\n"
              "IPMI_RETRANSMISSION_TIMEOUT_MS=1000\n"
              "# built-in default\n"
              "SMM_PROTOCOL=auto\n"
              "# built-in default\n"
              "REDFISH_AUTH=basic\n"
              "# built-in default\n"
              "REDFISH_TLS_VERIFY=none\n"
              "# built-in default: unset (the system's CA certificates)\n"
              "#REDFISH_CA_FILE=\n"
              "# built-in default: unset ($XDG_STATE_HOME/morvel/known_smms, else ~/.local/state/morvel/known_smms)\n"
              "#REDFISH_KNOWN_SMMS=\n"
              "# built-in default\n"
              "SMM_DETECT_TIMEOUT=5\n"
              "# built-in default\n"
              "SMM_MAX_AUTH_FAILURES=3\n"
              "# built-in default\n"
              "LOG_MAX_BYTES=16777216\n"
              "# built-in default\n"
              "LOG_KEEP=3\n");
}

TEST(ShowConfig, FileValuesUnknownKeysAndSecrets) {
    const ConfigSettings settings = {
        {"IPMI_CIPHER_SUITE_ID", {"17", "/etc/morvel/morvel.conf", 4}},
        {"REDFISH_CA_FILE", {" /ca.pem", "/home/u/.config/morvel/morvel.conf", 2}},
        {"ZZ_EXTRA", {"a=b # c", "/etc/morvel/morvel.conf", 9}},
        {"BMC_PASSWORD", {"Hx7secret", "/etc/morvel/morvel.conf", 7}},
        {"api_key", {"Kq9", "/home/u/.config/morvel/morvel.conf", 1}},
    };
    const std::string text = ShowConfigText(settings);
    EXPECT_NE(text.find("# /etc/morvel/morvel.conf line 4\nIPMI_CIPHER_SUITE_ID=17\n# built-in default\n"
                        "IPMI_PRIVILEGE_LEVEL=admin\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("# /home/u/.config/morvel/morvel.conf line 2\nREDFISH_CA_FILE= /ca.pem\n# built-in default: "
                        "unset ($XDG_STATE_HOME"),
              std::string::npos)
        << text;
    // Unknown keys after the known ones, by name; secrets as '*'.
    const std::string tail =
        "#REDFISH_KNOWN_SMMS=\n"
        "# built-in default\nSMM_DETECT_TIMEOUT=5\n"
        "# built-in default\nSMM_MAX_AUTH_FAILURES=3\n"
        "# built-in default\nLOG_MAX_BYTES=16777216\n"
        "# built-in default\nLOG_KEEP=3\n"
        "# unknown key, /etc/morvel/morvel.conf line 7, value not shown\n"
        "BMC_PASSWORD=*\n"
        "# unknown key, /etc/morvel/morvel.conf line 9\n"
        "ZZ_EXTRA=a=b # c\n"
        "# unknown key, /home/u/.config/morvel/morvel.conf line 1, value not shown\n"
        "api_key=*\n";
    ASSERT_GE(text.size(), tail.size());
    EXPECT_EQ(text.substr(text.size() - tail.size()), tail);
    EXPECT_EQ(text.find("Hx7secret"), std::string::npos);
    EXPECT_EQ(text.find("Kq9"), std::string::npos);

    // What it prints reads back as the same configuration, secrets aside.
    ConfigSettings reread;
    std::string error;
    ASSERT_TRUE(Plexum::GlobalConfig::ParseText(text, "shown", reread, error)) << error;
    EXPECT_EQ(reread["IPMI_CIPHER_SUITE_ID"].value, "17");
    EXPECT_EQ(reread["REDFISH_CA_FILE"].value, " /ca.pem");
    EXPECT_EQ(reread["ZZ_EXTRA"].value, "a=b # c");
    EXPECT_EQ(reread["SMM_PROTOCOL"].value, "auto");
    EXPECT_EQ(reread.count("REDFISH_KNOWN_SMMS"), 0u) << "an unset default stays unset";
    EXPECT_EQ(reread.count("IPMI_WORKAROUND_FLAGS"), 0u);
}

}  // namespace
