// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "fleet/Guards.h"
#include "host/RunContext.h"

namespace Fleet {

// Decides which target starts when, for the threads of a run over many
// targets. The fan-out bounds the targets exchanging packets: one that pauses
// (between status checks, in the settle wait, in a Redfish start-up wait)
// gives its place up until it resumes, and resuming ones go before new
// starts. `maxInFlight` bounds the targets started and not ended (paused ones
// included), which is what holds a thread. A target starts once it is ready
// (answered the detection, or at once when there is none), in the order given
// among the ready ones, and only as the guards allow. Thread-safe.
class Scheduler : public Plexum::RunObserver {
public:
    struct Limits {
        size_t fanout = 64;
        size_t maxInFlight = 1024;
    };
    // `spawn` starts one more worker thread, which then calls Take (the first
    // time with `arriving`) until it answers none; `allDone` tells, once, that
    // no target will start any more and every worker has left. Both are called
    // with the scheduler's lock held: they may not call back into it.
    Scheduler(size_t targets, Limits limits, GuardLimits guards, const std::vector<Target>& labels,
              std::function<void()> spawn, std::function<void()> allDone);

    // Targets that need no detection are ready at once.
    void AllReady();
    // Detection: a target answered (ready), or did not (ended, as a failure,
    // without running). True when that ending made a guard stop the run.
    void Answered(size_t index);
    bool Unreachable(size_t index);
    // No verdict will come for the targets still waiting for one (detection stopped).
    void DetectionEnded();

    // For a worker: the next target to run, once one may start; none when no
    // target will start any more.
    std::optional<size_t> Take(bool arriving = false);
    // The worker's target ended. True when that ending made a guard stop the run.
    bool Ended(size_t index, bool succeeded, bool interrupted, Plexum::CredentialsVerdict credentials);

    // No target starts any more (SIGINT, SIGTERM).
    void Stop();

    // RunObserver: shared by the runs of all targets.
    void Pausing() override;
    void Resuming() override;
    void CredentialsAccepted() override;

    struct Counts {
        size_t done = 0;
        size_t failed = 0;   // of those done
        size_t running = 0;  // started and not ended
    };
    Counts Now() const;
    // Once every worker left: the targets that never started, in the order given.
    std::vector<size_t> NotStarted() const;
    // Why a guard stopped the run, if one did.
    std::optional<std::string> StoppedBy() const;

private:
    enum class State { Waiting, Ready, Started, Ended };

    std::optional<size_t> FirstStartable() const;
    bool Exhausted() const;
    // After any change: wakes a paused run that may go on, ends the run when
    // nothing starts any more, and (`forAStart`) wakes an idle worker, or has
    // one more made, when a target may start.
    void Wake(bool forAStart = true);
    // Counts an ending; true when it made a guard stop the run.
    bool Count(size_t index, bool succeeded, bool judged, bool refused);

    mutable std::mutex m_mutex;
    std::condition_variable m_work;    // idle workers
    std::condition_variable m_resume;  // paused runs that want to go on
    Limits m_limits;
    Guards m_guards;
    std::function<void()> m_spawn;
    std::function<void()> m_allDone;
    std::vector<State> m_states;
    std::set<size_t> m_ready;
    size_t m_waiting = 0;     // targets without a verdict yet
    size_t m_exchanging = 0;  // started, not paused, not ended: they hold the fan-out's places
    size_t m_resuming = 0;    // paused runs waiting for a place
    size_t m_inFlight = 0;    // started, not ended
    size_t m_workers = 0;
    size_t m_arriving = 0;  // made, not yet in Take
    size_t m_idle = 0;
    size_t m_done = 0;
    size_t m_failed = 0;
    bool m_stopped = false;
    bool m_detectionOver = false;
    bool m_told = false;  // allDone was called
};

}  // namespace Fleet
