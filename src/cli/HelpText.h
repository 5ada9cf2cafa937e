// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <string>
#include <vector>

namespace MorvelCli {

// The version number alone, e.g. "0.1.0".
std::string VersionNumber();

// "morvel VERSION" and a line end.
std::string VersionText();

// The host's usage, for morvel --help.
std::string HostHelpText();

// The usage of one command, for morvel COMMAND --help; false for a command
// the host has no usage text for.
bool CommandHelpText(const std::string& command, std::string& text);

// Whether the command takes one operand after its subcommand (trust: HOST[:PORT]).
bool CommandTakesOperand(const std::string& command);

// Whether the command works on SMMs named by --bmc or --bmc-file (smmlan);
// without one, the host says so before the module's result line.
bool CommandNeedsTarget(const std::string& command);

// The subcommands of a command this host has usage text for, in the order the
// usage lists them; empty for any other command (its module answers for itself).
const std::vector<std::string>& KnownSubcommands(const std::string& command);

// For a word that is not one of the command's known subcommands: one line,
// without the "morvel: " prefix, that says so; empty when the word is one, or
// the host does not know the command's subcommands. `caseOnly` limits it to a
// word that differs from a subcommand in letter case alone.
std::string UnknownSubcommandNote(const std::string& command, const std::string& word, bool caseOnly);

}  // namespace MorvelCli
