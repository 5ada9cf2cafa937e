#include "cli/HelpText.h"

#include <gtest/gtest.h>

namespace {

TEST(HelpText, Version) { EXPECT_EQ(MorvelCli::VersionText(), "morvel " MORVEL_VERSION "\n"); }

TEST(HelpText, Host) {
    EXPECT_EQ(MorvelCli::HostHelpText(),
              "Usage: morvel [HOST OPTIONS] COMMAND SUBCOMMAND [--name VALUE | --name=VALUE]...\n"
              "\n"
              "Commands:\n"
              "  smmlan    switch an enclosure's SMM network on or off, enable its IPMI over LAN,\n"
              "            or show its network state and IPv4 address\n"
              "\n"
              "Host options (before the command):\n"
              "  --config FILE         KEY=VALUE configuration (default: $MORVEL_CONFIG; none when unset)\n"
              "  --log-file FILE       log file (default: $XDG_STATE_HOME/morvel/morvel.log,\n"
              "                        else ~/.local/state/morvel/morvel.log)\n"
              "  --log-level 0..4      log records up to this level: 0 fatal, 1 errors, 2 warnings,\n"
              "                        3 information (default), 4 tracing\n"
              "  --password-file FILE  take the BMC password from the first line of FILE\n"
              "                        (may also be given after the command)\n"
              "  -h, --help            show this help and exit\n"
              "  --version             show the version and exit\n"
              "\n"
              "When --bmc names no password (USER@HOST), it is taken from MORVEL_BMC_PASSWORD,\n"
              "else from --password-file, else asked for on the terminal.\n"
              "Modules are looked up in $MORVEL_MODULE_PATH, else in <prefix>/lib/morvel.\n"
              "\n"
              "Run 'morvel COMMAND --help' for the usage of a command.\n");
}

TEST(HelpText, Smmlan) {
    std::string text;
    ASSERT_TRUE(MorvelCli::CommandHelpText("smmlan", text));
    EXPECT_EQ(text,
              "Usage: morvel [HOST OPTIONS] smmlan SUBCOMMAND --bmc USER[:PASSWORD]@HOST[:PORT]\n"
              "                                    [--method static|dhcp|dhcp-failover]\n"
              "\n"
              "Subcommands (case-sensitive):\n"
              "  enable      switch the SMM network on\n"
              "  disable     switch the SMM network off\n"
              "  enableipmi  switch the SMM's IPMI over LAN on\n"
              "  query       show the SMM network state and IPv4 address\n"
              "\n"
              "Options:\n"
              "  --bmc USER[:PASSWORD]@HOST[:PORT]\n"
              "        the SMM and its credentials (required). The user ends at the first ':',\n"
              "        the host starts after the last '@'. Write an IPv6 address in brackets:\n"
              "        [2001:db8::10] or [2001:db8::10]:8443. PORT is the Redfish HTTPS port\n"
              "        (default 443); IPMI always uses UDP port 623.\n"
              "  --method static|dhcp|dhcp-failover\n"
              "        how the SMM obtains its address when enable goes over IPMI\n"
              "        (default: leave it unchanged)\n"
              "  --password-file FILE\n"
              "        take the password from the first line of FILE when --bmc names none\n");
}

TEST(HelpText, OnlyKnownCommands) {
    std::string text = "untouched";
    EXPECT_FALSE(MorvelCli::CommandHelpText("SMMLAN", text));
    EXPECT_FALSE(MorvelCli::CommandHelpText("probe", text));
    EXPECT_EQ(text, "untouched");
}

TEST(HelpText, KnownSubcommands) {
    EXPECT_EQ(MorvelCli::KnownSubcommands("smmlan"),
              (std::vector<std::string>{"enable", "disable", "enableipmi", "query"}));
    EXPECT_TRUE(MorvelCli::KnownSubcommands("probe").empty());
}

TEST(HelpText, UnknownSubcommandNote) {
    using MorvelCli::UnknownSubcommandNote;
    EXPECT_EQ(UnknownSubcommandNote("smmlan", "query", false), "");
    EXPECT_EQ(UnknownSubcommandNote("smmlan", "EnableIPMI", true),
              "subcommands are case-sensitive: did you mean 'enableipmi'?");
    EXPECT_EQ(UnknownSubcommandNote("smmlan", "QUERY", false), "subcommands are case-sensitive: did you mean 'query'?");
    EXPECT_EQ(UnknownSubcommandNote("smmlan", "quer", true), "");
    EXPECT_EQ(UnknownSubcommandNote("smmlan", "enable ", false),
              "unknown subcommand 'enable ' of smmlan; the subcommands are enable, disable, enableipmi and query");
    // A pasted credential in the subcommand's place is masked, control bytes shown as '?'.
    EXPECT_EQ(UnknownSubcommandNote("smmlan", "admin:pw@h\x1b", false),
              "unknown subcommand 'admin:*@h?' of smmlan; the subcommands are enable, disable, enableipmi and query");
    // Commands the host knows no subcommands of are left to their module.
    EXPECT_EQ(UnknownSubcommandNote("probe", "Query", false), "");
}

}  // namespace
