// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/HelpText.h"

#include <gtest/gtest.h>

namespace {

using MorvelCli::CommandSyntax;

const Plexum::OptionDeclaration kPinOptions[] = {
    {"known-smms", "FILE", nullptr, false, false, nullptr,
     "the known-SMMs file (default: REDFISH_KNOWN_SMMS, else $XDG_STATE_HOME/morvel/known_smms)"},
    {"yes", nullptr, nullptr, false, false, nullptr, "record without asking"},
    {"a-rather-long-option-name", "VALUE", nullptr, false, false, "Rare", "first line\nsecond line"},
};
const Plexum::SubcommandDeclaration kPinSubcommands[] = {
    {"show", "connect and print the SMM's pin, certificate subject, issuer and validity; nothing is sent and "
             "nothing is recorded"},
    {"remove", "delete the SMM's line"},
};
const Plexum::CommandDeclaration kPins = {Plexum::CommandDeclaration::kAbiVersion,
                                          "pins",
                                          "show or forget pins",
                                          "The pins of SMMs' keys.",
                                          kPinSubcommands,
                                          2,
                                          "HOST[:PORT]",
                                          kPinOptions,
                                          3,
                                          false};

TEST(HelpText, Version) { EXPECT_EQ(MorvelCli::VersionText(), "morvel " MORVEL_VERSION "\n"); }

TEST(HelpText, HostListsTheCommandsItIsGiven) {
    EXPECT_EQ(MorvelCli::HostHelpText({{"pins", "show or forget pins"},
                                       {"verylongcommand", "a summary long enough to be wrapped onto a second line by "
                                                           "the host, at the width of a terminal"}}),
              "Usage: morvel [HOST OPTIONS] COMMAND SUBCOMMAND [--name VALUE | --name=VALUE]...\n"
              "\n"
              "Commands:\n"
              "  pins      show or forget pins\n"
              "  verylongcommand\n"
              "            a summary long enough to be wrapped onto a second line by the host,\n"
              "            at the width of a terminal\n"
              "\n"
              "Host options (before the command):\n"
              "  --config FILE         KEY=VALUE configuration, read alone (default:\n"
              "                        $MORVEL_CONFIG; when unset,\n"
              "                        $XDG_CONFIG_HOME/morvel/morvel.conf (else\n"
              "                        ~/.config/morvel/morvel.conf) and then\n"
              "                        " MORVEL_SYSTEM_CONFIG ", the first file that sets a key\n"
              "                        winning)\n"
              "  --show-config         print every configuration key, its value and where it\n"
              "                        came from, and exit\n"
              "  --log-file FILE       log file (default: $XDG_STATE_HOME/morvel/morvel.log,\n"
              "                        else ~/.local/state/morvel/morvel.log)\n"
              "  --log-level 0..4      log records up to this level: 0 fatal, 1 errors, 2\n"
              "                        warnings, 3 information (default), 4 tracing\n"
              "  --password-file FILE  take the BMC password from the first line of FILE (may\n"
              "                        also be given after the command)\n"
              "  -h, --help            show this help and exit\n"
              "  --version             show the version and exit\n"
              "\n"
              "When --bmc names no password (USER@HOST), it is taken from --credentials-file,\n"
              "else from --password-command, else from MORVEL_BMC_PASSWORD, else from\n"
              "--password-file, else asked for on the terminal.\n"
              "Modules are looked up in $MORVEL_MODULE_PATH, else in <prefix>/lib/morvel.\n"
              "\n"
              "Run 'morvel COMMAND --help' for the usage of a command.\n");
    EXPECT_NE(MorvelCli::HostHelpText({}).find("Commands:\n  (none installed)\n\n"), std::string::npos);
}

TEST(HelpText, CommandIsMadeFromItsDeclaration) {
    EXPECT_EQ(MorvelCli::CommandHelpText(CommandSyntax(kPins)),
              "Usage: morvel [HOST OPTIONS] pins SUBCOMMAND HOST[:PORT] [OPTIONS]\n"
              "\n"
              "The pins of SMMs' keys.\n"
              "\n"
              "Subcommands (case-sensitive):\n"
              "  show    connect and print the SMM's pin, certificate subject, issuer and\n"
              "          validity; nothing is sent and nothing is recorded\n"
              "  remove  delete the SMM's line\n"
              "\n"
              "Options:\n"
              "  --known-smms FILE     the known-SMMs file (default: REDFISH_KNOWN_SMMS, else\n"
              "                        $XDG_STATE_HOME/morvel/known_smms)\n"
              "  --yes                 record without asking\n"
              "  -h, --help            show this help and exit\n"
              "\n"
              "Rare:\n"
              "  --a-rather-long-option-name VALUE\n"
              "                        first line\n"
              "                        second line\n");
}

TEST(HelpText, ACommandOnSmmsListsTheHostsOptionsAfterItsOwn) {
    const Plexum::OptionDeclaration own[] = {{"method", "static|dhcp", nullptr, false, false, nullptr, "how"}};
    const Plexum::CommandDeclaration smm = {Plexum::CommandDeclaration::kAbiVersion, "smm", "SMMs", nullptr, nullptr,
                                            0, nullptr, own, 1, true};
    const std::string text = MorvelCli::CommandHelpText(CommandSyntax(smm));
    EXPECT_EQ(text.substr(0, text.find("\nTargets:\n")),
              "Usage: morvel [HOST OPTIONS] smm SUBCOMMAND --bmc USER[:PASSWORD]@HOSTS [OPTIONS]\n"
              "\n"
              "Options:\n"
              "  --method static|dhcp  how\n"
              "  -h, --help            show this help and exit\n");
    // Every option the host adds is there, under its heading, in the order declared.
    size_t at = 0;
    for (const Plexum::OptionDeclaration& option : MorvelCli::SmmTargetOptions()) {
        const size_t found = text.find("\n  --" + std::string(option.name) + (option.value ? " " : ""), at);
        EXPECT_NE(found, std::string::npos) << option.name;
        at = found;
    }
    for (const char* heading : {"\nTargets:\n", "\nRuns over many SMMs:\n", "\nProtocol and trust:\n",
                                "\nPasswords (when --bmc names none):\n"}) {
        EXPECT_NE(text.find(heading), std::string::npos) << heading;
    }
}

TEST(HelpText, NoHelpLineIsWiderThanATerminal) {
    const std::string texts[] = {MorvelCli::HostHelpText({{"pins", "show or forget pins"},
                                                          {"verylongcommand", std::string(90, '.') + " y"}}),
                                 MorvelCli::CommandHelpText(CommandSyntax(kPins))};
    for (const std::string& text : texts) {
        size_t begin = 0;
        while (begin < text.size()) {
            const size_t end = text.find('\n', begin);
            const std::string line = text.substr(begin, end - begin);
            // The exceptions: an option whose name alone is longer, and a word that is.
            if (line.find("--a-rather-long-option-name") == std::string::npos && line.find("....") == std::string::npos) {
                EXPECT_LE(line.size(), 80u) << line;
            }
            EXPECT_TRUE(line.empty() || line.back() != ' ') << "trailing blank: " << line;
            begin = end + 1;
        }
    }
}

TEST(HelpText, UnknownSubcommandNote) {
    using MorvelCli::UnknownSubcommandNote;
    const CommandSyntax pins(kPins);
    EXPECT_EQ(UnknownSubcommandNote(pins, "show", false), "");
    EXPECT_EQ(UnknownSubcommandNote(pins, "Remove", true), "subcommands are case-sensitive: did you mean 'remove'?");
    EXPECT_EQ(UnknownSubcommandNote(pins, "SHOW", false), "subcommands are case-sensitive: did you mean 'show'?");
    EXPECT_EQ(UnknownSubcommandNote(pins, "sho", true), "");
    EXPECT_EQ(UnknownSubcommandNote(pins, "show ", false),
              "unknown subcommand 'show ' of pins; the subcommands are show and remove");
    // A pasted credential in the subcommand's place is masked, control bytes shown as '?'.
    EXPECT_EQ(UnknownSubcommandNote(pins, "admin:pw@h\x1b", false),
              "unknown subcommand 'admin:*@h?' of pins; the subcommands are show and remove");
    // A command that declares no subcommands answers every word itself.
    const Plexum::CommandDeclaration open = {Plexum::CommandDeclaration::kAbiVersion, "open", "any word", nullptr,
                                             nullptr, 0, nullptr, nullptr, 0, false};
    EXPECT_EQ(UnknownSubcommandNote(CommandSyntax(open), "anything", false), "");
}

TEST(HelpText, ClosestName) {
    using MorvelCli::ClosestName;
    const std::vector<std::string> names = {"tls-verify", "protocol", "password-file", "password-command", "bmc"};
    EXPECT_EQ(ClosestName("tls-verfy", names), "tls-verify");
    EXPECT_EQ(ClosestName("protcol", names), "protocol");
    EXPECT_EQ(ClosestName("tls", names), "tls-verify");
    EXPECT_EQ(ClosestName("bcm", names), "bmc");
    EXPECT_EQ(ClosestName("password", names), "");  // the beginning of two
    EXPECT_EQ(ClosestName("BMC", names), "bmc");       // another letter case, though also the beginning of others
    EXPECT_EQ(ClosestName("Protocol", names), "protocol");
    EXPECT_EQ(ClosestName("xyz", names), "");
    EXPECT_EQ(ClosestName(std::string(100, 'p'), names), "");
}

}  // namespace
