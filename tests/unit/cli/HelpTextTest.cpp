// SPDX-License-Identifier: GPL-3.0-or-later
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
              "  trust     show, record or forget the pin of an SMM's Redfish key\n"
              "\n"
              "Host options (before the command):\n"
              "  --config FILE         KEY=VALUE configuration, read alone (default: $MORVEL_CONFIG;\n"
              "                        when unset, $XDG_CONFIG_HOME/morvel/morvel.conf (else\n"
              "                        ~/.config/morvel/morvel.conf) and then " MORVEL_SYSTEM_CONFIG ",\n"
              "                        the first file that sets a key winning)\n"
              "  --show-config         print every configuration key, its value and where it\n"
              "                        came from, and exit\n"
              "  --log-file FILE       log file (default: $XDG_STATE_HOME/morvel/morvel.log,\n"
              "                        else ~/.local/state/morvel/morvel.log)\n"
              "  --log-level 0..4      log records up to this level: 0 fatal, 1 errors, 2 warnings,\n"
              "                        3 information (default), 4 tracing\n"
              "  --password-file FILE  take the BMC password from the first line of FILE\n"
              "                        (may also be given after the command)\n"
              "  -h, --help            show this help and exit\n"
              "  --version             show the version and exit\n"
              "\n"
              "When --bmc names no password (USER@HOST), it is taken from --credentials-file,\n"
              "else from --password-command, else from MORVEL_BMC_PASSWORD, else from\n"
              "--password-file, else asked for on the terminal.\n"
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
              "       morvel [HOST OPTIONS] smmlan SUBCOMMAND --bmc USER[:PASSWORD]@HOSTS [--bmc ...]\n"
              "                                    [--bmc-file FILE] [--fanout N] [--output text|json]\n"
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
              "        (default 443); IPMI always uses UDP port 623. HOSTS may be a comma-separated\n"
              "        list with ranges: smm[01-40], 10.1.2.[10-19,25]. May be given more than once.\n"
              "  --bmc-file FILE\n"
              "        more targets, one --bmc value per line ('-': standard input)\n"
              "  --method static|dhcp|dhcp-failover\n"
              "        how the SMM obtains its address when enable goes over IPMI\n"
              "        (default: leave it unchanged)\n"
              "  --fanout N\n"
              "        at most N SMMs at once (1..1024, default 64)\n"
              "  --output text|json\n"
              "        json: one JSON record per SMM and a summary, as JSON Lines\n"
              "  --always-prefix\n"
              "        label every line with its SMM, even for one\n"
              "  --protocol auto|redfish|ipmi\n"
              "        Redfish first, then IPMI (default); or only the one named\n"
              "  --tls-verify none|ca|pin|tofu\n"
              "        how the SMM's certificate is trusted (default none); see --cacert, --known-smms\n"
              "  --cacert FILE\n"
              "        the CA certificates for --tls-verify ca (default: the system's)\n"
              "  --known-smms FILE\n"
              "        the pins for --tls-verify pin and tofu (see morvel trust --help)\n"
              "  --credentials-file FILE\n"
              "        'HOST-PATTERN USER PASSWORD' lines, for SMMs whose --bmc names no password\n"
              "  --password-command CMD\n"
              "        run per SMM (no shell) to print its password, for SMMs whose --bmc names none\n"
              "  --password-file FILE\n"
              "        take the password from the first line of FILE when --bmc names none\n");
}

TEST(HelpText, Trust) {
    std::string text;
    ASSERT_TRUE(MorvelCli::CommandHelpText("trust", text));
    EXPECT_EQ(text,
              "Usage: morvel [HOST OPTIONS] trust show|add|remove HOST[:PORT] [--known-smms FILE] [--yes]\n"
              "\n"
              "The pins of SMMs' Redfish keys, for smmlan --tls-verify pin or tofu.\n"
              "\n"
              "Subcommands:\n"
              "  show    connect and print the SMM's pin, certificate subject, issuer and validity;\n"
              "          nothing is sent and nothing is recorded\n"
              "  add     record that pin (asks on the terminal first, unless --yes)\n"
              "  remove  delete the SMM's line\n"
              "\n"
              "Options:\n"
              "  --known-smms FILE  the known-SMMs file (default: REDFISH_KNOWN_SMMS, else\n"
              "                     $XDG_STATE_HOME/morvel/known_smms, else ~/.local/state/morvel/known_smms)\n"
              "  --yes              record without asking\n");
    EXPECT_TRUE(MorvelCli::CommandTakesOperand("trust"));
    EXPECT_FALSE(MorvelCli::CommandTakesOperand("smmlan"));
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
    EXPECT_EQ(MorvelCli::KnownSubcommands("trust"), (std::vector<std::string>{"show", "add", "remove"}));
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
