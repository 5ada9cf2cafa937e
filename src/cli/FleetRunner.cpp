#include "cli/FleetRunner.h"

#include <algorithm>
#include <chrono>

#include "cli/CommandLine.h"
#include "cli/HostLog.h"
#include "cli/ModuleRun.h"
#include "host/Log.h"

namespace MorvelCli {
namespace {

int64_t MillisecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

FleetRunner::FleetRunner(const ModuleLoader& loader, const UserContext& base, const std::vector<Target>& targets,
                         const RunSettings& settings, unsigned fanout, Plexum::StopSignal& stop)
    : m_loader(loader), m_base(base), m_targets(targets), m_settings(settings), m_fanout(fanout), m_stop(stop) {}

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
        TargetOutcome outcome = RunTarget(index);
        std::lock_guard<std::mutex> lock(m_finishedMutex);
        --m_counts.running;
        ++m_counts.done;
        if (!outcome.Succeeded()) ++m_counts.failed;
        if (m_finished) m_finished(std::move(outcome));
    }
    if (--m_workersLeft == 0 && m_allDone) m_allDone();
}

TargetOutcome FleetRunner::RunTarget(size_t index) {
    Target target = m_targets[index];
    const auto start = std::chrono::steady_clock::now();
    TargetOutcome outcome;
    outcome.index = index;
    Plexum::RunContext run(target.label, &m_stop);
    m_settings.ApplyTo(run, target);
    {
        Plexum::ScopedRunContext installed(run);
        PLEXUM_LOG(3, HostLog::kSource, HostLog::kTarget)
            << "target " << Printable(target.bmc.host) << " port " << target.bmc.port << " user "
            << Printable(target.bmc.user);
        if (!target.bmc.hasPassword && !FetchPassword(target, outcome)) {
            outcome.elapsedMs = MillisecondsSince(start);
            return outcome;
        }
        UserContext context = m_base;
        context.options["bmc"] = target.BmcText();
        try {
            ModuleOutcome ended = RunModuleOnce(m_loader, context);
            outcome.result = ended.result;
            outcome.failure = ended.failure;
            if (!ended.failure.empty()) {
                PLEXUM_LOG(1, HostLog::kSource, HostLog::kModuleFailure) << ended.failure;
            }
            PLEXUM_LOG(3, HostLog::kSource, HostLog::kResult) << "result: " << outcome.result;
        } catch (const Plexum::RunInterrupted&) {
            outcome.interrupted = true;
            PLEXUM_LOG(2, HostLog::kSource, HostLog::kInterrupted)
                << "interrupted" << (run.ChangeSent() ? " after a change was sent" : "");
        }
        // The context holds the target's password inside its options: gone with it.
    }
    outcome.changeSent = run.ChangeSent();
    outcome.protocol = run.ServedBy();
    outcome.state = run.State();
    outcome.console = run.ConsoleLines();
    outcome.elapsedMs = MillisecondsSince(start);
    return outcome;
}

bool FleetRunner::FetchPassword(Target& target, TargetOutcome& outcome) const {
    const Plexum::PasswordCommand::Answer answer =
        m_settings.passwordCommand->Run(target.bmc.host, target.bmc.port, target.bmc.user);
    if (!answer.password) {
        outcome.result = MorvelResult(kExitInvalidParameter);
        outcome.failure = answer.error;
        PLEXUM_LOG(1, HostLog::kSource, HostLog::kModuleFailure) << answer.error;
        return false;
    }
    target.bmc.password = *answer.password;
    target.bmc.hasPassword = true;
    return true;
}

}  // namespace MorvelCli
