// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <string>
#include <vector>

#include "cli/CommandSyntax.h"

namespace MorvelCli {

// The version number alone, e.g. "0.1.0".
std::string VersionNumber();

// "morvel VERSION" and a line end.
std::string VersionText();

// A command found in the module directory, for morvel --help.
struct CommandSummary {
    std::string name;
    std::string summary;  // the declaration's; a note when its module could not be read
};

// The host's usage, for morvel --help: the commands given, then the host options.
std::string HostHelpText(const std::vector<CommandSummary>& commands);

// The usage of one command, for morvel COMMAND --help, made from its syntax.
std::string CommandHelpText(const CommandSyntax& syntax);

// For a word that is not one of the command's declared subcommands: one
// line, without the "morvel: " prefix, that says so; empty when the word is
// one, or the command declares none (its module answers every word). `caseOnly`
// limits it to a word that differs from a subcommand in letter case alone.
std::string UnknownSubcommandNote(const CommandSyntax& syntax, const std::string& word, bool caseOnly);

}  // namespace MorvelCli
