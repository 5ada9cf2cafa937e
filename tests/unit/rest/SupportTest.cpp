// SPDX-License-Identifier: GPL-3.0-or-later
// Checks of the shared loopback test servers themselves, made with plain libcurl.
#include <curl/curl.h>
#include <gtest/gtest.h>

#include <string>

#include "support/RecordingHttpsServer.h"

namespace {

using MorvelTest::RecordingHttpsServer;
using MorvelTest::Reply;

size_t Append(char* data, size_t size, size_t count, void* target) {
    static_cast<std::string*>(target)->append(data, size * count);
    return size * count;
}

struct Fetched {
    CURLcode code = CURLE_OK;
    long status = 0;
    std::string body;
};

Fetched Fetch(const std::string& url, const std::string& caFile, const char* postBody = nullptr) {
    Fetched out;
    CURL* curl = curl_easy_init();
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_CAINFO, caFile.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Append);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &out.body);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    if (postBody) curl_easy_setopt(curl, CURLOPT_POSTFIELDS, postBody);
    out.code = curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &out.status);
    curl_easy_cleanup(curl);
    return out;
}

TEST(RecordingHttpsServer, ServesScriptInOrderAndRecords) {
    RecordingHttpsServer server;
    server.Script("/a", {Reply::Text(503, "busy"), Reply::Text(200, "ok")});
    const std::string ca = server.Certificate().CertPath();

    Fetched first = Fetch(server.Url("/a?x=1"), ca);
    Fetched second = Fetch(server.Url("/a"), ca, "payload");
    Fetched third = Fetch(server.Url("/a"), ca);
    Fetched other = Fetch(server.Url("/b"), ca);

    EXPECT_EQ(first.code, CURLE_OK);
    EXPECT_EQ(first.status, 503);
    EXPECT_EQ(first.body, "busy");
    EXPECT_EQ(second.status, 200);
    EXPECT_EQ(second.body, "ok");
    EXPECT_EQ(third.status, 200);  // the last reply repeats
    EXPECT_EQ(other.status, 404);
    EXPECT_EQ(other.body, "not scripted");

    auto requests = server.Requests();
    ASSERT_EQ(requests.size(), 4u);
    EXPECT_EQ(requests[0].method, "GET");
    EXPECT_EQ(requests[0].path, "/a");
    EXPECT_EQ(requests[0].target, "/a?x=1");
    EXPECT_EQ(requests[0].version, "HTTP/1.1");
    EXPECT_EQ(requests[0].Header("host"), "127.0.0.1:" + std::to_string(server.Port()));
    EXPECT_FALSE(requests[0].HasHeader("REMOTE_ADDR"));
    EXPECT_EQ(requests[1].method, "POST");
    EXPECT_EQ(requests[1].body, "payload");
}

TEST(RecordingHttpsServer, ListensOnIpv6Loopback) {
    RecordingHttpsServer::Options options;
    options.ipv6 = true;
    RecordingHttpsServer server(options);
    server.Script("/v6", {Reply::Text(200, "six")});
    EXPECT_EQ(server.BaseUrl(), "https://[::1]:" + std::to_string(server.Port()));
    Fetched got = Fetch(server.Url("/v6"), server.Certificate().CertPath());
    EXPECT_EQ(got.code, CURLE_OK);
    EXPECT_EQ(got.body, "six");
    EXPECT_EQ(server.Requests().at(0).remoteAddr, "::1");
}

TEST(RecordingHttpsServer, StopsMidBodyWhenScripted) {
    RecordingHttpsServer server;
    Reply reply = Reply::Text(200, std::string(1000, 'x'));
    reply.stopAfter = 400;
    server.Script("/cut", {reply});
    Fetched got = Fetch(server.Url("/cut"), server.Certificate().CertPath());
    EXPECT_EQ(got.code, CURLE_PARTIAL_FILE);
    EXPECT_EQ(got.body, std::string(400, 'x'));
}

}  // namespace
