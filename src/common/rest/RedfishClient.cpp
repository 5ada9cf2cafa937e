// SPDX-License-Identifier: GPL-3.0-or-later
#include "common/rest/RedfishClient.h"

#include <chrono>
#include <utility>

#include "host/GlobalConfig.h"
#include "host/Log.h"
#include "host/RunContext.h"

namespace Rest {
namespace {

// The source text that this client's log records carry.
constexpr const char* kLogSource = "src/common/rest/RedfishClient";
constexpr int kRetryLogLine = 33;
constexpr int kGetLogLine = 108;

constexpr int32_t kDefaultStartupWaitSeconds = 180;
constexpr int64_t kPollIntervalMilliseconds = 5000;
// The logout's bound: the run may be ending, nobody waits long for a goodbye.
constexpr int32_t kLogoutTimeoutSeconds = 10;

// The configured seconds are read once per run (the process, for a single
// target) and kept in its context; 0 there means not read yet.
StartupWaitPolicy CurrentStartupWaitPolicy() {
    int32_t& seconds = Plexum::RunContext::Current().StartupWaitSeconds();
    // A configured 0 is read again on the next request: 0 also stands for "not read yet".
    if (seconds == 0) seconds = Plexum::GetGlobalConfigValue("REDFISH_STARTUP_WAIT_TIME", kDefaultStartupWaitSeconds);
    return StartupWaitPolicy{static_cast<int64_t>(seconds) * 1000, kPollIntervalMilliseconds};
}

// Only "503 with a completed transfer" means the service is still starting.
bool IsNotServiceUnavailable(const Response& response) {
    if (response.curlCode != 0 || response.httpCode != 503) return true;
    PLEXUM_LOG(4, kLogSource, kRetryLogLine) << "curlCode: " << response.curlCode
                                             << " | httpCode: " << response.httpCode << " | body: " << response.body;
    return false;
}

}  // namespace

RedfishClient::RedfishClient() : m_auth(Plexum::RunContext::Current().RedfishAuthMode()) {}

RedfishClient::~RedfishClient() { LogOut(); }

// The run's own sleep: a run asked to stop wakes at once.
void RedfishClient::Sleep(int64_t milliseconds) const {
    if (m_sleep)
        m_sleep(milliseconds);
    else
        Plexum::RunContext::Current().Sleep(static_cast<uint64_t>(milliseconds));
}

int64_t RedfishClient::Now() {
    if (m_clock) return m_clock();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

template <typename Operation>
Response RedfishClient::Retried(Operation attempt) {
    const StartupWaitPolicy policy = CurrentStartupWaitPolicy();
    const int64_t start = Now();
    for (;;) {
        Response result = attempt();
        if (IsNotServiceUnavailable(result)) return result;
        // Checked after each attempt, so the last one may start just before the limit.
        if (policy.totalWaitMilliseconds * 1000000 < Now() - start) return result;
        Sleep(policy.pollIntervalMilliseconds);
    }
}

template <typename Operation>
Response RedfishClient::Sent(const std::string& url, Operation attempt) {
    if (std::optional<Response> refused = Authenticate(url)) return std::move(*refused);
    return Retried(attempt);
}

void RedfishClient::ResetStartupWaitCache() { Plexum::RunContext::Current().StartupWaitSeconds() = 0; }

std::optional<Response> RedfishClient::Authenticate(const std::string& url) {
    if (m_auth != Plexum::RedfishAuth::Session || m_username.empty() || m_session.IsOpen()) return std::nullopt;
    if (!m_session.Tried()) {
        // The login's body holds the password: it follows no redirect, wherever one leads.
        m_client.SetFollowRedirects(false, m_maxRedirects);
        struct Restore {
            RestClient& client;
            bool follow;
            int32_t most;
            ~Restore() { client.SetFollowRedirects(follow, most); }
        } restore{m_client, m_followRedirects, m_maxRedirects};
        m_session.Open(url, m_username, m_password, [this](const std::string& at, const std::string& body) {
            return Retried([&] { return m_client.Post(at, body); });
        });
    }
    if (!m_session.IsOpen()) return m_session.FailedLogin();
    m_client.SetAuthToken(m_session.Token());
    return std::nullopt;
}

void RedfishClient::LogOut() noexcept {
    if (!m_session.IsOpen()) return;
    try {
        const int32_t bound = m_timeout > 0 && m_timeout < kLogoutTimeoutSeconds ? m_timeout : kLogoutTimeoutSeconds;
        Plexum::RunContext::Current().NoteSessionLogout(m_session.Close(m_client, bound));
    } catch (...) {
        // Nothing may leave a destructor; the service's own time-out ends the session then.
    }
}

void RedfishClient::SetCredentials(const std::string& username, const std::string& password) {
    // A session's requests carry its token: only the login sends the password.
    if (m_auth == Plexum::RedfishAuth::Session) {
        m_username = username;
        m_password = password;
        return;
    }
    m_client.SetCredentials(username, password);
}

void RedfishClient::SetTimeout(int32_t seconds) {
    m_timeout = seconds;
    m_client.SetTimeout(seconds);
}

void RedfishClient::SetInsecure(bool insecure) { m_client.SetInsecure(insecure); }

void RedfishClient::SetDisableExpect(bool disable) { m_client.SetDisableExpect(disable); }

void RedfishClient::SetFollowRedirects(bool follow, int32_t maxRedirects) {
    m_followRedirects = follow;
    m_maxRedirects = maxRedirects;
    m_client.SetFollowRedirects(follow, maxRedirects);
}

void RedfishClient::SetCaInfo(const std::string& path) { m_client.SetCaInfo(path); }

void RedfishClient::SetProxy(const std::string& url, const std::string& username, const std::string& password) {
    m_client.SetProxy(url, username, password);
}

void RedfishClient::SetHeaders(HeaderMap headers) { m_client.SetHeaders(std::move(headers)); }

HeaderMap RedfishClient::GetHeaders() { return m_client.GetHeaders(); }

std::string& RedfishClient::SetHeader(const std::string& name, const std::string& value) {
    return m_client.SetHeader(name, value);
}

int32_t RedfishClient::EnableGzip() { return m_client.EnableGzip(); }

int32_t RedfishClient::ClassifyResponse(const Response& response) const { return m_client.ClassifyResponse(response); }

Response RedfishClient::Request(RequestType type, const std::string& url, const std::string& body) {
    if (auto refused = Authenticate(url)) return std::move(*refused);
    return m_client.Request(type, url, body);
}

Response RedfishClient::Get(const std::string& url) {
    PLEXUM_LOG(4, kLogSource, kGetLogLine) << "Redfish GET action on URL: " << url;
    std::optional<Response> refused = Authenticate(url);
    Response response = refused ? std::move(*refused) : Retried([&] { return m_client.Get(url); });
    // What the service last answered, for saying why it did not serve (--protocol redfish).
    Plexum::RunContext::Current().NoteRedfishOutcome(Plexum::RedfishOutcome{
        true, response.curlCode, response.httpCode, response.curlCode != 0 ? response.body : "",
        refused ? m_session.Failure() : Plexum::LoginFailure::None});
    return response;
}

Response RedfishClient::PostMime(const std::string& url, const MimeParts& parts, ProgressCallback progress) {
    Response response = Sent(url, [&] { return m_client.PostMime(url, parts, progress); });
    progress = ProgressCallback();
    return response;
}

Response RedfishClient::Post(const std::string& url, std::istream& body) {
    return Sent(url, [&] { return m_client.Post(url, body); });
}

Response RedfishClient::Post(const std::string& url, const std::string& body) {
    return Sent(url, [&] { return m_client.Post(url, body); });
}

Response RedfishClient::Put(const std::string& url, std::istream& body) {
    return Sent(url, [&] { return m_client.Put(url, body); });
}

Response RedfishClient::Put(const std::string& url, const std::string& body) {
    return Sent(url, [&] { return m_client.Put(url, body); });
}

Response RedfishClient::Patch(const std::string& url, std::istream& body) {
    return Sent(url, [&] { return m_client.Patch(url, body); });
}

Response RedfishClient::Patch(const std::string& url, const std::string& body) {
    return Sent(url, [&] { return m_client.Patch(url, body); });
}

Response RedfishClient::Delete(const std::string& url) {
    return Sent(url, [&] { return m_client.Delete(url); });
}

Response RedfishClient::Head(const std::string& url) {
    return Sent(url, [&] { return m_client.Head(url); });
}

Response RedfishClient::Options(const std::string& url) {
    return Sent(url, [&] { return m_client.Options(url); });
}

}  // namespace Rest
