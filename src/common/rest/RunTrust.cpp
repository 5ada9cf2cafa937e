// SPDX-License-Identifier: GPL-3.0-or-later
#include "common/rest/RunTrust.h"

#include <optional>

#include "common/rest/PeerCertificate.h"
#include "common/rest/UrlOrigin.h"
#include "trust/KnownSmms.h"
#include "host/RunContext.h"

namespace Rest {
namespace {

// A certificate read for a pin waits no longer than this.
constexpr int32_t kPeerReadSeconds = 20;

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
    const std::string& url = m_url;

    Trust::KnownSmms store(trust.knownSmms);
    const Trust::KnownSmms::Found found = store.Find(trust.key);
    if (!found.error.empty()) return Refuse("cannot read the known-SMMs file: " + found.error);
    if (found.entry) {
        m_pin = found.entry->pin;
        m_firstSeen = found.entry->firstSeen;
        return;
    }
    if (trust.verify == Plexum::TlsVerify::Pin) {
        return Refuse("no pin is recorded for " + Where() + " in " + trust.knownSmms + "; check the SMM's key with "
                      "'morvel trust show " + Where() + "' and record it with 'morvel trust add " + Where() + "'");
    }
    // Trust on first use: the key presented now becomes the one to match from here on.
    const std::optional<Origin> origin = OriginOf(url);
    if (!origin) return Refuse("cannot tell the host of " + url);
    const PeerCertificateRead read = ReadPeerCertificate(origin->host, origin->port, kPeerReadSeconds);
    if (!read.certificate) {
        // No answer is no trust question, but nothing goes out unpinned: the
        // transfer fails as it would have, and the run goes on as after any failed transfer.
        m_refusal = Response(read.curlCode != 0 ? read.curlCode : CURLE_SSL_CONNECT_ERROR, -1, read.error);
        return;
    }
    const std::string now = Trust::KnownSmms::UtcNow();
    const Trust::KnownSmms::Change added = store.Add(trust.key, read.certificate->pin, now);
    if (added.outcome == Trust::KnownSmms::Outcome::Failed) {
        return Refuse("cannot record the pin of " + Where() + ": " + added.error);
    }
    // Another run may have recorded it a moment ago: its pin is the one that counts.
    m_pin = added.pin;
    if (added.outcome == Trust::KnownSmms::Outcome::Added) {
        m_firstSeen = now;
    } else if (const auto entry = store.Find(trust.key).entry) {
        m_firstSeen = entry->firstSeen;
    }
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
    if (carriesToken) {
        // libcurl sends custom headers on to any host: the token's request ends before it would leave.
        m_handle = handle;
        curl_easy_setopt(handle, CURLOPT_PREREQFUNCTION, BeforeRequest);
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
    if (!m_pin.empty()) curl_easy_setopt(handle, CURLOPT_PINNEDPUBLICKEY, m_pin.c_str());
    return true;
}

int RunTrust::BeforeRequest(void* self, char* /*primaryIp*/, char* /*localIp*/, int /*primaryPort*/,
                            int /*localPort*/) {
    auto* trust = static_cast<RunTrust*>(self);
    char* effective = nullptr;
    if (curl_easy_getinfo(trust->m_handle, CURLINFO_EFFECTIVE_URL, &effective) != CURLE_OK || effective == nullptr) {
        return CURL_PREREQFUNC_ABORT;
    }
    try {
        const std::optional<Origin> first = OriginOf(trust->m_url);
        const std::optional<Origin> now = OriginOf(effective);
        if (first && now && *first == *now) return CURL_PREREQFUNC_OK;
        trust->m_divertedTo = effective;
    } catch (...) {
        // Exceptions must not cross libcurl's C frames; the transfer ends either way.
    }
    return CURL_PREREQFUNC_ABORT;
}

void RunTrust::Review(Response& response) const {
    if (!m_divertedTo.empty() && response.curlCode == CURLE_ABORTED_BY_CALLBACK) {
        response.body = "a redirect to " + m_divertedTo + " was not followed: the session token stays with " + Where();
        return;
    }
    if (!m_active || !IsVerificationFailure(response.curlCode)) return;
    const Plexum::TrustSettings& trust = Plexum::RunContext::Current().Trust();
    std::string reason;
    if (response.curlCode == CURLE_SSL_PINNEDPUBKEYNOTMATCH) {
        std::string presented = "a key that could not be read again";
        if (const std::optional<Origin> origin = OriginOf(m_url)) {
            const PeerCertificateRead read = ReadPeerCertificate(origin->host, origin->port, kPeerReadSeconds);
            if (read.certificate) presented = read.certificate->pin;
        }
        reason = Where() + " presented a key that does not match its pin, and nothing was sent to it: recorded " +
                 m_pin + (m_firstSeen.empty() ? "" : " (first seen " + m_firstSeen + ")") + ", presented " + presented +
                 "; if its certificate was replaced on purpose, run " + TrustCommands(Where());
    } else {
        reason = "the certificate of " + Where() + " failed verification against " +
                 (trust.caFile.empty() ? std::string("the system's CA certificates") : trust.caFile) + ": " +
                 response.body;
    }
    Plexum::RunContext::Current().NoteTrustFailure(reason);
}

}  // namespace Rest
