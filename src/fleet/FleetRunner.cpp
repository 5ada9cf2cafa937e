// SPDX-License-Identifier: GPL-3.0-or-later
#include "fleet/FleetRunner.h"

#include <chrono>

#include "common/result/ResultCodes.h"
#include "fleet/FleetLog.h"
#include "fleet/Interrupts.h"
#include "host/Clock.h"
#include "host/Log.h"
#include "host/Text.h"

namespace Fleet {

using Plexum::MillisecondsSince;
using Plexum::Printable;

FleetRunner::FleetRunner(const std::vector<Target>& targets, RunnerOptions options, Plexum::StopSignal& stop,
                         RunTarget run)
    : m_targets(targets),
      m_options(std::move(options)),
      m_stop(stop),
      m_run(std::move(run)),
      m_scheduler(targets.size(), m_options.limits, m_options.guards, targets, [this] { Spawn(); },
                  [this] {
                      if (m_allDone) m_allDone();
                  }) {}

FleetRunner::~FleetRunner() {
    Stop();
    Join();
}

void FleetRunner::Start(Finished finished, std::function<void()> allDone) {
    m_finished = std::move(finished);
    m_allDone = std::move(allDone);
    if (!m_options.detect) {
        m_scheduler.AllReady();
        return;
    }
    m_detector = std::make_unique<Detector>(m_targets, *m_options.detect,
                                            [this](size_t index, bool answered) { Verdict(index, answered); });
    m_detector->Start();
}

void FleetRunner::Stop() {
    m_scheduler.Stop();
    if (m_detector) m_detector->Stop();
}

void FleetRunner::Join() {
    if (m_detector) {
        m_detector->Join();
        m_scheduler.DetectionEnded();
    }
    // Workers are made under the scheduler's lock until it has none left to
    // start: once the last of them is joined, none comes after.
    for (;;) {
        std::thread worker;
        {
            const std::lock_guard<std::mutex> lock(m_threadsMutex);
            for (std::thread& candidate : m_workers) {
                if (candidate.joinable()) {
                    worker = std::move(candidate);
                    break;
                }
            }
        }
        if (!worker.joinable()) return;
        worker.join();
    }
}

void FleetRunner::Spawn() {
    const std::lock_guard<std::mutex> lock(m_threadsMutex);
    m_workers.emplace_back([this] { Work(); });
}

void FleetRunner::Work() {
    bool arriving = true;
    while (const std::optional<size_t> index = m_scheduler.Take(arriving)) {
        arriving = false;
        Deliver(RunOne(*index), [&](const TargetOutcome& done) {
            return m_scheduler.Ended(*index, done.Succeeded(), done.interrupted, done.credentials);
        });
    }
}

void FleetRunner::Verdict(size_t index, bool answered) {
    if (answered) {
        m_scheduler.Answered(index);
        return;
    }
    TargetOutcome outcome;
    outcome.index = index;
    outcome.unreachable = true;
    outcome.result = MorvelResult(RESULT_CONNECTION_FAILED);
    outcome.console.push_back(Plexum::ConsoleLine{true, UnreachableText(*m_options.detect, m_targets[index].bmc.port)});
    outcome.elapsedMs = m_options.detect->bound.count();
    Deliver(std::move(outcome), [&](const TargetOutcome&) { return m_scheduler.Unreachable(index); });
}

// The place is given up under the delivery lock, so no target started after it
// can be delivered first: one at a time, the records come in the order run.
void FleetRunner::Deliver(TargetOutcome&& outcome, const std::function<bool(const TargetOutcome&)>& end) {
    const std::lock_guard<std::mutex> lock(m_deliverMutex);
    const bool stopped = end(outcome);
    const std::optional<std::string> why = stopped ? m_scheduler.StoppedBy() : std::nullopt;
    if (why) {
        PLEXUM_LOG(2, FleetLog::kSource, FleetLog::kGuard) << "no SMM starts any more: " << *why;
    }
    if (m_finished) m_finished(std::move(outcome), why);
}

TargetOutcome FleetRunner::RunOne(size_t index) {
    Target target = m_targets[index];
    const auto start = std::chrono::steady_clock::now();
    TargetOutcome outcome;
    outcome.index = index;
    Plexum::RunContext run(target.label, &m_stop);
    run.SetObserver(&m_scheduler);
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
                << InterruptedNote(run.ChangeSent());
        }
        // The target's copy holds its password: gone with it.
    }
    outcome.changeSent = run.ChangeSent();
    outcome.protocol = run.ServedBy();
    outcome.state = run.State();
    outcome.credentials = run.Credentials();
    outcome.console = run.ConsoleLines();
    outcome.logout = run.Logout();
    outcome.elapsedMs = MillisecondsSince(start);
    return outcome;
}

}  // namespace Fleet
