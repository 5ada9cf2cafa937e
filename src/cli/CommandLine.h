// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <map>
#include <string>
#include <vector>

#include "cli/CommandSyntax.h"
#include "fleet/Fleet.h"
#include "host/ExitStatus.h"

namespace MorvelCli {

enum class Action {
    Run,          // load the command's module and run it
    HostHelp,     // morvel --help
    CommandHelp,  // morvel COMMAND ... --help
    Version,      // morvel --version
    ShowConfig,   // morvel [--config FILE] --show-config
};

using OutputFormat = Fleet::OutputFormat;

// Where targets were given, in the order given: a --bmc value or a --bmc-file name.
struct TargetSource {
    bool file = false;
    std::string value;
};

// The command line as words, before anything is looked up or opened.
struct CommandLine {
    std::string config;
    std::string logFile;
    std::string passwordFile;

    std::string command;
    std::string subCommand;
    // Every option after the subcommand; of --bmc and --bmc-file, which may
    // be repeated, the first (all of them are in `targets`).
    std::map<std::string, std::string> options;
    std::vector<TargetSource> targets;
    // The words after the subcommand, until ParseCommandOptions reads them
    // with the command's declaration.
    std::vector<std::string> rest;
    size_t commandIndex = 0;  // index of the command word in the given words
    size_t restIndex = 0;     // index of the first word of `rest`

    Action action = Action::Run;
    unsigned logLevel = 3;
    // How a run over many targets goes: at most `fanout` at once, records as text or JSON Lines.
    unsigned fanout = 64;
    OutputFormat output = OutputFormat::Text;
    bool hasConfig = false;
    bool hasLogFile = false;
    bool hasLogLevel = false;
    bool hasPasswordFile = false;
    bool showConfig = false;    // may be given more than once
    bool alwaysPrefix = false;  // --always-prefix: label even a single target's lines

    // The password file from the host option or, failing that, from the
    // command's options; empty when neither was given.
    std::string PasswordFile() const;
};

struct CommandLineError {
    std::string message;  // one line, without the "morvel: " prefix
    int exitStatus = 0;
    // The command word has no subcommand after it: the host tells an unknown
    // command from a known one before it says which.
    bool missingSubcommand = false;
};

// A missing or unknown command word is an invalid command, anything wrong
// with an option an invalid parameter.
using Plexum::kExitInternalError;
using Plexum::kExitInvalidCommand;
using Plexum::kExitInvalidParameter;

// The words up to the command's options, `words` being argv as given,
// program name first:
//   morvel [HOST OPTIONS] COMMAND SUBCOMMAND [OPERAND] [--name VALUE | --name=VALUE | --flag]...
// Host options are those HostOptions() declares; --help anywhere after the
// command asks for the command's help. The words after the subcommand are
// kept in `rest` for ParseCommandOptions, which needs the command's
// declaration. Error texts never quote a value.
bool ParseCommandLine(const std::vector<std::string>& words, CommandLine& line, CommandLineError& error);

// The words after the subcommand, read with the command's syntax: its
// operand, when it declares one, and then only the options it declares, a
// separate VALUE never beginning with "--" (write --name=VALUE for that), a
// flag never with a value, an option once unless it may repeat, a value
// among the choices where they are fixed. --fanout (1..1024) and --output
// set their fields.
bool ParseCommandOptions(const CommandSyntax& syntax, CommandLine& line, CommandLineError& error);

// The text with bytes that would garble a terminal line replaced by '?'.
std::string Printable(const std::string& text);

// A command-line word as messages and the log show it: Printable, and a word
// shaped like USER:PASSWORD@HOST (a --bmc value in the wrong place) with its
// password masked the way the argument vector shows it.
std::string ShownWord(const std::string& word);

}  // namespace MorvelCli
