// SPDX-License-Identifier: GPL-3.0-or-later
// The run's trust settings against a real TLS server on loopback: the pin of
// what it presents, trust on first use, pins that do not match, CAs, and
// credentials that never follow a redirect elsewhere.
#include "common/rest/RunTrust.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "common/rest/PeerCertificate.h"
#include "common/rest/RestClient.h"
#include "host/RunContext.h"
#include "support/RecordingHttpsServer.h"
#include "trust/KnownSmms.h"
#include "trust/Pin.h"
#include "trust/TargetPins.h"

namespace {

using MorvelTest::RecordingHttpsServer;
using MorvelTest::Reply;

const char kPath[] = "/redfish/v1/Chassis/2";

std::string ReadFile(const std::string& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

class RunTrustTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/morvel-trust-test-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        m_dir = pattern;
        m_known = m_dir + "/state/known_smms";
        m_server.Script(kPath, {Reply::Text(200, "{}", "application/json")});
    }
    void TearDown() override {
        ::unlink(m_known.c_str());
        ::unlink((m_known + ".lock").c_str());
        ::rmdir((m_dir + "/state").c_str());
        ::rmdir(m_dir.c_str());
    }

    // Installs trust settings for the run, as the host does at its start:
    // with what the known-SMMs file holds for the target now.
    void Trust(Plexum::TlsVerify verify, const std::string& caFile = "") {
        Plexum::TrustSettings trust;
        trust.verify = verify;
        trust.caFile = caFile;
        trust.knownSmms = m_known;
        trust.key = Key();
        Trust::ResolvePins(std::make_shared<Trust::KnownSmms>(m_known), trust);
        m_run.SetTrust(trust);
    }
    std::string Key() const { return "127.0.0.1:" + std::to_string(m_server.Port()); }

    // The trust failure of a key that does not match `recorded`: the server's key is what was presented.
    std::string Mismatch(const std::string& recorded, const std::string& firstSeen) const {
        return Key() + " presented a key that does not match its pin, and nothing was sent to it: recorded " +
               recorded + " (first seen " + firstSeen + "), presented " +
               Trust::PinOfPem(m_server.Certificate().CertPem()) +
               "; if its certificate was replaced on purpose, run 'morvel trust remove " + Key() +
               "' and then 'morvel trust add " + Key() + "'";
    }

    // A GET as the Redfish manager makes it: certificate not verified, credentials
    // (a session token when one is given), redirects followed.
    Rest::Response Get(const std::string& url, const std::string& token = "") {
        Plexum::ScopedRunContext installed(m_run);
        Rest::RestClient client;
        client.SetInsecure(true);
        if (token.empty()) client.SetCredentials("admin", "Zq9secret");
        client.SetAuthToken(token);
        client.SetFollowRedirects(true, -1);
        client.SetTimeout(10);
        return client.Get(url);
    }

    RecordingHttpsServer m_server;
    Plexum::RunContext m_run{"t", nullptr};
    std::string m_dir;
    std::string m_known;
};

TEST_F(RunTrustTest, ThePinOfWhatAServerPresentsAndNothingSent) {
    const Rest::PeerCertificateRead read = Rest::ReadPeerCertificate("127.0.0.1", m_server.Port(), 10);
    ASSERT_TRUE(read.certificate) << read.error;
    EXPECT_EQ(read.certificate->pin, Trust::PinOfPem(m_server.Certificate().CertPem()));
    EXPECT_TRUE(Trust::KnownSmms::IsPin(read.certificate->pin));
    EXPECT_NE(read.certificate->subject.find("morvel"), std::string::npos) << read.certificate->subject;
    EXPECT_FALSE(read.certificate->notAfter.empty());
    EXPECT_EQ(m_server.RequestCount(), 0u);
}

TEST_F(RunTrustTest, NothingListeningIsNoCertificate) {
    const Rest::PeerCertificateRead read = Rest::ReadPeerCertificate("127.0.0.1", 1, 5);
    EXPECT_FALSE(read.certificate);
    EXPECT_EQ(read.curlCode, CURLE_COULDNT_CONNECT);
    EXPECT_NE(read.error, "");
}

TEST_F(RunTrustTest, NoneChangesNothing) {
    const Rest::Response response = Get(m_server.Url(kPath));
    EXPECT_EQ(response.httpCode, 200);
    EXPECT_EQ(m_run.TrustFailure(), "");
    struct stat status {};
    EXPECT_NE(::stat(m_known.c_str(), &status), 0);
}

TEST_F(RunTrustTest, TofuRecordsTheFirstKeyThenHoldsItsRunsToIt) {
    Trust(Plexum::TlsVerify::Tofu);
    const std::string pin = Trust::PinOfPem(m_server.Certificate().CertPem());
    ASSERT_EQ(Get(m_server.Url(kPath)).httpCode, 200);
    const std::string file = ReadFile(m_known);
    EXPECT_EQ(file.substr(0, Key().size() + 1 + pin.size()), Key() + " " + pin) << file;
    struct stat status {};
    ASSERT_EQ(::stat(m_known.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    ASSERT_EQ(Get(m_server.Url(kPath)).httpCode, 200);
    EXPECT_EQ(ReadFile(m_known), file);
    EXPECT_EQ(m_server.RequestCount(), 2u);
    EXPECT_EQ(m_run.TrustFailure(), "");
}

TEST_F(RunTrustTest, AKeyThatDoesNotMatchItsPinIsRefusedBeforeAnythingIsSent) {
    const std::string wrong = "sha256//" + std::string(43, 'A') + "=";
    ASSERT_EQ(Trust::KnownSmms(m_known).Add(Key(), wrong, "2026-01-02T03:04:05Z").outcome,
              Trust::KnownSmms::Outcome::Added);
    Trust(Plexum::TlsVerify::Pin);
    const Rest::Response response = Get(m_server.Url(kPath));
    EXPECT_EQ(response.curlCode, CURLE_SSL_PINNEDPUBKEYNOTMATCH);
    EXPECT_EQ(response.body, "SSL: public key does not match pinned public key");
    EXPECT_EQ(m_server.RequestCount(), 0u);
    EXPECT_EQ(m_run.TrustFailure(), Mismatch(wrong, "2026-01-02T03:04:05Z"));
}

TEST_F(RunTrustTest, PinWithoutARecordedPinConnectsNowhere) {
    Trust(Plexum::TlsVerify::Pin);
    const Rest::Response response = Get(m_server.Url(kPath));
    EXPECT_EQ(response.curlCode, CURLE_SSL_PINNEDPUBKEYNOTMATCH);
    EXPECT_EQ(response.httpCode, -1);
    EXPECT_EQ(m_server.RequestCount(), 0u);
    const std::string expected = "no pin is recorded for " + Key() + " in " + m_known +
                                 "; check the SMM's key with 'morvel trust show " + Key() +
                                 "' and record it with 'morvel trust add " + Key() + "'";
    EXPECT_EQ(response.body, expected);
    EXPECT_EQ(m_run.TrustFailure(), expected);
}

TEST_F(RunTrustTest, AKnownSmmsFileThatCannotBeReadRefusesEveryPin) {
    ASSERT_EQ(::mkdir((m_dir + "/state").c_str(), 0700), 0);
    ASSERT_EQ(::mkdir(m_known.c_str(), 0700), 0);
    for (const Plexum::TlsVerify verify : {Plexum::TlsVerify::Pin, Plexum::TlsVerify::Tofu}) {
        Trust(verify);
        const Rest::Response response = Get(m_server.Url(kPath));
        const std::string expected = "cannot read the known-SMMs file: cannot read " + m_known + ": Is a directory";
        EXPECT_EQ(response.curlCode, CURLE_SSL_PINNEDPUBKEYNOTMATCH);
        EXPECT_EQ(response.body, expected);
        EXPECT_EQ(m_run.TrustFailure(), expected);
    }
    EXPECT_EQ(m_server.RequestCount(), 0u);
    ::rmdir(m_known.c_str());
}

TEST_F(RunTrustTest, TofuThatCannotRecordThePinSendsNothing) {
    Trust(Plexum::TlsVerify::Tofu);
    Plexum::TrustSettings failing = m_run.Trust();
    failing.recordFirstPin = [](const std::string&) { return Plexum::PinRecording{std::nullopt, "No space left on device"}; };
    m_run.SetTrust(failing);
    const Rest::Response response = Get(m_server.Url(kPath));
    EXPECT_EQ(response.curlCode, CURLE_SSL_PINNEDPUBKEYNOTMATCH);
    EXPECT_EQ(response.body, "cannot record the pin of " + Key() + ": No space left on device");
    EXPECT_EQ(m_run.TrustFailure(), response.body);
    EXPECT_EQ(m_server.RequestCount(), 0u);
}

// No answer is no trust question: the transfer fails as it would have, and nothing is recorded.
TEST_F(RunTrustTest, TofuWithNobodyListeningIsAFailedTransfer) {
    Trust(Plexum::TlsVerify::Tofu);
    const Rest::Response response = Get("https://127.0.0.1:1/redfish/v1/Chassis/2");
    EXPECT_EQ(response.curlCode, CURLE_COULDNT_CONNECT);
    EXPECT_EQ(response.httpCode, -1);
    EXPECT_EQ(m_run.TrustFailure(), "");
    EXPECT_FALSE(m_run.Trust().recorded);
    struct stat status {};
    EXPECT_NE(::stat(m_known.c_str(), &status), 0);
}

// The pin another run recorded first is the one the transfer is held to.
TEST_F(RunTrustTest, TofuHoldsTheRunToThePinThatCounts) {
    Trust(Plexum::TlsVerify::Tofu);
    const std::string other = "sha256//" + std::string(43, 'B') + "=";
    Plexum::TrustSettings raced = m_run.Trust();
    raced.recordFirstPin = [other](const std::string&) {
        return Plexum::PinRecording{Plexum::RecordedPin{other, "2026-11-24T07:00:00Z"}, ""};
    };
    m_run.SetTrust(raced);
    const Rest::Response response = Get(m_server.Url(kPath));
    EXPECT_EQ(response.curlCode, CURLE_SSL_PINNEDPUBKEYNOTMATCH);
    EXPECT_EQ(response.httpCode, -1);
    EXPECT_EQ(response.body, "SSL: public key does not match pinned public key");
    EXPECT_EQ(m_server.RequestCount(), 0u);
    EXPECT_EQ(m_run.TrustFailure(), Mismatch(other, "2026-11-24T07:00:00Z"));
    // The target's next transfers are held to that pin too, without recording again.
    ASSERT_TRUE(m_run.Trust().recorded);
    EXPECT_EQ(m_run.Trust().recorded->pin, other);
}

TEST_F(RunTrustTest, CaVerifiesTheChainAndTheName) {
    Trust(Plexum::TlsVerify::Ca, m_server.Certificate().CertPath());
    EXPECT_EQ(Get(m_server.Url(kPath)).httpCode, 200);
    EXPECT_EQ(m_run.TrustFailure(), "");
    // The same certificate is no CA the system knows.
    Trust(Plexum::TlsVerify::Ca);
    const Rest::Response response = Get(m_server.Url(kPath));
    EXPECT_EQ(response.curlCode, CURLE_PEER_FAILED_VERIFICATION);
    EXPECT_EQ(m_server.RequestCount(), 1u);
    EXPECT_EQ(m_run.TrustFailure(),
              "the certificate of " + Key() + " failed verification against the system's CA certificates: " + response.body);
    EXPECT_NE(response.body, "");
}

TEST_F(RunTrustTest, CredentialsNeverFollowARedirectElsewhereWhenVerifying) {
    RecordingHttpsServer elsewhere;
    elsewhere.Script(kPath, {Reply::Text(200, "{}", "application/json")});
    Reply moved = Reply::Text(302, "");
    moved.headers = {{"Location", elsewhere.Url(kPath)}};
    m_server.Script("/moved", {moved});

    // Today's default: the credentials go along.
    ASSERT_EQ(Get(m_server.Url("/moved")).httpCode, 200);
    ASSERT_EQ(elsewhere.RequestCount(), 1u);
    EXPECT_TRUE(elsewhere.Requests()[0].HasHeader("Authorization"));

    elsewhere.ClearRequests();
    Trust(Plexum::TlsVerify::Ca, m_server.Certificate().CertPath());
    ASSERT_EQ(Get(m_server.Url("/moved")).httpCode, 200);
    ASSERT_EQ(elsewhere.RequestCount(), 1u);
    EXPECT_FALSE(elsewhere.Requests()[0].HasHeader("Authorization"));
    EXPECT_TRUE(m_server.Requests().back().HasHeader("Authorization"));
}

TEST_F(RunTrustTest, ASessionTokenNeverFollowsARedirectElsewhereWhenVerifying) {
    const std::string token = "Tk0123456789abcdef";
    RecordingHttpsServer elsewhere;
    elsewhere.Script(kPath, {Reply::Text(200, "{}", "application/json")});
    Reply moved = Reply::Text(307, "");
    moved.headers = {{"Location", elsewhere.Url(kPath)}};
    m_server.Script("/moved", {moved});

    // With none, the token goes along as Basic credentials do.
    ASSERT_EQ(Get(m_server.Url("/moved"), token).httpCode, 200);
    ASSERT_EQ(elsewhere.RequestCount(), 1u);
    EXPECT_EQ(elsewhere.Requests()[0].Header("X-Auth-Token"), token);

    elsewhere.ClearRequests();
    m_server.ClearRequests();
    for (const Plexum::TlsVerify verify : {Plexum::TlsVerify::Ca, Plexum::TlsVerify::Tofu}) {
        Trust(verify, verify == Plexum::TlsVerify::Ca ? m_server.Certificate().CertPath() : "");
        const Rest::Response response = Get(m_server.Url("/moved"), token);
        EXPECT_EQ(response.curlCode, CURLE_ABORTED_BY_CALLBACK);
        EXPECT_EQ(response.httpCode, -1);
        EXPECT_EQ(response.body, "a redirect to " + elsewhere.Url(kPath) +
                                     " was not followed: the session token stays with " + Key());
        EXPECT_EQ(m_run.TrustFailure(), "");
    }
    EXPECT_EQ(elsewhere.RequestCount(), 0u);
    const auto asked = m_server.Requests();
    ASSERT_EQ(asked.size(), 2u);
    for (const auto& request : asked) {
        EXPECT_EQ(request.Header("X-Auth-Token"), token);
        EXPECT_FALSE(request.HasHeader("Authorization"));
    }
}

TEST_F(RunTrustTest, ASessionTokenFollowsARedirectOnTheSameOriginWhenVerifying) {
    const std::string token = "Tk0123456789abcdef";
    Reply moved = Reply::Text(301, "");
    moved.headers = {{"Location", kPath}};
    m_server.Script("/moved", {moved});
    Trust(Plexum::TlsVerify::Ca, m_server.Certificate().CertPath());
    const Rest::Response response = Get(m_server.Url("/moved"), token);
    EXPECT_EQ(response.curlCode, 0) << response.body;
    EXPECT_EQ(response.httpCode, 200);
    const auto asked = m_server.Requests();
    ASSERT_EQ(asked.size(), 2u);
    EXPECT_EQ(asked[1].path, kPath);
    EXPECT_EQ(asked[1].Header("X-Auth-Token"), token);
}

}  // namespace
