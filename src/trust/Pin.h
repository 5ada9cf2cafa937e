// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <string>

namespace Trust {

// The pin of a PEM certificate's public key: "sha256//" and the base64 of the
// SHA-256 of its DER SubjectPublicKeyInfo, as libcurl's CURLOPT_PINNEDPUBLICKEY
// takes it; empty when the text is no certificate.
std::string PinOfPem(const std::string& pem);

}  // namespace Trust
