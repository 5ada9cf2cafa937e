// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <string>

#include "trust/KnownSmms.h"
#include "host/CommandDeclaration.h"
#include "host/MorvelResult.h"
#include "host/basic_app.h"

namespace Rest {
struct PeerCertificate;
}

// The trust command: the pins of SMMs' Redfish keys in the known-SMMs file,
// for smmlan --tls-verify pin and tofu.
//   show HOST[:PORT]    connects, prints the pin, subject, issuer and validity; changes nothing
//   add HOST[:PORT]     the same, then records the pin (asks on the terminal unless --yes)
//   remove HOST[:PORT]  deletes the SMM's line
class TrustApp : public basic_app {
public:
    // What the module declares of the trust command line.
    static const Plexum::CommandDeclaration& Declaration();

    MorvelResult init(const UserContext& context) override;
    MorvelResult run() override;

private:
    struct Subcommand;
    static const Subcommand kSubcommands[];

    int32_t ShowAndMaybeAdd(bool andAdd);
    int32_t Remove();
    // Whether the user says yes to recording the pin; false with a reason when no terminal can ask.
    bool Confirm(const std::string& question, int32_t& refusal) const;

    std::string Option(const std::string& name) const;

    std::string m_label;  // HOST[:PORT] as written
    std::string m_urlHost;
    int m_port = 443;
    std::string m_key;
    std::string m_knownSmmsPath;
};
