// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "cli/CommandLine.h"
#include "cli/Credentials.h"
#include "fleet/TargetList.h"
#include "host/RunContext.h"
#include "host/UserPaths.h"

namespace Trust {
class KnownSmms;
}

namespace MorvelCli {

using Fleet::Target;

// What every target of a run is run with, beyond its --bmc: the protocols it
// may use, how its Redfish certificate is trusted, and where passwords not
// written in --bmc come from. Each comes from a command option, else its
// configuration key (or environment variable), else its default:
//   --protocol auto|redfish|ipmi        SMM_PROTOCOL                  auto
//   --redfish-auth basic|session        REDFISH_AUTH                  basic
//   --tls-verify none|ca|pin|tofu       REDFISH_TLS_VERIFY            none
//   --cacert FILE                       REDFISH_CA_FILE               the system's CA store
//   --known-smms FILE                   REDFISH_KNOWN_SMMS            $XDG_STATE_HOME/morvel/known_smms
//   --credentials-file FILE             $MORVEL_CREDENTIALS_FILE      none
//   --password-command CMD              $MORVEL_PASSWORD_COMMAND      none
struct RunSettings {
    Plexum::ProtocolChoice protocols = Plexum::ProtocolChoice::Auto;
    Plexum::RedfishAuth redfishAuth = Plexum::RedfishAuth::Basic;
    Plexum::TrustSettings trust;  // its key is set per target
    // pin, tofu: the known-SMMs file, read once for the run and shared by its targets.
    std::shared_ptr<Trust::KnownSmms> knownSmms;
    std::optional<MorvelCli::CredentialsFile> credentials;
    std::optional<MorvelCli::PasswordCommand> passwordCommand;

    // Installs the protocol choice, Redfish authentication and trust settings
    // of `target` into `run`, with its pin from knownSmms.
    void ApplyTo(Plexum::RunContext& run, const Target& target) const;
};

struct RunSettingsRead {
    std::optional<RunSettings> settings;
    std::string error;  // one line, without "morvel: ", naming the option or key at fault
};

// `user` decides the known-SMMs file's default place.
RunSettingsRead ReadRunSettings(const CommandLine& line, const Plexum::UserLookup& user = Plexum::UserLookup());

}  // namespace MorvelCli
