// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <string>

#include "host/CommandDeclaration.h"
#include "host/UserContext.h"

class SmmLanManager;
class SmmLanManagerRest;

// One subcommand of smmlan: its word and help line, and what it does on each
// path. The one table of them serves the declaration, the Redfish stage and
// the IPMI stage, so that a subcommand is added in one place.
struct SmmLanSubcommand {
    const char* name;
    const char* help;
    int32_t (*overRedfish)(SmmLanManagerRest& manager);
    int32_t (*overIpmi)(SmmLanManager& manager, const UserContext& context);
    // What the subcommand, once accepted over Redfish, made of the SMM: noted for the run's record.
    void (*noteEstablished)();
};

// The subcommand of that word (exact, case-sensitive), or null.
const SmmLanSubcommand* FindSmmLanSubcommand(const std::string& word);

// What the module declares of the smmlan command line.
const Plexum::CommandDeclaration& SmmLanDeclaration();
