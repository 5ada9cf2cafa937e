#pragma once

#include <vector>

#include "cli/CommandLine.h"
#include "cli/ModuleLoader.h"
#include "cli/RunSettings.h"
#include "cli/TargetList.h"
#include "host/UserContext.h"

namespace MorvelCli {

// Runs the loaded module once per target, up to --fanout at once, and shows
// every target's block or record and the summary as the command line asks.
// SIGINT and SIGTERM stop it: no target starts after them, running ones end
// at their next wait, and what ended is still reported. Returns the exit
// status: one target's own status; for more, 0 when all succeeded, else 1;
// 128 + the signal's number after a stop.
int RunFleet(const ModuleLoader& loader, const UserContext& base, const std::vector<Target>& targets,
             const CommandLine& line, const RunSettings& settings);

}  // namespace MorvelCli
