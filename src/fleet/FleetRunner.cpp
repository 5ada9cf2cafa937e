// SPDX-License-Identifier: GPL-3.0-or-later
#include "fleet/FleetRunner.h"

#include <algorithm>
#include <chrono>

#include "fleet/FleetLog.h"
#include "host/Clock.h"
#include "host/Log.h"
#include "host/Text.h"

namespace Fleet {

using Plexum::MillisecondsSince;
using Plexum::Printable;

FleetRunner::FleetRunner(const std::vector<Target>& targets, unsigned fanout, Plexum::StopSignal& stop, RunTarget run)
    : m_targets(targets), m_fanout(fanout), m_stop(stop), m_run(std::move(run)) {}

FleetRunner::~FleetRunner() { Join(); }

void FleetRunner::Start(Finished finished, std::function<void()> allDone) {
    m_finished = std::move(finished);
    m_allDone = std::move(allDone);
    const size_t workers = std::min<size_t>(m_fanout, m_targets.size());
    m_workersLeft = workers;
    m_workers.reserve(workers);
    for (size_t i = 0; i < workers; ++i) m_workers.emplace_back([this] { Work(); });
    if (workers == 0 && m_allDone) m_allDone();
}

void FleetRunner::Join() {
    for (std::thread& worker : m_workers) {
        if (worker.joinable()) worker.join();
    }
}

FleetRunner::Counts FleetRunner::Now() const {
    std::lock_guard<std::mutex> lock(m_finishedMutex);
    return m_counts;
}

std::vector<size_t> FleetRunner::NotStarted() const {
    std::vector<size_t> indices = m_handedBack;
    for (size_t i = std::min(m_next.load(), m_targets.size()); i < m_targets.size(); ++i) indices.push_back(i);
    std::sort(indices.begin(), indices.end());
    return indices;
}

void FleetRunner::Work() {
    for (;;) {
        // Checked before taking a target, so that a stopped run leaves the rest unstarted.
        if (m_stop.Requested()) break;
        const size_t index = m_next.fetch_add(1);
        if (index >= m_targets.size()) break;
        {
            std::lock_guard<std::mutex> lock(m_finishedMutex);
            if (m_stop.Requested()) {
                // Taken just as the stop came: it never starts.
                m_handedBack.push_back(index);
                break;
            }
            ++m_counts.running;
        }
        TargetOutcome outcome = RunOne(index);
        std::lock_guard<std::mutex> lock(m_finishedMutex);
        --m_counts.running;
        ++m_counts.done;
        if (!outcome.Succeeded()) ++m_counts.failed;
        if (m_finished) m_finished(std::move(outcome));
    }
    if (--m_workersLeft == 0 && m_allDone) m_allDone();
}

TargetOutcome FleetRunner::RunOne(size_t index) {
    Target target = m_targets[index];
    const auto start = std::chrono::steady_clock::now();
    TargetOutcome outcome;
    outcome.index = index;
    Plexum::RunContext run(target.label, &m_stop);
    {
        Plexum::ScopedRunContext installed(run);
        PLEXUM_LOG(3, FleetLog::kSource, FleetLog::kTarget)
            << "target " << Printable(target.bmc.host) << " port " << target.bmc.port << " user "
            << Printable(target.bmc.user);
        try {
            m_run(target, outcome);
            if (!outcome.failure.empty()) {
                PLEXUM_LOG(1, FleetLog::kSource, FleetLog::kModuleFailure) << outcome.failure;
            }
            PLEXUM_LOG(3, FleetLog::kSource, FleetLog::kResult) << "result: " << outcome.result;
        } catch (const Plexum::RunInterrupted&) {
            outcome.interrupted = true;
            PLEXUM_LOG(2, FleetLog::kSource, FleetLog::kInterrupted)
                << "interrupted" << (run.ChangeSent() ? " after a change was sent" : "");
        }
        // The target's copy holds its password: gone with it.
    }
    outcome.changeSent = run.ChangeSent();
    outcome.protocol = run.ServedBy();
    outcome.state = run.State();
    outcome.console = run.ConsoleLines();
    outcome.logout = run.Logout();
    outcome.elapsedMs = MillisecondsSince(start);
    return outcome;
}

}  // namespace Fleet
