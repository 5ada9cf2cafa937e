// SPDX-License-Identifier: GPL-3.0-or-later
#include "support/ConnectProxy.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <stdexcept>

namespace MorvelTest {
namespace {

bool SameName(const std::string& a, const std::string& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
           });
}

std::string Trim(const std::string& text) {
    size_t begin = text.find_first_not_of(" \t\r\n");
    if (begin == std::string::npos) return std::string();
    size_t end = text.find_last_not_of(" \t\r\n");
    return text.substr(begin, end - begin + 1);
}

bool SendAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t sent = ::send(fd, data, size, MSG_NOSIGNAL);
        if (sent <= 0) return false;
        data += sent;
        size -= static_cast<size_t>(sent);
    }
    return true;
}

// Connects to a loopback "host:port" (host 127.0.0.1, localhost or [::1]); -1 otherwise.
int ConnectLoopback(const std::string& target) {
    const size_t colon = target.rfind(':');
    if (colon == std::string::npos) return -1;
    std::string host = target.substr(0, colon);
    const std::string port = target.substr(colon + 1);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    if (host != "127.0.0.1" && host != "localhost" && host != "::1") return -1;
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host == "localhost" ? "127.0.0.1" : host.c_str(), port.c_str(), &hints, &found) != 0) return -1;
    int fd = -1;
    for (addrinfo* a = found; a != nullptr && fd < 0; a = a->ai_next) {
        fd = ::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
        if (fd >= 0 && ::connect(fd, a->ai_addr, a->ai_addrlen) != 0) {
            ::close(fd);
            fd = -1;
        }
    }
    ::freeaddrinfo(found);
    return fd;
}

void Relay(int a, int b) {
    char buffer[16384];
    pollfd fds[2] = {{a, POLLIN, 0}, {b, POLLIN, 0}};
    for (;;) {
        if (::poll(fds, 2, 10000) <= 0) return;  // idle for 10 s or error: give up
        for (int i = 0; i < 2; ++i) {
            if (fds[i].revents == 0) continue;
            const ssize_t got = ::recv(fds[i].fd, buffer, sizeof buffer, 0);
            if (got <= 0 || !SendAll(fds[1 - i].fd, buffer, static_cast<size_t>(got))) return;
        }
    }
}

}  // namespace

std::string ConnectProxy::Session::Header(const std::string& name) const {
    for (const auto& header : headers)
        if (SameName(header.first, name)) return header.second;
    return std::string();
}

bool ConnectProxy::Session::HasHeader(const std::string& name) const {
    return std::any_of(headers.begin(), headers.end(), [&](const auto& h) { return SameName(h.first, name); });
}

ConnectProxy::ConnectProxy() {
    m_listen = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_listen < 0) throw std::runtime_error("connect proxy: socket failed");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(m_listen, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(m_listen, 16) != 0 ||
        ::getsockname(m_listen, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        ::close(m_listen);
        throw std::runtime_error(std::string("connect proxy: cannot listen: ") + std::strerror(errno));
    }
    m_port = ntohs(address.sin_port);
    m_acceptThread = std::thread([this] { AcceptLoop(); });
}

ConnectProxy::~ConnectProxy() {
    m_stopping = true;
    ::shutdown(m_listen, SHUT_RDWR);
    m_acceptThread.join();
    ::close(m_listen);
    std::vector<std::thread> workers;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (int fd : m_open) ::shutdown(fd, SHUT_RDWR);
        workers.swap(m_workers);
    }
    for (auto& worker : workers) worker.join();
}

std::vector<ConnectProxy::Session> ConnectProxy::Sessions() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_sessions;
}

void ConnectProxy::Track(int fd, bool add) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (add)
        m_open.push_back(fd);
    else
        m_open.erase(std::remove(m_open.begin(), m_open.end(), fd), m_open.end());
}

void ConnectProxy::AcceptLoop() {
    while (!m_stopping) {
        const int client = ::accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) {
            if (m_stopping) return;
            continue;
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        m_open.push_back(client);
        m_workers.emplace_back([this, client] { Serve(client); });
    }
}

void ConnectProxy::Serve(int client) {
    Session session;
    std::string& head = session.head;
    char buffer[4096];
    bool httpClient = true;
    while (head.find("\r\n\r\n") == std::string::npos && head.size() < 65536) {
        pollfd pfd{client, POLLIN, 0};
        if (::poll(&pfd, 1, 5000) <= 0) break;
        const ssize_t got = ::recv(client, buffer, sizeof buffer, 0);
        if (got <= 0) break;
        head.append(buffer, static_cast<size_t>(got));
        if (!std::isalpha(static_cast<unsigned char>(head[0]))) {
            httpClient = false;  // not an HTTP request line, e.g. a TLS handshake
            break;
        }
    }

    int upstream = -1;
    const size_t end = head.find("\r\n\r\n");
    if (httpClient && end != std::string::npos) {
        head.resize(end + 4);  // a client waits for our answer before sending more
        size_t lineEnd = head.find("\r\n");
        session.requestLine = head.substr(0, lineEnd);
        for (size_t start = lineEnd + 2; start < end;) {
            size_t next = head.find("\r\n", start);
            const std::string line = head.substr(start, next - start);
            const size_t colon = line.find(':');
            if (colon != std::string::npos) session.headers.emplace_back(Trim(line.substr(0, colon)), Trim(line.substr(colon + 1)));
            start = next + 2;
        }
        if (session.requestLine.compare(0, 8, "CONNECT ") == 0) {
            const size_t space = session.requestLine.find(' ', 8);
            upstream = ConnectLoopback(session.requestLine.substr(8, space - 8));
        }
        static const char kEstablished[] = "HTTP/1.1 200 Connection established\r\n\r\n";
        static const char kRefused[] = "HTTP/1.1 502 Bad Gateway\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
        if (upstream >= 0) {
            session.tunnelled = SendAll(client, kEstablished, sizeof kEstablished - 1);
        } else {
            SendAll(client, kRefused, sizeof kRefused - 1);
        }
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_sessions.push_back(session);
    }
    if (upstream >= 0) {
        Track(upstream, true);
        if (session.tunnelled && !m_stopping) Relay(client, upstream);
        Track(upstream, false);
        ::close(upstream);
    }
    Track(client, false);
    ::close(client);
}

}  // namespace MorvelTest
