// SPDX-License-Identifier: GPL-3.0-or-later
// Pins against the openssl command line's own digest of the same key:
//   openssl x509 -pubkey -noout | openssl pkey -pubin -outform der | openssl dgst -sha256 -binary | base64
#include "trust/Pin.h"

#include <gtest/gtest.h>

#include "trust/KnownSmms.h"

namespace {

const char kCertificate[] =
    "-----BEGIN CERTIFICATE-----\n"
    "MIIBfTCCASOgAwIBAgIUVQXZmTWEGjotBj6XyZZpnnqlYvUwCgYIKoZIzj0EAwIw\n"
    "EzERMA8GA1UEAwwIcGluLXRlc3QwIBcNMjYxMTI0MTY0OTEyWhgPMjEyNjEwMzEx\n"
    "NjQ5MTJaMBMxETAPBgNVBAMMCHBpbi10ZXN0MFkwEwYHKoZIzj0CAQYIKoZIzj0D\n"
    "AQcDQgAEyOudisfezPe7uebDMZQRJnAFzpjKmEfR3upuCs8tMDRzP1eEpdN+2TL6\n"
    "cgRmDX/RimMg2CSf4eg73bkgfnJEGqNTMFEwHQYDVR0OBBYEFAGaiB8Cr6rRlbEN\n"
    "z6UVEAC/ailaMB8GA1UdIwQYMBaAFAGaiB8Cr6rRlbENz6UVEAC/ailaMA8GA1Ud\n"
    "EwEB/wQFMAMBAf8wCgYIKoZIzj0EAwIDSAAwRQIgEOEwnfvsw5X+qTNTo6a1ICNJ\n"
    "r4MJ5kS+SMwZCa7qugMCIQDcvs6S0wnqEka/XJ8lOgyNdJtYSbq12+Wc+rhZFyNG\n"
    "UQ==\n"
    "-----END CERTIFICATE-----\n";

TEST(Pin, OfACertificatesKey) {
    EXPECT_EQ(Trust::PinOfPem(kCertificate), "sha256//zL67GfhuqcUmYbHDWmJty4lInoNCU7XbLUjcbbCadXs=");
    EXPECT_TRUE(Trust::KnownSmms::IsPin(Trust::PinOfPem(kCertificate)));
}

TEST(Pin, OfNoCertificateIsEmpty) {
    EXPECT_EQ(Trust::PinOfPem("not a certificate"), "");
    EXPECT_EQ(Trust::PinOfPem(""), "");
    // Cut short: the base64 body ends before the certificate does.
    const std::string cut = std::string(kCertificate).substr(0, 200) + "\n-----END CERTIFICATE-----\n";
    EXPECT_EQ(Trust::PinOfPem(cut), "");
}

}  // namespace
