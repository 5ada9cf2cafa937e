// SPDX-License-Identifier: GPL-3.0-or-later
#include "host/RunContext.h"

#include <chrono>
#include <iostream>
#include <thread>

namespace Plexum {
namespace {

thread_local RunContext* t_installed = nullptr;

RunContext& DirectContext() {
    static RunContext direct;
    return direct;
}

}  // namespace

void StopSignal::Request() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_requested.store(true);
    }
    m_wake.notify_all();
}

bool StopSignal::SleepFor(uint64_t milliseconds) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return !m_wake.wait_for(lock, std::chrono::milliseconds(milliseconds), [this] { return m_requested.load(); });
}

RunContext::RunContext(std::string label, StopSignal* stop)
    : m_buffered(true), m_label(std::move(label)), m_stop(stop) {}

RunContext& RunContext::Current() { return t_installed != nullptr ? *t_installed : DirectContext(); }

void RunContext::WriteConsole(unsigned level, const std::string& text) {
    if (m_buffered) {
        m_console.push_back(ConsoleLine{level < 2, text});
        return;
    }
    std::ostream& out = level >= 2 ? std::cout : std::cerr;
    out << text << std::endl;
}

void RunContext::InterruptionPoint() const {
    if (m_stop != nullptr && m_stop->Requested()) throw RunInterrupted();
}

void RunContext::Sleep(uint64_t milliseconds) {
    if (m_observer != nullptr) m_observer->Pausing();
    bool whole = true;
    if (m_stop == nullptr) {
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
    } else {
        whole = m_stop->SleepFor(milliseconds);
    }
    if (m_observer != nullptr) m_observer->Resuming();
    if (!whole) throw RunInterrupted();
}

void RunContext::NoteRedfishOutcome(RedfishOutcome outcome) {
    if (outcome.tried && outcome.curlCode == 0) {
        if (outcome.httpCode == 401 || outcome.httpCode == 403) NoteCredentials(false);
        if (outcome.httpCode >= 200 && outcome.httpCode <= 299) NoteCredentials(true);
    }
    m_redfish = std::move(outcome);
}

void RunContext::NoteCredentials(bool accepted) {
    if (!accepted) {
        if (m_credentials == CredentialsVerdict::Untried) m_credentials = CredentialsVerdict::Refused;
        return;
    }
    const bool first = m_credentials != CredentialsVerdict::Accepted;
    m_credentials = CredentialsVerdict::Accepted;
    if (first && m_observer != nullptr) m_observer->CredentialsAccepted();
}

void RunContext::NoteLanStatus(uint8_t status) {
    switch (status) {
        case 1:
            m_state.network = NetworkState::Enabled;
            m_state.ipmiOverLan = false;
            break;
        case 2:
            m_state.network = NetworkState::Disabled;
            m_state.ipmiOverLan = false;
            break;
        case 4:
            m_state.network = NetworkState::Enabled;
            m_state.ipmiOverLan = true;
            break;
        default:
            m_state.network = NetworkState::Unknown;
            m_state.ipmiOverLan.reset();
            break;
    }
}

ScopedRunContext::ScopedRunContext(RunContext& context) : m_previous(t_installed) { t_installed = &context; }

ScopedRunContext::~ScopedRunContext() { t_installed = m_previous; }

}  // namespace Plexum
