// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "fleet/TargetList.h"
#include "host/MorvelResult.h"
#include "host/RunContext.h"

namespace Fleet {

// How the run over one target ended.
struct TargetOutcome {
    size_t index = 0;  // the target's place in the run's list
    MorvelResult result;
    std::string failure;       // the host could not run the target to its end: why, in one line
    bool interrupted = false;  // stopped at a wait; `result` means nothing then
    bool changeSent = false;
    Plexum::Protocol protocol = Plexum::Protocol::None;
    Plexum::ObservedState state;
    std::vector<Plexum::ConsoleLine> console;
    int64_t elapsedMs = 0;
    std::optional<Plexum::SessionLogout> logout;  // once a Redfish session was opened (--redfish-auth session)

    bool Succeeded() const { return !interrupted && result == 0; }
};

// Runs one target's whole behaviour on the calling thread, with the target's
// run context installed for it (Plexum::RunContext::Current()). It fills the
// outcome's `result`, and `failure` when it could not run the target to its
// end; Plexum::RunInterrupted passes through it.
using RunTarget = std::function<void(Target& target, TargetOutcome& outcome)>;

// Runs every target through `run` on a pool of at most `fanout` threads: each
// takes the next target as soon as it is free, so a slow SMM holds up no other.
// Every target runs with a run context of its own. Once `stop` is requested no
// target starts, and running ones end at their next wait.
class FleetRunner {
public:
    using Finished = std::function<void(TargetOutcome&&)>;

    FleetRunner(const std::vector<Target>& targets, unsigned fanout, Plexum::StopSignal& stop, RunTarget run);
    ~FleetRunner();
    FleetRunner(const FleetRunner&) = delete;
    FleetRunner& operator=(const FleetRunner&) = delete;

    // Starts the workers. `finished` is called for each target that ran, on
    // the worker's thread, one call at a time, in the order targets end;
    // `allDone` once, from the last worker to leave.
    void Start(Finished finished, std::function<void()> allDone);
    // Waits for every worker.
    void Join();

    struct Counts {
        size_t done = 0;
        size_t failed = 0;  // of those done
        size_t running = 0;
    };
    // One consistent reading, for the progress line.
    Counts Now() const;
    // After Join: the targets that never started, in the order given.
    std::vector<size_t> NotStarted() const;

private:
    void Work();
    TargetOutcome RunOne(size_t index);

    const std::vector<Target>& m_targets;
    unsigned m_fanout;
    Plexum::StopSignal& m_stop;
    RunTarget m_run;
    Finished m_finished;
    std::function<void()> m_allDone;
    mutable std::mutex m_finishedMutex;
    Counts m_counts;  // under m_finishedMutex
    std::atomic<size_t> m_next{0};
    std::atomic<size_t> m_workersLeft{0};
    std::vector<size_t> m_handedBack;  // taken by a worker as the stop came; under m_finishedMutex
    std::vector<std::thread> m_workers;
};

}  // namespace Fleet
