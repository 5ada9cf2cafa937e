// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <httplib.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/TestCertificate.h"

namespace MorvelTest {

// One request as the server received it.
struct RecordedRequest {
    std::string method;
    std::string path;     // without the query
    std::string target;   // as sent on the request line, query included
    std::string version;  // e.g. "HTTP/1.1"
    std::vector<std::pair<std::string, std::string>> headers;  // names as sent, sorted case-insensitively
    std::string body;     // raw bytes, multipart bodies included
    std::string remoteAddr;
    int remotePort = -1;  // the same port on two requests means the connection was reused
    std::chrono::steady_clock::time_point arrival;

    // First value of the header (names compared case-insensitively), or "" when absent.
    std::string Header(const std::string& name) const;
    bool HasHeader(const std::string& name) const;
    size_t HeaderCount(const std::string& name) const;
};

// One scripted answer.
struct Reply {
    int status = 200;
    std::string body;
    std::string contentType = "text/plain";
    std::vector<std::pair<std::string, std::string>> headers;  // extra response headers
    std::chrono::milliseconds delay{0};  // wait before answering (cut short when the server stops)

    // Body pacing: when pieceSize > 0, the body goes out pieceSize bytes at a
    // time with pieceDelay after each piece (Content-Length is still announced).
    size_t pieceSize = 0;
    std::chrono::milliseconds pieceDelay{0};
    // When set, only this many body bytes are sent after announcing the full
    // Content-Length, then the connection is dropped.
    size_t stopAfter = static_cast<size_t>(-1);

    static Reply Text(int status, std::string body, std::string contentType = "text/plain") {
        Reply reply;
        reply.status = status;
        reply.body = std::move(body);
        reply.contentType = std::move(contentType);
        return reply;
    }
};

// A loopback HTTPS server (httplib::SSLServer) on an ephemeral port that records
// every request and answers from per-path scripts. It starts in the constructor
// and throws std::runtime_error when it cannot, so a test using it fails loudly.
//
//   MorvelTest::RecordingHttpsServer server;
//   server.Script("/redfish/v1/Chassis/2", {Reply::Text(503, "busy"), Reply::Text(200, "{}", "application/json")});
//   ... requests to server.Url("/redfish/v1/Chassis/2") ...
//   EXPECT_EQ(server.Requests()[0].Header("Authorization"), "Basic ...");
class RecordingHttpsServer {
public:
    struct Options {
        bool ipv6 = false;  // listen on ::1 instead of 127.0.0.1
        std::shared_ptr<const TestCertificate> certificate;  // default: TestCertificate::Shared()
        size_t keepAliveMaxCount = 10000;
        time_t keepAliveTimeoutSeconds = 30;
        // Off, the header and body writes of an answer meet Nagle and delayed ACK (40 ms each).
        bool tcpNoDelay = true;
        // When set, clients must present a certificate issued by this CA file.
        std::string clientCaPath;
    };
    using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;

    RecordingHttpsServer();
    explicit RecordingHttpsServer(const Options& options);
    ~RecordingHttpsServer();
    RecordingHttpsServer(const RecordingHttpsServer&) = delete;
    RecordingHttpsServer& operator=(const RecordingHttpsServer&) = delete;

    int Port() const { return m_port; }
    std::string Host() const;                       // "127.0.0.1" or "[::1]"
    std::string BaseUrl() const;                    // "https://127.0.0.1:PORT"
    std::string Url(const std::string& path) const; // BaseUrl() + path
    const TestCertificate& Certificate() const { return *m_certificate; }

    // Answers to requests for `path` (exact match, query ignored), in order; the
    // last one repeats once the list is used up. An empty method matches any.
    void Script(const std::string& path, std::vector<Reply> replies, const std::string& method = "");
    // Full control over the answer for `path`; the request is still recorded.
    void SetHandler(const std::string& path, Handler handler);
    // Answer for paths without a script; initially 404 with the body "not scripted".
    void SetDefaultReply(Reply reply);

    std::vector<RecordedRequest> Requests() const;
    size_t RequestCount() const;
    void ClearRequests();
    // True once at least `count` requests were recorded within `timeout`.
    bool WaitForRequests(size_t count, std::chrono::milliseconds timeout) const;

    httplib::SSLServer& Server() { return *m_server; }

private:
    struct Script_ {
        std::vector<Reply> replies;
        size_t next = 0;
    };

    void Handle(const httplib::Request& request, httplib::Response& response, const httplib::ContentReader* reader);
    void Serve(const Reply& reply, httplib::Response& response);
    bool Pause(std::chrono::milliseconds duration);  // false when the server is stopping

    std::shared_ptr<const TestCertificate> m_certificate;
    std::unique_ptr<httplib::SSLServer> m_server;
    std::thread m_thread;
    int m_port = -1;
    bool m_ipv6 = false;

    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    bool m_stopping = false;
    std::vector<RecordedRequest> m_requests;
    std::map<std::string, Script_> m_scripts;  // key: method + " " + path, or " " + path for any method
    std::map<std::string, Handler> m_handlers;
    Reply m_defaultReply;
};

}  // namespace MorvelTest
