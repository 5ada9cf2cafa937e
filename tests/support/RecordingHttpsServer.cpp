// SPDX-License-Identifier: GPL-3.0-or-later
#include "support/RecordingHttpsServer.h"

#include <algorithm>
#include <cctype>
#include <stdexcept>

namespace MorvelTest {
namespace {

bool SameName(const std::string& a, const std::string& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
           });
}

// httplib adds these to the request's header map; they were never on the wire.
bool IsPseudoHeader(const std::string& name) {
    return name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" || name == "LOCAL_PORT";
}

// httplib parses multipart bodies itself and hands no raw bytes to a content
// reader; the request's type is parked under this name until it is recorded.
const char kParkedContentType[] = "X-Recording-Parked-Content-Type";
const char kStandInContentType[] = "application/x-recording-multipart";

Reply NotScripted() { return Reply::Text(404, "not scripted"); }

}  // namespace

std::string RecordedRequest::Header(const std::string& name) const {
    for (const auto& header : headers)
        if (SameName(header.first, name)) return header.second;
    return std::string();
}

bool RecordedRequest::HasHeader(const std::string& name) const { return HeaderCount(name) > 0; }

size_t RecordedRequest::HeaderCount(const std::string& name) const {
    return static_cast<size_t>(std::count_if(headers.begin(), headers.end(),
                                             [&](const auto& header) { return SameName(header.first, name); }));
}

RecordingHttpsServer::RecordingHttpsServer() : RecordingHttpsServer(Options()) {}

RecordingHttpsServer::RecordingHttpsServer(const Options& options)
    : m_certificate(options.certificate ? options.certificate : TestCertificate::Shared()),
      m_ipv6(options.ipv6),
      m_defaultReply(NotScripted()) {
    m_server = std::make_unique<httplib::SSLServer>(
        m_certificate->CertPath().c_str(), m_certificate->KeyPath().c_str(),
        options.clientCaPath.empty() ? nullptr : options.clientCaPath.c_str());
    if (!m_server->is_valid()) throw std::runtime_error("recording HTTPS server: TLS set-up failed");
    m_server->set_keep_alive_max_count(options.keepAliveMaxCount);
    m_server->set_keep_alive_timeout(options.keepAliveTimeoutSeconds);
    m_server->set_tcp_nodelay(options.tcpNoDelay);
    m_server->set_read_timeout(30, 0);
    m_server->set_write_timeout(30, 0);

    auto plain = [this](const httplib::Request& request, httplib::Response& response) {
        Handle(request, response, nullptr);
    };
    auto reading = [this](const httplib::Request& request, httplib::Response& response,
                          const httplib::ContentReader& reader) { Handle(request, response, &reader); };
    m_server->set_pre_routing_handler([](const httplib::Request& request, httplib::Response&) {
        if (request.is_multipart_form_data()) {
            // The request object is the server's own, non-const one.
            auto& headers = const_cast<httplib::Request&>(request).headers;
            auto type = headers.find("Content-Type");
            const std::string original = type->second;
            headers.erase(type);
            headers.emplace("Content-Type", kStandInContentType);
            headers.emplace(kParkedContentType, original);
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });
    m_server->Get(".*", plain);
    m_server->Options(".*", plain);
    m_server->Post(".*", reading);
    m_server->Put(".*", reading);
    m_server->Patch(".*", reading);
    m_server->Delete(".*", reading);

    const std::string host = m_ipv6 ? "::1" : "127.0.0.1";
    m_port = m_server->bind_to_any_port(host);
    if (m_port <= 0) throw std::runtime_error("recording HTTPS server: cannot bind to " + host);
    m_thread = std::thread([this] { m_server->listen_after_bind(); });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!m_server->is_running()) {
        if (std::chrono::steady_clock::now() > deadline) {
            m_server->stop();
            m_thread.join();
            throw std::runtime_error("recording HTTPS server: did not start listening");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

RecordingHttpsServer::~RecordingHttpsServer() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_changed.notify_all();
    m_server->stop();
    if (m_thread.joinable()) m_thread.join();
}

std::string RecordingHttpsServer::Host() const { return m_ipv6 ? "[::1]" : "127.0.0.1"; }

std::string RecordingHttpsServer::BaseUrl() const { return "https://" + Host() + ":" + std::to_string(m_port); }

std::string RecordingHttpsServer::Url(const std::string& path) const { return BaseUrl() + path; }

void RecordingHttpsServer::Script(const std::string& path, std::vector<Reply> replies, const std::string& method) {
    if (replies.empty()) throw std::invalid_argument("recording HTTPS server: empty script for " + path);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_scripts[method + " " + path] = Script_{std::move(replies), 0};
}

void RecordingHttpsServer::SetHandler(const std::string& path, Handler handler) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_handlers[path] = std::move(handler);
}

void RecordingHttpsServer::SetDefaultReply(Reply reply) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_defaultReply = std::move(reply);
}

std::vector<RecordedRequest> RecordingHttpsServer::Requests() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests;
}

size_t RecordingHttpsServer::RequestCount() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests.size();
}

void RecordingHttpsServer::ClearRequests() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_requests.clear();
}

bool RecordingHttpsServer::WaitForRequests(size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, timeout, [&] { return m_requests.size() >= count; });
}

bool RecordingHttpsServer::Pause(std::chrono::milliseconds duration) {
    if (duration.count() <= 0) return true;
    std::unique_lock<std::mutex> lock(m_mutex);
    return !m_changed.wait_for(lock, duration, [&] { return m_stopping; });
}

void RecordingHttpsServer::Handle(const httplib::Request& request, httplib::Response& response,
                                  const httplib::ContentReader* reader) {
    RecordedRequest record;
    record.arrival = std::chrono::steady_clock::now();
    record.method = request.method;
    record.path = request.path;
    record.target = request.target;
    record.version = request.version;
    record.remoteAddr = request.remote_addr;
    record.remotePort = request.remote_port;
    const std::string parked = request.get_header_value(kParkedContentType);
    for (const auto& header : request.headers) {
        if (IsPseudoHeader(header.first) || header.first == kParkedContentType) continue;
        if (!parked.empty() && SameName(header.first, "Content-Type"))
            record.headers.emplace_back(header.first, parked);
        else
            record.headers.emplace_back(header.first, header.second);
    }
    if (reader) {
        (*reader)([&](const char* data, size_t length) {
            record.body.append(data, length);
            return true;
        });
    } else {
        record.body = request.body;
    }

    Handler handler;
    Reply reply;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_requests.push_back(record);
        auto custom = m_handlers.find(request.path);
        if (custom != m_handlers.end()) {
            handler = custom->second;
        } else {
            auto script = m_scripts.find(request.method + " " + request.path);
            if (script == m_scripts.end()) script = m_scripts.find(" " + request.path);
            if (script == m_scripts.end()) {
                reply = m_defaultReply;
            } else {
                Script_& s = script->second;
                reply = s.replies[std::min(s.next, s.replies.size() - 1)];
                ++s.next;
            }
        }
    }
    m_changed.notify_all();

    if (handler) {
        handler(request, response);
        return;
    }
    if (!Pause(reply.delay)) {
        response.status = 503;
        return;
    }
    Serve(reply, response);
}

void RecordingHttpsServer::Serve(const Reply& reply, httplib::Response& response) {
    response.status = reply.status;
    for (const auto& header : reply.headers) response.set_header(header.first, header.second);
    if (reply.pieceSize == 0 && reply.stopAfter == static_cast<size_t>(-1)) {
        response.set_content(reply.body, reply.contentType);
        return;
    }
    auto body = std::make_shared<std::string>(reply.body);
    const size_t piece = reply.pieceSize == 0 ? body->size() : reply.pieceSize;
    const auto pause = reply.pieceDelay;
    const size_t stopAfter = reply.stopAfter;
    response.set_content_provider(
        body->size(), reply.contentType,
        [this, body, piece, pause, stopAfter](size_t offset, size_t length, httplib::DataSink& sink) {
            if (offset >= stopAfter) return false;  // drop the connection mid-body
            size_t count = std::min({piece, length, stopAfter - offset});
            if (!sink.write(body->data() + offset, count)) return false;
            return Pause(pause);
        });
}

}  // namespace MorvelTest
