// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "common/rest/RestClient.h"
#include "host/RunContext.h"

namespace Rest {

// The session service's collection: a login is a POST there.
extern const char kSessionsPath[];

// {"UserName": user, "Password": password}, written by RapidJSON (every byte
// escaped as JSON wants it, whatever the password holds).
std::string LoginBody(const std::string& user, const std::string& password);

// What the reply to a login says: a session (None), or why there is none.
struct LoginReply {
    Plexum::LoginFailure failure = Plexum::LoginFailure::NotOpened;
    std::string token;     // X-Auth-Token: only visible ASCII, so that it is one header line
    std::string location;  // Location as sent (absolute or relative); empty when none
};

// 401, 403: refused; 404, 405: no session service; a 2xx without a usable
// token: NoToken; any other status or a failed transfer: NotOpened. Header
// names are matched in any letter case (HTTP/2 sends them in lower case).
LoginReply ReadLoginReply(const Response& reply);

// Where a session lives, from the service's Location: the URL to delete, or
// why it cannot be deleted (none named, or one on another scheme, host or port).
struct SessionUrl {
    std::string url;
    std::string problem;
};
SessionUrl SessionToDelete(const std::string& sessionsUrl, const std::string& location);

// One Redfish session of one client: a login opens it, a logout deletes it.
class RedfishSession {
public:
    // Sends the login body to the session service and returns its reply.
    using Post = std::function<Response(const std::string& url, const std::string& body)>;

    // Logs in to the service that `anyUrl` belongs to. Made once: a refused
    // login is not repeated (services lock a user out after a few).
    void Open(const std::string& anyUrl, const std::string& user, const std::string& password, const Post& post);
    bool Tried() const { return m_tried; }
    bool IsOpen() const { return !m_token.empty(); }
    const std::string& Token() const { return m_token; }
    // After a login that opened no session: its reply and why.
    const Response& FailedLogin() const { return m_failedLogin; }
    Plexum::LoginFailure Failure() const { return m_failure; }

    // One DELETE of the session with `client` (which sends the token), no
    // redirect, no retry, at most `timeoutSeconds`; the token is gone afterwards.
    Plexum::SessionLogout Close(RestClient& client, int32_t timeoutSeconds);

private:
    bool m_tried = false;
    std::string m_token;
    SessionUrl m_session;
    Response m_failedLogin;
    Plexum::LoginFailure m_failure = Plexum::LoginFailure::None;
};

}  // namespace Rest
