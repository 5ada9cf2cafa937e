// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Plexum {

// Ends every wait of the runs that share it. Request() may come from any thread.
class StopSignal {
public:
    void Request();
    bool Requested() const { return m_requested.load(); }
    // Sleeps up to `milliseconds`; false when a stop was requested before or meanwhile.
    bool SleepFor(uint64_t milliseconds);

private:
    std::atomic<bool> m_requested{false};
    std::mutex m_mutex;
    std::condition_variable m_wake;
};

// Thrown from a wait of a run whose stop was requested; the host catches it
// around the module. Deliberately no std::exception, so that nothing that
// handles failures takes it for one.
struct RunInterrupted {};

enum class Protocol { None, Redfish, Ipmi };

// Which protocols a run may use: Redfish first then IPMI, or one of them only.
enum class ProtocolChoice { Auto, Redfish, Ipmi };

// How the SMM's Redfish certificate is trusted: not checked, verified against
// CAs, or its key pinned in the known-SMMs file (tofu records it on first contact).
enum class TlsVerify { None, Ca, Pin, Tofu };

// A pin of the known-SMMs file and when it was first seen there.
struct RecordedPin {
    std::string pin;        // sha256//BASE64
    std::string firstSeen;  // YYYY-MM-DDTHH:MM:SSZ
};

// What recording a first pin came to: the pin that counts (another run's,
// when that one was first), or why none could be recorded.
struct PinRecording {
    std::optional<RecordedPin> recorded;
    std::string error;
};

struct TrustSettings {
    TlsVerify verify = TlsVerify::None;
    std::string caFile;     // ca: the CA certificates, else the system's store
    std::string knownSmms;  // pin, tofu: the known-SMMs file
    std::string key;        // pin, tofu: the target's key there (KnownSmms::Key)
    // pin, tofu: what the host found for `key` in the run's one reading of
    // the file, or why it could not be read; the run itself reads no file.
    std::optional<RecordedPin> recorded;
    std::string knownSmmsError;
    // tofu: records the pin presented at the first contact with the target.
    std::function<PinRecording(const std::string& pin)> recordFirstPin;
};

// How Redfish requests authenticate (--redfish-auth): HTTP Basic on every
// request, or one session: a login, its token on every request, a logout.
enum class RedfishAuth { Basic, Session };

// Why a session login opened no session: the user or password refused (401,
// 403), no session service (404, 405), no token in a success, or another answer.
enum class LoginFailure { None, Refused, NoSessionService, NoToken, NotOpened };

// The last answer of the SMM's Redfish service in a run, for saying why it did not serve.
struct RedfishOutcome {
    bool tried = false;
    int32_t curlCode = 0;
    int32_t httpCode = 0;
    std::string error;  // libcurl's text when the transfer failed
    LoginFailure login = LoginFailure::None;  // set when the answer was a session login's
};

// How the run's Redfish session ended, once one was opened.
struct SessionLogout {
    bool done = false;  // the service deleted the session
    std::string error;  // why not, in one line
};
enum class NetworkState { Unread, Enabled, Disabled, Unknown };

// What a run last read from its SMM, or the state a confirmed change set.
struct ObservedState {
    NetworkState network = NetworkState::Unread;
    std::optional<bool> ipmiOverLan;
    std::optional<std::string> ipv4;
};

// What the runner of many targets hears of one run as it goes. Pausing and
// Resuming bracket every pause of the run (the waits between status checks,
// the settle wait, a Redfish service's start-up wait), so that a paused run
// need not hold a place among those exchanging packets; Resuming may block
// until the run may go on. CredentialsAccepted comes once, the first time the
// SMM accepts the user and password.
class RunObserver {
public:
    virtual ~RunObserver() = default;
    virtual void Pausing() = 0;
    virtual void Resuming() = 0;
    virtual void CredentialsAccepted() = 0;
};

// What the SMM made of the user and password in a run.
enum class CredentialsVerdict { Untried, Accepted, Refused };

struct ConsoleLine {
    bool error;        // a line of standard error (level below 2), else of standard output
    std::string text;  // as the module wrote it, without the line end
};

// Everything a module run keeps for its length and that belongs to one target:
// where its console lines go, the label its log records carry, what it learned
// of the SMM, its stop signal and its Redfish start-up wait. The host installs
// one per target for the thread that runs it (ScopedRunContext); code that
// runs with none installed uses the process's direct context, which writes
// console lines straight to standard output and error.
class RunContext {
public:
    // The direct kind.
    RunContext() = default;
    // The direct kind whose waits end when `stop` is requested.
    explicit RunContext(StopSignal* stop) : m_stop(stop) {}
    // The buffered kind: console lines are kept, log records carry `label`,
    // waits end when `stop` (optional) is requested.
    RunContext(std::string label, StopSignal* stop);
    RunContext(const RunContext&) = delete;
    RunContext& operator=(const RunContext&) = delete;

    // The context installed for the calling thread, else the direct one.
    static RunContext& Current();

    void WriteConsole(unsigned level, const std::string& text);
    const std::vector<ConsoleLine>& ConsoleLines() const { return m_console; }
    const std::string& Label() const { return m_label; }

    // A pause of the run: throws RunInterrupted when the stop is requested
    // before or during it. InterruptionPoint only checks.
    void Sleep(uint64_t milliseconds);
    void InterruptionPoint() const;
    // Not owned; null (the default) for a run nobody watches.
    void SetObserver(RunObserver* observer) { m_observer = observer; }

    // Seconds of the Redfish start-up wait once read; 0 while not read yet.
    int32_t& StartupWaitSeconds() { return m_startupWaitSeconds; }

    // What the host chose for this run (--protocol, --tls-verify and friends).
    void ChooseProtocols(ProtocolChoice protocols) { m_protocols = protocols; }
    ProtocolChoice Protocols() const { return m_protocols; }
    void ChooseRedfishAuth(RedfishAuth auth) { m_redfishAuth = auth; }
    RedfishAuth RedfishAuthMode() const { return m_redfishAuth; }
    void SetTrust(TrustSettings trust) { m_trust = std::move(trust); }
    const TrustSettings& Trust() const { return m_trust; }
    // The pin recorded for the target during the run (tofu): its next transfers are held to it.
    void NotePin(RecordedPin pin) { m_trust.recorded = std::move(pin); }
    // Set when the SMM's certificate failed the trust settings: why, in one
    // line. Such a run must not go on over IPMI.
    void NoteTrustFailure(const std::string& reason) { m_trustFailure = reason; }
    const std::string& TrustFailure() const { return m_trustFailure; }
    // Also notes what the answer says of the credentials (a 2xx accepted them, 401 and 403 refused them).
    void NoteRedfishOutcome(RedfishOutcome outcome);
    const RedfishOutcome& LastRedfishOutcome() const { return m_redfish; }

    // What the managers learn as they go.
    void NoteProtocol(Protocol protocol) { m_protocol = protocol; }
    // The status byte of the SMM's LAN status read: 1 network on, 2 off, 4 network and IPMI over LAN on.
    void NoteLanStatus(uint8_t status);
    void NoteNetwork(bool enabled) { m_state.network = enabled ? NetworkState::Enabled : NetworkState::Disabled; }
    void NoteIpmiOverLan(bool enabled) { m_state.ipmiOverLan = enabled; }
    void NoteIpv4(const std::string& address) { m_state.ipv4 = address; }
    void NoteChangeSent() { m_changeSent = true; }
    // The SMM accepted or refused the credentials; an acceptance stands over any refusal.
    void NoteCredentials(bool accepted);
    void NoteSessionLogout(SessionLogout logout) { m_logout = std::move(logout); }

    Protocol ServedBy() const { return m_protocol; }
    const ObservedState& State() const { return m_state; }
    bool ChangeSent() const { return m_changeSent; }
    CredentialsVerdict Credentials() const { return m_credentials; }
    // Empty while no Redfish session was opened.
    const std::optional<SessionLogout>& Logout() const { return m_logout; }

private:
    bool m_buffered = false;
    std::string m_label;
    StopSignal* m_stop = nullptr;
    std::vector<ConsoleLine> m_console;
    int32_t m_startupWaitSeconds = 0;
    ProtocolChoice m_protocols = ProtocolChoice::Auto;
    RedfishAuth m_redfishAuth = RedfishAuth::Basic;
    TrustSettings m_trust;
    std::string m_trustFailure;
    RedfishOutcome m_redfish;
    Protocol m_protocol = Protocol::None;
    ObservedState m_state;
    bool m_changeSent = false;
    CredentialsVerdict m_credentials = CredentialsVerdict::Untried;
    RunObserver* m_observer = nullptr;
    std::optional<SessionLogout> m_logout;
};

// Installs a context for the calling thread while it lives.
class ScopedRunContext {
public:
    explicit ScopedRunContext(RunContext& context);
    ~ScopedRunContext();
    ScopedRunContext(const ScopedRunContext&) = delete;
    ScopedRunContext& operator=(const ScopedRunContext&) = delete;

private:
    RunContext* m_previous;
};

}  // namespace Plexum
