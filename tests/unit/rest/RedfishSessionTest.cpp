// SPDX-License-Identifier: GPL-3.0-or-later
// RedfishClient under --redfish-auth session against a real loopback server:
// the login before the first request, the token on every request after it,
// one logout on every path (a stop of the run included), and every way a
// login can fail to open a session. Also the login's body and reply as values.
#include "common/rest/RedfishSession.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "common/rest/RedfishClient.h"
#include "host/GlobalConfig.h"
#include "host/RunContext.h"
#include "support/LogCapture.h"
#include "support/RecordingHttpsServer.h"
#include "support/TestCertificate.h"

namespace {

using MorvelTest::LogCapture;
using MorvelTest::RecordedRequest;
using MorvelTest::RecordingHttpsServer;
using MorvelTest::Reply;
using Plexum::LoginFailure;
using Rest::RedfishClient;
using Rest::Response;

const char kChassis[] = "/redfish/v1/Chassis/2";
const char kSessions[] = "/redfish/v1/SessionService/Sessions";
const char kSession[] = "/redfish/v1/SessionService/Sessions/7";
const char kToken[] = "3f6c2a9be10d4c57";
const char kUser[] = "admin";
// Quotes, a backslash, a control character and non-ASCII: escaped as JSON wants.
const char kPassword[] = "P\"a\\s\ts:w@rd\xC3\xA9";
const char kLoginBody[] = "{\"UserName\":\"admin\",\"Password\":\"P\\\"a\\\\s\\ts:w@rd\xC3\xA9\"}";
const char kVendor[] = "{\"Oem\":{\"Qarvon\":{\"LANEnabled\":true}}}";
const char kSessionSource[] = "src/common/rest/RedfishSession";

Reply Opened(const std::string& location = kSession, const std::string& token = kToken) {
    Reply reply = Reply::Text(201, "{\"Id\":\"7\"}", "application/json");
    reply.headers = {{"X-Auth-Token", token}};
    if (!location.empty()) reply.headers.emplace_back("Location", location);
    return reply;
}

// The headers a request carried, without those that say where and how long.
std::vector<std::pair<std::string, std::string>> Sent(const RecordedRequest& request) {
    std::vector<std::pair<std::string, std::string>> headers;
    for (const auto& header : request.headers) {
        if (header.first != "Host" && header.first != "Content-Length") headers.push_back(header);
    }
    return headers;
}

const std::vector<std::pair<std::string, std::string>> kLoginHeaders = {
    {"Accept", "*/*"}, {"Content-Type", "application/json"}, {"If-None-Match", "0"}, {"User-Agent", "KVRA_MORVEL"}};
const std::vector<std::pair<std::string, std::string>> kTokenHeaders = {{"Accept", "*/*"},
                                                                        {"Content-Type", "application/json"},
                                                                        {"If-None-Match", "0"},
                                                                        {"User-Agent", "KVRA_MORVEL"},
                                                                        {"X-Auth-Token", kToken}};

class RedfishSessionTest : public ::testing::Test {
protected:
    void SetUp() override {
        Plexum::GlobalConfig::Clear();
        Plexum::GlobalConfig::SetItem("REDFISH_STARTUP_WAIT_TIME", "0");
        m_run.ChooseRedfishAuth(Plexum::RedfishAuth::Session);
    }
    void TearDown() override { Plexum::GlobalConfig::Clear(); }

    // A client set up as the Redfish manager sets up its own.
    static std::unique_ptr<RedfishClient> MakeClient() {
        auto client = std::make_unique<RedfishClient>();
        client->SetCaInfo(MorvelTest::TestCertificate::Shared()->CertPath());
        client->SetCredentials(kUser, kPassword);
        client->SetTimeout(60);
        client->SetFollowRedirects(true, -1);
        client->SetHeader("Content-Type", "application/json");
        client->SetHeader("Expect", "");
        client->SetHeader("If-None-Match", "0");
        return client;
    }
    void ScriptService(std::vector<Reply> login, Reply logout = Reply::Text(204, "")) {
        m_server.Script(kSessions, std::move(login), "POST");
        m_server.Script(kChassis, {Reply::Text(200, kVendor, "application/json")}, "GET");
        m_server.Script(kChassis, {Reply::Text(200, kVendor, "application/json")}, "PATCH");
        m_server.Script(kSession, {std::move(logout)}, "DELETE");
    }
    std::vector<std::string> Methods() const {
        std::vector<std::string> methods;
        for (const auto& request : m_server.Requests()) methods.push_back(request.method + " " + request.path);
        return methods;
    }

    RecordingHttpsServer m_server;
    Plexum::StopSignal m_stop;
    Plexum::RunContext m_run{"smm", &m_stop};
    Plexum::ScopedRunContext m_installed{m_run};
};

TEST_F(RedfishSessionTest, LoginThenTheTokenOnEveryRequestThenOneLogout) {
    ScriptService({Opened()});
    LogCapture log(4);
    {
        auto client = MakeClient();
        EXPECT_EQ(client->Get(m_server.Url(kChassis)).body, kVendor);
        EXPECT_EQ(client->Patch(m_server.Url(kChassis), std::string("{}")).httpCode, 200);
        EXPECT_EQ(client->Request(Rest::RequestType::Get, m_server.Url(kChassis), "").httpCode, 200);
        EXPECT_FALSE(m_run.Logout());
    }
    EXPECT_EQ(Methods(), (std::vector<std::string>{"POST " + std::string(kSessions), "GET " + std::string(kChassis),
                                                   "PATCH " + std::string(kChassis), "GET " + std::string(kChassis),
                                                   "DELETE " + std::string(kSession)}));
    const auto requests = m_server.Requests();
    EXPECT_EQ(requests[0].body, kLoginBody);
    EXPECT_EQ(Sent(requests[0]), kLoginHeaders);
    for (size_t i = 1; i < requests.size(); ++i) EXPECT_EQ(Sent(requests[i]), kTokenHeaders) << i;
    ASSERT_TRUE(m_run.Logout());
    EXPECT_TRUE(m_run.Logout()->done);
    EXPECT_EQ(m_run.Logout()->error, "");
    EXPECT_EQ(m_run.LastRedfishOutcome().login, LoginFailure::None);

    // The trace shows the login with the password as '*', and nothing shows the password or the token.
    const std::vector<Plexum::LogRecord> records = log.From(kSessionSource);
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0].level, 4u);
    EXPECT_EQ(records[0].text, "Redfish POST action on URL: " + m_server.Url(kSessions) +
                                   " body: {\"UserName\":\"admin\",\"Password\":\"*\"}");
    EXPECT_EQ(records[1].text, "Redfish session opened: " + m_server.Url(kSession));
    EXPECT_EQ(records[2].text, "Redfish session closed: " + m_server.Url(kSession));
    for (const auto& record : log.Records()) {
        EXPECT_EQ(record.text.find("P\"a"), std::string::npos) << record.text;
        EXPECT_EQ(record.text.find(kToken), std::string::npos) << record.text;
    }
}

TEST_F(RedfishSessionTest, BasicStaysTheDefault) {
    Plexum::RunContext basic("smm", nullptr);
    Plexum::ScopedRunContext installed(basic);
    ScriptService({Opened()});
    {
        auto client = MakeClient();
        EXPECT_EQ(client->Get(m_server.Url(kChassis)).httpCode, 200);
    }
    EXPECT_EQ(Methods(), (std::vector<std::string>{"GET " + std::string(kChassis)}));
    EXPECT_EQ(m_server.Requests()[0].Header("Authorization"), "Basic " + std::string("YWRtaW46UCJhXHMJczp3QHJkw6k="));
    EXPECT_FALSE(basic.Logout());
}

TEST_F(RedfishSessionTest, LoginsThatOpenNoSessionAnswerTheFirstRequestAndAreNotRepeated) {
    struct Case {
        Reply reply;
        LoginFailure failure;
    };
    Reply spaced = Opened();
    spaced.headers = {{"X-Auth-Token", "two words"}, {"Location", kSession}};
    Reply tokenless = Reply::Text(201, "{}", "application/json");
    tokenless.headers = {{"Location", kSession}};
    const std::vector<Case> cases = {
        {Reply::Text(401, "who?"), LoginFailure::Refused},
        {Reply::Text(403, "no"), LoginFailure::Refused},
        {Reply::Text(404, "none here"), LoginFailure::NoSessionService},
        {Reply::Text(405, "not allowed"), LoginFailure::NoSessionService},
        {tokenless, LoginFailure::NoToken},
        {spaced, LoginFailure::NoToken},
        {Reply::Text(500, "broken"), LoginFailure::NotOpened},
    };
    for (const Case& c : cases) {
        m_server.ClearRequests();
        ScriptService({c.reply});
        {
            auto client = MakeClient();
            const Response first = client->Get(m_server.Url(kChassis));
            EXPECT_EQ(first.httpCode, c.reply.status);
            EXPECT_EQ(first.body, c.reply.body);
            EXPECT_EQ(m_run.LastRedfishOutcome().login, c.failure) << c.reply.status;
            EXPECT_EQ(m_run.LastRedfishOutcome().httpCode, c.reply.status);
            // A refused password is not tried again: services lock users out.
            EXPECT_EQ(client->Patch(m_server.Url(kChassis), std::string("{}")).httpCode, c.reply.status);
        }
        EXPECT_EQ(Methods(), (std::vector<std::string>{"POST " + std::string(kSessions)})) << c.reply.status;
        EXPECT_FALSE(m_run.Logout());
    }
}

TEST_F(RedfishSessionTest, TheLoginFollowsNoRedirect) {
    RecordingHttpsServer elsewhere;
    elsewhere.Script(kSessions, {Opened()});
    Reply moved = Reply::Text(307, "");
    moved.headers = {{"Location", elsewhere.Url(kSessions)}};
    ScriptService({moved});
    {
        auto client = MakeClient();
        EXPECT_EQ(client->Get(m_server.Url(kChassis)).httpCode, 307);
    }
    EXPECT_EQ(elsewhere.RequestCount(), 0u);
    EXPECT_EQ(m_run.LastRedfishOutcome().login, LoginFailure::NotOpened);
    // The chassis read after it follows redirects as the manager asked.
    EXPECT_EQ(Methods(), (std::vector<std::string>{"POST " + std::string(kSessions)}));
}

TEST_F(RedfishSessionTest, TheLoginRidesOutAStartingService) {
    Plexum::GlobalConfig::SetItem("REDFISH_STARTUP_WAIT_TIME", "60");
    ScriptService({Reply::Text(503, "starting"), Opened()});
    std::vector<int64_t> sleeps;
    {
        auto client = MakeClient();
        client->SetSleepFunction([&sleeps](int64_t milliseconds) { sleeps.push_back(milliseconds); });
        EXPECT_EQ(client->Get(m_server.Url(kChassis)).httpCode, 200);
    }
    EXPECT_EQ(sleeps, (std::vector<int64_t>{5000}));
    EXPECT_EQ(Methods(), (std::vector<std::string>{"POST " + std::string(kSessions), "POST " + std::string(kSessions),
                                                   "GET " + std::string(kChassis), "DELETE " + std::string(kSession)}));
}

TEST_F(RedfishSessionTest, AStoppedRunStillLogsOut) {
    Plexum::GlobalConfig::SetItem("REDFISH_STARTUP_WAIT_TIME", "60");
    ScriptService({Opened()});
    m_server.Script(kChassis, {Reply::Text(503, "busy")}, "PATCH");
    bool interrupted = false;
    try {
        auto client = MakeClient();
        EXPECT_EQ(client->Get(m_server.Url(kChassis)).httpCode, 200);
        m_stop.Request();
        // The 503 wait throws at once: the client is destroyed while the exception passes.
        client->Patch(m_server.Url(kChassis), std::string("{}"));
    } catch (const Plexum::RunInterrupted&) {
        interrupted = true;
    }
    EXPECT_TRUE(interrupted);
    EXPECT_EQ(Methods(), (std::vector<std::string>{"POST " + std::string(kSessions), "GET " + std::string(kChassis),
                                                   "PATCH " + std::string(kChassis), "DELETE " + std::string(kSession)}));
    ASSERT_TRUE(m_run.Logout());
    EXPECT_TRUE(m_run.Logout()->done);
}

TEST_F(RedfishSessionTest, ALogoutThatFailsIsAWarningAndNoted) {
    ScriptService({Opened()}, Reply::Text(500, "cannot"));
    LogCapture log(2);
    {
        auto client = MakeClient();
        EXPECT_EQ(client->Get(m_server.Url(kChassis)).httpCode, 200);
    }
    const std::string error = "DELETE " + m_server.Url(kSession) + " answered HTTP 500";
    ASSERT_TRUE(m_run.Logout());
    EXPECT_FALSE(m_run.Logout()->done);
    EXPECT_EQ(m_run.Logout()->error, error);
    const std::vector<Plexum::LogRecord> records = log.From(kSessionSource);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].level, 2u);
    EXPECT_EQ(records[0].text, "Redfish session logout failed: " + error);
}

TEST_F(RedfishSessionTest, ALogoutIsBoundedByItsOwnTimeout) {
    Reply stalled = Reply::Text(204, "");
    stalled.delay = std::chrono::milliseconds(30000);
    ScriptService({Opened()}, stalled);
    {
        auto client = MakeClient();
        EXPECT_EQ(client->Get(m_server.Url(kChassis)).httpCode, 200);
        client->SetTimeout(1);
    }
    ASSERT_TRUE(m_run.Logout());
    EXPECT_FALSE(m_run.Logout()->done);
    const std::string prefix = "DELETE " + m_server.Url(kSession) + " failed: Operation timed out after ";
    EXPECT_EQ(m_run.Logout()->error.substr(0, prefix.size()), prefix) << m_run.Logout()->error;
}

TEST_F(RedfishSessionTest, ASessionNamedElsewhereIsNotDeletedThere) {
    RecordingHttpsServer elsewhere;
    elsewhere.Script(kSession, {Reply::Text(204, "")});
    const std::vector<std::pair<std::string, std::string>> cases = {
        {elsewhere.Url(kSession), "the session's Location " + elsewhere.Url(kSession) +
                                      " is not on the SMM, so it was not deleted there"},
        {"", "the SMM named no session to delete (no Location in its login answer)"},
    };
    for (const auto& c : cases) {
        m_server.ClearRequests();
        ScriptService({Opened(c.first)});
        {
            auto client = MakeClient();
            EXPECT_EQ(client->Get(m_server.Url(kChassis)).httpCode, 200);
        }
        EXPECT_EQ(Methods(), (std::vector<std::string>{"POST " + std::string(kSessions), "GET " + std::string(kChassis)}));
        ASSERT_TRUE(m_run.Logout());
        EXPECT_FALSE(m_run.Logout()->done);
        EXPECT_EQ(m_run.Logout()->error, c.second);
    }
    EXPECT_EQ(elsewhere.RequestCount(), 0u);
}

TEST_F(RedfishSessionTest, AnAbsoluteLocationOnTheSmmIsDeleted) {
    ScriptService({Opened(m_server.Url(kSession))});
    {
        auto client = MakeClient();
        EXPECT_EQ(client->Get(m_server.Url(kChassis)).httpCode, 200);
    }
    EXPECT_EQ(Methods().back(), "DELETE " + std::string(kSession));
    ASSERT_TRUE(m_run.Logout());
    EXPECT_TRUE(m_run.Logout()->done);
}

TEST_F(RedfishSessionTest, NoUserNoLogin) {
    ScriptService({Opened()});
    {
        auto client = MakeClient();
        client->SetCredentials("", "");
        EXPECT_EQ(client->Get(m_server.Url(kChassis)).httpCode, 200);
    }
    EXPECT_EQ(Methods(), (std::vector<std::string>{"GET " + std::string(kChassis)}));
    EXPECT_FALSE(m_server.Requests()[0].HasHeader("Authorization"));
    EXPECT_FALSE(m_server.Requests()[0].HasHeader("X-Auth-Token"));
}

TEST(RedfishSessionValues, LoginBodyEscapesWhatJsonWants) {
    EXPECT_EQ(Rest::LoginBody("admin", "secret"), "{\"UserName\":\"admin\",\"Password\":\"secret\"}");
    EXPECT_EQ(Rest::LoginBody("ad\"min", std::string("a\x01\n\\b", 5)),
              "{\"UserName\":\"ad\\\"min\",\"Password\":\"a\\u0001\\n\\\\b\"}");
    EXPECT_EQ(Rest::LoginBody("", ""), "{\"UserName\":\"\",\"Password\":\"\"}");
}

TEST(RedfishSessionValues, LoginReplyHeadersInAnyLetterCase) {
    Response reply(0, 201, "{}");
    reply.headers = {{"x-auth-token", "abc"}, {"location", "/s/1"}};
    Rest::LoginReply read = Rest::ReadLoginReply(reply);
    EXPECT_EQ(read.failure, LoginFailure::None);
    EXPECT_EQ(read.token, "abc");
    EXPECT_EQ(read.location, "/s/1");

    reply.headers = {{"X-Auth-Token", std::string(4097, 'a')}};
    EXPECT_EQ(Rest::ReadLoginReply(reply).failure, LoginFailure::NoToken);
    reply.headers = {{"X-Auth-Token", "abc\x7f"}};
    EXPECT_EQ(Rest::ReadLoginReply(reply).failure, LoginFailure::NoToken);
    EXPECT_EQ(Rest::ReadLoginReply(Response(28, -1, "timed out")).failure, LoginFailure::NotOpened);
    EXPECT_EQ(Rest::ReadLoginReply(Response(0, 302, "")).failure, LoginFailure::NotOpened);
}

}  // namespace
