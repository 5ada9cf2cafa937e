// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "fleet/FleetLog.h"

namespace MorvelCli {

// The source text and the line numbers that the host's log records carry.
// The numbers are fixed rather than __LINE__, so that a log reads the same
// whatever becomes of the code around a record. Those it shares with the
// runs over many targets are the fleet's.
namespace HostLog {
using Fleet::FleetLog::kSource;

constexpr int kFailure = 39;
constexpr int kWarning = 45;
constexpr int kConfigurationRead = 79;
constexpr int kNoBmc = 88;
using Fleet::FleetLog::kTarget;
constexpr int kOutputLost = 154;
constexpr int kInit = 165;
constexpr int kRun = 169;
constexpr int kFinish = 175;
using Fleet::FleetLog::kResult;
constexpr int kStart = 251;
constexpr int kModule = 262;

constexpr int kSubcommandNote = 301;
constexpr int kUnreachable = 302;
using Fleet::FleetLog::kModuleFailure;
using Fleet::FleetLog::kStopSignal;
using Fleet::FleetLog::kInterrupted;
using Fleet::FleetLog::kTargets;
}  // namespace HostLog

}  // namespace MorvelCli
