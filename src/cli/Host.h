// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <string>

namespace MorvelCli {

// Everything the morvel executable does; returns its exit status. Scrubs the
// --bmc passwords out of argv before anything else.
int RunHost(int argc, char** argv);

// $XDG_STATE_HOME/morvel/morvel.log when XDG_STATE_HOME is an absolute path,
// else HOME/.local/state/morvel/morvel.log; empty when there is no home.
std::string DefaultLogFilePath(const char* xdgStateHome, const char* home);

}  // namespace MorvelCli
