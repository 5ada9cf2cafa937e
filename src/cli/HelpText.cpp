// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/HelpText.h"

#include <algorithm>
#include <cctype>

#include "cli/CommandLine.h"

#ifndef MORVEL_SYSTEM_CONFIG
#error "MORVEL_SYSTEM_CONFIG must be defined by the build"
#endif
#ifndef MORVEL_VERSION
#error "MORVEL_VERSION must be defined by the build"
#endif

namespace MorvelCli {

std::string VersionNumber() { return MORVEL_VERSION; }

std::string VersionText() { return "morvel " + VersionNumber() + "\n"; }

std::string HostHelpText() {
    return "Usage: morvel [HOST OPTIONS] COMMAND SUBCOMMAND [--name VALUE | --name=VALUE]...\n"
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
           "Modules are looked up in $MORVEL_MODULE_PATH, else in <prefix>/" MORVEL_MODULE_SUBDIR ".\n"
           "\n"
           "Run 'morvel COMMAND --help' for the usage of a command.\n";
}

const std::vector<std::string>& KnownSubcommands(const std::string& command) {
    static const std::vector<std::string> smmlan = {"enable", "disable", "enableipmi", "query"};
    static const std::vector<std::string> trust = {"show", "add", "remove"};
    static const std::vector<std::string> none;
    return command == "smmlan" ? smmlan : command == "trust" ? trust : none;
}

std::string UnknownSubcommandNote(const std::string& command, const std::string& word, bool caseOnly) {
    const std::vector<std::string>& known = KnownSubcommands(command);
    if (known.empty() || std::find(known.begin(), known.end(), word) != known.end()) return std::string();
    const auto sameLetters = [&word](const std::string& name) {
        return name.size() == word.size() &&
               std::equal(name.begin(), name.end(), word.begin(), [](char a, char b) {
                   return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
               });
    };
    const auto match = std::find_if(known.begin(), known.end(), sameLetters);
    if (match != known.end()) return "subcommands are case-sensitive: did you mean '" + *match + "'?";
    if (caseOnly) return std::string();
    std::string list;
    for (size_t i = 0; i < known.size(); ++i) list += (i == 0 ? "" : i + 1 == known.size() ? " and " : ", ") + known[i];
    return "unknown subcommand '" + ShownWord(word) + "' of " + command + "; the subcommands are " + list;
}

bool CommandHelpText(const std::string& command, std::string& text) {
    if (command == "trust") {
        text =
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
            "  --yes              record without asking\n";
        return true;
    }
    if (command != "smmlan") return false;
    text =
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
        "        take the password from the first line of FILE when --bmc names none\n";
    return true;
}

bool CommandTakesOperand(const std::string& command) { return command == "trust"; }

bool CommandNeedsTarget(const std::string& command) { return command == "smmlan"; }

}  // namespace MorvelCli
