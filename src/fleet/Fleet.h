// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <string>
#include <vector>

#include "fleet/FleetRunner.h"
#include "fleet/TargetList.h"

namespace Fleet {

enum class OutputFormat { Text, Json, Table };

// How a run over many targets goes and is shown.
struct FleetOptions {
    std::string command;     // the command and subcommand, for the summary and the progress line
    std::string subcommand;
    unsigned fanout = 64;    // at most this many targets at once
    OutputFormat output = OutputFormat::Text;
};

// Runs every target through `run`, up to the fan-out at once, and shows every
// target's block or record and the summary as the options ask. SIGINT and
// SIGTERM stop it: no target starts after them, running ones end at their
// next wait, and what ended is still reported. Returns the exit status: one
// target's own status; for more, 0 when all succeeded, else 1; 128 + the
// signal's number after a stop.
int RunFleet(const std::vector<Target>& targets, const FleetOptions& options, RunTarget run);

}  // namespace Fleet
