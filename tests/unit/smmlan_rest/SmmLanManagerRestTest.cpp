// SPDX-License-Identifier: GPL-3.0-or-later
#include <pthread.h>
#include <rapidjson/document.h>

#include <chrono>
#include <climits>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "common/result/ResultCodes.h"
#include "smmlan_rest/SmmLanRestFixture.h"

namespace SmmLanRestTest {
namespace {

using MorvelTest::RecordingHttpsServer;
using MorvelTest::Reply;

const std::string kEnableLanBody = "{\"Oem\": {\"Qarvon\": { \" LANEnabled\" : true}}}";
const std::string kDisableLanBody = "{\"Oem\": {\"Qarvon\": { \" LANEnabled\" : false}}}";
const std::string kEnableIpmiBody = "{\"Oem\": {\"Qarvon\": { \" IPMIEnabled\" : true}}}";

const Entry kProbeEnter{4, "Entering  SmmLanManagerRest::CheckIsSupportByRest"};
const Entry kSupported{3, kSupportedText};

std::vector<Entry> InitEntries(const std::string& url) {
    return {{4, "Entering  SmmLanManagerRest::Initialize"},
            {3, "url:" + url},
            {4, "Exiting  SmmLanManagerRest::Initialize"}};
}

std::vector<Entry> Concat(std::vector<Entry> first, const std::vector<Entry>& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

std::string EnableConsole(const std::string& middle) {
    return std::string(kEnableBanner) + "\n" + middle + "\n************Enable Result************\n";
}

// What the probe answers by its own rules, parsed with RapidJSON's default
// (recursive) parser: the manager's iterative parse must agree on normal input.
bool ReferenceProbe(const std::string& body, bool& lanEnabled) {
    rapidjson::Document document;
    document.Parse(body.c_str());
    if (document.HasParseError() || !document.IsObject()) return false;
    auto oem = document.FindMember("Oem");
    if (oem == document.MemberEnd() || !oem->value.IsObject()) return false;
    auto vendor = oem->value.FindMember("Qarvon");
    if (vendor == oem->value.MemberEnd() || !vendor->value.IsObject()) return false;
    auto lan = vendor->value.FindMember("LANEnabled");
    if (lan == vendor->value.MemberEnd() || !lan->value.IsBool()) return false;
    lanEnabled = lan->value.IsTrue();
    return true;
}

// Runs `work` on a thread with a 1 MiB stack. A recursive descent over
// 100,000 nesting levels needs several MiB, so only a parser that keeps its
// nesting off the call stack survives this.
void RunOnSmallStack(const std::function<void()>& work) {
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, 1 << 20), 0);
    pthread_t thread;
    auto trampoline = [](void* argument) -> void* {
        (*static_cast<const std::function<void()>*>(argument))();
        return nullptr;
    };
    const int created = pthread_create(&thread, &attributes, trampoline, const_cast<std::function<void()>*>(&work));
    pthread_attr_destroy(&attributes);
    ASSERT_EQ(created, 0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
}

// A port on which nothing listens: one a server had a moment ago.
int FreedPort() {
    RecordingHttpsServer server;
    return server.Port();
}

class SmmLanManagerRestTest : public Fixture {
protected:
    // The chassis resource answers GET with `getReplies`, PATCH with `patchReplies`.
    void ScriptChassis(RecordingHttpsServer& server, std::vector<Reply> getReplies,
                       std::vector<Reply> patchReplies = {Json(200, "{}")}) {
        server.Script(kChassisPath, std::move(getReplies), "GET");
        server.Script(kChassisPath, std::move(patchReplies), "PATCH");
    }

    void ExpectManagerHeaders(const MorvelTest::RecordedRequest& request) {
        EXPECT_EQ(request.path, kChassisPath);
        EXPECT_EQ(request.Header("Authorization"), kBasicAuth);
        EXPECT_EQ(request.HeaderCount("Authorization"), 1u);
        EXPECT_EQ(request.Header("User-Agent"), "KVRA_MORVEL");
        EXPECT_EQ(request.Header("Content-Type"), "application/json");
        EXPECT_EQ(request.HeaderCount("Content-Type"), 1u);
        EXPECT_EQ(request.Header("If-None-Match"), "0");
        EXPECT_FALSE(request.HasHeader("Expect"));
    }

    void ExpectPatch(const MorvelTest::RecordedRequest& request, const std::string& body) {
        EXPECT_EQ(request.method, "PATCH");
        EXPECT_EQ(request.body, body);
        EXPECT_EQ(request.Header("Content-Length"), std::to_string(body.size()));
        ExpectManagerHeaders(request);
    }
};

// ---------------------------------------------------------------- set-up

TEST_F(SmmLanManagerRestTest, ConstructorBuildsUrlAndClientWithoutSendingAnything) {
    RecordingHttpsServer server;
    auto connection = ConnectionTo(server);
    SmmLanManagerRest manager(&connection);

    const std::string url = "https://127.0.0.1:" + std::to_string(server.Port()) + "/redfish/v1/Chassis/2";
    EXPECT_EQ(manager.Url(), url);
    EXPECT_EQ(ManagerEntries(), InitEntries(url));
    EXPECT_NE(manager.Client(), nullptr);
    EXPECT_FALSE(manager.LanEnabled());
    EXPECT_FALSE(manager.IpmiEnabled());
    EXPECT_EQ(manager.SmmIp(), "");
    EXPECT_EQ(manager.LastResponse().curlCode, -1);
    EXPECT_EQ(manager.LastResponse().httpCode, -1);
    EXPECT_EQ(manager.LastResponse().body, "");
    EXPECT_EQ(server.RequestCount(), 0u);
    EXPECT_EQ(m_console.Out(), "");
    EXPECT_EQ(m_console.Err(), "");
}

TEST_F(SmmLanManagerRestTest, UrlExamples) {
    Plexum::PlexumConnection::ConnectionInfo connection;
    connection.address = "192.0.2.10";
    connection.port = 443;
    {
        SmmLanManagerRest manager(&connection);
        EXPECT_EQ(manager.Url(), "https://192.0.2.10:443/redfish/v1/Chassis/2");
    }
    connection.address = "2001:db8::10";
    connection.addressType = Plexum::PlexumConnection::kAddressTypeIpv6;
    {
        SmmLanManagerRest manager(&connection);
        EXPECT_EQ(manager.Url(), "https://[2001:db8::10]:443/redfish/v1/Chassis/2");
    }
    // Only address kind 1 brackets the host, whatever it contains.
    for (int32_t kind : {0, 2, -1}) {
        connection.addressType = kind;
        SmmLanManagerRest manager(&connection);
        EXPECT_EQ(manager.Url(), "https://2001:db8::10:443/redfish/v1/Chassis/2") << "address kind " << kind;
    }
    connection.address = "bmc.example";
    connection.addressType = 0;
    connection.port = 8443;
    SmmLanManagerRest manager(&connection);
    EXPECT_EQ(manager.Url(), "https://bmc.example:8443/redfish/v1/Chassis/2");
    // The "url:" record carries exactly the URL.
    const auto entries = ManagerEntries();
    ASSERT_FALSE(entries.empty());
    EXPECT_EQ(entries[entries.size() - 2], (Entry{3, "url:https://bmc.example:8443/redfish/v1/Chassis/2"}));
}

TEST_F(SmmLanManagerRestTest, Ipv6LiteralIsBracketedAndReachable) {
    RecordingHttpsServer::Options options;
    options.ipv6 = true;
    RecordingHttpsServer server(options);
    ScriptChassis(server, {Json(200, VendorBody("\"LANEnabled\": true"))});

    auto connection = ConnectionTo(server);
    connection.address = "::1";
    connection.addressType = Plexum::PlexumConnection::kAddressTypeIpv6;
    SmmLanManagerRest manager(&connection);

    const std::string url = "https://[::1]:" + std::to_string(server.Port()) + "/redfish/v1/Chassis/2";
    EXPECT_EQ(manager.Url(), url);
    EXPECT_EQ(url, server.Url(kChassisPath));
    EXPECT_TRUE(manager.CheckIsSupportByRest());
    ASSERT_EQ(server.RequestCount(), 1u);
    EXPECT_EQ(server.Requests()[0].method, "GET");
    EXPECT_EQ(server.Requests()[0].remoteAddr, "::1");
    EXPECT_EQ(ManagerEntries(), Concat(InitEntries(url), {kProbeEnter, kSupported}));
}

TEST_F(SmmLanManagerRestTest, TraceRecordsOnlyAtLevelFour) {
    Plexum::Log::SetMinLogLevel(3);  // LogCapture puts the previous level back
    RecordingHttpsServer server;
    ScriptChassis(server, {Json(200, VendorBody("\"LANEnabled\": true"))});
    auto connection = ConnectionTo(server);
    SmmLanManagerRest manager(&connection);
    EXPECT_TRUE(manager.CheckIsSupportByRest());
    EXPECT_EQ(ManagerEntries(), (std::vector<Entry>{{3, "url:" + Url(server)}, kSupported}));
}

// ---------------------------------------------------------------- probe

TEST_F(SmmLanManagerRestTest, ProbeSendsOneGetWithTheClientSettings) {
    RecordingHttpsServer server;
    ScriptChassis(server, {Json(200, VendorBody("\"LANEnabled\": true, \"IPMIEnabled\": false"))});
    auto connection = ConnectionTo(server);
    SmmLanManagerRest manager(&connection);

    EXPECT_TRUE(manager.CheckIsSupportByRest());
    EXPECT_TRUE(manager.LanEnabled());
    EXPECT_FALSE(manager.IpmiEnabled());  // only Query reads it
    EXPECT_EQ(manager.SmmIp(), "");

    const auto requests = server.Requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "GET");
    EXPECT_EQ(requests[0].body, "");
    ExpectManagerHeaders(requests[0]);

    EXPECT_EQ(ManagerEntries(), Concat(InitEntries(Url(server)), {kProbeEnter, kSupported}));
    std::vector<Entry> clientEntries = EntriesFrom("src/common/rest/RedfishClient");
    EXPECT_EQ(clientEntries, (std::vector<Entry>{{4, "Redfish GET action on URL: " + Url(server)}}));
    EXPECT_EQ(manager.LastResponse().httpCode, 200);
    EXPECT_EQ(m_console.Out(), "");
    EXPECT_EQ(m_console.Err(), "");
}

TEST_F(SmmLanManagerRestTest, ProbeAnswerFollowsTheHttpStatus) {
    struct Case {
        int status;
        std::string body;  // what the server sends
        bool answer;
        int32_t code;      // CheckResponse of the stored reply
    };
    const std::string vendor = VendorBody("\"LANEnabled\": true");
    const std::vector<Case> cases = {
        {200, vendor, true, RESULT_SUCCEED},
        {204, "", false, RESULT_SUCCEED},  // success, but no body to parse
        {299, vendor, true, RESULT_SUCCEED},
        {300, "choose", false, RESULT_INTERNAL_ERROR},
        {304, "", false, RESULT_INTERNAL_ERROR},
        {401, "{\"error\": \"unauthorized\"}", false, RESULT_INTERNAL_ERROR},
        {404, "not here", false, RESULT_INTERNAL_ERROR},
        {500, vendor, false, RESULT_INTERNAL_ERROR},
    };
    RecordingHttpsServer server;
    for (const Case& c : cases) {
        SCOPED_TRACE("status " + std::to_string(c.status));
        ScriptChassis(server, {Json(c.status, c.body)});
        auto connection = ConnectionTo(server);
        SmmLanManagerRest manager(&connection);
        m_log.Clear();

        EXPECT_EQ(manager.CheckIsSupportByRest(), c.answer);
        EXPECT_EQ(manager.LastResponse().curlCode, 0);
        EXPECT_EQ(manager.LastResponse().httpCode, c.status);
        const Entry verdict = c.code == RESULT_SUCCEED ? kSupported : Entry{1, "    Error msg: " + c.body};
        EXPECT_EQ(ManagerEntries(), (std::vector<Entry>{kProbeEnter, verdict}));

        m_log.Clear();
        EXPECT_EQ(manager.CheckResponse(manager.LastResponse()), c.code);
        EXPECT_EQ(ManagerEntries(), (std::vector<Entry>{verdict}));
    }
    EXPECT_EQ(m_console.Out(), "");
}

TEST_F(SmmLanManagerRestTest, StatusRangeIsTwoHundredToTwoNinetyNine) {
    Plexum::PlexumConnection::ConnectionInfo connection;
    connection.address = "192.0.2.10";
    connection.port = 443;
    SmmLanManagerRest manager(&connection);
    const std::vector<std::pair<int32_t, int32_t>> cases = {
        {199, RESULT_INTERNAL_ERROR}, {200, RESULT_SUCCEED},        {250, RESULT_SUCCEED},
        {299, RESULT_SUCCEED},        {300, RESULT_INTERNAL_ERROR}, {100, RESULT_INTERNAL_ERROR},
        {0, RESULT_INTERNAL_ERROR},   {-1, RESULT_INTERNAL_ERROR},  {INT32_MIN, RESULT_INTERNAL_ERROR},
        {INT32_MAX, RESULT_INTERNAL_ERROR}, {2000, RESULT_INTERNAL_ERROR},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("status " + std::to_string(c.first));
        const Rest::Response reply(0, c.first, "body " + std::to_string(c.first));
        SmmLanManagerRestTestPeer::SetStoredResponse(manager, reply);
        m_log.Clear();
        EXPECT_EQ(manager.CheckResponse(reply), c.second);
        const Entry verdict = c.second == RESULT_SUCCEED ? kSupported : Entry{1, "    Error msg: " + reply.body};
        EXPECT_EQ(ManagerEntries(), (std::vector<Entry>{verdict}));
    }
}

TEST_F(SmmLanManagerRestTest, StatusComesFromTheStoredReplyCurlCodeFromThePassedOne) {
    RecordingHttpsServer server;
    ScriptChassis(server, {Json(404, "gone")});
    auto connection = ConnectionTo(server);
    SmmLanManagerRest manager(&connection);
    EXPECT_FALSE(manager.CheckIsSupportByRest());

    m_log.Clear();
    EXPECT_EQ(manager.CheckResponse(Rest::Response(0, 200, "passed")), RESULT_INTERNAL_ERROR);
    EXPECT_EQ(ManagerEntries(), (std::vector<Entry>{{1, "    Error msg: passed"}}));

    SmmLanManagerRestTestPeer::SetStoredResponse(manager, Rest::Response(0, 200, "stored"));
    m_log.Clear();
    EXPECT_EQ(manager.CheckResponse(Rest::Response(0, 404, "passed")), RESULT_SUCCEED);
    EXPECT_EQ(manager.CheckResponse(Rest::Response(28, -1, "passed")), RESULT_TIMEOUT);
    EXPECT_EQ(ManagerEntries(), (std::vector<Entry>{kSupported}));
}

TEST_F(SmmLanManagerRestTest, CurlCodesMapWithoutAnyRecord) {
    Plexum::PlexumConnection::ConnectionInfo connection;
    connection.address = "192.0.2.10";
    connection.port = 443;
    SmmLanManagerRest manager(&connection);
    // A 2xx stored reply shows that a transfer failure is judged first.
    SmmLanManagerRestTestPeer::SetStoredResponse(manager, Rest::Response(0, 200, "{}"));
    const std::vector<std::pair<int32_t, int32_t>> cases = {
        {28, RESULT_TIMEOUT},           {58, RESULT_CONNECTION_FAILED}, {60, RESULT_CONNECTION_FAILED},
        {77, RESULT_CONNECTION_FAILED}, {91, RESULT_CONNECTION_FAILED}, {7, RESULT_GENERIC_FAILURE},
        {6, RESULT_GENERIC_FAILURE},    {35, RESULT_GENERIC_FAILURE},   {56, RESULT_GENERIC_FAILURE},
        {59, RESULT_GENERIC_FAILURE},   {1, RESULT_GENERIC_FAILURE},    {-1, RESULT_GENERIC_FAILURE},
    };
    m_log.Clear();
    for (const auto& c : cases) {
        EXPECT_EQ(manager.CheckResponse(Rest::Response(c.first, -1, "curl text")), c.second) << "curl code " << c.first;
    }
    EXPECT_EQ(ManagerEntries(), std::vector<Entry>{});
}

TEST_F(SmmLanManagerRestTest, NothingListeningAnswersFalseWithCurlCodeSeven) {
    Plexum::PlexumConnection::ConnectionInfo connection;
    connection.address = "127.0.0.1";
    connection.port = FreedPort();
    connection.username = kUser;
    connection.password = kPassword;
    SmmLanManagerRest manager(&connection);
    m_log.Clear();

    EXPECT_FALSE(manager.CheckIsSupportByRest());
    EXPECT_EQ(manager.LastResponse().curlCode, 7);
    EXPECT_EQ(manager.LastResponse().httpCode, -1);
    EXPECT_NE(manager.LastResponse().body, "");  // libcurl's error text
    EXPECT_FALSE(manager.LanEnabled());
    EXPECT_EQ(ManagerEntries(), (std::vector<Entry>{kProbeEnter}));
    EXPECT_EQ(manager.CheckResponse(manager.LastResponse()), RESULT_GENERIC_FAILURE);
    EXPECT_EQ(m_console.Out(), "");
}

TEST_F(SmmLanManagerRestTest, ServerStallingPastTheTimeoutGivesCurlCodeTwentyEight) {
    RecordingHttpsServer server;
    Reply slow = Json(200, VendorBody("\"LANEnabled\": true"));
    slow.delay = std::chrono::hours(1);  // cut short when the server stops: only the time-out ends the wait
    ScriptChassis(server, {slow});
    auto connection = ConnectionTo(server);
    SmmLanManagerRest manager(&connection);
    manager.Client()->SetTimeout(1);  // the manager's 60 s would make a slow test
    m_log.Clear();

    EXPECT_FALSE(manager.CheckIsSupportByRest());
    EXPECT_EQ(manager.LastResponse().curlCode, 28);
    EXPECT_EQ(manager.LastResponse().httpCode, -1);
    EXPECT_EQ(manager.CheckResponse(manager.LastResponse()), RESULT_TIMEOUT);
    EXPECT_EQ(ManagerEntries(), (std::vector<Entry>{kProbeEnter}));
}

TEST_F(SmmLanManagerRestTest, ProbeRidesOutServiceUnavailable) {
    Plexum::GlobalConfig::SetItem("REDFISH_STARTUP_WAIT_TIME", "60");
    Rest::RedfishClient::ResetStartupWaitCache();
    std::vector<int64_t> sleeps;

    RecordingHttpsServer server;
    ScriptChassis(server, {Json(503, "starting"), Json(503, "starting"), Json(200, VendorBody("\"LANEnabled\": false"))});
    auto connection = ConnectionTo(server);
    SmmLanManagerRest manager(&connection);
    manager.Client()->SetSleepFunction([&](int64_t ms) { sleeps.push_back(ms); });
    m_log.Clear();

    EXPECT_TRUE(manager.CheckIsSupportByRest());
    EXPECT_FALSE(manager.LanEnabled());
    EXPECT_EQ(server.RequestCount(), 3u);
    EXPECT_EQ(sleeps, (std::vector<int64_t>{5000, 5000}));
    EXPECT_EQ(ManagerEntries(), (std::vector<Entry>{kProbeEnter, kSupported}));
}

TEST_F(SmmLanManagerRestTest, ServiceUnavailableWithoutStartupWaitAnswersFalse) {
    RecordingHttpsServer server;
    ScriptChassis(server, {Json(503, "starting"), Json(200, VendorBody("\"LANEnabled\": true"))});
    auto connection = ConnectionTo(server);
    SmmLanManagerRest manager(&connection);
    m_log.Clear();

    EXPECT_FALSE(manager.CheckIsSupportByRest());
    EXPECT_EQ(server.RequestCount(), 1u);
    EXPECT_EQ(ManagerEntries(), (std::vector<Entry>{kProbeEnter, {1, "    Error msg: starting"}}));
}

// ---------------------------------------------------------------- bodies

TEST_F(SmmLanManagerRestTest, ProbeAnswerFollowsTheBody) {
    struct Case {
        std::string name;
        std::string body;
        bool answer;
        bool lanEnabled;
    };
    const std::string lanTrue = "{\"Qarvon\": {\"LANEnabled\": true}}";
    const std::string lanFalse = "{\"Qarvon\": {\"LANEnabled\": false}}";
    const std::vector<Case> cases = {
        {"empty object", "{}", false, false},
        {"string true", VendorBody("\"LANEnabled\": \"true\""), false, false},
        {"literal false", VendorBody("\"LANEnabled\": false"), true, false},
        {"literal true", VendorBody("\"LANEnabled\": true, \"IPMIEnabled\": true, \"IPv4\": \"192.0.2.1\""), true, true},
        {"number", VendorBody("\"LANEnabled\": 1"), false, false},
        {"null", VendorBody("\"LANEnabled\": null"), false, false},
        {"missing", VendorBody("\"IPMIEnabled\": true, \"IPv4\": \"192.0.2.1\""), false, false},
        {"Oem not an object", "{\"Oem\": 5}", false, false},
        {"Oem empty", "{\"Oem\": {}}", false, false},
        {"vendor is an array", "{\"Oem\": {\"Qarvon\": [true]}}", false, false},
        {"oem lower case", "{\"oem\": " + lanTrue + "}", false, false},
        {"vendor lower case", "{\"Oem\": {\"qarvon\": {\"LANEnabled\": true}}}", false, false},
        {"blank in name", VendorBody("\" LANEnabled\": true"), false, false},
        {"name lower case", VendorBody("\"lanenabled\": true"), false, false},
        {"first Oem wins (true)", "{\"Oem\": " + lanTrue + ", \"Oem\": " + lanFalse + "}", true, true},
        {"first Oem wins (false)", "{\"Oem\": " + lanFalse + ", \"Oem\": " + lanTrue + "}", true, false},
        {"first Oem is empty", "{\"Oem\": {}, \"Oem\": " + lanTrue + "}", false, false},
        {"first Oem not an object", "{\"Oem\": 1, \"Oem\": " + lanTrue + "}", false, false},
        {"first vendor wins", "{\"Oem\": {\"Qarvon\": {\"LANEnabled\": \"x\"}, \"Qarvon\": {\"LANEnabled\": true}}}",
         false, false},
        {"first LANEnabled wins", VendorBody("\"LANEnabled\": false, \"LANEnabled\": true"), true, false},
        {"root array", "[{\"Oem\": " + lanTrue + "}]", false, false},
        {"root true", "true", false, false},
        {"root string", "\"Oem\"", false, false},
        {"root number", "42", false, false},
        {"root null", "null", false, false},
        {"not JSON", "not json", false, false},
        {"empty body", "", false, false},
        {"HTML", "<html><body>Chassis</body></html>", false, false},
        {"truncated", "{\"Oem\": {\"Qarvon\": {\"LANEnabled\": true}}", false, false},
        {"trailing text", "{\"Oem\": " + lanTrue + "} trailing", false, false},
        {"surrounding white space", " \t\r\n{\"Oem\": " + lanTrue + "}\r\n", true, true},
        {"text after a NUL", "{\"Oem\": " + lanTrue + "}" + std::string("\0{garbage", 9), true, true},
        {"tiny number elsewhere", VendorBody("\"LANEnabled\": true, \"N\": 1e-400"), true, true},
        {"number too big elsewhere", VendorBody("\"LANEnabled\": true, \"N\": 1e400"), false, false},
        {"long integer elsewhere", VendorBody("\"LANEnabled\": true, \"N\": -123456789012345678901234567890"),
         true, true},
        {"malformed number elsewhere", VendorBody("\"LANEnabled\": true, \"N\": 01"), false, false},
        {"fraction without digits elsewhere", VendorBody("\"LANEnabled\": true, \"N\": 1."), false, false},
    };
    RecordingHttpsServer server;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ScriptChassis(server, {Json(200, c.body)});
        server.ClearRequests();
        auto connection = ConnectionTo(server);
        SmmLanManagerRest manager(&connection);
        m_log.Clear();

        EXPECT_EQ(manager.CheckIsSupportByRest(), c.answer);
        EXPECT_EQ(manager.LanEnabled(), c.lanEnabled);
        EXPECT_EQ(manager.LastResponse().body, c.body);
        EXPECT_EQ(server.RequestCount(), 1u);
        EXPECT_EQ(ManagerEntries(), (std::vector<Entry>{kProbeEnter, kSupported}));

        bool referenceLan = false;
        EXPECT_EQ(ReferenceProbe(c.body, referenceLan), c.answer);
        EXPECT_EQ(referenceLan, c.lanEnabled);
    }
    EXPECT_EQ(m_console.Out(), "");
    EXPECT_EQ(m_console.Err(), "");
}

TEST_F(SmmLanManagerRestTest, HundredThousandLevelsDeepBodiesDoNotExhaustTheStack) {
    constexpr size_t kDepth = 100000;
    const std::string deepArray = std::string(kDepth, '[') + std::string(kDepth, ']');
    std::string deepObject;
    for (size_t i = 0; i < kDepth; ++i) deepObject += "{\"a\":";
    deepObject += "1" + std::string(kDepth, '}');

    struct Case {
        std::string name;
        std::string body;
        bool answer;
    };
    const std::vector<Case> cases = {
        {"deep array beside the vendor object", VendorBody("\"LANEnabled\": true, \"Deep\": " + deepArray), true},
        {"deep array as the root", deepArray, false},
        {"deep objects as the root", deepObject, false},
        {"unterminated deep array", VendorBody("\"LANEnabled\": true, \"Deep\": " + std::string(kDepth, '[')), false},
    };
    RecordingHttpsServer server;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ScriptChassis(server, {Json(200, c.body)});
        auto connection = ConnectionTo(server);
        bool answer = !c.answer;
        bool lanEnabled = false;
        int32_t queried = -1;
        RunOnSmallStack([&] {
            SmmLanManagerRest manager(&connection);
            answer = manager.CheckIsSupportByRest();
            lanEnabled = manager.LanEnabled();
            if (answer) queried = manager.Query();
        });
        EXPECT_EQ(answer, c.answer);
        EXPECT_EQ(lanEnabled, c.answer);
        EXPECT_EQ(queried, c.answer ? RESULT_SUCCEED : -1);
    }
    // Only the first case reached Query, and it reports like any normal body.
    EXPECT_EQ(m_console.Out(), std::string(kQueryBanner) +
                                   "\nQuery SMM network status succeeded\n"
                                   "    Status: SMM network over LAN enabled and IPMI over LAN disabled\n"
                                   "Get SMM ip failed\n\n" +
                                   kQueryBanner + "\n");
}

TEST_F(SmmLanManagerRestTest, ExtremeExponentsAreOnlyNumbers) {
    // RapidJSON 1.1.0 overflows a signed int converting these; the manager never
    // converts numbers (a sanitizer or assertion build would abort otherwise).
    const std::string extreme = "0.0000000001e-2147483639";
    RecordingHttpsServer server;
    auto connection = ConnectionTo(server);

    ScriptChassis(server, {Json(200, VendorBody("\"LANEnabled\": " + extreme))});
    {
        SmmLanManagerRest manager(&connection);
        EXPECT_FALSE(manager.CheckIsSupportByRest());
    }
    ScriptChassis(server, {Json(200, VendorBody("\"LANEnabled\": true, \"IPMIEnabled\": " + extreme +
                                                ", \"IPv4\": " + extreme + ", \"N\": [" + extreme + "]"))});
    SmmLanManagerRest manager(&connection);
    EXPECT_TRUE(manager.CheckIsSupportByRest());
    EXPECT_TRUE(manager.LanEnabled());
    EXPECT_EQ(manager.Query(), RESULT_SUCCEED);
    EXPECT_EQ(m_console.Out(), std::string(kQueryBanner) +
                                   "\nQuery SMM network status succeeded\n"
                                   "    Status: SMM network over LAN enabled and IPMI over LAN disabled\n"
                                   "Get SMM ip failed\n\n" +
                                   kQueryBanner + "\n");
}

// ---------------------------------------------------------------- enable / disable

TEST_F(SmmLanManagerRestTest, EnableSendsTheExactPatchEvenWhenAlreadyOn) {
    RecordingHttpsServer server;
    ScriptChassis(server, {Json(200, VendorBody("\"LANEnabled\": true"))}, {Json(200, "{\"ok\": true}")});
    auto connection = ConnectionTo(server);
    SmmLanManagerRest manager(&connection);
    ASSERT_TRUE(manager.CheckIsSupportByRest());
    ASSERT_TRUE(manager.LanEnabled());
    m_log.Clear();

    EXPECT_EQ(manager.Enable("LANEnabled", "true"), RESULT_SUCCEED);

    const auto requests = server.Requests();
    ASSERT_EQ(requests.size(), 2u);
    ExpectPatch(requests[1], kEnableLanBody);
    EXPECT_EQ(requests[1].body, R"({"Oem": {"Qarvon": { " LANEnabled" : true}}})");  // the same bytes, spelled out

    EXPECT_EQ(m_console.Out(), EnableConsole("Enable SMM LAN succeeded\n"));
    EXPECT_EQ(m_console.Err(), "");
    EXPECT_EQ(ManagerEntries(), (std::vector<Entry>{
                                    {4, "Entering  SmmLanManagerRest::Enable"},
                                    {4, "Entering  SmmLanManagerRest::update"},
                                    {3, "post body:" + kEnableLanBody},
                                    {3, "curl code:0 status code:200 return msg: {\"ok\": true}"},
                                    {3, kEnableBanner},
                                    kSupported,
                                    {1, "redfish Enable Smm request success"},
                                    {3, "Enable SMM LAN succeeded"},
                                    {3, "\n************Enable Result************"},
                                    {4, "Exiting  SmmLanManagerRest::Enable"},
                                }));
    EXPECT_EQ(manager.LastResponse().body, "{\"ok\": true}");
}

TEST_F(SmmLanManagerRestTest, DisableOnNoContentReportsEnableSucceeded) {
    RecordingHttpsServer server;
    ScriptChassis(server, {Json(200, VendorBody("\"LANEnabled\": true"))}, {Json(204, "")});
    auto connection = ConnectionTo(server);
    SmmLanManagerRest manager(&connection);
    ASSERT_TRUE(manager.CheckIsSupportByRest());
    m_log.Clear();

    EXPECT_EQ(manager.Disable("LANEnabled", "false"), RESULT_SUCCEED);

    const auto requests = server.Requests();
    ASSERT_EQ(requests.size(), 2u);
    ExpectPatch(requests[1], kDisableLanBody);
    EXPECT_EQ(requests[1].body, R"({"Oem": {"Qarvon": { " LANEnabled" : false}}})");  // the same bytes, spelled out
    EXPECT_EQ(m_console.Out(), EnableConsole("Enable SMM LAN succeeded\n"));
    EXPECT_EQ(ManagerEntries(), (std::vector<Entry>{
                                    {4, "Entering  SmmLanManagerRest::Disable"},
                                    {4, "Entering  SmmLanManagerRest::update"},
                                    {3, "post body:" + kDisableLanBody},
                                    {3, "curl code:0 status code:204 return msg: "},
                                    {3, kEnableBanner},
                                    kSupported,
                                    {1, "redfish Enable Smm request success"},
                                    {3, "Enable SMM LAN succeeded"},
                                    {3, "\n************Enable Result************"},
                                    {4, "Exiting  SmmLanManagerRest::Disable"},
                                }));
}

TEST_F(SmmLanManagerRestTest, EnableIpmiWhileLanOffSendsNothing) {
    RecordingHttpsServer server;
    ScriptChassis(server, {Json(200, VendorBody("\"LANEnabled\": false, \"IPMIEnabled\": true"))});
    auto connection = ConnectionTo(server);
    SmmLanManagerRest manager(&connection);
    ASSERT_TRUE(manager.CheckIsSupportByRest());
    m_log.Clear();

    EXPECT_EQ(manager.Enable("IPMIEnabled", "true"), RESULT_GENERIC_FAILURE);

    EXPECT_EQ(server.RequestCount(), 1u);
    EXPECT_EQ(m_console.Out(),
              "Enable SMM IPMI failed.\n"
              "    Error msg: the SMM LAN is disable, can not enable ipmi via SMM LAN \n\n");
    EXPECT_EQ(ManagerEntries(), (std::vector<Entry>{
                                    {4, "Entering  SmmLanManagerRest::Enable"},
                                    {4, "Entering  SmmLanManagerRest::update"},
                                    {3, "smmlan_status: 0"},
                                    {3, "Enable SMM IPMI failed."},
                                    {3, "    Error msg: the SMM LAN is disable, can not enable ipmi via SMM LAN \n"},
                                    {4, "Exiting  SmmLanManagerRest::Enable"},
                                }));
}

TEST_F(SmmLanManagerRestTest, EnableIpmiWhileLanOnSendsTheIpmiBody) {
    RecordingHttpsServer server;
    ScriptChassis(server, {Json(200, VendorBody("\"LANEnabled\": true, \"IPMIEnabled\": false"))},
                  {Json(200, "")});
    auto connection = ConnectionTo(server);
    SmmLanManagerRest manager(&connection);
    ASSERT_TRUE(manager.CheckIsSupportByRest());
    m_log.Clear();

    EXPECT_EQ(manager.Enable("IPMIEnabled", "true"), RESULT_SUCCEED);

    const auto requests = server.Requests();
    ASSERT_EQ(requests.size(), 2u);
    ExpectPatch(requests[1], kEnableIpmiBody);
    EXPECT_EQ(requests[1].body, R"({"Oem": {"Qarvon": { " IPMIEnabled" : true}}})");  // the same bytes, spelled out
    EXPECT_EQ(m_console.Out(), EnableConsole("Enable SMM IPMI succeeded\n"));
    const auto entries = ManagerEntries();
    ASSERT_EQ(entries.size(), 10u);
    EXPECT_EQ(entries[2], (Entry{3, "post body:" + kEnableIpmiBody}));
    EXPECT_EQ(entries[7], (Entry{3, "Enable SMM IPMI succeeded"}));
}

TEST_F(SmmLanManagerRestTest, EnableIpmiJudgesTheStoredReplyAgain) {
    RecordingHttpsServer server;
    ScriptChassis(server, {Json(200, "{}")}, {Json(200, "")});
    auto connection = ConnectionTo(server);

    {  // Nothing stored and nothing known: refused without a request.
        SmmLanManagerRest manager(&connection);
        EXPECT_EQ(manager.Enable("IPMIEnabled", "true"), RESULT_GENERIC_FAILURE);
        EXPECT_EQ(server.RequestCount(), 0u);
    }
    {  // The stored chassis resource says the network is on: that decides.
        SmmLanManagerRest manager(&connection);
        SmmLanManagerRestTestPeer::SetStoredResponse(manager,
                                                     Rest::Response(0, 200, VendorBody("\"LANEnabled\": true")));
        ASSERT_FALSE(manager.LanEnabled());
        EXPECT_EQ(manager.Enable("IPMIEnabled", "true"), RESULT_SUCCEED);
        EXPECT_TRUE(manager.LanEnabled());
        ASSERT_EQ(server.RequestCount(), 1u);
        ExpectPatch(server.Requests()[0], kEnableIpmiBody);
    }
    {  // A stored reply without a usable value leaves the probe's verdict.
        SmmLanManagerRest manager(&connection);
        SmmLanManagerRestTestPeer::SetStoredResponse(manager,
                                                     Rest::Response(0, 200, VendorBody("\"LANEnabled\": \"yes\"")));
        EXPECT_EQ(manager.Enable("IPMIEnabled", "true"), RESULT_GENERIC_FAILURE);
        EXPECT_EQ(server.RequestCount(), 1u);
    }
}

TEST_F(SmmLanManagerRestTest, AnyOtherKeyIsCalledIpmiAndIsNotPrechecked) {
    RecordingHttpsServer server;
    ScriptChassis(server, {Json(200, "{}")}, {Json(200, "")});
    auto connection = ConnectionTo(server);
    SmmLanManagerRest manager(&connection);

    EXPECT_EQ(manager.Enable("LANENABLED", "true"), RESULT_SUCCEED);
    ASSERT_EQ(server.RequestCount(), 1u);
    ExpectPatch(server.Requests()[0], R"({"Oem": {"Qarvon": { " LANENABLED" : true}}})");
    EXPECT_EQ(m_console.Out(), EnableConsole("Enable SMM IPMI succeeded\n"));
}

TEST_F(SmmLanManagerRestTest, RejectedPatchWithEmptyBody) {
    RecordingHttpsServer server;
    ScriptChassis(server, {Json(200, VendorBody("\"LANEnabled\": false"))}, {Json(400, "")});
    auto connection = ConnectionTo(server);
    SmmLanManagerRest manager(&connection);
    ASSERT_TRUE(manager.CheckIsSupportByRest());
    m_log.Clear();

    EXPECT_EQ(manager.Enable("LANEnabled", "true"), RESULT_INTERNAL_ERROR);

    EXPECT_EQ(m_console.Out(), EnableConsole("Enable SMM LAN failed.\n    Error msg: \n"));
    EXPECT_EQ(ManagerEntries(), (std::vector<Entry>{
                                    {4, "Entering  SmmLanManagerRest::Enable"},
                                    {4, "Entering  SmmLanManagerRest::update"},
                                    {3, "post body:" + kEnableLanBody},
                                    {3, "curl code:0 status code:400 return msg: "},
                                    {3, kEnableBanner},
                                    {1, "    Error msg: "},
                                    {3, "Enable SMM LAN failed."},
                                    {3, "    Error msg: "},
                                    {3, "\n************Enable Result************"},
                                    {4, "Exiting  SmmLanManagerRest::Enable"},
                                }));
}

TEST_F(SmmLanManagerRestTest, RejectedPatchShowsTheReplyBody) {
    RecordingHttpsServer server;
    const std::string error = "{\"error\": {\"code\": \"Base.1.0.PropertyUnknown\"}}";
    ScriptChassis(server, {Json(200, VendorBody("\"LANEnabled\": true"))}, {Json(404, error)});
    auto connection = ConnectionTo(server);
    SmmLanManagerRest manager(&connection);
    ASSERT_TRUE(manager.CheckIsSupportByRest());

    EXPECT_EQ(manager.Disable("LANEnabled", "false"), RESULT_INTERNAL_ERROR);
    EXPECT_EQ(m_console.Out(), EnableConsole("Enable SMM LAN failed.\n    Error msg: " + error + "\n"));
}

TEST_F(SmmLanManagerRestTest, PatchTransportFailureShowsCurlsText) {
    RecordingHttpsServer::Options options;
    options.keepAliveTimeoutSeconds = 1;  // so stopping does not wait on curl's idle connection
    auto server = std::make_unique<RecordingHttpsServer>(options);
    ScriptChassis(*server, {Json(200, VendorBody("\"LANEnabled\": true"))});
    auto connection = ConnectionTo(*server);
    SmmLanManagerRest manager(&connection);
    ASSERT_TRUE(manager.CheckIsSupportByRest());
    server.reset();  // the controller goes away between probe and change
    m_log.Clear();

    EXPECT_EQ(manager.Disable("LANEnabled", "false"), RESULT_GENERIC_FAILURE);

    const Rest::Response& reply = manager.LastResponse();
    EXPECT_EQ(reply.curlCode, 7);
    EXPECT_EQ(reply.httpCode, -1);
    EXPECT_NE(reply.body, "");
    EXPECT_EQ(m_console.Out(), EnableConsole("Enable SMM LAN failed.\n    Error msg: " + reply.body + "\n"));
    EXPECT_EQ(ManagerEntries(), (std::vector<Entry>{
                                    {4, "Entering  SmmLanManagerRest::Disable"},
                                    {4, "Entering  SmmLanManagerRest::update"},
                                    {3, "post body:" + kDisableLanBody},
                                    {3, "curl code:7 status code:-1 return msg: " + reply.body},
                                    {3, kEnableBanner},
                                    {3, "Enable SMM LAN failed."},
                                    {3, "    Error msg: " + reply.body},
                                    {3, "\n************Enable Result************"},
                                    {4, "Exiting  SmmLanManagerRest::Disable"},
                                }));
}

TEST_F(SmmLanManagerRestTest, PatchTimeoutGivesTimeout) {
    RecordingHttpsServer server;
    Reply slow = Json(200, "");
    slow.delay = std::chrono::hours(1);  // cut short when the server stops: only the time-out ends the wait
    ScriptChassis(server, {Json(200, VendorBody("\"LANEnabled\": true"))}, {slow});
    auto connection = ConnectionTo(server);
    SmmLanManagerRest manager(&connection);
    ASSERT_TRUE(manager.CheckIsSupportByRest());
    manager.Client()->SetTimeout(1);

    EXPECT_EQ(manager.Enable("LANEnabled", "true"), RESULT_TIMEOUT);
    const Rest::Response& reply = manager.LastResponse();
    EXPECT_EQ(reply.curlCode, 28);
    EXPECT_EQ(reply.body.rfind("Operation timed out", 0), 0u) << reply.body;
    EXPECT_EQ(m_console.Out(), EnableConsole("Enable SMM LAN failed.\n    Error msg: " + reply.body + "\n"));
}

TEST_F(SmmLanManagerRestTest, PatchAnsweredServiceUnavailableIsRetriedByTheClient) {
    Plexum::GlobalConfig::SetItem("REDFISH_STARTUP_WAIT_TIME", "60");
    Rest::RedfishClient::ResetStartupWaitCache();
    std::vector<int64_t> sleeps;

    RecordingHttpsServer server;
    ScriptChassis(server, {Json(200, VendorBody("\"LANEnabled\": true"))},
                  {Json(503, "starting"), Json(200, "{\"done\": 1}")});
    auto connection = ConnectionTo(server);
    SmmLanManagerRest manager(&connection);
    manager.Client()->SetSleepFunction([&](int64_t ms) { sleeps.push_back(ms); });
    ASSERT_TRUE(manager.CheckIsSupportByRest());

    EXPECT_EQ(manager.Enable("LANEnabled", "true"), RESULT_SUCCEED);
    const auto requests = server.Requests();
    ASSERT_EQ(requests.size(), 3u);
    ExpectPatch(requests[1], kEnableLanBody);
    ExpectPatch(requests[2], kEnableLanBody);
    EXPECT_EQ(sleeps, (std::vector<int64_t>{5000}));
    EXPECT_EQ(m_console.Out(), EnableConsole("Enable SMM LAN succeeded\n"));
}

TEST_F(SmmLanManagerRestTest, PatchAnsweredServiceUnavailableWithoutWaitFails) {
    RecordingHttpsServer server;
    ScriptChassis(server, {Json(200, VendorBody("\"LANEnabled\": true"))}, {Json(503, "starting")});
    auto connection = ConnectionTo(server);
    SmmLanManagerRest manager(&connection);
    ASSERT_TRUE(manager.CheckIsSupportByRest());

    EXPECT_EQ(manager.Enable("LANEnabled", "true"), RESULT_INTERNAL_ERROR);
    EXPECT_EQ(server.RequestCount(), 2u);
    EXPECT_EQ(m_console.Out(), EnableConsole("Enable SMM LAN failed.\n    Error msg: starting\n"));
}

// ---------------------------------------------------------------- query

TEST_F(SmmLanManagerRestTest, QueryReportsFromTheProbesReplyWithoutARequest) {
    RecordingHttpsServer server;
    ScriptChassis(server,
                  {Json(200, VendorBody("\"LANEnabled\": true, \"IPMIEnabled\": true, \"IPv4\": \"192.0.2.100\""))});
    auto connection = ConnectionTo(server);
    SmmLanManagerRest manager(&connection);
    ASSERT_TRUE(manager.CheckIsSupportByRest());
    m_log.Clear();

    EXPECT_EQ(manager.Query(), RESULT_SUCCEED);

    EXPECT_EQ(server.RequestCount(), 1u);
    EXPECT_EQ(m_console.Out(),
              "************Query Result************\n"
              "\n"
              "Query SMM network status succeeded\n"
              "    Status: SMM network and IPMI over LAN enabled\n"
              "    SMM IP: 192.0.2.100\n"
              "\n"
              "************Query Result************\n"
              "\n");
    EXPECT_EQ(m_console.Err(), "");
    EXPECT_EQ(ManagerEntries(), (std::vector<Entry>{
                                    {4, "Entering  SmmLanManagerRest::Query"},
                                    kSupported,
                                    {3, kQueryBanner},
                                    {3, "Query SMM network status succeeded"},
                                    {3, "    Status: SMM network and IPMI over LAN enabled"},
                                    {3, "    SMM IP: 192.0.2.100\n"},
                                    {3, kQueryBanner},
                                    {4, "Exiting  SmmLanManagerRest::Query"},
                                }));
    EXPECT_TRUE(manager.LanEnabled());
    EXPECT_TRUE(manager.IpmiEnabled());
    EXPECT_EQ(manager.SmmIp(), "192.0.2.100");
}

TEST_F(SmmLanManagerRestTest, QueryStatusAndAddressLines) {
    struct Case {
        std::string name;
        std::string members;
        std::string status;
        std::string addressLine;
    };
    const std::string noIp = "Get SMM ip failed\n";
    const std::vector<Case> cases = {
        {"LAN on, IPMI off", "\"LANEnabled\": true, \"IPMIEnabled\": false, \"IPv4\": \"192.0.2.5\"",
         "SMM network over LAN enabled and IPMI over LAN disabled", "    SMM IP: 192.0.2.5\n"},
        {"LAN off, IPMI on", "\"LANEnabled\": false, \"IPMIEnabled\": true, \"IPv4\": \"192.0.2.5\"",
         "SMM network and IPMI over LAN disabled", "    SMM IP: 192.0.2.5\n"},
        {"IPMI missing", "\"LANEnabled\": true, \"IPv4\": \"192.0.2.5\"",
         "SMM network over LAN enabled and IPMI over LAN disabled", "    SMM IP: 192.0.2.5\n"},
        {"IPMI not a boolean", "\"LANEnabled\": true, \"IPMIEnabled\": \"true\"",
         "SMM network over LAN enabled and IPMI over LAN disabled", noIp},
        {"empty address", "\"LANEnabled\": true, \"IPMIEnabled\": true, \"IPv4\": \"\"",
         "SMM network and IPMI over LAN enabled", noIp},
        {"address not a string", "\"LANEnabled\": true, \"IPMIEnabled\": true, \"IPv4\": 5",
         "SMM network and IPMI over LAN enabled", noIp},
        {"address missing", "\"LANEnabled\": false", "SMM network and IPMI over LAN disabled", noIp},
        {"address up to a NUL", "\"LANEnabled\": true, \"IPv4\": \"192.0.2.7\\u0000junk\"",
         "SMM network over LAN enabled and IPMI over LAN disabled", "    SMM IP: 192.0.2.7\n"},
        {"first duplicates win", "\"LANEnabled\": true, \"IPMIEnabled\": true, \"IPv4\": \"192.0.2.8\", "
                                 "\"IPMIEnabled\": false, \"IPv4\": \"192.0.2.9\"",
         "SMM network and IPMI over LAN enabled", "    SMM IP: 192.0.2.8\n"},
    };
    RecordingHttpsServer server;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ScriptChassis(server, {Json(200, VendorBody(c.members))});
        auto connection = ConnectionTo(server);
        SmmLanManagerRest manager(&connection);
        ASSERT_TRUE(manager.CheckIsSupportByRest());
        ConsoleCapture console;
        EXPECT_EQ(manager.Query(), RESULT_SUCCEED);
        EXPECT_EQ(console.Out(), std::string(kQueryBanner) + "\nQuery SMM network status succeeded\n    Status: " +
                                     c.status + "\n" + c.addressLine + "\n" + kQueryBanner + "\n");
    }
}

TEST_F(SmmLanManagerRestTest, QueryKeepsTheProbesLanValueWhenTheStoredOneIsUnusable) {
    RecordingHttpsServer server;
    ScriptChassis(server, {Json(200, VendorBody("\"LANEnabled\": true"))});
    auto connection = ConnectionTo(server);
    SmmLanManagerRest manager(&connection);
    ASSERT_TRUE(manager.CheckIsSupportByRest());
    SmmLanManagerRestTestPeer::SetStoredResponse(
        manager, Rest::Response(0, 200, VendorBody("\"LANEnabled\": \"no\", \"IPv4\": \"192.0.2.3\"")));

    EXPECT_EQ(manager.Query(), RESULT_SUCCEED);
    EXPECT_EQ(m_console.Out(), std::string(kQueryBanner) +
                                   "\nQuery SMM network status succeeded\n"
                                   "    Status: SMM network over LAN enabled and IPMI over LAN disabled\n"
                                   "    SMM IP: 192.0.2.3\n\n" +
                                   kQueryBanner + "\n");
}

TEST_F(SmmLanManagerRestTest, QueryOfANonJsonReplySaysFailedButSucceeds) {
    RecordingHttpsServer server;
    ScriptChassis(server, {Json(200, "garbage")});
    auto connection = ConnectionTo(server);
    SmmLanManagerRest manager(&connection);
    EXPECT_FALSE(manager.CheckIsSupportByRest());
    m_log.Clear();

    EXPECT_EQ(manager.Query(), RESULT_SUCCEED);
    EXPECT_EQ(server.RequestCount(), 1u);
    EXPECT_EQ(m_console.Out(), std::string(kQueryBanner) + "\nQuery SMM network status failed.\n");
    EXPECT_EQ(ManagerEntries(), (std::vector<Entry>{
                                    {4, "Entering  SmmLanManagerRest::Query"},
                                    kSupported,
                                    {3, kQueryBanner},
                                    {1, "    Error msg: garbage"},
                                    {3, "Query SMM network status failed."},
                                }));
}

TEST_F(SmmLanManagerRestTest, QueryWithoutTheVendorObjectPrintsTheBannersOnly) {
    RecordingHttpsServer server;
    ScriptChassis(server, {Json(200, "{\"Oem\": {\"Other\": {}}}")});
    auto connection = ConnectionTo(server);
    SmmLanManagerRest manager(&connection);
    EXPECT_FALSE(manager.CheckIsSupportByRest());
    m_log.Clear();

    EXPECT_EQ(manager.Query(), RESULT_SUCCEED);
    EXPECT_EQ(m_console.Out(), std::string(kQueryBanner) + "\n" + kQueryBanner + "\n");
    EXPECT_EQ(ManagerEntries(), (std::vector<Entry>{
                                    {4, "Entering  SmmLanManagerRest::Query"},
                                    kSupported,
                                    {3, kQueryBanner},
                                    {3, kQueryBanner},
                                    {4, "Exiting  SmmLanManagerRest::Query"},
                                }));
}

}  // namespace
}  // namespace SmmLanRestTest
