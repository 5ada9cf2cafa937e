// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/CommandSyntax.h"

#include <algorithm>

#include "host/Text.h"

#ifndef MORVEL_SYSTEM_CONFIG
#error "MORVEL_SYSTEM_CONFIG must be defined by the build"
#endif

namespace MorvelCli {
namespace {

constexpr const char* kLogLevels[] = {"0", "1", "2", "3", "4", nullptr};
constexpr const char* kOutputs[] = {"text", "json", "table", nullptr};
constexpr const char* kProtocols[] = {"auto", "redfish", "ipmi", nullptr};
constexpr const char* kTlsModes[] = {"none", "ca", "pin", "tofu", nullptr};
constexpr const char* kRedfishAuths[] = {"basic", "session", nullptr};

constexpr char kTargets[] = "Targets";
constexpr char kMany[] = "Runs over many SMMs";
constexpr char kTrust[] = "Protocol and trust";
constexpr char kPasswords[] = "Passwords (when --bmc names none)";

// Edit distance with transpositions (optimal string alignment): "protocl" is
// one edit from "protocol", "verfiy" one from "verify".
size_t Distance(const std::string& a, const std::string& b) {
    std::vector<std::vector<size_t>> d(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i) d[i][0] = i;
    for (size_t j = 0; j <= b.size(); ++j) d[0][j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t cost = a[i - 1] == b[j - 1] ? 0 : 1;
            d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + cost});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
                d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
            }
        }
    }
    return d[a.size()][b.size()];
}

}  // namespace

const std::vector<OptionDeclaration>& HostOptions() {
    static const std::vector<OptionDeclaration> options = {
        {"config", "FILE", nullptr, false, false, nullptr,
         "KEY=VALUE configuration, read alone (default: $MORVEL_CONFIG; when unset, "
         "$XDG_CONFIG_HOME/morvel/morvel.conf (else ~/.config/morvel/morvel.conf) and then " MORVEL_SYSTEM_CONFIG
         ", the first file that sets a key winning)"},
        {"show-config", nullptr, nullptr, false, false, nullptr,
         "print every configuration key, its value and where it came from, and exit"},
        {"log-file", "FILE", nullptr, false, false, nullptr,
         "log file (default: $XDG_STATE_HOME/morvel/morvel.log, else ~/.local/state/morvel/morvel.log)"},
        {"log-level", "0..4", kLogLevels, false, false, nullptr,
         "log records up to this level: 0 fatal, 1 errors, 2 warnings, 3 information (default), 4 tracing"},
        {"password-file", "FILE", nullptr, false, false, nullptr,
         "take the BMC password from the first line of FILE (may also be given after the command)"},
        {"help", nullptr, nullptr, false, false, nullptr, "show this help and exit"},
        {"version", nullptr, nullptr, false, false, nullptr, "show the version and exit"},
    };
    return options;
}

const std::vector<OptionDeclaration>& SmmTargetOptions() {
    static const std::vector<OptionDeclaration> options = {
        {"bmc", "USER[:PASSWORD]@HOSTS", nullptr, false, true, kTargets,
         "the SMMs and their credentials. The user ends at the first ':', the hosts start after the last '@'. "
         "HOSTS is HOST[:PORT] or a comma-separated list of them, with ranges: smm[01-40], 10.1.2.[10-19,25]. "
         "Write an IPv6 address in brackets: [2001:db8::10] or [2001:db8::10]:8443. PORT is the Redfish HTTPS "
         "port (default 443); IPMI always uses UDP port 623. May be given more than once."},
        {"bmc-file", "FILE", nullptr, false, true, kTargets,
         "more targets, one --bmc value per line ('-': standard input). May be given more than once."},
        {"fanout", "N", nullptr, false, false, kMany, "at most N SMMs at once (1..1024, default 64)"},
        {"output", "text|json|table", kOutputs, true, false, kMany,
         "text: each SMM's lines, labelled, as it ends (default); json: one JSON record per SMM and a summary, as "
         "JSON Lines; table: one line per SMM in the order given (target, protocol, network, IPMI over LAN, IPv4, "
         "result) and the summary, when the run ends"},
        {"always-prefix", nullptr, nullptr, false, false, kMany, "label every line with its SMM, even for one"},
        {"detect-timeout", "SECONDS", nullptr, false, false, kMany,
         "an SMM that answers neither on its Redfish port nor on UDP port 623 within SECONDS is reported "
         "unreachable (13) without running the rest (0: off; default 5 for two or more SMMs, off for one)"},
        {"max-auth-failures", "N", nullptr, false, false, kMany,
         "until one SMM accepts the credentials, at most N are tried at once, and once N refused them no other "
         "starts (0: off; default 3 for two or more SMMs)"},
        {"canary", "N", nullptr, false, false, kMany,
         "the first N SMMs run first, alone; the rest start only if all N succeeded"},
        {"max-failures", "N|P%", nullptr, false, false, kMany,
         "once more than N SMMs, or than P % of those ended (judged from 10 on), failed, no other starts"},
        {"retry-file", "FILE", nullptr, false, false, kMany,
         "write the SMMs that did not succeed to FILE, one USER@HOST line each, for --bmc-file"},
        {"protocol", "auto|redfish|ipmi", kProtocols, true, false, kTrust,
         "Redfish first, then IPMI (default); or only the one named"},
        {"redfish-auth", "basic|session", kRedfishAuths, true, false, kTrust,
         "how Redfish requests authenticate: the password on each (basic, default), or a session's token: one "
         "login and one logout more per SMM"},
        {"tls-verify", "none|ca|pin|tofu", kTlsModes, true, false, kTrust,
         "how the SMM's certificate is trusted (default none); see --cacert, --known-smms"},
        {"cacert", "FILE", nullptr, false, false, kTrust,
         "the CA certificates for --tls-verify ca (default: the system's)"},
        {"known-smms", "FILE", nullptr, false, false, kTrust,
         "the pins for --tls-verify pin and tofu (see morvel trust --help)"},
        {"credentials-file", "FILE", nullptr, false, false, kPasswords, "'HOST-PATTERN USER PASSWORD' lines"},
        {"password-command", "CMD", nullptr, false, false, kPasswords, "run per SMM (no shell) to print its password"},
        {"password-file", "FILE", nullptr, false, false, kPasswords, "take the password from the first line of FILE"},
    };
    return options;
}

CommandSyntax::CommandSyntax(const CommandDeclaration& declaration) : m_declaration(&declaration) {
    m_options.assign(declaration.options, declaration.options + declaration.optionCount);
    if (declaration.smmTargets) m_options.insert(m_options.end(), SmmTargetOptions().begin(), SmmTargetOptions().end());
}

const OptionDeclaration* CommandSyntax::Find(const std::string& name) const {
    const auto found = std::find_if(m_options.begin(), m_options.end(),
                                    [&name](const OptionDeclaration& option) { return name == option.name; });
    return found == m_options.end() ? nullptr : &*found;
}

std::vector<std::string> CommandSyntax::SubcommandNames() const {
    std::vector<std::string> names;
    for (size_t i = 0; i < m_declaration->subcommandCount; ++i) names.emplace_back(m_declaration->subcommands[i].name);
    return names;
}

std::vector<std::string> ChoicesOf(const OptionDeclaration& option) {
    std::vector<std::string> choices;
    for (const char* const* choice = option.choices; choice != nullptr && *choice != nullptr; ++choice) {
        choices.emplace_back(*choice);
    }
    return choices;
}

std::string Alternatives(const std::vector<std::string>& words) {
    std::string text;
    for (size_t i = 0; i < words.size(); ++i) text += (i == 0 ? "" : i + 1 == words.size() ? " or " : ", ") + words[i];
    return text;
}

std::string ClosestName(const std::string& typed, const std::vector<std::string>& names) {
    // Far longer than any name: nothing is close, and nothing is worth measuring.
    if (typed.size() > 64) return std::string();
    // Short names are one edit from many others: only one edit counts for them.
    const size_t allowed = typed.size() <= 4 ? 1 : 2;
    // Names are matched exactly, but a name in the wrong letter case is plainly the one meant.
    const std::string lower = Plexum::Lower(typed);
    std::vector<std::string> close;
    for (const std::string& name : names) {
        if (Plexum::Lower(name) == lower) return name;
        const bool beginning = lower.size() >= 3 && name.size() > lower.size() && name.compare(0, lower.size(), lower) == 0;
        if (beginning || Distance(lower, Plexum::Lower(name)) <= allowed) close.push_back(name);
    }
    return close.size() == 1 ? close.front() : std::string();
}

}  // namespace MorvelCli
