// SPDX-License-Identifier: GPL-3.0-or-later
// RedfishClient: the 503 start-up retry, its configuration and logging, and the
// forwarding of every setting to its RestClient, against real loopback servers.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "common/rest/RedfishClient.h"
#include "host/GlobalConfig.h"
#include "host/RunContext.h"
#include "support/ConnectProxy.h"
#include "support/LogCapture.h"
#include "support/LoopbackPort.h"
#include "support/RecordingHttpsServer.h"
#include "support/TestCertificate.h"
#include "RestTestHelpers.h"

namespace {

using MorvelTest::LogCapture;
using MorvelTest::RecordingHttpsServer;
using MorvelTest::Reply;
using Rest::RedfishClient;
using Rest::Response;
using Clock = std::chrono::steady_clock;

const char kSource[] = "src/common/rest/RedfishClient";

std::string RetryText(const std::string& body) { return "curlCode: 0 | httpCode: 503 | body: " + body; }

// Monotonic time of one client that only its injected sleep moves forward.
class FakeTime {
public:
    explicit FakeTime(RedfishClient& client) : m_client(client) {
        client.SetClockFunction([this] { return m_now; });
        client.SetSleepFunction([this](int64_t milliseconds) {
            sleeps.push_back(milliseconds);
            m_now += milliseconds * 1000000;
        });
    }
    ~FakeTime() {
        m_client.SetClockFunction(nullptr);
        m_client.SetSleepFunction(nullptr);
    }
    FakeTime(const FakeTime&) = delete;
    FakeTime& operator=(const FakeTime&) = delete;
    std::vector<int64_t> sleeps;

private:
    RedfishClient& m_client;
    int64_t m_now = 1000000000;
};

class RedfishClientTest : public ::testing::Test {
protected:
    void SetUp() override { Reset(); }
    void TearDown() override { Reset(); }
    static void Reset() {
        Plexum::GlobalConfig::Clear();
        RedfishClient::ResetStartupWaitCache();
    }
    // Any sleep of the client fails the test.
    static void ForbidSleeping(RedfishClient& client) {
        client.SetSleepFunction([](int64_t milliseconds) { ADD_FAILURE() << "slept " << milliseconds << " ms"; });
    }
    static std::shared_ptr<RedfishClient> MakeClient() {
        auto client = std::make_shared<RedfishClient>();
        client->SetCaInfo(MorvelTest::TestCertificate::Shared()->CertPath());
        return client;
    }
};

// The one test that waits for real: three 5-second polls.
TEST_F(RedfishClientTest, ThreeServiceUnavailableAnswersThenSuccessAfterFifteenSeconds) {
    RecordingHttpsServer server;
    auto busy = [](const std::string& body) {
        Reply reply = Reply::Text(503, body);
        reply.headers = {{"Retry-After", "5"}};
        return reply;
    };
    server.Script("/redfish/v1/Chassis/2",
                  {busy("starting 1"), busy("starting 2"), busy("starting 3"),
                   Reply::Text(200, "{\"Id\":\"2\"}", "application/json")});
    LogCapture log(4);
    auto client = MakeClient();
    const std::string url = server.Url("/redfish/v1/Chassis/2");

    const auto start = Clock::now();
    Response response = client->Get(url);
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();

    EXPECT_EQ(response.curlCode, 0);
    EXPECT_EQ(response.httpCode, 200);
    EXPECT_EQ(response.body, "{\"Id\":\"2\"}");
    EXPECT_EQ(response.headers.count("Retry-After"), 0u);  // the whole last response, nothing of the earlier ones
    EXPECT_GE(elapsed, 15.0);
    EXPECT_LT(elapsed, 18.0);

    auto requests = server.Requests();
    ASSERT_EQ(requests.size(), 4u);
    for (size_t i = 1; i < requests.size(); ++i) {
        const double gap = std::chrono::duration<double>(requests[i].arrival - requests[i - 1].arrival).count();
        EXPECT_GE(gap, 4.99) << i;
        EXPECT_LT(gap, 6.0) << i;
    }

    auto records = log.From(kSource);
    ASSERT_EQ(records.size(), 4u);
    EXPECT_EQ(records[0].level, 4u);
    EXPECT_EQ(records[0].line, 108);
    EXPECT_EQ(records[0].text, "Redfish GET action on URL: " + url);
    for (int i = 1; i <= 3; ++i) {
        EXPECT_EQ(records[i].level, 4u);
        EXPECT_EQ(records[i].line, 33);
        EXPECT_EQ(records[i].text, RetryText("starting " + std::to_string(i)));
    }
}

TEST_F(RedfishClientTest, DefaultWaitPollsEveryFiveSecondsUntilPast180Seconds) {
    RecordingHttpsServer server;
    server.Script("/busy", {Reply::Text(503, "still starting")});
    LogCapture log(4);
    auto client = MakeClient();
    FakeTime time(*client);
    Response response = client->Get(server.Url("/busy"));
    EXPECT_EQ(response.curlCode, 0);
    EXPECT_EQ(response.httpCode, 503);
    EXPECT_EQ(response.body, "still starting");
    EXPECT_EQ(client->ClassifyResponse(response), -1);
    // Attempts at 0, 5, ..., 185 s: none starts once more than 180 s have passed.
    EXPECT_EQ(server.RequestCount(), 38u);
    EXPECT_EQ(time.sleeps, std::vector<int64_t>(37, 5000));
    auto records = log.From(kSource);
    ASSERT_EQ(records.size(), 39u);
    EXPECT_EQ(records[0].line, 108);
    EXPECT_EQ(records[38].line, 33);
    EXPECT_EQ(records[38].text, RetryText("still starting"));
}

TEST_F(RedfishClientTest, ZeroWaitMakesOneAttemptAndIsReadAgainNextTime) {
    RecordingHttpsServer server;
    server.Script("/busy", {Reply::Text(503, "busy")});
    Plexum::GlobalConfig::SetItem("REDFISH_STARTUP_WAIT_TIME", "0");
    auto client = MakeClient();
    ForbidSleeping(*client);
    const auto start = Clock::now();
    Response response = client->Get(server.Url("/busy"));
    EXPECT_LT(std::chrono::duration<double>(Clock::now() - start).count(), 2.0);
    EXPECT_EQ(response.httpCode, 503);
    EXPECT_EQ(response.body, "busy");
    EXPECT_EQ(server.RequestCount(), 1u);

    // A configured 0 leaves the cache empty, so the key is read again.
    Plexum::GlobalConfig::SetItem("REDFISH_STARTUP_WAIT_TIME", "10");
    FakeTime time(*client);
    server.ClearRequests();
    EXPECT_EQ(client->Get(server.Url("/busy")).httpCode, 503);
    EXPECT_EQ(server.RequestCount(), 4u);  // at 0, 5, 10 and 15 s
    EXPECT_EQ(time.sleeps, std::vector<int64_t>(3, 5000));
}

TEST_F(RedfishClientTest, NegativeWaitMakesOneAttempt) {
    RecordingHttpsServer server;
    server.Script("/busy", {Reply::Text(503, "busy")});
    Plexum::GlobalConfig::SetItem("REDFISH_STARTUP_WAIT_TIME", "-1");
    auto client = MakeClient();
    ForbidSleeping(*client);
    std::istringstream body("{\"LANEnabled\": false}");
    Response response = client->Patch(server.Url("/busy"), body);
    EXPECT_EQ(response.curlCode, 0);
    EXPECT_EQ(response.httpCode, 503);
    EXPECT_EQ(server.RequestCount(), 1u);
}

TEST_F(RedfishClientTest, WaitTimeIsReadOncePerProcess) {
    RecordingHttpsServer server;
    server.Script("/busy", {Reply::Text(503, "busy")});
    auto client = MakeClient();
    FakeTime time(*client);
    Plexum::GlobalConfig::SetItem("REDFISH_STARTUP_WAIT_TIME", "7");
    EXPECT_EQ(client->Get(server.Url("/busy")).httpCode, 503);
    EXPECT_EQ(server.RequestCount(), 3u);  // at 0, 5 and 10 s

    // A changed key is not seen, not even by another client.
    Plexum::GlobalConfig::SetItem("REDFISH_STARTUP_WAIT_TIME", "-1");
    server.ClearRequests();
    auto other = MakeClient();
    FakeTime otherTime(*other);
    EXPECT_EQ(other->Delete(server.Url("/busy")).httpCode, 503);
    EXPECT_EQ(server.RequestCount(), 3u);

    RedfishClient::ResetStartupWaitCache();
    server.ClearRequests();
    EXPECT_EQ(client->Get(server.Url("/busy")).httpCode, 503);
    EXPECT_EQ(server.RequestCount(), 1u);
}

// A run over many SMMs has one client per worker thread: each client waits
// with its own sleep and clock, never with another thread's.
TEST_F(RedfishClientTest, TwoClientsOnTwoThreadsKeepTheirOwnSleepAndClock) {
    RecordingHttpsServer server;
    server.Script("/a", {Reply::Text(503, "a busy"), Reply::Text(200, "a up")});
    server.Script("/b", {Reply::Text(503, "b busy"), Reply::Text(503, "b busy"), Reply::Text(200, "b up")});
    Plexum::GlobalConfig::SetItem("REDFISH_STARTUP_WAIT_TIME", "60");
    auto first = MakeClient();
    auto second = MakeClient();
    FakeTime firstTime(*first);
    FakeTime secondTime(*second);

    std::string firstBody;
    std::string secondBody;
    auto run = [](RedfishClient& client, const std::string& url, std::string& body) {
        Plexum::RunContext run("smm", nullptr);
        Plexum::ScopedRunContext installed(run);
        body = client.Get(url).body;
    };
    std::thread a(run, std::ref(*first), server.Url("/a"), std::ref(firstBody));
    std::thread b(run, std::ref(*second), server.Url("/b"), std::ref(secondBody));
    a.join();
    b.join();

    EXPECT_EQ(firstBody, "a up");
    EXPECT_EQ(secondBody, "b up");
    EXPECT_EQ(firstTime.sleeps, (std::vector<int64_t>{5000}));
    EXPECT_EQ(secondTime.sleeps, (std::vector<int64_t>{5000, 5000}));
}

TEST_F(RedfishClientTest, ConnectionFailureIsNotRetried) {
    MorvelTest::LoopbackPort port;
    LogCapture log(4);
    auto client = MakeClient();
    ForbidSleeping(*client);
    Response response = client->Get(port.Url("/redfish/v1"));
    EXPECT_EQ(response.curlCode, 7);
    EXPECT_EQ(response.httpCode, -1);
    EXPECT_TRUE(RestTest::IsRefusedText(response.body, port.Port()));
    auto records = log.From(kSource);
    ASSERT_EQ(records.size(), 1u);  // the GET log only
    EXPECT_EQ(records[0].line, 108);
}

TEST_F(RedfishClientTest, OtherStatusesEndTheLoopAtOnce) {
    RecordingHttpsServer server;
    server.Script("/500", {Reply::Text(500, "broken")});
    server.Script("/404", {Reply::Text(404, "missing")});
    server.Script("/200", {Reply::Text(200, "fine")});
    LogCapture log(4);
    auto client = MakeClient();
    ForbidSleeping(*client);
    EXPECT_EQ(client->Get(server.Url("/500")).body, "broken");
    EXPECT_EQ(client->Post(server.Url("/404"), std::string("x")).body, "missing");
    EXPECT_EQ(client->Head(server.Url("/200")).httpCode, 200);
    EXPECT_EQ(server.RequestCount(), 3u);
    for (const auto& record : log.From(kSource)) EXPECT_EQ(record.line, 108);
}

TEST_F(RedfishClientTest, RequestIsForwardedWithoutRetryOrLog) {
    RecordingHttpsServer server;
    server.Script("/busy", {Reply::Text(503, "busy")});
    LogCapture log(4);
    auto client = MakeClient();
    ForbidSleeping(*client);
    Response response = client->Request(Rest::RequestType::Get, server.Url("/busy"), "");
    EXPECT_EQ(response.httpCode, 503);
    EXPECT_EQ(response.body, "busy");
    Response patched = client->Request(Rest::RequestType::Patch, server.Url("/busy"), "{}");
    EXPECT_EQ(patched.httpCode, 503);
    Response unknown = client->Request(Rest::RequestType::Delete, server.Url("/busy"), "");
    EXPECT_EQ(unknown.curlCode, -1);
    EXPECT_EQ(unknown.httpCode, -1);
    EXPECT_EQ(unknown.body, "unknown request type");
    auto requests = server.Requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].method, "GET");
    EXPECT_EQ(requests[1].method, "PATCH");
    EXPECT_TRUE(log.From(kSource).empty());
}

TEST_F(RedfishClientTest, NothingIsLoggedBelowLevel4) {
    RecordingHttpsServer server;
    server.Script("/r", {Reply::Text(503, "busy"), Reply::Text(200, "up")});
    LogCapture log(3);
    auto client = MakeClient();
    FakeTime time(*client);
    EXPECT_EQ(client->Get(server.Url("/r")).body, "up");
    EXPECT_EQ(server.RequestCount(), 2u);
    EXPECT_TRUE(log.Records().empty());
}

TEST_F(RedfishClientTest, StreamedPatchIsSentWholeAgainAfter503) {
    RecordingHttpsServer server;
    server.Script("/redfish/v1/Chassis/2", {Reply::Text(503, "busy"), Reply::Text(503, "busy"), Reply::Text(204, "")});
    auto client = MakeClient();
    FakeTime time(*client);
    const std::string text = "{\"Oem\":{\"Qarvon\":{\"LANEnabled\":true}}}" + std::string(100000, ' ');
    std::istringstream body(text);
    Response response = client->Patch(server.Url("/redfish/v1/Chassis/2"), body);
    EXPECT_EQ(response.curlCode, 0);
    EXPECT_EQ(response.httpCode, 204);
    EXPECT_EQ(client->ClassifyResponse(response), 0);
    auto requests = server.Requests();
    ASSERT_EQ(requests.size(), 3u);
    for (const auto& request : requests) {
        EXPECT_EQ(request.method, "PATCH");
        EXPECT_EQ(request.Header("Content-Length"), std::to_string(text.size()));
        EXPECT_TRUE(request.body == text);
    }
    EXPECT_EQ(time.sleeps, (std::vector<int64_t>{5000, 5000}));
}

TEST_F(RedfishClientTest, EveryDirectOperationRetriesOn503) {
    RecordingHttpsServer server;
    LogCapture log(4);
    auto client = MakeClient();
    FakeTime time(*client);
    struct Case {
        std::string name;
        std::string method;
        std::string body;
        std::function<Response(const std::string&)> call;
    };
    std::istringstream postStream("post stream");
    std::istringstream putStream("put stream");
    std::istringstream patchStream("patch stream");
    const std::vector<Case> cases{
        {"get", "GET", "", [&](const std::string& url) { return client->Get(url); }},
        {"post-string", "POST", "post string", [&](const std::string& url) { return client->Post(url, std::string("post string")); }},
        {"post-stream", "POST", "post stream", [&](const std::string& url) { return client->Post(url, postStream); }},
        {"put-string", "PUT", "put string", [&](const std::string& url) { return client->Put(url, std::string("put string")); }},
        {"put-stream", "PUT", "put stream", [&](const std::string& url) { return client->Put(url, putStream); }},
        {"patch-string", "PATCH", "patch string", [&](const std::string& url) { return client->Patch(url, std::string("patch string")); }},
        {"patch-stream", "PATCH", "patch stream", [&](const std::string& url) { return client->Patch(url, patchStream); }},
        {"delete", "DELETE", "", [&](const std::string& url) { return client->Delete(url); }},
        {"head", "HEAD", "", [&](const std::string& url) { return client->Head(url); }},
        {"options", "OPTIONS", "", [&](const std::string& url) { return client->Options(url); }},
    };
    for (const Case& c : cases) {
        // OPTIONS reads no body, so its 503 comes without one: body bytes left on
        // the reused connection would be taken as the next answer.
        const std::string waitBody = c.method == "OPTIONS" ? "" : "wait " + c.name;
        server.Script("/" + c.name, {Reply::Text(503, waitBody), Reply::Text(200, "ok " + c.name)});
        server.ClearRequests();
        Response response = c.call(server.Url("/" + c.name));
        EXPECT_EQ(response.curlCode, 0) << c.name;
        EXPECT_EQ(response.httpCode, 200) << c.name;
        const bool bodyless = c.method == "HEAD" || c.method == "OPTIONS";
        EXPECT_EQ(response.body, bodyless ? "" : "ok " + c.name) << c.name;
        auto requests = server.Requests();
        ASSERT_EQ(requests.size(), 2u) << c.name;
        for (const auto& request : requests) {
            EXPECT_EQ(request.method, c.method) << c.name;
            EXPECT_EQ(request.body, c.body) << c.name;
        }
    }
    EXPECT_EQ(time.sleeps, std::vector<int64_t>(cases.size(), 5000));
    // One GET log, one retry record per rejected answer.
    auto records = log.From(kSource);
    ASSERT_EQ(records.size(), 1u + cases.size());
    EXPECT_EQ(records[0].line, 108);
    EXPECT_EQ(records[1].text, RetryText("wait get"));
    EXPECT_EQ(records[2].text, RetryText("wait post-string"));
    EXPECT_EQ(records[9].text, RetryText(""));  // HEAD answers carry no body
}

class TextPart : public Rest::MimePart {
public:
    TextPart(std::string name, std::string data) : m_name(std::move(name)), m_data(std::move(data)) {}
    void Fill(curl_mimepart* part) const override {
        curl_mime_name(part, m_name.c_str());
        curl_mime_data(part, m_data.data(), m_data.size());
    }

private:
    std::string m_name, m_data;
};

TEST_F(RedfishClientTest, PostMimeHandsTheProgressCallableToEveryAttemptAndReleasesIt) {
    RecordingHttpsServer server;
    server.Script("/upload", {Reply::Text(503, "busy"), Reply::Text(202, "accepted")});
    auto client = MakeClient();
    FakeTime time(*client);
    auto calls = std::make_shared<std::vector<std::pair<int64_t, int64_t>>>();
    Rest::MimeParts parts{std::make_shared<TextPart>("one", "1111"), std::make_shared<TextPart>("two", "22")};
    Response response = client->PostMime(server.Url("/upload"), parts, [calls](int64_t total, int64_t done) {
        calls->emplace_back(total, done);
    });
    EXPECT_EQ(response.httpCode, 202);
    EXPECT_EQ(response.body, "accepted");
    EXPECT_EQ(calls.use_count(), 1);  // no copy of the callable is kept
    auto requests = server.Requests();
    ASSERT_EQ(requests.size(), 2u);
    // Each attempt builds its parts afresh, with a boundary of its own.
    auto unbounded = [](const MorvelTest::RecordedRequest& request) {
        const std::string type = request.Header("Content-Type");
        const std::string boundary = type.substr(type.find("boundary=") + 9);
        std::string body = request.body;
        for (size_t at = body.find(boundary); at != std::string::npos; at = body.find(boundary, at + 1))
            body.replace(at, boundary.size(), "B");
        return body;
    };
    const std::string expected = "--B\r\nContent-Disposition: form-data; name=\"one\"\r\n\r\n1111\r\n"
                                 "--B\r\nContent-Disposition: form-data; name=\"two\"\r\n\r\n22\r\n--B--\r\n";
    EXPECT_EQ(unbounded(requests[0]), expected);
    EXPECT_EQ(unbounded(requests[1]), expected);
    const auto uploadTotal = static_cast<int64_t>(requests[0].body.size());
    EXPECT_EQ(requests[1].body.size(), requests[0].body.size());
    // Both attempts reported their upload; the last call is the 8-byte answer.
    EXPECT_EQ(std::count(calls->begin(), calls->end(), std::make_pair(uploadTotal, uploadTotal)) >= 2, true);
    EXPECT_NE(std::find(calls->begin(), calls->end(), std::make_pair(int64_t{4}, int64_t{4})), calls->end());
    EXPECT_EQ(calls->back(), std::make_pair(int64_t{8}, int64_t{8}));
}

TEST_F(RedfishClientTest, SettingsAreForwardedToTheMemberClient) {
    RecordingHttpsServer target;
    RecordingHttpsServer origin;
    Reply moved = Reply::Text(301, "");
    moved.headers = {{"Location", target.Url("/final")}};
    origin.Script("/start", {moved});
    target.Script("/final", {Reply::Text(200, RestTest::Gzip("zipped"), "application/octet-stream")});
    // The content is pre-compressed; say so.
    Reply zipped = Reply::Text(200, RestTest::Gzip("zipped"), "application/octet-stream");
    zipped.headers = {{"Content-Encoding", "gzip"}};
    target.Script("/final", {zipped});

    std::shared_ptr<Rest::RestClientInterface> client = std::make_shared<RedfishClient>();
    client->SetInsecure(true);  // no CA file: the insecure switch alone gets through
    client->SetCredentials("root", "calvin");
    client->SetHeaders({{"OData-Version", "4.0"}});
    std::string& accept = client->SetHeader("Accept", "text/plain");
    accept = "application/json";
    EXPECT_EQ(client->GetHeaders(), (Rest::HeaderMap{{"Accept", "application/json"}, {"OData-Version", "4.0"}}));
    EXPECT_EQ(client->EnableGzip(), 0);
    client->SetFollowRedirects(true, 1);
    client->SetDisableExpect(true);
    client->SetTimeout(5);

    Response response = client->Get(origin.Url("/start"));
    ASSERT_EQ(response.curlCode, 0) << response.body;
    EXPECT_EQ(response.httpCode, 200);
    EXPECT_EQ(response.body, "zipped");
    ASSERT_EQ(target.RequestCount(), 1u);
    const auto request = target.Requests()[0];
    EXPECT_EQ(request.Header("Authorization"), "Basic cm9vdDpjYWx2aW4=");
    EXPECT_EQ(request.Header("Accept"), "application/json");
    EXPECT_EQ(request.Header("OData-Version"), "4.0");
    EXPECT_EQ(request.Header("Accept-Encoding"), "gzip");

    Response put = client->Put(target.Url("/final"), std::string(size_t{2} * 1024 * 1024, 'p'));
    EXPECT_EQ(put.curlCode, 0);
    EXPECT_FALSE(target.Requests().at(1).HasHeader("Expect"));

    EXPECT_EQ(client->ClassifyResponse(Response(0, 204, "")), 0);
    EXPECT_EQ(client->ClassifyResponse(Response(0, 503, "")), -1);
    EXPECT_EQ(client->ClassifyResponse(Response(60, -1, "")), -2);
}

TEST_F(RedfishClientTest, TimeoutCaInfoAndProxyAreForwarded) {
    RecordingHttpsServer server;
    Reply slow = Reply::Text(200, "late");
    slow.delay = std::chrono::milliseconds(2500);
    server.Script("/slow", {slow});
    server.Script("/fast", {Reply::Text(200, "quick")});
    MorvelTest::ConnectProxy proxy;

    auto client = std::make_shared<RedfishClient>();
    ForbidSleeping(*client);
    Response untrusted = client->Get(server.Url("/fast"));
    EXPECT_EQ(untrusted.curlCode, 60);
    client->SetCaInfo(MorvelTest::TestCertificate::Shared()->CertPath());
    client->SetProxy(proxy.Address(), "pu", "pp");
    EXPECT_EQ(client->Get(server.Url("/fast")).body, "quick");
    client->SetTimeout(1);
    Response late = client->Get(server.Url("/slow"));
    EXPECT_EQ(late.curlCode, 28);
    EXPECT_EQ(client->ClassifyResponse(late), -2);

    auto sessions = proxy.Sessions();
    ASSERT_GE(sessions.size(), 1u);
    EXPECT_EQ(sessions[0].Header("Proxy-Authorization"), "Basic cHA6");  // "pp:"
    EXPECT_EQ(client->Client().GetProxy(), "http://" + proxy.Address());
}

}  // namespace
