// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/TestCertificate.h"

namespace MorvelTest {

// A loopback server that keeps the exact bytes of every request (head plus a
// Content-Length body) and answers each connection with scripted raw bytes,
// then closes it. For tests that need the wire text itself: header order and
// spelling going out, odd header lines coming back. TLS (the test certificate)
// by default, plain TCP on request. One connection at a time. The constructor
// throws std::runtime_error when the server cannot listen.
class RawCaptureServer {
public:
    struct Options {
        bool tls = true;
        std::shared_ptr<const TestCertificate> certificate;  // default: TestCertificate::Shared()
    };

    explicit RawCaptureServer(std::string reply);
    RawCaptureServer(std::string reply, Options options);
    ~RawCaptureServer();
    RawCaptureServer(const RawCaptureServer&) = delete;
    RawCaptureServer& operator=(const RawCaptureServer&) = delete;

    int Port() const { return m_port; }
    std::string BaseUrl() const;  // "https://127.0.0.1:PORT" (or http://)
    std::string Url(const std::string& path) const { return BaseUrl() + path; }
    const TestCertificate& Certificate() const { return *m_certificate; }

    void SetReply(std::string reply);
    std::vector<std::string> Requests() const;  // raw bytes, one entry per request

private:
    void Loop();
    void ServeConnection(int fd);

    Options m_options;
    std::shared_ptr<const TestCertificate> m_certificate;
    void* m_sslContext = nullptr;  // SSL_CTX*
    int m_listen = -1;
    int m_port = -1;
    std::atomic<bool> m_stopping{false};
    std::thread m_thread;
    mutable std::mutex m_mutex;
    std::string m_reply;
    std::vector<std::string> m_requests;
};

}  // namespace MorvelTest
