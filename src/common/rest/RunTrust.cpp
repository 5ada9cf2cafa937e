// SPDX-License-Identifier: GPL-3.0-or-later
#include "common/rest/RunTrust.h"

#include <optional>

#include "common/rest/PeerCertificate.h"
#include "common/rest/UrlOrigin.h"
#include "host/RunContext.h"

namespace Rest {
namespace {

// A certificate read for a pin waits no longer than this.
constexpr int32_t kPeerReadSeconds = 20;
// libcurl's words for a key that does not match its pin: the body such a refused transfer has.
constexpr char kPinMismatchText[] = "SSL: public key does not match pinned public key";

bool IsVerificationFailure(int32_t curlCode) {
    switch (curlCode) {
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_INVALIDCERTSTATUS:
        case CURLE_SSL_ISSUER_ERROR:
            return true;
        default:
            return false;
    }
}

std::string TrustCommands(const std::string& key) {
    return "'morvel trust remove " + key + "' and then 'morvel trust add " + key + "'";
}

}  // namespace

RunTrust::RunTrust(const std::string& url) : m_url(url) {
    const Plexum::TrustSettings& trust = Plexum::RunContext::Current().Trust();
    m_active = trust.verify != Plexum::TlsVerify::None;
    if (trust.verify == Plexum::TlsVerify::Pin || trust.verify == Plexum::TlsVerify::Tofu) FindPin(trust);
}

void RunTrust::FindPin(const Plexum::TrustSettings& trust) {
    if (!trust.knownSmmsError.empty()) return Refuse("cannot read the known-SMMs file: " + trust.knownSmmsError);
    if (trust.recorded) {
        m_pin = trust.recorded->pin;
        m_firstSeen = trust.recorded->firstSeen;
        return;
    }
    if (trust.verify == Plexum::TlsVerify::Pin) {
        return Refuse("no pin is recorded for " + Where() + " in " + trust.knownSmms + "; check the SMM's key with "
                      "'morvel trust show " + Where() + "' and record it with 'morvel trust add " + Where() + "'");
    }
    // Trust on first use: the key this transfer's connection presents becomes the one to match from here on.
    m_firstContact = true;
}

std::string RunTrust::Where() const { return Plexum::RunContext::Current().Trust().key; }

void RunTrust::Refuse(const std::string& reason) {
    m_refusal = Response(CURLE_SSL_PINNEDPUBKEYNOTMATCH, -1, reason);
    Plexum::RunContext::Current().NoteTrustFailure(reason);
}

bool RunTrust::Apply(CURL* handle, bool carriesToken) {
    if (!m_active) return true;
    if (m_refusal.curlCode != -1) return false;
    // Wherever a redirect leads, the user's password stays with the SMM it was meant for.
    curl_easy_setopt(handle, CURLOPT_UNRESTRICTED_AUTH, 0L);
    m_handle = handle;
    // libcurl sends custom headers on to any host: the token's request ends before it would leave.
    m_carriesToken = carriesToken;
    if (m_carriesToken || m_firstContact) {
        curl_easy_setopt(handle, CURLOPT_PREREQFUNCTION, &RunTrust::BeforeRequest);
        curl_easy_setopt(handle, CURLOPT_PREREQDATA, this);
    }
    const Plexum::TrustSettings& trust = Plexum::RunContext::Current().Trust();
    if (trust.verify == Plexum::TlsVerify::Ca) {
        curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L);
        curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 2L);
        if (!trust.caFile.empty()) curl_easy_setopt(handle, CURLOPT_CAINFO, trust.caFile.c_str());
        return true;
    }
    // SMMs sign their own certificates: the pinned key is what is trusted, not a chain.
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 0L);
    if (!m_firstContact) {
        curl_easy_setopt(handle, CURLOPT_PINNEDPUBLICKEY, m_pin.c_str());
        return true;
    }
    // One connection for the first contact: its key is read off the handshake and
    // recorded before the request goes out on it (BeforeRequest). The connection
    // and handshake wait no longer than a certificate read would.
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT, static_cast<long>(kPeerReadSeconds));
    return true;
}

int RunTrust::BeforeRequest(void* self, char* /*primaryIp*/, char* /*localIp*/, int /*primaryPort*/,
                            int /*localPort*/) {
    auto* trust = static_cast<RunTrust*>(self);
    try {
        if (trust->m_carriesToken && !trust->StaysWithItsOrigin()) return CURL_PREREQFUNC_ABORT;
        if (trust->m_firstContact && !trust->FirstContact()) return CURL_PREREQFUNC_ABORT;
        return CURL_PREREQFUNC_OK;
    } catch (...) {
        // Exceptions must not cross libcurl's C frames; the transfer ends either way.
        return CURL_PREREQFUNC_ABORT;
    }
}

bool RunTrust::StaysWithItsOrigin() {
    char* effective = nullptr;
    if (curl_easy_getinfo(m_handle, CURLINFO_EFFECTIVE_URL, &effective) != CURLE_OK || effective == nullptr) {
        return false;
    }
    const std::optional<Origin> first = OriginOf(m_url);
    const std::optional<Origin> now = OriginOf(effective);
    if (first && now && *first == *now) return true;
    m_divertedTo = effective;
    return false;
}

// Every connection of the transfer (a redirect's too) must present the pin
// that counts; the first one's is recorded, unless another run was first.
bool RunTrust::FirstContact() {
    const std::string presented = PresentedPin(m_handle);
    if (presented.empty()) {
        m_stopped = Response(CURLE_SSL_CONNECT_ERROR, -1, "the server's certificate could not be read");
        return false;
    }
    if (m_recordedPin.empty()) {
        const Plexum::TrustSettings& trust = Plexum::RunContext::Current().Trust();
        const Plexum::PinRecording recording = trust.recordFirstPin
                                                   ? trust.recordFirstPin(presented)
                                                   : Plexum::PinRecording{std::nullopt, "no known-SMMs file was opened"};
        if (!recording.recorded) {
            m_stopped = Response(CURLE_SSL_PINNEDPUBKEYNOTMATCH, -1,
                                 "cannot record the pin of " + Where() + ": " + recording.error);
            m_trustStop = true;
            return false;
        }
        m_recordedPin = recording.recorded->pin;
        m_recordedFirstSeen = recording.recorded->firstSeen;
        // The target's next transfers are held to it without asking the store again.
        Plexum::RunContext::Current().NotePin(*recording.recorded);
    }
    if (presented == m_recordedPin) return true;
    // Another run recorded another key first: refused as any pin that does not match.
    m_presented = presented;
    m_stopped = Response(CURLE_SSL_PINNEDPUBKEYNOTMATCH, -1, kPinMismatchText);
    return false;
}

std::string RunTrust::MismatchReason(const std::string& presented) const {
    const std::string& pin = m_firstContact ? m_recordedPin : m_pin;
    const std::string& firstSeen = m_firstContact ? m_recordedFirstSeen : m_firstSeen;
    return Where() + " presented a key that does not match its pin, and nothing was sent to it: recorded " + pin +
           (firstSeen.empty() ? "" : " (first seen " + firstSeen + ")") + ", presented " + presented +
           "; if its certificate was replaced on purpose, run " + TrustCommands(Where());
}

void RunTrust::Review(Response& response) const {
    if (!m_divertedTo.empty() && response.curlCode == CURLE_ABORTED_BY_CALLBACK) {
        response.body = "a redirect to " + m_divertedTo + " was not followed: the session token stays with " + Where();
        return;
    }
    if (!m_active) return;
    if (m_stopped.curlCode != -1) {
        // Stopped by the first-contact check: nothing was sent.
        response = m_stopped;
        if (m_trustStop) Plexum::RunContext::Current().NoteTrustFailure(response.body);
        if (!m_presented.empty()) Plexum::RunContext::Current().NoteTrustFailure(MismatchReason(m_presented));
        return;
    }
    if (!IsVerificationFailure(response.curlCode)) return;
    const Plexum::TrustSettings& trust = Plexum::RunContext::Current().Trust();
    std::string reason;
    if (response.curlCode == CURLE_SSL_PINNEDPUBKEYNOTMATCH) {
        std::string presented = "a key that could not be read again";
        if (const std::optional<Origin> origin = OriginOf(m_url)) {
            const PeerCertificateRead read = ReadPeerCertificate(origin->host, origin->port, kPeerReadSeconds);
            if (read.certificate) presented = read.certificate->pin;
        }
        reason = MismatchReason(presented);
    } else {
        reason = "the certificate of " + Where() + " failed verification against " +
                 (trust.caFile.empty() ? std::string("the system's CA certificates") : trust.caFile) + ": " +
                 response.body;
    }
    Plexum::RunContext::Current().NoteTrustFailure(reason);
}

}  // namespace Rest
