// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstddef>
#include <cstdint>

// What a command module declares, once, about its command line: its
// subcommands, its operand, its options and their help. The host reads it
// after loading the module (the export morvel_command_declaration), refuses
// every option the command does not declare, and makes `morvel COMMAND --help`
// from it. Plain data, so that it crosses the module boundary as it is.
namespace Plexum {

struct OptionDeclaration {
    const char* name;  // without the leading "--"
    // How its value is written in the help ("FILE", "N", "text|json"); null
    // for a flag, which takes no value.
    const char* value;
    // The values it takes, null-terminated, or null when any text goes.
    const char* const* choices;
    // A value outside `choices` is refused; otherwise they are only offered.
    bool choicesOnly;
    bool repeatable;    // may be given more than once
    const char* group;  // the heading it is listed under in the help; null: "Options"
    const char* help;   // what it does; the host wraps it, and breaks lines at '\n' too
};

struct SubcommandDeclaration {
    const char* name;
    const char* help;  // what it does, wrapped like an option's
};

struct CommandDeclaration {
    // Changed whenever these structures change, so that a stale module is refused, not misread.
    static constexpr uint32_t kAbiVersion = 1;

    uint32_t abiVersion;
    const char* name;         // the command word
    const char* summary;      // one line for `morvel --help`
    const char* description;  // a paragraph for `morvel COMMAND --help`, wrapped; may be null
    // In the order the help lists them. None: the module answers every word itself.
    const SubcommandDeclaration* subcommands;
    size_t subcommandCount;
    // The word after the subcommand ("HOST[:PORT]"), or null when the command takes none.
    const char* operand;
    const OptionDeclaration* options;
    size_t optionCount;
    // The command works on SMMs named by --bmc and --bmc-file: the host adds
    // the options of its own that such runs take (targets, fan-out, trust, passwords).
    bool smmTargets;
};

}  // namespace Plexum

// The second symbol a module exports, unmangled, beside create_instance.
extern "C" {
typedef const Plexum::CommandDeclaration* (*CommandDeclarationFunction)();
}
constexpr char kCommandDeclarationSymbol[] = "morvel_command_declaration";
