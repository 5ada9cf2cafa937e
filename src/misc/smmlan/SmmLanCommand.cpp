// SPDX-License-Identifier: GPL-3.0-or-later
#include "misc/smmlan/SmmLanCommand.h"

#include <vector>

#include "host/RunContext.h"
#include "misc/smmlan/SmmLanManager.h"
#include "misc/smmlan/SmmLanManagerRest.h"

namespace {

constexpr char kMethodOption[] = "method";

std::string OptionValue(const UserContext& context, const char* name) {
    const auto found = context.options.find(name);
    return found != context.options.end() ? found->second : std::string();
}

Plexum::RunContext& Run() { return Plexum::RunContext::Current(); }

const SmmLanSubcommand kSubcommands[] = {
    {"enable", "switch the SMM network on",
     [](SmmLanManagerRest& manager) { return manager.Enable("LANEnabled", "true"); },
     [](SmmLanManager& manager, const UserContext& context) {
         return manager.Enable(SmmLanManager::ParseIpObtainMethod(OptionValue(context, kMethodOption)));
     },
     [] { Run().NoteNetwork(true); }},
    {"disable", "switch the SMM network off",
     [](SmmLanManagerRest& manager) { return manager.Disable("LANEnabled", "false"); },
     [](SmmLanManager& manager, const UserContext&) { return manager.Disable(); },
     [] { Run().NoteNetwork(false); }},
    {"enableipmi", "switch the SMM's IPMI over LAN on",
     [](SmmLanManagerRest& manager) { return manager.Enable("IPMIEnabled", "true"); },
     [](SmmLanManager& manager, const UserContext&) { return manager.EnableIpmi(); },
     [] { Run().NoteIpmiOverLan(true); }},
    {"query", "show the SMM network state and IPv4 address",
     [](SmmLanManagerRest& manager) { return manager.Query(); },
     [](SmmLanManager& manager, const UserContext&) { return manager.Query(); },
     [] {}},
};

// Offered, not enforced: any other text leaves the SMM's method as it is.
constexpr const char* kMethods[] = {"static", "dhcp", "dhcp-failover", nullptr};

const Plexum::OptionDeclaration kOptions[] = {
    {kMethodOption, "static|dhcp|dhcp-failover", kMethods, false, false, nullptr,
     "how the SMM obtains its address when enable goes over IPMI (any letter case; anything else, or no "
     "option, leaves it unchanged)"},
};

}  // namespace

const SmmLanSubcommand* FindSmmLanSubcommand(const std::string& word) {
    for (const SmmLanSubcommand& subcommand : kSubcommands) {
        if (word == subcommand.name) return &subcommand;
    }
    return nullptr;
}

const Plexum::CommandDeclaration& SmmLanDeclaration() {
    static const std::vector<Plexum::SubcommandDeclaration> subcommands = [] {
        std::vector<Plexum::SubcommandDeclaration> list;
        for (const SmmLanSubcommand& subcommand : kSubcommands) list.push_back({subcommand.name, subcommand.help});
        return list;
    }();
    static const Plexum::CommandDeclaration declaration = {
        Plexum::CommandDeclaration::kAbiVersion,
        "smmlan",
        "switch an enclosure's SMM network on or off, enable its IPMI over LAN, or show its network state and "
        "IPv4 address",
        "Each SMM is tried over Redfish (HTTPS) first and over IPMI-over-LAN when its Redfish service does not "
        "offer the network settings.",
        subcommands.data(),
        subcommands.size(),
        nullptr,
        kOptions,
        sizeof kOptions / sizeof kOptions[0],
        true,
    };
    return declaration;
}
