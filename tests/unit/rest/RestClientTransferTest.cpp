// SPDX-License-Identifier: GPL-3.0-or-later
// Transfer outcomes of RestClient: time-outs, failures, TLS, redirects, proxy,
// large and capped bodies, multipart uploads. Real loopback servers throughout.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "common/rest/RestClient.h"
#include "host/GlobalConfig.h"
#include "support/ConnectProxy.h"
#include "support/LoopbackPort.h"
#include "support/RecordingHttpsServer.h"
#include "support/TestCertificate.h"
#include "RestTestHelpers.h"

namespace {

using MorvelTest::ConnectProxy;
using MorvelTest::RecordingHttpsServer;
using MorvelTest::Reply;
using MorvelTest::TestCertificate;
using Rest::Response;
using Rest::RestClient;
using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

class RestClientTransfer : public ::testing::Test {
protected:
    void SetUp() override { Plexum::GlobalConfig::Clear(); }
    void TearDown() override { Plexum::GlobalConfig::Clear(); }
    static std::string CaFile() { return TestCertificate::Shared()->CertPath(); }
};

// ---- ClassifyResponse ------------------------------------------------------

TEST_F(RestClientTransfer, ClassifyResponse) {
    RestClient client;
    auto classify = [&](int32_t curl, int32_t http) { return client.ClassifyResponse(Response(curl, http, "")); };
    EXPECT_EQ(classify(0, 204), 0);
    EXPECT_EQ(classify(0, 200), 0);
    EXPECT_EQ(classify(0, 299), 0);
    EXPECT_EQ(classify(0, 301), -1);
    EXPECT_EQ(classify(0, 503), -1);
    EXPECT_EQ(classify(0, 199), -1);
    EXPECT_EQ(classify(0, -1), -1);
    // Decided on the first digit of the text, not on a range.
    EXPECT_EQ(classify(0, 2), 0);
    EXPECT_EQ(classify(0, 2000), 0);
    EXPECT_EQ(classify(28, -1), -2);
    EXPECT_EQ(classify(58, -1), -2);
    EXPECT_EQ(classify(60, -1), -2);
    EXPECT_EQ(classify(77, -1), -2);
    EXPECT_EQ(classify(91, -1), -2);
    EXPECT_EQ(classify(7, -1), -1);
    EXPECT_EQ(classify(35, -1), -1);
    EXPECT_EQ(classify(23, 200), -1);
    EXPECT_EQ(classify(-1, -1), -1);
}

// ---- time-outs ---------------------------------------------------------------

TEST_F(RestClientTransfer, TimeoutEndsASlowAnswerWithCode28) {
    RecordingHttpsServer server;
    Reply slow = Reply::Text(200, "late");
    // An hour (cut short when the server stops): only the client's limit ends the wait.
    slow.delay = std::chrono::hours(1);
    server.Script("/slow", {slow});
    RestClient client;
    client.SetCaInfo(CaFile());
    client.SetTimeout(1);
    const auto start = Clock::now();
    Response response = client.Get(server.Url("/slow"));
    const double elapsed = SecondsSince(start);
    EXPECT_EQ(response.curlCode, 28);
    EXPECT_EQ(response.httpCode, -1);
    // However late the machine noticed, not before the second was up.
    EXPECT_TRUE(RestTest::IsTextWithNumber(response.body, "Operation timed out after ", 1000, 999999999,
                                           " milliseconds with 0 bytes received"));
    EXPECT_EQ(client.ClassifyResponse(response), -2);
    EXPECT_GE(elapsed, 0.9);
}

TEST_F(RestClientTransfer, TimeoutZeroMeansNoLimit) {
    RecordingHttpsServer server;
    Reply slow = Reply::Text(200, "late but fine");
    slow.delay = std::chrono::milliseconds(2200);
    server.Script("/slow", {slow});
    RestClient client;
    client.SetCaInfo(CaFile());
    client.SetTimeout(0);
    Response response = client.Get(server.Url("/slow"));
    EXPECT_EQ(response.curlCode, 0) << response.body;
    EXPECT_EQ(response.body, "late but fine");
}

// A negative timeout sets no overall limit, only the low-speed pair (below 30
// bytes/s for 60 s), so a stalled start and a trickle of under 30 bytes/s for
// a couple of seconds both pass, while a 1-second overall limit stops the same trickle.
TEST_F(RestClientTransfer, NegativeTimeoutToleratesAShortStallAndSlowTrickle) {
    RecordingHttpsServer server;
    Reply trickle = Reply::Text(200, "0123456789abcdefghij");
    trickle.delay = std::chrono::milliseconds(1000);
    trickle.pieceSize = 2;
    trickle.pieceDelay = std::chrono::milliseconds(120);  // about 16 bytes/s
    server.Script("/trickle", {trickle});

    RestClient patient;
    patient.SetCaInfo(CaFile());
    patient.SetTimeout(-1);
    Response response = patient.Get(server.Url("/trickle"));
    EXPECT_EQ(response.curlCode, 0) << response.body;
    EXPECT_EQ(response.body, "0123456789abcdefghij");

    RestClient bounded;
    bounded.SetCaInfo(CaFile());
    bounded.SetTimeout(1);
    Response cut = bounded.Get(server.Url("/trickle"));
    EXPECT_EQ(cut.curlCode, 28);
    EXPECT_EQ(cut.httpCode, -1);
}

// ---- transfer failures -------------------------------------------------------

TEST_F(RestClientTransfer, RefusedConnectionReportsCurlErrorText) {
    MorvelTest::LoopbackPort port;
    RestClient client;
    client.SetCaInfo(CaFile());
    Response response = client.Get(port.Url("/x"));
    EXPECT_EQ(response.curlCode, 7);
    EXPECT_EQ(response.httpCode, -1);
    EXPECT_TRUE(RestTest::IsRefusedText(response.body, port.Port()));
    EXPECT_TRUE(response.cookies.empty());
    EXPECT_EQ(client.ClassifyResponse(response), -1);
}

TEST_F(RestClientTransfer, ServerStoppingMidBodyReplacesBodyWithErrorText) {
    RecordingHttpsServer server;
    Reply cut = Reply::Text(200, std::string(1000, 'b'));
    cut.stopAfter = 400;
    server.Script("/cut", {cut});
    RestClient client;
    client.SetCaInfo(CaFile());
    Response response = client.Get(server.Url("/cut"));
    EXPECT_EQ(response.curlCode, 18);
    EXPECT_EQ(response.httpCode, -1);
    EXPECT_EQ(response.body, "transfer closed with 600 bytes remaining to read");
    EXPECT_EQ(response.headers.at("Content-Length"), "1000");  // headers stay as received
}

// ---- bodies ------------------------------------------------------------------

TEST_F(RestClientTransfer, BodyLargerThan64MiBArrivesIntact) {
    std::string big(64u * 1024u * 1024u + 4099u, '\0');
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>((i * 7919u) >> 5);
    RecordingHttpsServer server;
    server.Script("/big", {Reply::Text(200, big, "application/octet-stream")});
    RestClient client;
    client.SetCaInfo(CaFile());
    Response response = client.Get(server.Url("/big"));
    ASSERT_EQ(response.curlCode, 0) << response.body.substr(0, 200);
    EXPECT_EQ(response.httpCode, 200);
    ASSERT_EQ(response.body.size(), big.size());
    EXPECT_TRUE(response.body == big);  // not EXPECT_EQ: a failure would print 64 MiB
}

TEST_F(RestClientTransfer, BodyCapDefaultsTo256MiB) {
    RestClient client;
    EXPECT_EQ(client.GetMaxBodyBytes(), 256u * 1024u * 1024u);
    Plexum::GlobalConfig::SetItem("REST_MAX_BODY_BYTES", "-5");
    RestClient negative;
    EXPECT_EQ(negative.GetMaxBodyBytes(), 256u * 1024u * 1024u);
    Plexum::GlobalConfig::SetItem("REST_MAX_BODY_BYTES", "lots");
    RestClient unreadable;
    EXPECT_EQ(unreadable.GetMaxBodyBytes(), 256u * 1024u * 1024u);
}

TEST_F(RestClientTransfer, BodyPastTheConfiguredCapEndsAsWriteError) {
    Plexum::GlobalConfig::SetItem("REST_MAX_BODY_BYTES", "1000");
    RecordingHttpsServer server;
    server.Script("/fits", {Reply::Text(200, std::string(1000, 'f'))});
    server.Script("/over", {Reply::Text(200, std::string(1001, 'o'))});
    RestClient client;  // reads the key when constructed
    Plexum::GlobalConfig::Clear();
    EXPECT_EQ(client.GetMaxBodyBytes(), 1000u);
    client.SetCaInfo(CaFile());

    Response fits = client.Get(server.Url("/fits"));
    EXPECT_EQ(fits.curlCode, 0);
    EXPECT_EQ(fits.body, std::string(1000, 'f'));

    Response over = client.Get(server.Url("/over"));
    EXPECT_EQ(over.curlCode, 23);
    EXPECT_EQ(over.httpCode, -1);
    EXPECT_EQ(over.body, "Failure writing output to destination");
    EXPECT_EQ(client.ClassifyResponse(over), -1);
}

TEST_F(RestClientTransfer, BodyCapSetterAppliesToLaterRequests) {
    RecordingHttpsServer server;
    server.Script("/b", {Reply::Text(200, std::string(5000, 'x'))});
    RestClient client;
    client.SetCaInfo(CaFile());
    EXPECT_EQ(client.Get(server.Url("/b")).body.size(), 5000u);
    client.SetMaxBodyBytes(4999);
    Response over = client.Get(server.Url("/b"));
    EXPECT_EQ(over.curlCode, 23);
    EXPECT_EQ(over.body, "Failure writing output to destination");
}

TEST_F(RestClientTransfer, OutputFileTakesTheBody) {
    RecordingHttpsServer server;
    server.Script("/f", {Reply::Text(200, "into the file")});
    RestClient client;
    client.SetCaInfo(CaFile());
    FILE* file = std::tmpfile();
    ASSERT_NE(file, nullptr);
    client.SetOutputFile(file);
    Response response = client.Get(server.Url("/f"));
    EXPECT_EQ(response.curlCode, 0);
    EXPECT_EQ(response.httpCode, 200);
    EXPECT_EQ(response.body, "");
    ASSERT_EQ(std::fflush(file), 0);
    std::rewind(file);
    char buffer[64] = {};
    const size_t got = std::fread(buffer, 1, sizeof buffer, file);
    EXPECT_EQ(std::string(buffer, got), "into the file");
    EXPECT_EQ(std::fclose(file), 0);
    client.SetOutputFile(nullptr);
    EXPECT_EQ(client.Get(server.Url("/f")).body, "into the file");
}

TEST_F(RestClientTransfer, OutputFileThatCannotBeWrittenAbortsTheTransfer) {
    RecordingHttpsServer server;
    server.Script("/f", {Reply::Text(200, "nowhere to go")});
    RestClient client;
    client.SetCaInfo(CaFile());
    FILE* readOnly = std::fopen("/dev/null", "r");
    ASSERT_NE(readOnly, nullptr);
    client.SetOutputFile(readOnly);
    Response response = client.Get(server.Url("/f"));
    EXPECT_EQ(std::fclose(readOnly), 0);
    EXPECT_EQ(response.curlCode, 23);
    EXPECT_EQ(response.httpCode, -1);
    EXPECT_EQ(response.body, "Failure writing output to destination");
}

// ---- TLS ---------------------------------------------------------------------

TEST_F(RestClientTransfer, VerificationFailsWithoutCaFileUnlessInsecure) {
    RecordingHttpsServer server;
    server.Script("/t", {Reply::Text(200, "trusted")});
    RestClient client;
    Response refused = client.Get(server.Url("/t"));
    EXPECT_EQ(refused.curlCode, 60);
    EXPECT_EQ(refused.httpCode, -1);
    EXPECT_EQ(refused.body, "SSL certificate problem: self-signed certificate");
    EXPECT_EQ(client.ClassifyResponse(refused), -2);
    EXPECT_EQ(server.RequestCount(), 0u);

    client.SetInsecure(true);
    Response insecure = client.Get(server.Url("/t"));
    EXPECT_EQ(insecure.curlCode, 0) << insecure.body;
    EXPECT_EQ(insecure.body, "trusted");
}

TEST_F(RestClientTransfer, CaFileMakesVerificationPassAndOverridesInsecure) {
    RecordingHttpsServer server;
    server.Script("/t", {Reply::Text(200, "trusted")});
    RestClient client;
    client.SetCaInfo(CaFile());
    Response ok = client.Get(server.Url("/t"));
    EXPECT_EQ(ok.curlCode, 0) << ok.body;
    EXPECT_EQ(ok.body, "trusted");

    // With a CA file the insecure switch is ignored: a foreign CA still fails.
    TestCertificate other;
    RestClient strict;
    strict.SetInsecure(true);
    strict.SetCaInfo(other.CertPath());
    Response foreign = strict.Get(server.Url("/t"));
    EXPECT_EQ(foreign.curlCode, 60);
    EXPECT_EQ(foreign.body, "SSL certificate problem: self-signed certificate");
}

TEST_F(RestClientTransfer, MissingCaFileIsCode77) {
    RecordingHttpsServer server;
    server.Script("/t", {Reply::Text(200, "trusted")});
    RestClient client;
    client.SetCaInfo("/nonexistent/morvel-ca.pem");
    Response response = client.Get(server.Url("/t"));
    EXPECT_EQ(response.curlCode, 77);
    EXPECT_EQ(response.httpCode, -1);
    EXPECT_EQ(response.body, "error setting certificate file: /nonexistent/morvel-ca.pem");
    EXPECT_EQ(client.ClassifyResponse(response), -2);
}

TEST_F(RestClientTransfer, ClientCertificateAndEncryptedKey) {
    auto certificate = TestCertificate::Shared();
    RecordingHttpsServer::Options options;
    options.clientCaPath = certificate->CertPath();
    RecordingHttpsServer server(options);
    server.Script("/m", {Reply::Text(200, "mutual")});

    RestClient anonymous;
    anonymous.SetCaInfo(CaFile());
    Response refused = anonymous.Get(server.Url("/m"));
    // TLS 1.3 reports the missing certificate after the handshake, as a failed
    // send or receive depending on timing.
    EXPECT_TRUE(refused.curlCode == 55 || refused.curlCode == 56) << refused.curlCode << " " << refused.body;
    EXPECT_EQ(refused.httpCode, -1);
    EXPECT_EQ(server.RequestCount(), 0u);

    RestClient plainKey;
    plainKey.SetCaInfo(CaFile());
    plainKey.SetSslCert(certificate->CertPath());
    plainKey.SetSslCertType("PEM");
    plainKey.SetSslKey(certificate->KeyPath());
    Response ok = plainKey.Get(server.Url("/m"));
    EXPECT_EQ(ok.curlCode, 0) << ok.body;
    EXPECT_EQ(ok.body, "mutual");

    RestClient lockedKey;
    lockedKey.SetCaInfo(CaFile());
    lockedKey.SetSslCert(certificate->CertPath());
    lockedKey.SetSslKey(certificate->EncryptedKeyPath());
    lockedKey.SetKeyPassword("wrong password");
    Response wrong = lockedKey.Get(server.Url("/m"));
    EXPECT_EQ(wrong.curlCode, 58);
    EXPECT_EQ(lockedKey.ClassifyResponse(wrong), -2);
    lockedKey.SetKeyPassword(TestCertificate::KeyPassword());
    Response unlocked = lockedKey.Get(server.Url("/m"));
    EXPECT_EQ(unlocked.curlCode, 0) << unlocked.body;
    EXPECT_EQ(unlocked.body, "mutual");
}

TEST_F(RestClientTransfer, WrongClientCertificateTypeIsCode58) {
    RecordingHttpsServer server;
    server.Script("/m", {Reply::Text(200, "x")});
    RestClient client;
    client.SetCaInfo(CaFile());
    client.SetSslCert(TestCertificate::Shared()->CertPath());
    client.SetSslCertType("DER");  // the file is PEM
    client.SetSslKey(TestCertificate::Shared()->KeyPath());
    Response response = client.Get(server.Url("/m"));
    EXPECT_EQ(response.curlCode, 58);
    EXPECT_EQ(response.httpCode, -1);
    EXPECT_EQ(response.body.rfind("could not load ASN1 client certificate from " +
                                      TestCertificate::Shared()->CertPath(), 0),
              0u)
        << response.body;
}

// ---- redirects ---------------------------------------------------------------

TEST_F(RestClientTransfer, RedirectIsNotFollowedByDefault) {
    RecordingHttpsServer server;
    Reply moved = Reply::Text(302, "moved");
    moved.headers = {{"Location", "/elsewhere"}};
    server.Script("/old", {moved});
    RestClient client;
    client.SetCaInfo(CaFile());
    Response response = client.Get(server.Url("/old"));
    EXPECT_EQ(response.curlCode, 0);
    EXPECT_EQ(response.httpCode, 302);
    EXPECT_EQ(response.body, "moved");
    EXPECT_EQ(response.headers.at("Location"), "/elsewhere");
    EXPECT_EQ(server.RequestCount(), 1u);
}

TEST_F(RestClientTransfer, FollowedRedirectCarriesCredentialsToAnotherHost) {
    RecordingHttpsServer first;
    RecordingHttpsServer second;
    Reply moved = Reply::Text(302, "moved");
    // Another host name (localhost rather than 127.0.0.1), which the certificate also names.
    moved.headers = {{"Location", "https://localhost:" + std::to_string(second.Port()) + "/new"}};
    first.Script("/old", {moved});
    Reply arrived = Reply::Text(200, "arrived");
    arrived.headers = {{"X-Second", "yes"}};
    second.Script("/new", {arrived});

    RestClient client;
    client.SetCaInfo(CaFile());
    client.SetCredentials("admin", "secret");
    client.SetHeader("X-Trace", "r1");
    client.SetFollowRedirects(true, -1);
    Response response = client.Get(first.Url("/old"));
    ASSERT_EQ(response.curlCode, 0) << response.body;
    EXPECT_EQ(response.httpCode, 200);
    EXPECT_EQ(response.body, "arrived");
    // Header lines of the whole chain land in one map.
    EXPECT_EQ(response.headers.at("HTTP/1.1 302 Found"), "present");
    EXPECT_EQ(response.headers.at("HTTP/1.1 200 OK"), "present");
    EXPECT_EQ(response.headers.at("Location"), moved.headers[0].second);
    EXPECT_EQ(response.headers.at("X-Second"), "yes");
    EXPECT_EQ(response.headers.at("Content-Length"), "7");

    ASSERT_EQ(second.RequestCount(), 1u);
    const auto forwarded = second.Requests()[0];
    EXPECT_EQ(forwarded.Header("Authorization"), "Basic YWRtaW46c2VjcmV0");
    EXPECT_EQ(forwarded.Header("X-Trace"), "r1");
    EXPECT_EQ(forwarded.Header("Host"), "localhost:" + std::to_string(second.Port()));
}

TEST_F(RestClientTransfer, RedirectLimitIsEnforced) {
    RecordingHttpsServer server;
    Reply loop = Reply::Text(302, "again");
    loop.headers = {{"Location", "/loop"}};
    server.Script("/loop", {loop});
    RestClient client;
    client.SetCaInfo(CaFile());
    client.SetFollowRedirects(true, 2);
    Response response = client.Get(server.Url("/loop"));
    EXPECT_EQ(response.curlCode, 47);
    EXPECT_EQ(response.httpCode, -1);
    EXPECT_EQ(response.body, "Maximum (2) redirects followed");
    EXPECT_EQ(server.RequestCount(), 3u);

    client.SetFollowRedirects(true, 0);
    server.ClearRequests();
    Response none = client.Get(server.Url("/loop"));
    EXPECT_EQ(none.curlCode, 47);
    EXPECT_EQ(none.body, "Maximum (0) redirects followed");
    EXPECT_EQ(server.RequestCount(), 1u);
}

// ---- proxy -------------------------------------------------------------------

TEST_F(RestClientTransfer, ProxyUrlNormalisation) {
    RestClient client;
    EXPECT_EQ(client.GetProxy(), "");
    client.SetProxy("10.0.0.1:3128", "u", "p");
    EXPECT_EQ(client.GetProxy(), "http://10.0.0.1:3128");
    EXPECT_EQ(client.GetProxyUsername(), "u");
    EXPECT_EQ(client.GetProxyPassword(), "p");
    client.SetProxy("HTTPS://p", "", "");
    EXPECT_EQ(client.GetProxy(), "HTTPS://p");
    client.SetProxy("Http://q:8080", "", "");
    EXPECT_EQ(client.GetProxy(), "Http://q:8080");
    client.SetProxy("https://r", "", "");
    EXPECT_EQ(client.GetProxy(), "https://r");
    client.SetProxy("socks5://s:1080", "", "");
    EXPECT_EQ(client.GetProxy(), "http://socks5://s:1080");
    client.SetProxy("", "x", "y");
    EXPECT_EQ(client.GetProxy(), "");
    EXPECT_EQ(client.GetProxyUsername(), "x");
}

TEST_F(RestClientTransfer, RequestsTunnelThroughConnectProxyWithItsCredentials) {
    RecordingHttpsServer server;
    server.Script("/via", {Reply::Text(200, "through the tunnel")});
    ConnectProxy proxy;
    RestClient client;
    client.SetCaInfo(CaFile());
    client.SetCredentials("admin", "secret");
    client.SetProxy(proxy.Address(), "puser", "ppass");
    Response response = client.Get(server.Url("/via"));
    ASSERT_EQ(response.curlCode, 0) << response.body;
    EXPECT_EQ(response.httpCode, 200);
    EXPECT_EQ(response.body, "through the tunnel");
    EXPECT_EQ(response.headers.at("HTTP/1.1 200 Connection established"), "present");

    auto sessions = proxy.Sessions();
    ASSERT_EQ(sessions.size(), 1u);
    EXPECT_EQ(sessions[0].requestLine, "CONNECT 127.0.0.1:" + std::to_string(server.Port()) + " HTTP/1.1");
    EXPECT_TRUE(sessions[0].tunnelled);
    // The proxy password is handed to the combined user:password option on its
    // own, so libcurl takes it as the user name with no password.
    EXPECT_EQ(sessions[0].Header("Proxy-Authorization"), "Basic cHBhc3M6");  // "ppass:"
    EXPECT_EQ(sessions[0].Header("User-Agent"), "KVRA_MORVEL");
    // The server's own credentials travel inside the tunnel only.
    EXPECT_FALSE(sessions[0].HasHeader("Authorization"));
    EXPECT_EQ(server.Requests().at(0).Header("Authorization"), "Basic YWRtaW46c2VjcmV0");
}

TEST_F(RestClientTransfer, ProxyCredentialsNeedBothNames) {
    RecordingHttpsServer server;
    server.Script("/via", {Reply::Text(200, "ok")});
    ConnectProxy proxy;
    RestClient userOnly;
    userOnly.SetCaInfo(CaFile());
    userOnly.SetProxy(proxy.Address(), "puser", "");
    EXPECT_EQ(userOnly.Get(server.Url("/via")).httpCode, 200);
    RestClient passwordOnly;
    passwordOnly.SetCaInfo(CaFile());
    passwordOnly.SetProxy("http://" + proxy.Address(), "", "ppass");
    EXPECT_EQ(passwordOnly.Get(server.Url("/via")).httpCode, 200);
    auto sessions = proxy.Sessions();
    ASSERT_EQ(sessions.size(), 2u);
    for (const auto& session : sessions) {
        EXPECT_TRUE(session.tunnelled);
        EXPECT_FALSE(session.HasHeader("Proxy-Authorization"));
    }
}

TEST_F(RestClientTransfer, HttpsProxySchemeIsKeptAsGiven) {
    RecordingHttpsServer server;
    server.Script("/via", {Reply::Text(200, "ok")});
    ConnectProxy proxy;
    RestClient client;
    client.SetCaInfo(CaFile());
    client.SetProxy("HTTPS://" + proxy.Address(), "", "");
    Response response = client.Get(server.Url("/via"));
    // The client opened TLS towards the proxy instead of sending CONNECT in clear.
    EXPECT_EQ(response.curlCode, 35);
    EXPECT_EQ(response.httpCode, -1);
    auto sessions = proxy.Sessions();
    ASSERT_EQ(sessions.size(), 1u);
    EXPECT_EQ(sessions[0].requestLine, "");
    ASSERT_FALSE(sessions[0].head.empty());
    EXPECT_EQ(sessions[0].head[0], '\x16');  // TLS handshake record
    EXPECT_EQ(server.RequestCount(), 0u);
}

// ---- multipart ---------------------------------------------------------------

class DataPart : public Rest::MimePart {
public:
    DataPart(std::string name, std::string data, std::string fileName = "", std::string type = "")
        : m_name(std::move(name)), m_data(std::move(data)), m_fileName(std::move(fileName)), m_type(std::move(type)) {}
    void Fill(curl_mimepart* part) const override {
        curl_mime_name(part, m_name.c_str());
        curl_mime_data(part, m_data.data(), m_data.size());
        if (!m_fileName.empty()) curl_mime_filename(part, m_fileName.c_str());
        if (!m_type.empty()) curl_mime_type(part, m_type.c_str());
    }

private:
    std::string m_name, m_data, m_fileName, m_type;
};

class ThrowingPart : public Rest::MimePart {
public:
    void Fill(curl_mimepart*) const override { throw std::runtime_error("part unreadable"); }
};

TEST_F(RestClientTransfer, AThrowingPartLeavesTheNextRequestAGet) {
    RecordingHttpsServer server;
    server.Script("/after", {Reply::Text(200, "fine")});
    RestClient client;
    client.SetCaInfo(CaFile());
    const Rest::MimeParts parts{std::make_shared<DataPart>("a", "b"), std::make_shared<ThrowingPart>()};
    try {
        client.PostMime(server.Url("/upload"), parts, Rest::ProgressCallback());
        ADD_FAILURE() << "PostMime did not pass the part's exception on";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "part unreadable");
    }
    const Response response = client.Get(server.Url("/after"));
    ASSERT_EQ(response.curlCode, 0) << response.body;
    EXPECT_EQ(response.body, "fine");
    ASSERT_EQ(server.RequestCount(), 1u);
    EXPECT_EQ(server.Requests()[0].method, "GET");
    EXPECT_EQ(server.Requests()[0].body, "");
}

TEST_F(RestClientTransfer, PostMimeSendsPartsInOrderAndReportsProgress) {
    RecordingHttpsServer server;
    server.Script("/upload", {Reply::Text(202, "stored")});
    RestClient client;
    client.SetCaInfo(CaFile());
    const std::string image(300000, '\x5a');
    Rest::MimeParts parts{std::make_shared<DataPart>("UpdateParameters", "{\"Targets\":[]}", "", "application/json"),
                          std::make_shared<DataPart>("UpdateFile", image, "fw.bin", "application/octet-stream")};
    std::vector<std::pair<int64_t, int64_t>> calls;
    Response response = client.PostMime(server.Url("/upload"), parts,
                                        [&](int64_t total, int64_t done) { calls.emplace_back(total, done); });
    ASSERT_EQ(response.curlCode, 0) << response.body;
    EXPECT_EQ(response.httpCode, 202);
    EXPECT_EQ(response.body, "stored");

    ASSERT_EQ(server.RequestCount(), 1u);
    const auto request = server.Requests()[0];
    EXPECT_EQ(request.method, "POST");
    const std::string contentType = request.Header("Content-Type");
    const std::string prefix = "multipart/form-data; boundary=";
    ASSERT_EQ(contentType.rfind(prefix, 0), 0u) << contentType;
    const std::string boundary = contentType.substr(prefix.size());
    const std::string expected = "--" + boundary + "\r\n"
                                 "Content-Disposition: form-data; name=\"UpdateParameters\"\r\n"
                                 "Content-Type: application/json\r\n"
                                 "\r\n"
                                 "{\"Targets\":[]}\r\n"
                                 "--" + boundary + "\r\n"
                                 "Content-Disposition: form-data; name=\"UpdateFile\"; filename=\"fw.bin\"\r\n"
                                 "Content-Type: application/octet-stream\r\n"
                                 "\r\n" + image + "\r\n"
                                 "--" + boundary + "--\r\n";
    ASSERT_EQ(request.body.size(), expected.size());
    EXPECT_TRUE(request.body == expected);
    EXPECT_EQ(request.Header("Content-Length"), std::to_string(expected.size()));

    // Only calls with a known total; the upload is seen complete, then the download.
    ASSERT_FALSE(calls.empty());
    const auto total = static_cast<int64_t>(expected.size());
    for (const auto& call : calls) {
        EXPECT_GE(call.first, 1);
        EXPECT_LE(call.second, call.first);
    }
    EXPECT_NE(std::find(calls.begin(), calls.end(), std::make_pair(total, total)), calls.end());
    EXPECT_EQ(calls.back(), std::make_pair(int64_t{6}, int64_t{6}));
}

TEST_F(RestClientTransfer, PostMimeWithoutProgressCallable) {
    RecordingHttpsServer server;
    server.Script("/upload", {Reply::Text(200, "ok")});
    RestClient client;
    client.SetCaInfo(CaFile());
    Rest::MimeParts parts{std::make_shared<DataPart>("a", "1"), std::make_shared<DataPart>("b", "2")};
    Response response = client.PostMime(server.Url("/upload"), parts, Rest::ProgressCallback());
    EXPECT_EQ(response.curlCode, 0) << response.body;
    EXPECT_EQ(response.body, "ok");
    // The next request on the handle is a plain GET again.
    EXPECT_EQ(client.Get(server.Url("/upload")).body, "ok");
    auto requests = server.Requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[1].method, "GET");
    EXPECT_EQ(requests[1].body, "");
}

}  // namespace
