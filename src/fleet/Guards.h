// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "fleet/TargetList.h"

namespace Fleet {

// --max-failures: N failures, or P % of the SMMs finished so far (judged once
// kPercentJudgedFrom have finished), are allowed; one more and no SMM starts.
struct FailureBudget {
    static constexpr size_t kPercentJudgedFrom = 10;
    static constexpr uint64_t kMaxCount = 1000000;

    bool percent = false;
    uint64_t count = 0;        // without percent
    uint32_t hundredths = 0;   // with percent: P in hundredths of a percent, 0..10000
    std::string written;       // as the user wrote it, for messages

    // "3", "0", "2.5%", "10%": a whole number up to kMaxCount, or a number
    // from 0 to 100 with at most two decimals and a '%'. Null otherwise.
    static std::optional<FailureBudget> Parse(const std::string& text);
    // Whether `failed` of `finished` SMMs are more than it allows.
    bool Exceeded(size_t failed, size_t finished) const;
};

// What keeps a run over many SMMs from doing harm when the credentials or the
// change are plainly wrong.
struct GuardLimits {
    // Until an SMM has accepted its credentials, at most this many try them
    // (those in flight and those that refused them), so that once this many
    // refused them no SMM starts; 0: no such guard.
    unsigned maxAuthFailures = 0;
    // The first N targets run first, alone; the rest only if all N succeeded.
    size_t canary = 0;
    std::optional<FailureBudget> maxFailures;
    // Where the password came from, for the lock-out message ("--bmc", "the credentials file", ...).
    std::string passwordOrigin;
};

// The rules that decide whether another target may start, fed with how
// targets end. Not thread-safe: its owner serialises the calls.
class Guards {
public:
    Guards(GuardLimits limits, const std::vector<Target>& targets);

    // Whether target `index` may start now, with `inFlight` targets started and not yet ended.
    bool MayStart(size_t index, size_t inFlight) const;
    // An SMM accepted its credentials: the lock-out guard opens the run for good.
    void CredentialsAccepted() { m_accepted = true; }
    // A target ended, having run or been found unreachable (an interrupted one is not reported).
    void Ended(size_t index, bool succeeded, bool refusedCredentials);
    // Why no target may start any more, once a guard has stopped the run: one
    // line that says what stopped it and what to check.
    const std::optional<std::string>& StoppedBy() const { return m_stoppedBy; }

private:
    void Judge();

    GuardLimits m_limits;
    const std::vector<Target>& m_targets;
    bool m_accepted = false;
    size_t m_refused = 0;
    size_t m_finished = 0;
    size_t m_failed = 0;
    size_t m_canariesEnded = 0;
    std::vector<size_t> m_failedCanaries;
    std::optional<std::string> m_stoppedBy;
};

}  // namespace Fleet
