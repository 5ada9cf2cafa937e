#pragma once

#include <string>

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

}  // namespace MorvelCli
