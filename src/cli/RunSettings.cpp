// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/RunSettings.h"

#include <unistd.h>

#include <map>

#include "host/GlobalConfig.h"
#include "host/Text.h"
#include "host/UserPaths.h"
#include "trust/KnownSmms.h"
#include "trust/TargetPins.h"

namespace MorvelCli {
namespace {

using Plexum::Environment;

// The value of the option, else of the configuration key, else empty; `from`
// says which, for messages.
std::string Chosen(const CommandLine& line, const std::string& option, const std::string& key, std::string& from) {
    const auto found = line.options.find(option);
    if (found != line.options.end()) {
        from = "--" + option;
        return found->second;
    }
    std::string value;
    if (Plexum::GlobalConfig::GetConfigItem(key, value) == 0) {
        from = "configuration key " + key;
        return Plexum::Trim(value);
    }
    from.clear();
    return std::string();
}

template <typename Choice>
bool Pick(const std::string& value, const std::map<std::string, Choice>& choices, Choice& chosen) {
    const auto found = choices.find(value);
    if (found == choices.end()) return false;
    chosen = found->second;
    return true;
}

RunSettingsRead Refuse(const std::string& error) {
    RunSettingsRead read;
    read.error = error;
    return read;
}

// --redfish-auth, else REDFISH_AUTH, else Basic; an error line, or empty.
std::string ReadRedfishAuth(const CommandLine& line, Plexum::RedfishAuth& auth) {
    std::string from;
    const std::string chosen = Chosen(line, "redfish-auth", "REDFISH_AUTH", from);
    if (from.empty() || Pick<Plexum::RedfishAuth>(chosen, {{"basic", Plexum::RedfishAuth::Basic},
                                                           {"session", Plexum::RedfishAuth::Session}},
                                                  auth)) {
        return std::string();
    }
    return from + " must be basic or session";
}

}  // namespace

void RunSettings::ApplyTo(Plexum::RunContext& run, const Target& target) const {
    run.ChooseProtocols(protocols);
    run.ChooseRedfishAuth(redfishAuth);
    Plexum::TrustSettings forTarget = trust;
    forTarget.key = Trust::KnownSmms::Key(target.bmc.host, target.bmc.ipv6, target.bmc.port);
    if (knownSmms) Trust::ResolvePins(knownSmms, forTarget);
    run.SetTrust(std::move(forTarget));
}

RunSettingsRead ReadRunSettings(const CommandLine& line, const Plexum::UserLookup& user) {
    RunSettings settings;
    std::string from;

    const std::string protocol = Chosen(line, "protocol", "SMM_PROTOCOL", from);
    if (!from.empty() && !Pick<Plexum::ProtocolChoice>(protocol, {{"auto", Plexum::ProtocolChoice::Auto},
                                                                   {"redfish", Plexum::ProtocolChoice::Redfish},
                                                                   {"ipmi", Plexum::ProtocolChoice::Ipmi}},
                                                        settings.protocols)) {
        return Refuse(from + " must be auto, redfish or ipmi");
    }

    const std::string authError = ReadRedfishAuth(line, settings.redfishAuth);
    if (!authError.empty()) return Refuse(authError);

    const std::string verify = Chosen(line, "tls-verify", "REDFISH_TLS_VERIFY", from);
    if (!from.empty() &&
        !Pick<Plexum::TlsVerify>(verify, {{"none", Plexum::TlsVerify::None}, {"ca", Plexum::TlsVerify::Ca},
                                          {"pin", Plexum::TlsVerify::Pin}, {"tofu", Plexum::TlsVerify::Tofu}},
                                 settings.trust.verify)) {
        return Refuse(from + " must be none, ca, pin or tofu");
    }
    settings.trust.caFile = Chosen(line, "cacert", "REDFISH_CA_FILE", from);
    if (!from.empty() && (settings.trust.caFile.empty() || ::access(settings.trust.caFile.c_str(), R_OK) != 0)) {
        return Refuse("cannot read the CA certificates of " + from + ": " + settings.trust.caFile);
    }
    settings.trust.knownSmms = Chosen(line, "known-smms", "REDFISH_KNOWN_SMMS", from);
    if (!from.empty() && settings.trust.knownSmms.empty()) return Refuse(from + " needs a file name");
    if (from.empty()) settings.trust.knownSmms = Trust::KnownSmms::DefaultPath(user);
    const bool pins = settings.trust.verify == Plexum::TlsVerify::Pin || settings.trust.verify == Plexum::TlsVerify::Tofu;
    if (pins && settings.trust.knownSmms.empty()) {
        return Refuse("no place for the known-SMMs file: there is no home; give --known-smms FILE");
    }
    if (pins) {
        // Read here, once: a target whose pin it cannot give is refused when it runs.
        settings.knownSmms = std::make_shared<Trust::KnownSmms>(settings.trust.knownSmms);
        settings.knownSmms->Load();
    }

    const auto file = line.options.find("credentials-file");
    const char* const fileFromEnvironment = Environment("MORVEL_CREDENTIALS_FILE");
    if (file != line.options.end() || fileFromEnvironment != nullptr) {
        MorvelCli::CredentialsFile::Loaded loaded =
            MorvelCli::CredentialsFile::Load(file != line.options.end() ? file->second : fileFromEnvironment);
        if (!loaded.file) return Refuse(loaded.error);
        settings.credentials = std::move(loaded.file);
    }
    const auto command = line.options.find("password-command");
    const char* const commandFromEnvironment = Environment("MORVEL_PASSWORD_COMMAND");
    if (command != line.options.end() || commandFromEnvironment != nullptr) {
        MorvelCli::PasswordCommand::Parsed parsed =
            MorvelCli::PasswordCommand::Parse(command != line.options.end() ? command->second : commandFromEnvironment);
        if (!parsed.command) return Refuse(parsed.error);
        settings.passwordCommand = std::move(parsed.command);
    }
    RunSettingsRead read;
    read.settings = std::move(settings);
    return read;
}

}  // namespace MorvelCli
