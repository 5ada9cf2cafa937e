#pragma once

namespace MorvelCli {

// The source text and the line numbers that the host's log records carry.
// The numbers are fixed rather than __LINE__, so that a log reads the same
// whatever becomes of the code around a record.
namespace HostLog {
constexpr char kSource[] = "src/cli/Host";

constexpr int kFailure = 39;
constexpr int kWarning = 45;
constexpr int kConfigurationRead = 79;
constexpr int kNoBmc = 88;
constexpr int kTarget = 115;
constexpr int kOutputLost = 154;
constexpr int kInit = 165;
constexpr int kRun = 169;
constexpr int kFinish = 175;
constexpr int kResult = 186;
constexpr int kStart = 251;
constexpr int kModule = 262;

constexpr int kSubcommandNote = 301;
// Runs over many targets.
constexpr int kTargets = 310;
constexpr int kOpenFileLimit = 311;
constexpr int kFleetStart = 312;
constexpr int kStopSignal = 313;
constexpr int kModuleFailure = 314;
constexpr int kInterrupted = 315;
constexpr int kFleetEnd = 316;
}  // namespace HostLog

}  // namespace MorvelCli
