// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <optional>
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
    unsigned fanout = 64;    // at most this many targets exchanging packets at once
    OutputFormat output = OutputFormat::Text;
    GuardLimits guards;
    std::optional<DetectOptions> detect;  // none: every target runs without being asked first
    std::string retryFile;                // empty: none
};

// Targets started and not ended at most (paused ones included): each holds a
// thread, and may hold a few files.
constexpr size_t kMaxInFlight = 1024;

// Runs every target through `run` as the options say (detection, fan-out,
// guards) and shows every target's block, line or record and the summary as
// they ask; writes the retry file. SIGINT and SIGTERM stop it: no target
// starts after them, running ones end at their next wait, and what ended is
// still reported. Returns the exit status: one target's own status; for
// more, 0 when all succeeded, else 1; 128 + the signal's number after a stop.
int RunFleet(const std::vector<Target>& targets, const FleetOptions& options, RunTarget run);

}  // namespace Fleet
