// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "common/rest/RestClient.h"
#include "common/rest/RestClientInterface.h"

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
class RedfishClient : public RestClientInterface {
public:
    // Throws std::runtime_error("Couldn't initialize curl handle") like RestClient.
    RedfishClient() = default;
    ~RedfishClient() override = default;
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
    void Sleep(int64_t milliseconds) const;
    int64_t Now() const;

    RestClient m_client;
    std::function<void(int64_t)> m_sleep;
    std::function<int64_t()> m_clock;
};

}  // namespace Rest
