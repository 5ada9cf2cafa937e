// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <string>

// OpenSSL's X509.
struct x509_st;

namespace Trust {

// The pin of a PEM certificate's public key: "sha256//" and the base64 of the
// SHA-256 of its DER SubjectPublicKeyInfo, as libcurl's CURLOPT_PINNEDPUBLICKEY
// takes it; empty when the text is no certificate.
std::string PinOfPem(const std::string& pem);
// The same of a certificate OpenSSL holds; empty when it has no key to encode.
std::string PinOfCertificate(const x509_st* certificate);

}  // namespace Trust
