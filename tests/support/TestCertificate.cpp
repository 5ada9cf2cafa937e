// SPDX-License-Identifier: GPL-3.0-or-later
#include "support/TestCertificate.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <random>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <stdexcept>

namespace MorvelTest {
namespace {

struct PkeyFree { void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); } };
struct X509Free { void operator()(X509* p) const { X509_free(p); } };
struct BioFree { void operator()(BIO* p) const { BIO_free(p); } };

void Check(bool ok, const char* what) {
    if (!ok) throw std::runtime_error(std::string("test certificate: ") + what + " failed");
}

void AddExtension(X509* cert, int nid, const char* value) {
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, cert, cert, nullptr, nullptr, 0);
    X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
    Check(ext != nullptr, "X509V3_EXT_conf_nid");
    const int added = X509_add_ext(cert, ext, -1);
    X509_EXTENSION_free(ext);
    Check(added == 1, "X509_add_ext");
}

std::string ToPem(const std::function<int(BIO*)>& write) {
    std::unique_ptr<BIO, BioFree> bio(BIO_new(BIO_s_mem()));
    Check(bio != nullptr, "BIO_new");
    Check(write(bio.get()) == 1, "PEM write");
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<size_t>(size));
}

void WriteFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    if (!out) throw std::runtime_error("test certificate: cannot write " + path);
}

}  // namespace

TestCertificate::TestCertificate() {
    std::unique_ptr<EVP_PKEY, PkeyFree> key(EVP_EC_gen("P-256"));
    Check(key != nullptr, "EVP_EC_gen");

    std::unique_ptr<X509, X509Free> cert(X509_new());
    Check(cert != nullptr, "X509_new");
    Check(X509_set_version(cert.get(), 2) == 1, "X509_set_version");
    Check(ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), static_cast<long>(std::random_device{}() & 0x7fffffff)) == 1,
          "serial");
    // Back-dated a little so that clock skew between steps never makes it "not yet valid".
    Check(X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600) != nullptr, "notBefore");
    Check(X509_gmtime_adj(X509_getm_notAfter(cert.get()), 7L * 24 * 3600) != nullptr, "notAfter");
    Check(X509_set_pubkey(cert.get(), key.get()) == 1, "X509_set_pubkey");
    X509_NAME* name = X509_get_subject_name(cert.get());
    Check(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("morvel test"),
                                     -1, -1, 0) == 1,
          "subject");
    Check(X509_set_issuer_name(cert.get(), name) == 1, "issuer");
    AddExtension(cert.get(), NID_basic_constraints, "critical,CA:TRUE");
    AddExtension(cert.get(), NID_key_usage, "critical,digitalSignature,keyCertSign");
    AddExtension(cert.get(), NID_ext_key_usage, "serverAuth,clientAuth");
    AddExtension(cert.get(), NID_subject_key_identifier, "hash");
    AddExtension(cert.get(), NID_subject_alt_name, "IP:127.0.0.1,IP:::1,DNS:localhost");
    Check(X509_sign(cert.get(), key.get(), EVP_sha256()) > 0, "X509_sign");

    m_certPem = ToPem([&](BIO* bio) { return PEM_write_bio_X509(bio, cert.get()); });
    const std::string keyPem = ToPem([&](BIO* bio) {
        return PEM_write_bio_PrivateKey(bio, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    });

    const std::string password = KeyPassword();
    const std::string encryptedPem = ToPem([&](BIO* bio) {
        return PEM_write_bio_PrivateKey(bio, key.get(), EVP_aes_256_cbc(),
                                        reinterpret_cast<const unsigned char*>(password.data()),
                                        static_cast<int>(password.size()), nullptr, nullptr);
    });

    std::string pattern = (std::filesystem::temp_directory_path() / "morvel-cert-XXXXXX").string();
    Check(::mkdtemp(pattern.data()) != nullptr, "mkdtemp");
    m_dir = pattern;
    m_certPath = m_dir + "/cert.pem";
    m_keyPath = m_dir + "/key.pem";
    WriteFile(m_certPath, m_certPem);
    m_encryptedKeyPath = m_dir + "/key-encrypted.pem";
    WriteFile(m_keyPath, keyPem);
    WriteFile(m_encryptedKeyPath, encryptedPem);
}

TestCertificate::~TestCertificate() {
    std::error_code ignored;
    std::filesystem::remove_all(m_dir, ignored);
}

std::shared_ptr<const TestCertificate> TestCertificate::Shared() {
    static std::mutex mutex;
    static std::shared_ptr<const TestCertificate> shared;
    std::lock_guard<std::mutex> lock(mutex);
    if (!shared) shared = std::make_shared<TestCertificate>();
    return shared;
}

}  // namespace MorvelTest
