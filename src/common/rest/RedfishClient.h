// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "common/rest/RedfishSession.h"
#include "common/rest/RestClient.h"
#include "common/rest/RestClientInterface.h"
#include "host/RunContext.h"

namespace Rest {

// How long a request keeps being repeated while the service answers 503.
struct StartupWaitPolicy {
    int64_t totalWaitMilliseconds;
    int64_t pollIntervalMilliseconds;
};

// The client of a management controller's Redfish service. Every direct request
// is repeated every 5 seconds while the service answers HTTP 503 (still
// starting), for at most REDFISH_STARTUP_WAIT_TIME seconds (default 180, read
// once per run: per process for one target); Get also logs its URL. All HTTP work is done by the
// RestClient it holds. Made with std::make_shared by its users.
//
// Authentication follows the run's --redfish-auth, read when the client is
// made: Basic with the credentials on every request (the default), or a
// session: the first direct request (Request included) logs in first, with a
// POST of the credentials to the session service (no redirect followed, the
// same 503 wait), and every request then carries the session's token instead.
// A login that opens no session is not repeated: that request answers with
// the login's reply. The destructor deletes the session (one DELETE, no
// retry, no wait, at most 10 s), also when the run is being stopped.
class RedfishClient : public RestClientInterface {
public:
    // Throws std::runtime_error("Couldn't initialize curl handle") like RestClient.
    RedfishClient();
    ~RedfishClient() override;
    RedfishClient(const RedfishClient&) = delete;
    RedfishClient& operator=(const RedfishClient&) = delete;

    void SetCredentials(const std::string& username, const std::string& password) override;
    void SetTimeout(int32_t seconds) override;
    void SetInsecure(bool insecure) override;
    void SetDisableExpect(bool disable) override;
    void SetFollowRedirects(bool follow, int32_t maxRedirects) override;
    void SetCaInfo(const std::string& path) override;
    void SetProxy(const std::string& url, const std::string& username, const std::string& password) override;
    void SetHeaders(HeaderMap headers) override;
    HeaderMap GetHeaders() override;
    std::string& SetHeader(const std::string& name, const std::string& value) override;
    int32_t EnableGzip() override;

    // Forwarded to the member client as it is: one attempt, no GET log.
    Response Request(RequestType type, const std::string& url, const std::string& body) override;
    Response Get(const std::string& url) override;
    Response PostMime(const std::string& url, const MimeParts& parts, ProgressCallback progress) override;
    Response Post(const std::string& url, std::istream& body) override;
    Response Post(const std::string& url, const std::string& body) override;
    Response Put(const std::string& url, std::istream& body) override;
    Response Put(const std::string& url, const std::string& body) override;
    Response Patch(const std::string& url, std::istream& body) override;
    Response Patch(const std::string& url, const std::string& body) override;
    Response Delete(const std::string& url) override;
    Response Head(const std::string& url) override;
    Response Options(const std::string& url) override;

    int32_t ClassifyResponse(const Response& response) const override;

    // The member client, for settings outside the interface.
    RestClient& Client() { return m_client; }

    // Test hooks of this client alone (a run over many SMMs has one client per
    // worker thread). An empty function restores the real behaviour: the run's
    // sleep, which a stop request ends, and the monotonic clock (nanoseconds).
    void SetSleepFunction(std::function<void(int64_t milliseconds)> sleep) { m_sleep = std::move(sleep); }
    void SetClockFunction(std::function<int64_t()> nanoseconds) { m_clock = std::move(nanoseconds); }
    // Forgets the cached REDFISH_STARTUP_WAIT_TIME so the next request reads it again.
    static void ResetStartupWaitCache();

private:
    // Repeats `attempt` while the service answers 503, within the start-up wait.
    template <typename Operation>
    Response Retried(Operation attempt);
    // Retried, after the session's login in session mode.
    template <typename Operation>
    Response Sent(const std::string& url, Operation attempt);
    void Sleep(int64_t milliseconds) const;
    int64_t Now();
    // Session mode: the session opened before the first request; the reply of
    // a login that opened none, which then stands for the request's.
    std::optional<Response> Authenticate(const std::string& url);
    // Deletes the open session, if any; never throws.
    void LogOut() noexcept;

    RestClient m_client;
    std::function<void(int64_t)> m_sleep;
    std::function<int64_t()> m_clock;
    Plexum::RedfishAuth m_auth;
    // Session mode keeps the credentials here for the login: requests never carry them.
    std::string m_username;
    std::string m_password;
    bool m_followRedirects = false;
    int32_t m_maxRedirects = -1;
    int32_t m_timeout = -1;
    RedfishSession m_session;
};

}  // namespace Rest
