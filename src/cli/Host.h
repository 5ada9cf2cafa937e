// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <string>

#include "host/UserPaths.h"

namespace MorvelCli {

// Everything the morvel executable does; returns its exit status. Scrubs the
// --bmc passwords out of argv before anything else.
int RunHost(int argc, char** argv);

// The log when --log-file names none: morvel.log by the rule of every
// per-user file (Plexum::UserFilePath); empty when there is no home.
std::string DefaultLogFilePath(const Plexum::UserLookup& user = Plexum::UserLookup());

}  // namespace MorvelCli
