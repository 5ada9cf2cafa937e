// SPDX-License-Identifier: GPL-3.0-or-later
#include "trust/Pin.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <memory>

namespace Trust {
namespace {

struct BioFree {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
struct X509Free {
    void operator()(X509* certificate) const { X509_free(certificate); }
};

}  // namespace

std::string PinOfPem(const std::string& pem) {
    const std::unique_ptr<BIO, BioFree> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    if (!bio) return std::string();
    const std::unique_ptr<X509, X509Free> certificate(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    if (!certificate) return std::string();
    return PinOfCertificate(certificate.get());
}

std::string PinOfCertificate(const X509* certificate) {
    unsigned char* der = nullptr;
    const int length = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(certificate), &der);
    if (length <= 0) return std::string();
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLength = 0;
    const int hashed = EVP_Digest(der, static_cast<size_t>(length), digest, &digestLength, EVP_sha256(), nullptr);
    OPENSSL_free(der);
    if (hashed != 1) return std::string();
    unsigned char encoded[64];
    const int encodedLength = EVP_EncodeBlock(encoded, digest, static_cast<int>(digestLength));
    return "sha256//" + std::string(reinterpret_cast<const char*>(encoded), static_cast<size_t>(encodedLength));
}

}  // namespace Trust
