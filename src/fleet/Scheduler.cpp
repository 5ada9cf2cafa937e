// SPDX-License-Identifier: GPL-3.0-or-later
#include "fleet/Scheduler.h"

namespace Fleet {

Scheduler::Scheduler(size_t targets, Limits limits, GuardLimits guards, const std::vector<Target>& labels,
                     std::function<void()> spawn, std::function<void()> allDone)
    : m_limits(limits),
      m_guards(std::move(guards), labels),
      m_spawn(std::move(spawn)),
      m_allDone(std::move(allDone)),
      m_states(targets, State::Waiting),
      m_waiting(targets) {}

void Scheduler::AllReady() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (size_t index = 0; index < m_states.size(); ++index) {
        if (m_states[index] != State::Waiting) continue;
        m_states[index] = State::Ready;
        m_ready.insert(m_ready.end(), index);
    }
    m_waiting = 0;
    Wake();
}

void Scheduler::Answered(size_t index) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_detectionOver || m_states[index] != State::Waiting) return;
    m_states[index] = State::Ready;
    m_ready.insert(index);
    --m_waiting;
    Wake();
}

bool Scheduler::Unreachable(size_t index) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_detectionOver || m_states[index] != State::Waiting) return false;
    m_states[index] = State::Ended;
    --m_waiting;
    const bool stopped = Count(index, false, true, false);
    Wake();
    return stopped;
}

void Scheduler::DetectionEnded() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_detectionOver = true;
    m_waiting = 0;
    Wake();
}

std::optional<size_t> Scheduler::Take(bool arriving) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (arriving) --m_arriving;
    ++m_idle;
    for (;;) {
        if (Exhausted()) {
            --m_idle;
            --m_workers;
            Wake();
            return std::nullopt;
        }
        if (const std::optional<size_t> index = FirstStartable()) {
            --m_idle;
            m_states[*index] = State::Started;
            m_ready.erase(*index);
            ++m_exchanging;
            ++m_inFlight;
            // One start may be followed by another: pass the turn on.
            Wake();
            return index;
        }
        m_work.wait(lock);
    }
}

bool Scheduler::Ended(size_t index, bool succeeded, bool interrupted, Plexum::CredentialsVerdict credentials) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_states[index] = State::Ended;
    --m_exchanging;
    --m_inFlight;
    const bool stopped = Count(index, succeeded, !interrupted, credentials == Plexum::CredentialsVerdict::Refused);
    // Its worker asks for the next target itself: handing the place to another
    // thread would cost a wake-up and a switch per target.
    Wake(false);
    return stopped;
}

void Scheduler::Stop() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_stopped = true;
    m_resume.notify_all();
    Wake();
}

void Scheduler::Pausing() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    --m_exchanging;
    Wake();
}

void Scheduler::Resuming() {
    std::unique_lock<std::mutex> lock(m_mutex);
    ++m_resuming;
    // A stopped run goes on at once: it only has to end.
    m_resume.wait(lock, [this] { return m_stopped || m_exchanging < m_limits.fanout; });
    --m_resuming;
    ++m_exchanging;
}

void Scheduler::CredentialsAccepted() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_guards.CredentialsAccepted();
    Wake();
}

Scheduler::Counts Scheduler::Now() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return Counts{m_done, m_failed, m_inFlight};
}

std::vector<size_t> Scheduler::NotStarted() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<size_t> indices;
    for (size_t index = 0; index < m_states.size(); ++index) {
        if (m_states[index] == State::Waiting || m_states[index] == State::Ready) indices.push_back(index);
    }
    return indices;
}

std::optional<std::string> Scheduler::StoppedBy() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_guards.StoppedBy();
}

bool Scheduler::Count(size_t index, bool succeeded, bool judged, bool refused) {
    ++m_done;
    if (!judged) return false;  // interrupted: no verdict on the SMM
    if (!succeeded) ++m_failed;
    const bool before = m_guards.StoppedBy().has_value();
    m_guards.Ended(index, succeeded, refused);
    return !before && m_guards.StoppedBy().has_value();
}

std::optional<size_t> Scheduler::FirstStartable() const {
    if (m_stopped || m_ready.empty()) return std::nullopt;
    // Runs that want to go on after a pause come before new starts.
    if (m_exchanging + m_resuming >= m_limits.fanout || m_inFlight >= m_limits.maxInFlight) return std::nullopt;
    // Ready targets are in the order given, and the guards judge them by that order alone.
    const size_t first = *m_ready.begin();
    if (!m_guards.MayStart(first, m_inFlight)) return std::nullopt;
    return first;
}

bool Scheduler::Exhausted() const {
    return m_stopped || m_guards.StoppedBy().has_value() || (m_waiting == 0 && m_ready.empty());
}

void Scheduler::Wake(bool forAStart) {
    if (m_resuming > 0 && m_exchanging < m_limits.fanout) m_resume.notify_one();
    if (Exhausted()) {
        m_work.notify_all();
        // Nothing starts any more: once the last worker has left, the run is over.
        if (m_workers == 0 && !m_told && m_allDone) {
            m_told = true;
            m_allDone();
        }
        return;
    }
    if (!forAStart || !FirstStartable()) return;
    if (m_idle > 0) {
        m_work.notify_one();
    } else if (m_arriving == 0 && m_workers < m_limits.maxInFlight) {
        ++m_workers;
        ++m_arriving;
        m_spawn();
    }
}

}  // namespace Fleet
