// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <curl/curl.h>

#include <string>

#include "common/rest/RestClientInterface.h"
#include "host/RunContext.h"

namespace Rest {

// The run's trust settings (Plexum::RunContext::Trust, set by the host from
// --tls-verify) applied to one transfer, over whatever the client was told:
//   ca    the chain and host name verified against the CA file or the system's store;
//   pin   the key must match the pin recorded for the target; none recorded: refused;
//   tofu  like pin, but a target without a pin gets the one it presents now recorded;
// and in all three, credentials never follow a redirect to another host, and
// a request that carries a session token ends where a redirect would take it
// to another scheme, host or port (libcurl would send the token along).
// With none (the default) it does nothing at all. It lives through the transfer.
class RunTrust {
public:
    // Reads the run's settings: the pin to match, or a refusal.
    explicit RunTrust(const std::string& url);
    RunTrust(const RunTrust&) = delete;
    RunTrust& operator=(const RunTrust&) = delete;

    // False when the transfer must not start (pin: no pin recorded); `refusal`
    // then holds the response to give. `carriesToken`: the request sends a session token.
    bool Apply(CURL* handle, bool carriesToken);
    const Response& Refusal() const { return m_refusal; }

    // After the transfer: a failed verification or pin becomes the run's trust
    // failure, a first contact stopped before anything was sent becomes the
    // response it stands for, and a redirect not followed for the token says so.
    void Review(Response& response) const;

private:
    // libcurl's call before each request of the transfer, redirects included,
    // once the connection (and its handshake) is up (CURLOPT_PREREQFUNCTION).
    static int BeforeRequest(void* self, char* primaryIp, char* localIp, int primaryPort, int localPort);
    bool StaysWithItsOrigin();
    bool FirstContact();
    void FindPin(const Plexum::TrustSettings& trust);
    void Refuse(const std::string& reason);
    std::string Where() const;
    std::string MismatchReason(const std::string& presented) const;

    std::string m_url;
    std::string m_pin;        // pin, tofu: the pin the key must match
    std::string m_firstSeen;  // and when it was recorded
    bool m_active = false;
    bool m_firstContact = false;  // tofu, no pin recorded yet
    bool m_carriesToken = false;
    Response m_refusal{-1, -1, std::string()};
    // What the checks before each request found, during the transfer.
    CURL* m_handle = nullptr;
    std::string m_divertedTo;   // where a redirect would have taken the token
    std::string m_recordedPin;  // the pin recorded (or another run's) at the first contact
    std::string m_recordedFirstSeen;
    std::string m_presented;  // the pin presented, when it did not match
    Response m_stopped{-1, -1, std::string()};
    bool m_trustStop = false;  // m_stopped is a trust failure: its body says why
};

}  // namespace Rest
