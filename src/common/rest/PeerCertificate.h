// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <curl/curl.h>

#include <cstdint>
#include <optional>
#include <string>

namespace Rest {

// What a TLS server presents, read without verifying it.
struct PeerCertificate {
    std::string pin;  // "sha256//" + base64 of the SHA-256 of its DER SubjectPublicKeyInfo
    std::string subject;
    std::string issuer;
    std::string notBefore;
    std::string notAfter;
};

struct PeerCertificateRead {
    std::optional<PeerCertificate> certificate;
    int32_t curlCode = 0;
    std::string error;  // one line when no certificate was read
};

// Opens a TLS connection to host:port, takes the server's certificate from the
// handshake and closes it again: nothing is sent over the connection, no
// credentials either. `urlHost` is the host as a URL writes it (an IPv6
// literal in brackets).
PeerCertificateRead ReadPeerCertificate(const std::string& urlHost, int port, int32_t timeoutSeconds);

// The pin of the certificate that the TLS connection of `handle`'s transfer
// presented, read from the connection itself while the transfer is under way
// (from a CURLOPT_PREREQFUNCTION: after the handshake, before anything is
// sent); empty when there is none.
std::string PresentedPin(CURL* handle);

}  // namespace Rest
