// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

namespace MorvelTest {

// A TCP port of 127.0.0.1 held until destruction: bound and never listening
// (connections are refused), or listening (connections wait to be accepted).
class LoopbackPort {
public:
    enum class Kind { Refusing, Listening };

    explicit LoopbackPort(Kind kind = Kind::Refusing) {
        m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address = Address(0);
        socklen_t length = sizeof address;
        if (m_fd < 0 || ::bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
            (kind == Kind::Listening && ::listen(m_fd, 16) != 0)) {
            if (m_fd >= 0) ::close(m_fd);
            throw std::runtime_error("cannot reserve a loopback port");
        }
        m_port = ntohs(address.sin_port);
    }
    ~LoopbackPort() { ::close(m_fd); }
    LoopbackPort(const LoopbackPort&) = delete;
    LoopbackPort& operator=(const LoopbackPort&) = delete;

    int Fd() const { return m_fd; }
    int Port() const { return m_port; }
    std::string Url(const std::string& path) const { return "https://127.0.0.1:" + std::to_string(m_port) + path; }

    // 127.0.0.1 at `port`.
    static sockaddr_in Address(int port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<uint16_t>(port));
        return address;
    }

private:
    int m_fd = -1;
    int m_port = 0;
};

}  // namespace MorvelTest
