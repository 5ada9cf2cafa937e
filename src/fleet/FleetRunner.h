// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "fleet/Detector.h"
#include "fleet/Guards.h"
#include "fleet/Scheduler.h"
#include "fleet/TargetList.h"
#include "host/MorvelResult.h"
#include "host/RunContext.h"

namespace Fleet {

// How the run over one target ended.
struct TargetOutcome {
    size_t index = 0;  // the target's place in the run's list
    MorvelResult result;
    // Set when the host ended the target without the module's own answer: why,
    // in one line, shown instead of the result's message. The result is then
    // the host's: 5 when the password command gave no password, 17 when the
    // module could not be run to its end (no application object, an exception).
    std::string failure;
    bool interrupted = false;  // stopped at a wait; `result` means nothing then
    bool unreachable = false;  // answered nothing within the detection's bound: never run
    bool changeSent = false;
    Plexum::Protocol protocol = Plexum::Protocol::None;
    Plexum::ObservedState state;
    Plexum::CredentialsVerdict credentials = Plexum::CredentialsVerdict::Untried;
    std::vector<Plexum::ConsoleLine> console;
    int64_t elapsedMs = 0;
    std::optional<Plexum::SessionLogout> logout;  // once a Redfish session was opened (--redfish-auth session)

    bool Succeeded() const { return !interrupted && result == 0; }
};

// Runs one target's whole behaviour on the calling thread, with the target's
// run context installed for it (Plexum::RunContext::Current()). It fills the
// outcome's `result`, and `failure` when the host ended the target itself
// (see TargetOutcome); Plexum::RunInterrupted passes through it.
using RunTarget = std::function<void(Target& target, TargetOutcome& outcome)>;

struct RunnerOptions {
    Scheduler::Limits limits;
    GuardLimits guards;
    // When set, a target runs only once it answered; one that does not ends as unreachable.
    std::optional<DetectOptions> detect;
};

// Runs every target through `run` on threads of its own (one per target in
// flight, made as needed), as the scheduler lets them start: detected first
// when detection is on, within the fan-out and the guards. Every target runs
// with a run context of its own. Once `stop` is requested (Stop) no target
// starts, and running ones end at their next wait.
class FleetRunner {
public:
    // A target ended (ran, or was found unreachable); `stoppedBy` is set when
    // that ending made a guard stop the run. Called one at a time.
    using Finished = std::function<void(TargetOutcome&&, const std::optional<std::string>& stoppedBy)>;

    FleetRunner(const std::vector<Target>& targets, RunnerOptions options, Plexum::StopSignal& stop, RunTarget run);
    ~FleetRunner();
    FleetRunner(const FleetRunner&) = delete;
    FleetRunner& operator=(const FleetRunner&) = delete;

    // Starts detection and the first workers. `allDone` is called once, from
    // any thread, when no target will start any more and every worker left.
    void Start(Finished finished, std::function<void()> allDone);
    // No target starts any more; detection ends.
    void Stop();
    // Waits for the detection and every worker.
    void Join();

    using Counts = Scheduler::Counts;
    // One consistent reading, for the progress line.
    Counts Now() const { return m_scheduler.Now(); }
    // After Join: the targets that never started, in the order given.
    std::vector<size_t> NotStarted() const { return m_scheduler.NotStarted(); }
    // Why a guard stopped the run, if one did.
    std::optional<std::string> StoppedBy() const { return m_scheduler.StoppedBy(); }

private:
    void Spawn();
    void Work();
    TargetOutcome RunOne(size_t index);
    void Deliver(TargetOutcome&& outcome, const std::function<bool(const TargetOutcome&)>& end);
    void Verdict(size_t index, bool answered);

    const std::vector<Target>& m_targets;
    RunnerOptions m_options;
    Plexum::StopSignal& m_stop;
    RunTarget m_run;
    Finished m_finished;
    std::function<void()> m_allDone;
    Scheduler m_scheduler;
    std::unique_ptr<Detector> m_detector;
    std::mutex m_deliverMutex;  // one delivery at a time
    std::mutex m_threadsMutex;
    std::vector<std::thread> m_workers;  // under m_threadsMutex
};

}  // namespace Fleet
