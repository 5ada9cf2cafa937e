// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <memory>
#include <string>

namespace MorvelTest {

// A throw-away self-signed certificate (EC P-256, valid for 127.0.0.1, ::1 and
// localhost, usable for server and client authentication) and its private key, made with the OpenSSL API and written as PEM
// files into a fresh temporary directory that is removed again on destruction.
// The certificate is its own issuer and marked as a CA, so CertPath() also
// serves as the CA file a client trusts. Construction throws std::runtime_error
// on any failure, which fails the test that needs it.
class TestCertificate {
public:
    TestCertificate();
    ~TestCertificate();
    TestCertificate(const TestCertificate&) = delete;
    TestCertificate& operator=(const TestCertificate&) = delete;

    const std::string& Directory() const { return m_dir; }
    const std::string& CertPath() const { return m_certPath; }  // PEM certificate, also the CA file
    const std::string& KeyPath() const { return m_keyPath; }    // PEM private key, unencrypted
    const std::string& CertPem() const { return m_certPem; }
    // The same key encrypted with AES-256 under KeyPassword().
    const std::string& EncryptedKeyPath() const { return m_encryptedKeyPath; }
    static const char* KeyPassword() { return "morvel-test-pass"; }

    // One certificate for the whole test process, made on first use.
    static std::shared_ptr<const TestCertificate> Shared();

private:
    std::string m_dir;
    std::string m_certPath;
    std::string m_keyPath;
    std::string m_encryptedKeyPath;
    std::string m_certPem;
};

}  // namespace MorvelTest
