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
// and in all three, credentials never follow a redirect to another host.
// With none (the default) it does nothing at all.
class RunTrust {
public:
    // Reads the run's settings: the pin to match, or a refusal.
    explicit RunTrust(const std::string& url);

    // False when the transfer must not start (pin: no pin recorded); `refusal` then holds the response to give.
    bool Apply(CURL* handle) const;
    const Response& Refusal() const { return m_refusal; }

    // After a failed transfer: a failed verification or pin becomes the run's
    // trust failure, and a first contact stopped before anything was sent
    // becomes the response it stands for.
    void Review(Response& response) const;

private:
    // tofu, no pin recorded yet: the key the connection presents, checked
    // after the handshake and before anything is sent (CURLOPT_PREREQFUNCTION).
    static int OnFirstContact(void* self, char* remoteAddress, char* localAddress, int remotePort, int localPort);
    bool FirstContact() const;
    void FindPin(const Plexum::TrustSettings& trust);
    void Refuse(const std::string& reason);
    std::string Where() const;
    std::string MismatchReason(const std::string& presented) const;

    std::string m_url;
    std::string m_pin;        // pin, tofu: the pin the key must match
    std::string m_firstSeen;  // and when it was recorded
    bool m_active = false;
    bool m_firstContact = false;
    Response m_refusal{-1, -1, std::string()};
    // What the first contact found, during the transfer.
    mutable CURL* m_handle = nullptr;
    mutable std::string m_recordedPin;  // the pin recorded (or another run's) at the first contact
    mutable std::string m_recordedFirstSeen;
    mutable std::string m_presented;  // the pin presented, when it did not match
    mutable Response m_stopped{-1, -1, std::string()};
    mutable bool m_trustStop = false;  // m_stopped is a trust failure: its body says why
};

}  // namespace Rest
