// SPDX-License-Identifier: GPL-3.0-or-later
#include "common/rest/RedfishSession.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <optional>
#include <utility>

#include "common/rest/UrlOrigin.h"
#include "host/Log.h"
#include "host/Text.h"

namespace Rest {

const char kSessionsPath[] = "/redfish/v1/SessionService/Sessions";

namespace {

constexpr const char* kLogSource = "src/common/rest/RedfishSession";
// Far beyond any service's token; a longer header is no token of ours.
constexpr size_t kMaxTokenBytes = 4096;

// The value of the header `lowerName` in any letter case, or null.
const std::string* HeaderValue(const std::map<std::string, std::string>& headers, const std::string& lowerName) {
    for (const auto& header : headers) {
        if (Plexum::Lower(header.first) == lowerName) return &header.second;
    }
    return nullptr;
}

// A token goes back as one header line: visible ASCII only, no blank, no line break.
bool IsTokenText(const std::string& token) {
    if (token.empty() || token.size() > kMaxTokenBytes) return false;
    for (const char c : token) {
        const auto u = static_cast<unsigned char>(c);
        if (u <= 0x20 || u >= 0x7f) return false;
    }
    return true;
}

bool IsSuccess(int32_t status) { return status >= 200 && status <= 299; }

}  // namespace

std::string LoginBody(const std::string& user, const std::string& password) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> json(buffer);
    json.StartObject();
    json.Key("UserName");
    json.String(user.data(), static_cast<rapidjson::SizeType>(user.size()));
    json.Key("Password");
    json.String(password.data(), static_cast<rapidjson::SizeType>(password.size()));
    json.EndObject();
    return std::string(buffer.GetString(), buffer.GetSize());
}

LoginReply ReadLoginReply(const Response& reply) {
    LoginReply read;
    if (reply.curlCode != 0) return read;
    if (reply.httpCode == 401 || reply.httpCode == 403) {
        read.failure = Plexum::LoginFailure::Refused;
        return read;
    }
    if (reply.httpCode == 404 || reply.httpCode == 405) {
        read.failure = Plexum::LoginFailure::NoSessionService;
        return read;
    }
    if (!IsSuccess(reply.httpCode)) return read;
    read.failure = Plexum::LoginFailure::NoToken;
    const std::string* token = HeaderValue(reply.headers, "x-auth-token");
    if (token == nullptr || !IsTokenText(*token)) return read;
    read.failure = Plexum::LoginFailure::None;
    read.token = *token;
    if (const std::string* location = HeaderValue(reply.headers, "location")) read.location = *location;
    return read;
}

SessionUrl SessionToDelete(const std::string& sessionsUrl, const std::string& location) {
    if (location.empty()) return {std::string(), "the SMM named no session to delete (no Location in its login answer)"};
    const std::string url = ResolveReference(sessionsUrl, location);
    const std::optional<Origin> there = OriginOf(url);
    const std::optional<Origin> here = OriginOf(sessionsUrl);
    if (!there || !here || *there != *here) {
        return {std::string(), "the session's Location " + Plexum::Printable(location) +
                                   " is not on the SMM, so it was not deleted there"};
    }
    return {url, std::string()};
}

void RedfishSession::Open(const std::string& anyUrl, const std::string& user, const std::string& password,
                          const Post& post) {
    m_tried = true;
    const std::string sessions = ResolveReference(anyUrl, kSessionsPath);
    if (sessions.empty()) {
        m_failure = Plexum::LoginFailure::NotOpened;
        m_failedLogin = Response(CURLE_URL_MALFORMAT, -1, "cannot tell the Redfish service of " + Plexum::Printable(anyUrl));
        return;
    }
    PLEXUM_LOG(4, kLogSource, __LINE__) << "Redfish POST action on URL: " << sessions
                                        << " body: " << LoginBody(user, "*");
    Response reply = post(sessions, LoginBody(user, password));
    const LoginReply read = ReadLoginReply(reply);
    if (read.failure != Plexum::LoginFailure::None) {
        PLEXUM_LOG(3, kLogSource, __LINE__)
            << "Redfish session login opened no session: "
            << (reply.curlCode != 0 ? Plexum::Printable(reply.body) : "HTTP " + std::to_string(reply.httpCode));
        m_failure = read.failure;
        m_failedLogin = std::move(reply);
        return;
    }
    m_token = read.token;
    m_session = SessionToDelete(sessions, read.location);
    PLEXUM_LOG(4, kLogSource, __LINE__) << "Redfish session opened: "
                                        << (m_session.url.empty() ? m_session.problem : m_session.url);
}

Plexum::SessionLogout RedfishSession::Close(RestClient& client, int32_t timeoutSeconds) {
    Plexum::SessionLogout outcome;
    if (m_session.url.empty()) {
        outcome.error = m_session.problem;
    } else {
        client.SetTimeout(timeoutSeconds);
        client.SetFollowRedirects(false, 0);
        const Response reply = client.Delete(m_session.url);
        const std::string what = "DELETE " + Plexum::Printable(m_session.url);
        if (reply.curlCode != 0) {
            outcome.error = what + " failed: " + Plexum::Printable(reply.body);
        } else if (IsSuccess(reply.httpCode)) {
            outcome.done = true;
        } else {
            outcome.error = what + " answered HTTP " + std::to_string(reply.httpCode);
        }
    }
    m_token.clear();
    client.SetAuthToken(std::string());
    if (outcome.done) {
        PLEXUM_LOG(4, kLogSource, __LINE__) << "Redfish session closed: " << m_session.url;
    } else {
        PLEXUM_LOG(2, kLogSource, __LINE__) << "Redfish session logout failed: " << outcome.error;
    }
    return outcome;
}

}  // namespace Rest
