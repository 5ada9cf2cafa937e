#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "cli/ModuleLoader.h"
#include "cli/RunSettings.h"
#include "cli/TargetList.h"
#include "host/MorvelResult.h"
#include "host/RunContext.h"
#include "host/UserContext.h"

namespace MorvelCli {

// How the run over one target ended.
struct TargetOutcome {
    size_t index = 0;  // the target's place in the run's list
    MorvelResult result;
    std::string failure;       // the host could not run the module to its end (result is then 17)
    bool interrupted = false;  // stopped at a wait; `result` means nothing then
    bool changeSent = false;
    Plexum::Protocol protocol = Plexum::Protocol::None;
    Plexum::ObservedState state;
    std::vector<Plexum::ConsoleLine> console;
    int64_t elapsedMs = 0;

    bool Succeeded() const { return !interrupted && result == 0; }
};

// Runs the module once per target on a pool of at most `fanout` threads: each
// takes the next target as soon as it is free, so a slow SMM holds up no other.
// Every target runs the module's whole behaviour with a run context of its own.
// Once `stop` is requested no target starts, and running ones end at their next wait.
class FleetRunner {
public:
    using Finished = std::function<void(TargetOutcome&&)>;

    FleetRunner(const ModuleLoader& loader, const UserContext& base, const std::vector<Target>& targets,
                const RunSettings& settings, unsigned fanout, Plexum::StopSignal& stop);
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
    TargetOutcome RunTarget(size_t index);
    // The password command's answer for a target without a password; false,
    // with the failure in `outcome`, when it gives none.
    bool FetchPassword(Target& target, TargetOutcome& outcome) const;

    const ModuleLoader& m_loader;
    const UserContext& m_base;
    const std::vector<Target>& m_targets;
    const RunSettings& m_settings;
    unsigned m_fanout;
    Plexum::StopSignal& m_stop;
    Finished m_finished;
    std::function<void()> m_allDone;
    mutable std::mutex m_finishedMutex;
    Counts m_counts;  // under m_finishedMutex
    std::atomic<size_t> m_next{0};
    std::atomic<size_t> m_workersLeft{0};
    std::vector<size_t> m_handedBack;  // taken by a worker as the stop came; under m_finishedMutex
    std::vector<std::thread> m_workers;
};

}  // namespace MorvelCli
