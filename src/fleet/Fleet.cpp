// SPDX-License-Identifier: GPL-3.0-or-later
#include "fleet/Fleet.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <iostream>
#include <locale>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "fleet/FleetLog.h"
#include "fleet/FleetReport.h"
#include "fleet/FleetRunner.h"
#include "fleet/Interrupts.h"
#include "fleet/RetryFile.h"
#include "host/Clock.h"
#include "host/ExitStatus.h"
#include "host/Files.h"
#include "host/Log.h"
#include "host/RunContext.h"

namespace Fleet {
namespace {

// The status line on a terminal's standard error, redrawn in place.
class ProgressLine {
public:
    explicit ProgressLine(bool enabled) : m_enabled(enabled) {}
    bool Enabled() const { return m_enabled; }
    void Draw(const std::string& text) {
        if (!m_enabled) return;
        Write("\r\033[K" + text);
        m_drawn = true;
    }
    void Clear() {
        if (!m_drawn) return;
        Write("\r\033[K");
        m_drawn = false;
    }

private:
    static void Write(const std::string& text) {
        std::cerr << text << std::flush;
    }
    bool m_enabled;
    bool m_drawn = false;
};

// libstdc++ fills the narrow() table of std::ctype<char> one character at a
// time, from whichever thread asks first (Boost.Format asks for every URL):
// filled whole here, the workers only ever read it.
void FillCharacterTable() {
    char all[256];
    for (int c = 0; c < 256; ++c) all[c] = static_cast<char>(c);
    char narrowed[256];
    std::use_facet<std::ctype<char>>(std::locale()).narrow(all, all + 256, '\0', narrowed);
}

// "COMMAND SUBCOMMAND: D/N done, F failed, R running, M:SS elapsed".
std::string ProgressText(const std::string& title, const FleetRunner::Counts& counts, size_t total,
                         int64_t elapsedMs) {
    const int64_t seconds = elapsedMs / 1000;
    const std::string clock = std::to_string(seconds / 60) + (seconds % 60 < 10 ? ":0" : ":") + std::to_string(seconds % 60);
    return title + ": " + std::to_string(counts.done) + "/" + std::to_string(total) + " done, " +
           std::to_string(counts.failed) + " failed, " + std::to_string(counts.running) + " running, " + clock +
           " elapsed";
}

// How many targets may be in flight, and probed, within what the process may open.
struct OpenFilePlan {
    size_t maxInFlight;
    size_t maxProbes;
};

// Raises the open-files limit to what the run may need: a target exchanging
// packets up to six descriptors (its HTTPS socket and libcurl's wake-up pair;
// for a host name also the resolver's pair and the files it reads), a paused
// one two (libcurl keeps its connection), a detection probe one. The fan-out
// must fit, or it is refused; paused targets and probes get what the hard
// limit leaves beyond it.
std::optional<std::string> PlanOpenFiles(size_t fanout, size_t targets, bool detecting, OpenFilePlan& plan) {
    constexpr rlim_t kPerTarget = 6;
    constexpr rlim_t kPerPaused = 2;
    constexpr rlim_t kForTheProcess = 64;
    const size_t exchanging = std::min(fanout, targets);
    const size_t inFlight = std::min(targets, kMaxInFlight);
    const size_t probes = detecting ? std::min(targets, DetectOptions().maxProbes) : 0;
    const rlim_t floor = kForTheProcess + kPerTarget * exchanging;
    rlim_t needed = floor + kPerPaused * (inFlight - exchanging) + probes;
    plan = OpenFilePlan{inFlight, probes};
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= needed) return std::nullopt;
    if (limit.rlim_max != RLIM_INFINITY && limit.rlim_max < needed) {
        if (limit.rlim_max < floor) {
            const rlim_t most = limit.rlim_max > kForTheProcess ? (limit.rlim_max - kForTheProcess) / kPerTarget : 0;
            return "--fanout " + std::to_string(exchanging) + " may need " + std::to_string(floor) +
                   " open files, but this process may open at most " + std::to_string(limit.rlim_max) +
                   " (ulimit -Hn); use --fanout " + std::to_string(most) + " or less";
        }
        rlim_t room = limit.rlim_max - floor;
        plan.maxProbes = std::min<size_t>(probes, room / 2);
        room -= plan.maxProbes;
        plan.maxInFlight = exchanging + std::min<size_t>(inFlight - exchanging, room / kPerPaused);
        needed = limit.rlim_max;
        PLEXUM_LOG(2, FleetLog::kSource, FleetLog::kOpenFileLimit)
            << "open-files limit " << limit.rlim_max << ": at most " << plan.maxInFlight << " targets in flight and "
            << plan.maxProbes << " probed at once";
    }
    limit.rlim_cur = needed;
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return "cannot raise the open-files limit to " + std::to_string(needed) + ": " + std::strerror(errno);
    }
    PLEXUM_LOG(3, FleetLog::kSource, FleetLog::kOpenFileLimit) << "open-files limit raised to " << needed;
    return std::nullopt;
}

std::unique_ptr<FleetReport> MakeReport(const FleetOptions& options, const std::vector<Target>& targets) {
    if (options.output == OutputFormat::Json) {
        return std::make_unique<JsonLinesReport>(std::cout, targets, options.subcommand);
    }
    if (options.output == OutputFormat::Table) {
        return std::make_unique<TableReport>(std::cout, targets, options.command + " " + options.subcommand,
                                             targets.size() >= 2);
    }
    return std::make_unique<TextReport>(std::cout, std::cerr, targets, options.command + " " + options.subcommand,
                                        targets.size() >= 2);
}

}  // namespace

int RunFleet(const std::vector<Target>& targets, const FleetOptions& options, RunTarget run) {
    const auto start = std::chrono::steady_clock::now();
    InterruptWatch interrupts;
    Plexum::UniqueFd allDone(::eventfd(0, EFD_CLOEXEC));
    if (interrupts.Fd() < 0 || allDone.Get() < 0) {
        std::cerr << "morvel: cannot watch for interrupts" << std::endl;
        return Plexum::kExitInternalError;
    }
    // FreeIPMI is not set up here: the first IPMI session does it, once, so that
    // a run over Redfish never loads it.
    FillCharacterTable();
    OpenFilePlan plan{};
    if (const auto refused = PlanOpenFiles(options.fanout, targets.size(), options.detect.has_value(), plan)) {
        PLEXUM_LOG(1, FleetLog::kSource, FleetLog::kOpenFileLimit) << *refused;
        std::cerr << "morvel: " << *refused << std::endl;
        return Plexum::kExitInvalidParameter;
    }
    PLEXUM_LOG(3, FleetLog::kSource, FleetLog::kFleetStart) << targets.size() << " targets, fan-out " << options.fanout;

    std::unique_ptr<FleetReport> report = MakeReport(options, targets);
    FleetSummary summary(targets.size());
    ProgressLine progress(targets.size() >= 2 && ::isatty(STDERR_FILENO) == 1);
    std::mutex output;
    int singleStatus = 0;
    std::vector<bool> succeeded(targets.size(), false);  // under `output`
    Plexum::StopSignal stop;
    RunnerOptions runnerOptions{{options.fanout, plan.maxInFlight}, options.guards, options.detect};
    if (runnerOptions.detect) runnerOptions.detect->maxProbes = std::max<size_t>(1, plan.maxProbes);
    FleetRunner runner(targets, std::move(runnerOptions), stop, std::move(run));
    runner.Start(
        [&](TargetOutcome&& outcome, const std::optional<std::string>& stoppedBy) {
            std::lock_guard<std::mutex> lock(output);
            progress.Clear();
            report->TargetEnded(outcome);
            summary.Add(outcome);
            succeeded[outcome.index] = outcome.Succeeded();
            singleStatus = Plexum::ExitStatusForCode(outcome.result.code);
            // Said at once, while the SMMs under way end: nothing else will start.
            if (stoppedBy) std::cerr << "morvel: " << *stoppedBy << std::endl;
        },
        [&] {
            const uint64_t one = 1;
            if (::write(allDone.Get(), &one, sizeof one) < 0) {
                // Nothing to do: the loop below also ends on a signal.
            }
        });

    int stoppedBy = 0;
    for (;;) {
        pollfd watched[2] = {{interrupts.Fd(), POLLIN, 0}, {allDone.Get(), POLLIN, 0}};
        // At most ten redraws a second; with no progress line, sleep until something happens.
        const int ready = ::poll(watched, 2, progress.Enabled() ? 100 : -1);
        if (ready < 0 && errno != EINTR) break;
        if ((watched[0].revents & POLLIN) != 0) {
            const int number = interrupts.Take();
            if (stoppedBy != 0 && number == SIGINT) {
                std::lock_guard<std::mutex> lock(output);
                progress.Clear();
                // What did not succeed so far, running ones included, can be run again.
                if (!options.retryFile.empty()) static_cast<void>(RetryFile(options.retryFile).Write(targets, succeeded));
                EndBySignal(SIGINT);
            }
            if (stoppedBy == 0 && number != 0) {
                stoppedBy = number;
                PLEXUM_LOG(2, FleetLog::kSource, FleetLog::kStopSignal) << "signal " << number << ": no target starts any more";
                runner.Stop();
                stop.Request();
            }
        }
        if ((watched[1].revents & POLLIN) != 0) break;
        // Read before taking the output lock: a finishing target holds the runner's lock while it writes.
        const FleetRunner::Counts counts = runner.Now();
        std::lock_guard<std::mutex> lock(output);
        progress.Draw(ProgressText(options.command + " " + options.subcommand, counts, targets.size(),
                                   Plexum::MillisecondsSince(start)));
    }
    runner.Join();
    summary.SetNotStarted(runner.NotStarted());
    if (stoppedBy != 0) {
        summary.SetStoppedBy(std::string("interrupted by ") + (stoppedBy == SIGINT ? "SIGINT" : "SIGTERM"), true);
    } else {
        summary.SetStoppedBy(runner.StoppedBy(), false);
    }
    progress.Clear();
    report->Finish(summary, Plexum::MillisecondsSince(start));

    int status = 0;
    if (stoppedBy != 0) {
        status = 128 + stoppedBy;
    } else if (targets.size() == 1) {
        status = singleStatus;
    } else {
        status = summary.Succeeded() == targets.size() ? 0 : 1;
    }
    if (!options.retryFile.empty()) {
        if (const auto error = RetryFile(options.retryFile).Write(targets, succeeded)) {
            PLEXUM_LOG(1, FleetLog::kSource, FleetLog::kRetryFile) << *error;
            std::cerr << "morvel: " << *error << std::endl;
            if (status == 0) status = 1;
        }
    }
    PLEXUM_LOG(3, FleetLog::kSource, FleetLog::kFleetEnd) << summary.Succeeded() << " of " << targets.size()
                                     << " targets succeeded (exit status " << status << ")";
    return status;
}

}  // namespace Fleet
