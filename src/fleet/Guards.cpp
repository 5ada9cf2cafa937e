// SPDX-License-Identifier: GPL-3.0-or-later
#include "fleet/Guards.h"

#include <algorithm>

namespace Fleet {
namespace {

bool AllDigits(const std::string& text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::string Joined(const std::vector<Target>& targets, const std::vector<size_t>& indices) {
    std::string text;
    for (size_t i = 0; i < indices.size(); ++i) text += (i == 0 ? "" : ", ") + targets[indices[i]].label;
    return text;
}

std::string Count(size_t n, const char* one, const char* many) { return std::to_string(n) + " " + (n == 1 ? one : many); }

}  // namespace

std::optional<FailureBudget> FailureBudget::Parse(const std::string& text) {
    FailureBudget budget;
    budget.written = text;
    if (text.empty() || text.size() > 16) return std::nullopt;
    if (text.back() != '%') {
        if (!AllDigits(text) || text.size() > 7) return std::nullopt;
        budget.count = std::stoull(text);
        if (budget.count > kMaxCount) return std::nullopt;
        return budget;
    }
    const std::string number = text.substr(0, text.size() - 1);
    const size_t dot = number.find('.');
    const std::string whole = number.substr(0, dot);
    const std::string fraction = dot == std::string::npos ? std::string() : number.substr(dot + 1);
    if (!AllDigits(whole) || whole.size() > 3 || (dot != std::string::npos && (!AllDigits(fraction) || fraction.size() > 2))) {
        return std::nullopt;
    }
    const uint32_t hundredths =
        static_cast<uint32_t>(std::stoul(whole)) * 100 + (fraction.empty() ? 0 : static_cast<uint32_t>(std::stoul(fraction)) * (fraction.size() == 1 ? 10 : 1));
    if (hundredths > 10000) return std::nullopt;
    budget.percent = true;
    budget.hundredths = hundredths;
    return budget;
}

bool FailureBudget::Exceeded(size_t failed, size_t finished) const {
    if (!percent) return failed > count;
    // Too few have finished to tell a rate from bad luck.
    if (finished < kPercentJudgedFrom) return false;
    return static_cast<uint64_t>(failed) * 10000 > static_cast<uint64_t>(hundredths) * finished;
}

Guards::Guards(GuardLimits limits, const std::vector<Target>& targets)
    : m_limits(std::move(limits)), m_targets(targets) {
    m_limits.canary = std::min(m_limits.canary, targets.size());
}

bool Guards::MayStart(size_t index, size_t inFlight) const {
    if (m_stoppedBy) return false;
    // The canaries first, alone; the others only once they all succeeded.
    if (m_canariesEnded < m_limits.canary && index >= m_limits.canary) return false;
    // Until one SMM has taken the credentials, no more of them are tried than
    // may be refused: those in flight and those that refused them already.
    if (m_limits.maxAuthFailures > 0 && !m_accepted && inFlight + m_refused >= m_limits.maxAuthFailures) return false;
    return true;
}

void Guards::Ended(size_t index, bool succeeded, bool refusedCredentials) {
    ++m_finished;
    if (!succeeded) ++m_failed;
    if (refusedCredentials) ++m_refused;
    if (index < m_limits.canary) {
        ++m_canariesEnded;
        if (!succeeded) m_failedCanaries.insert(std::upper_bound(m_failedCanaries.begin(), m_failedCanaries.end(), index), index);
    }
    Judge();
}

void Guards::Judge() {
    if (m_stoppedBy) return;
    const std::string none = ": no other SMM is started";
    if (m_limits.maxAuthFailures > 0 && !m_accepted && m_refused >= m_limits.maxAuthFailures) {
        m_stoppedBy = Count(m_refused, "SMM", "SMMs") + " refused the user or password and none accepted them" + none +
                      ", so that no account gets locked; check the user and the password from " +
                      (m_limits.passwordOrigin.empty() ? std::string("--bmc") : m_limits.passwordOrigin);
    } else if (m_canariesEnded == m_limits.canary && !m_failedCanaries.empty()) {
        m_stoppedBy = "the canary did not succeed on " + Joined(m_targets, m_failedCanaries) + none;
    } else if (m_limits.maxFailures && m_limits.maxFailures->Exceeded(m_failed, m_finished)) {
        const FailureBudget& budget = *m_limits.maxFailures;
        m_stoppedBy = (budget.percent ? std::to_string(m_failed) + " of the " + Count(m_finished, "SMM", "SMMs") +
                                            " ended so far failed"
                                      : Count(m_failed, "SMM", "SMMs") + " failed") +
                      ", more than --max-failures " + budget.written + " allows" + none;
    }
}

}  // namespace Fleet
