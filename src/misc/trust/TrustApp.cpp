// SPDX-License-Identifier: GPL-3.0-or-later
#include "misc/trust/TrustApp.h"

#include <fcntl.h>
#include <unistd.h>

#include <vector>

#include "common/rest/PeerCertificate.h"
#include "common/result/ResultCodes.h"
#include "host/BmcTarget.h"
#include "host/ConsoleReport.h"
#include "host/Files.h"
#include "host/GlobalConfig.h"
#include "host/Text.h"

namespace {

constexpr char kSource[] = "src/misc/trust/TrustApp";
// A certificate read gives up after this long.
constexpr int32_t kReadSeconds = 20;

void Say(const std::string& text) { ConsoleReport(3, kSource, __LINE__).Stream() << text; }
void Complain(const std::string& text) { ConsoleReport(1, kSource, __LINE__).Stream() << text; }

}  // namespace

std::string TrustApp::Option(const std::string& name) const {
    const auto found = m_userContext.options.find(name);
    return found == m_userContext.options.end() ? std::string() : found->second;
}

MorvelResult TrustApp::init(const UserContext& context) {
    m_userContext = context;
    const std::string target = Option("target");
    if (target.empty()) {
        Complain("trust: name the SMM: morvel trust " + context.subCommand + " HOST[:PORT]");
        return MorvelResult(RESULT_INVALID_PARAMETER);
    }
    // The host part of --bmc, without user or password.
    Plexum::BmcTarget parsed;
    std::string error;
    if (!Plexum::ParseBmcTarget("user@" + target, parsed, error)) {
        Complain("trust: " + error);
        return MorvelResult(RESULT_INVALID_PARAMETER);
    }
    m_label = target;
    m_urlHost = parsed.ipv6 ? "[" + parsed.host + "]" : parsed.host;
    m_port = parsed.port;
    m_key = Trust::KnownSmms::Key(parsed.host, parsed.ipv6, parsed.port);
    m_knownSmmsPath = Option("known-smms");
    if (m_knownSmmsPath.empty() && Plexum::GlobalConfig::GetConfigItem("REDFISH_KNOWN_SMMS", m_knownSmmsPath) == 0) {
        m_knownSmmsPath = Plexum::Trim(m_knownSmmsPath);
    }
    if (m_knownSmmsPath.empty()) {
        m_knownSmmsPath = Trust::KnownSmms::DefaultPath();
    }
    if (m_knownSmmsPath.empty()) {
        Complain("trust: no place for the known-SMMs file: there is no home; give --known-smms FILE");
        return MorvelResult(RESULT_INVALID_PARAMETER);
    }
    return MorvelResult(RESULT_SUCCEED);
}

// The one table of the subcommands: the declaration and run both read it.
struct TrustApp::Subcommand {
    const char* name;
    const char* help;
    enum class Action { Show, Add, Remove } action;
};

const TrustApp::Subcommand TrustApp::kSubcommands[] = {
    {"show", "connect and print the SMM's pin, certificate subject, issuer and validity; nothing is sent and "
             "nothing is recorded", Subcommand::Action::Show},
    {"add", "record that pin (asks on the terminal first, unless --yes)", Subcommand::Action::Add},
    {"remove", "delete the SMM's line", Subcommand::Action::Remove},
};

const Plexum::CommandDeclaration& TrustApp::Declaration() {
    static const Plexum::OptionDeclaration options[] = {
        {"known-smms", "FILE", nullptr, false, false, nullptr,
         "the known-SMMs file (default: REDFISH_KNOWN_SMMS, else $XDG_STATE_HOME/morvel/known_smms, else "
         "~/.local/state/morvel/known_smms)"},
        {"yes", nullptr, nullptr, false, false, nullptr, "record without asking"},
    };
    static const std::vector<Plexum::SubcommandDeclaration> subcommands = [] {
        std::vector<Plexum::SubcommandDeclaration> list;
        for (const Subcommand& subcommand : kSubcommands) list.push_back({subcommand.name, subcommand.help});
        return list;
    }();
    static const Plexum::CommandDeclaration declaration = {
        Plexum::CommandDeclaration::kAbiVersion,
        "trust",
        "show, record or forget the pin of an SMM's Redfish key",
        "The pins of SMMs' Redfish keys, for smmlan --tls-verify pin or tofu.",
        subcommands.data(),
        subcommands.size(),
        "HOST[:PORT]",
        options,
        sizeof options / sizeof options[0],
        false,
    };
    return declaration;
}

MorvelResult TrustApp::run() {
    for (const Subcommand& subcommand : kSubcommands) {
        if (m_userContext.subCommand != subcommand.name) continue;
        switch (subcommand.action) {
            case Subcommand::Action::Show:
                return MorvelResult(ShowAndMaybeAdd(false));
            case Subcommand::Action::Add:
                return MorvelResult(ShowAndMaybeAdd(true));
            case Subcommand::Action::Remove:
                return MorvelResult(Remove());
        }
    }
    return MorvelResult(RESULT_INVALID_COMMAND);
}

int32_t TrustApp::ShowAndMaybeAdd(bool andAdd) {
    const Rest::PeerCertificateRead read = Rest::ReadPeerCertificate(m_urlHost, m_port, kReadSeconds);
    if (!read.certificate) {
        Complain("trust: cannot read the certificate of " + m_label + ": " + read.error);
        return RESULT_CONNECTION_FAILED;
    }
    const Rest::PeerCertificate& certificate = *read.certificate;
    Trust::KnownSmms store(m_knownSmmsPath);
    const Trust::KnownSmms::Found found = store.Find(m_key);
    if (!found.error.empty()) {
        Complain("trust: " + found.error);
        return RESULT_GENERIC_FAILURE;
    }
    Say(m_label);
    Say("    pin:      " + certificate.pin);
    Say("    subject:  " + Plexum::Printable(certificate.subject));
    Say("    issuer:   " + Plexum::Printable(certificate.issuer));
    Say("    valid:    " + Plexum::Printable(certificate.notBefore) + " to " + Plexum::Printable(certificate.notAfter));
    if (!found.entry) {
        Say("    recorded: no pin in " + m_knownSmmsPath);
    } else if (found.entry->pin == certificate.pin) {
        Say("    recorded: this pin, first seen " + found.entry->firstSeen);
    } else {
        Say("    recorded: ANOTHER pin, " + found.entry->pin + ", first seen " + found.entry->firstSeen);
    }
    if (!andAdd) return RESULT_SUCCEED;

    if (found.entry && found.entry->pin == certificate.pin) return RESULT_SUCCEED;
    if (found.entry) {
        Complain("trust: " + m_label + " has another pin recorded; if its certificate was replaced on purpose, run "
                 "'morvel trust remove " + m_label + "' first");
        return RESULT_GENERIC_FAILURE;
    }
    int32_t refusal = RESULT_SUCCEED;
    if (m_userContext.options.count("yes") == 0 &&
        !Confirm("Record this pin for " + m_label + " in " + m_knownSmmsPath + "? [y/N] ", refusal)) {
        return refusal;
    }
    const Trust::KnownSmms::Change added = store.Add(m_key, certificate.pin, Trust::KnownSmms::UtcNow());
    switch (added.outcome) {
        case Trust::KnownSmms::Outcome::Added:
            Say("recorded " + m_key + " " + certificate.pin + " in " + m_knownSmmsPath);
            return RESULT_SUCCEED;
        case Trust::KnownSmms::Outcome::AlreadyThere:
            return RESULT_SUCCEED;
        case Trust::KnownSmms::Outcome::Different:
            Complain("trust: another pin was recorded for " + m_label + " meanwhile: " + added.pin);
            return RESULT_GENERIC_FAILURE;
        default:
            Complain("trust: " + added.error);
            return RESULT_GENERIC_FAILURE;
    }
}

bool TrustApp::Confirm(const std::string& question, int32_t& refusal) const {
    Plexum::UniqueFd terminal(::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (terminal.Get() < 0) {
        Complain("trust: no terminal to ask on; give --yes to record the pin without asking");
        refusal = RESULT_INVALID_PARAMETER;
        return false;
    }
    std::string answer;
    char c = 0;
    bool asked = ::write(terminal.Get(), question.data(), question.size()) == static_cast<ssize_t>(question.size());
    while (asked && answer.size() < 16) {
        const ssize_t got = ::read(terminal.Get(), &c, 1);
        if (got <= 0 || c == '\n') break;
        answer.push_back(c);
    }
    answer = Plexum::Lower(Plexum::Trim(answer));
    if (answer == "y" || answer == "yes") return true;
    Say("not recorded");
    refusal = RESULT_GENERIC_FAILURE;
    return false;
}

int32_t TrustApp::Remove() {
    Trust::KnownSmms store(m_knownSmmsPath);
    const Trust::KnownSmms::Change removed = store.Remove(m_key);
    switch (removed.outcome) {
        case Trust::KnownSmms::Outcome::Removed:
            Say("removed " + m_key + " " + removed.pin + " from " + m_knownSmmsPath);
            return RESULT_SUCCEED;
        case Trust::KnownSmms::Outcome::Absent:
            Complain("trust: no pin is recorded for " + m_label + " in " + m_knownSmmsPath);
            return RESULT_GENERIC_FAILURE;
        default:
            Complain("trust: " + removed.error);
            return RESULT_GENERIC_FAILURE;
    }
}
