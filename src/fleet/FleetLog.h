// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

namespace Fleet {

// The source text and line numbers of the records a run over many targets
// writes. They carry the host's source text, as they did before the runner had
// a room of its own, so that a log reads the same; the numbers are fixed
// rather than __LINE__ for the same reason.
namespace FleetLog {
constexpr char kSource[] = "src/cli/Host";

constexpr int kTarget = 115;
constexpr int kResult = 186;
constexpr int kTargets = 310;
constexpr int kOpenFileLimit = 311;
constexpr int kFleetStart = 312;
constexpr int kStopSignal = 313;
constexpr int kModuleFailure = 314;
constexpr int kInterrupted = 315;
constexpr int kFleetEnd = 316;
constexpr int kDetection = 317;
constexpr int kGuard = 318;
constexpr int kRetryFile = 319;
}  // namespace FleetLog

}  // namespace Fleet
