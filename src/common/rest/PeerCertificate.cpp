// SPDX-License-Identifier: GPL-3.0-or-later
#include "common/rest/PeerCertificate.h"

#include <curl/curl.h>
#include <openssl/ssl.h>

#include <cstring>
#include <memory>

#include "common/rest/RestClient.h"
#include "trust/Pin.h"

namespace Rest {
namespace {

struct CurlFree {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};

// The value of a "Name:value" item of libcurl's certificate information.
std::string Field(const curl_slist* items, const char* name) {
    const size_t length = std::strlen(name);
    for (const curl_slist* item = items; item != nullptr; item = item->next) {
        if (std::strncmp(item->data, name, length) == 0 && item->data[length] == ':') return item->data + length + 1;
    }
    return std::string();
}

}  // namespace

PeerCertificateRead ReadPeerCertificate(const std::string& urlHost, int port, int32_t timeoutSeconds) {
    PeerCertificateRead read;
    const std::unique_ptr<CURL, CurlFree> handle(NewCurlHandle());
    if (!handle) {
        read.curlCode = CURLE_FAILED_INIT;
        read.error = "Couldn't initialize curl handle";
        return read;
    }
    const std::string url = "https://" + urlHost + ":" + std::to_string(port) + "/";
    char errorBuffer[CURL_ERROR_SIZE] = {};
    curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
    // The handshake only: what is presented is read, not trusted, and nothing is sent.
    curl_easy_setopt(handle.get(), CURLOPT_CONNECT_ONLY, 1L);
    curl_easy_setopt(handle.get(), CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(handle.get(), CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(handle.get(), CURLOPT_CERTINFO, 1L);
    curl_easy_setopt(handle.get(), CURLOPT_TIMEOUT, static_cast<long>(timeoutSeconds));
    curl_easy_setopt(handle.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle.get(), CURLOPT_ERRORBUFFER, errorBuffer);
    const CURLcode result = curl_easy_perform(handle.get());
    read.curlCode = static_cast<int32_t>(result);
    if (result != CURLE_OK) {
        read.error = errorBuffer[0] != '\0' ? errorBuffer : curl_easy_strerror(result);
        return read;
    }
    curl_certinfo* information = nullptr;
    if (curl_easy_getinfo(handle.get(), CURLINFO_CERTINFO, &information) != CURLE_OK || information == nullptr ||
        information->num_of_certs < 1) {
        read.error = "the server presented no certificate";
        return read;
    }
    const curl_slist* items = information->certinfo[0];
    PeerCertificate certificate;
    certificate.pin = Trust::PinOfPem(Field(items, "Cert"));
    if (certificate.pin.empty()) {
        read.error = "the server's certificate could not be read";
        return read;
    }
    certificate.subject = Field(items, "Subject");
    certificate.issuer = Field(items, "Issuer");
    certificate.notBefore = Field(items, "Start date");
    certificate.notAfter = Field(items, "Expire date");
    read.certificate = std::move(certificate);
    return read;
}

std::string PresentedPin(CURL* handle) {
    curl_tlssessioninfo* session = nullptr;
    if (curl_easy_getinfo(handle, CURLINFO_TLS_SSL_PTR, &session) != CURLE_OK || session == nullptr ||
        session->backend != CURLSSLBACKEND_OPENSSL || session->internals == nullptr) {
        return std::string();
    }
    const X509* const presented = SSL_get0_peer_certificate(static_cast<const SSL*>(session->internals));
    return presented != nullptr ? Trust::PinOfCertificate(presented) : std::string();
}

}  // namespace Rest
