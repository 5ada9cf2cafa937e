// SPDX-License-Identifier: GPL-3.0-or-later
#include "support/RawCaptureServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <functional>
#include <stdexcept>

namespace MorvelTest {
namespace {

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

// Value of a header in a raw request head, or "" when absent.
std::string HeadValue(const std::string& head, const std::string& name) {
    const std::string lower = Lower(head);
    const size_t at = lower.find("\r\n" + Lower(name) + ":");
    if (at == std::string::npos) return std::string();
    const size_t start = at + 3 + name.size();
    const size_t end = head.find("\r\n", start);
    std::string value = head.substr(start, end - start);
    value.erase(0, value.find_first_not_of(' '));
    return value;
}

}  // namespace

RawCaptureServer::RawCaptureServer(std::string reply) : RawCaptureServer(std::move(reply), Options()) {}

RawCaptureServer::RawCaptureServer(std::string reply, Options options)
    : m_options(std::move(options)),
      m_certificate(m_options.certificate ? m_options.certificate : TestCertificate::Shared()),
      m_reply(std::move(reply)) {
    if (m_options.tls) {
        SSL_CTX* context = SSL_CTX_new(TLS_server_method());
        if (context == nullptr ||
            SSL_CTX_use_certificate_chain_file(context, m_certificate->CertPath().c_str()) != 1 ||
            SSL_CTX_use_PrivateKey_file(context, m_certificate->KeyPath().c_str(), SSL_FILETYPE_PEM) != 1) {
            SSL_CTX_free(context);
            throw std::runtime_error("raw capture server: TLS set-up failed");
        }
        m_sslContext = context;
    }
    m_listen = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (m_listen < 0 || ::bind(m_listen, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(m_listen, 16) != 0 || ::getsockname(m_listen, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        if (m_listen >= 0) ::close(m_listen);
        SSL_CTX_free(static_cast<SSL_CTX*>(m_sslContext));
        throw std::runtime_error(std::string("raw capture server: cannot listen: ") + std::strerror(errno));
    }
    m_port = ntohs(address.sin_port);
    m_thread = std::thread([this] { Loop(); });
}

RawCaptureServer::~RawCaptureServer() {
    m_stopping = true;
    ::shutdown(m_listen, SHUT_RDWR);
    m_thread.join();
    ::close(m_listen);
    SSL_CTX_free(static_cast<SSL_CTX*>(m_sslContext));
}

std::string RawCaptureServer::BaseUrl() const {
    return std::string(m_options.tls ? "https" : "http") + "://127.0.0.1:" + std::to_string(m_port);
}

void RawCaptureServer::SetReply(std::string reply) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_reply = std::move(reply);
}

std::vector<std::string> RawCaptureServer::Requests() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests;
}

void RawCaptureServer::Loop() {
    while (!m_stopping) {
        const int fd = ::accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        timeval limit{5, 0};  // a stuck client cannot hold the server forever
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
        ServeConnection(fd);
        ::close(fd);
    }
}

void RawCaptureServer::ServeConnection(int fd) {
    SSL* ssl = nullptr;
    if (m_sslContext != nullptr) {
        ssl = SSL_new(static_cast<SSL_CTX*>(m_sslContext));
        SSL_set_fd(ssl, fd);
        if (SSL_accept(ssl) != 1) {
            SSL_free(ssl);
            return;
        }
    }
    auto receive = [&](char* buffer, int size) -> int {
        return ssl ? SSL_read(ssl, buffer, size) : static_cast<int>(::recv(fd, buffer, static_cast<size_t>(size), 0));
    };
    auto sendAll = [&](const std::string& data) {
        size_t done = 0;
        while (done < data.size()) {
            const int chunk = static_cast<int>(std::min<size_t>(data.size() - done, 1 << 20));
            const int sent = ssl ? SSL_write(ssl, data.data() + done, chunk)
                                 : static_cast<int>(::send(fd, data.data() + done, static_cast<size_t>(chunk), MSG_NOSIGNAL));
            if (sent <= 0) return;
            done += static_cast<size_t>(sent);
        }
    };

    std::string request;
    char buffer[16384];
    size_t headEnd = std::string::npos;
    while ((headEnd = request.find("\r\n\r\n")) == std::string::npos) {
        const int got = receive(buffer, sizeof buffer);
        if (got <= 0) break;
        request.append(buffer, static_cast<size_t>(got));
    }
    if (headEnd != std::string::npos) {
        const std::string head = request.substr(0, headEnd + 4);
        if (Lower(HeadValue(head, "Expect")) == "100-continue") sendAll("HTTP/1.1 100 Continue\r\n\r\n");
        const std::string lengthText = HeadValue(head, "Content-Length");
        const size_t total = head.size() + (lengthText.empty() ? 0 : std::stoul(lengthText));
        while (request.size() < total) {
            const int got = receive(buffer, sizeof buffer);
            if (got <= 0) break;
            request.append(buffer, static_cast<size_t>(got));
        }
        std::string reply;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_requests.push_back(request);
            reply = m_reply;
        }
        sendAll(reply);
    }
    if (ssl) {
        SSL_shutdown(ssl);
        SSL_free(ssl);
    }
}

}  // namespace MorvelTest
