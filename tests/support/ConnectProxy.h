// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace MorvelTest {

// A tiny HTTP CONNECT proxy on 127.0.0.1 (ephemeral port) that records what each
// client sent before the tunnel and then relays bytes both ways. It only tunnels
// to loopback targets. A connection that does not start with an HTTP request
// line (e.g. a TLS ClientHello) is recorded and closed. The constructor throws
// std::runtime_error when the proxy cannot listen.
class ConnectProxy {
public:
    struct Session {
        std::string head;         // raw bytes through the blank line, or the first bytes of a non-HTTP client
        std::string requestLine;  // e.g. "CONNECT 127.0.0.1:443 HTTP/1.1"; empty for a non-HTTP client
        std::vector<std::pair<std::string, std::string>> headers;  // in the order sent, values trimmed
        bool tunnelled = false;   // a 200 was sent and the relay started

        std::string Header(const std::string& name) const;  // first value, case-insensitive; "" when absent
        bool HasHeader(const std::string& name) const;
    };

    ConnectProxy();
    ~ConnectProxy();
    ConnectProxy(const ConnectProxy&) = delete;
    ConnectProxy& operator=(const ConnectProxy&) = delete;

    int Port() const { return m_port; }
    std::string Address() const { return "127.0.0.1:" + std::to_string(m_port); }
    std::vector<Session> Sessions() const;

private:
    void AcceptLoop();
    void Serve(int client);
    void Track(int fd, bool add);

    int m_listen = -1;
    int m_port = -1;
    std::atomic<bool> m_stopping{false};
    std::thread m_acceptThread;
    mutable std::mutex m_mutex;
    std::vector<std::thread> m_workers;
    std::vector<int> m_open;  // sockets to shut down when stopping
    std::vector<Session> m_sessions;
};

}  // namespace MorvelTest
