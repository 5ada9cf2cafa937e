// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <curl/curl.h>

#include <cstdint>
#include <cstdio>
#include <istream>
#include <map>
#include <string>

#include "common/rest/RestClientInterface.h"

namespace Rest {

// A new libcurl easy handle, or null. libcurl's global set-up runs once per
// process, guarded, before the first handle: left to curl_easy_init it would
// run on whichever thread comes first.
CURL* NewCurlHandle();

// libcurl's header callback: stores one header line in the Response that
// `userdata` points to. Declared here so that it can be fed lines without a transfer.
size_t CollectHeader(char* data, size_t size, size_t count, void* userdata);

// The libcurl implementation of RestClientInterface: one easy handle per client.
// Settings live in fields and are applied on every request; each request resets
// the handle at its end, so per-request options never leak into the next one,
// while libcurl's connection cache and cookie store are kept.
// One thread at a time; not copyable.
class RestClient : public RestClientInterface {
public:
    // Cap on the in-memory body when the configuration names none.
    static constexpr size_t kDefaultMaxBodyBytes = size_t{256} * 1024u * 1024u;

    // Throws std::runtime_error("Couldn't initialize curl handle") when libcurl yields no handle.
    RestClient();
    ~RestClient() override;
    RestClient(const RestClient&) = delete;
    RestClient& operator=(const RestClient&) = delete;

    // Settings: kept in fields, applied by every request (Perform), in libcurl's terms.
    void SetCredentials(const std::string& username, const std::string& password) override;  // Basic authentication
    void SetTimeout(int32_t seconds) override;  // CURLOPT_TIMEOUT; below 0, a 60-second low-speed limit
    void SetInsecure(bool insecure) override;  // no peer or host name check, unless a CA file is set
    void SetDisableExpect(bool disable) override;  // an empty "Expect:": no 100-continue
    void SetFollowRedirects(bool follow, int32_t maxRedirects) override;  // CURLOPT_FOLLOWLOCATION, MAXREDIRS
    void SetCaInfo(const std::string& path) override;  // CURLOPT_CAINFO
    void SetProxy(const std::string& url, const std::string& username,
                  const std::string& password) override;  // a CONNECT tunnel; "http://" added to a bare address
    void SetHeaders(HeaderMap headers) override;
    HeaderMap GetHeaders() override;
    std::string& SetHeader(const std::string& name, const std::string& value) override;
    int32_t EnableGzip() override;  // CURLOPT_ACCEPT_ENCODING "gzip"

    // Requests: the method's own options, then Perform.
    Response Request(RequestType type, const std::string& url, const std::string& body) override;  // never DELETE
    Response Get(const std::string& url) override;
    Response PostMime(const std::string& url, const MimeParts& parts, ProgressCallback progress) override;
    Response Post(const std::string& url, std::istream& body) override;  // the stream read as it is sent
    Response Post(const std::string& url, const std::string& body) override;  // CURLOPT_POSTFIELDS
    Response Put(const std::string& url, std::istream& body) override;  // an upload of the stream
    Response Put(const std::string& url, const std::string& body) override;  // an upload of the text
    Response Patch(const std::string& url, std::istream& body) override;  // an upload named PATCH
    Response Patch(const std::string& url, const std::string& body) override;
    Response Delete(const std::string& url) override;
    Response Head(const std::string& url) override;  // no body read
    Response Options(const std::string& url) override;  // no body read

    int32_t ClassifyResponse(const Response& response) const override;

    // Settings that the interface does not reach.
    void SetUserAgent(const std::string& userAgent) { m_userAgent = userAgent; }
    void SetSslCert(const std::string& path) { m_sslCert = path; }
    void SetSslCertType(const std::string& type) { m_sslCertType = type; }
    void SetSslKey(const std::string& path) { m_sslKey = path; }
    void SetKeyPassword(const std::string& password) { m_keyPassword = password; }
    void SetCookieList(const std::string& cookies) { m_cookieList = cookies; }
    // Not owned; null sends the body to Response::body again.
    void SetOutputFile(FILE* file) { m_outputFile = file; }
    // Past this many bytes the in-memory body ends the transfer with CURLE_WRITE_ERROR.
    void SetMaxBodyBytes(size_t bytes) { m_maxBodyBytes = bytes; }
    // A Redfish session's token, sent as X-Auth-Token on every request; empty: none.
    // Kept apart from the headers: it is a secret, and the run's trust
    // settings keep it from following a redirect to another host.
    void SetAuthToken(const std::string& token) { m_authToken = token; }

    const std::string& GetProxy() const { return m_proxy; }
    const std::string& GetProxyUsername() const { return m_proxyUsername; }
    const std::string& GetProxyPassword() const { return m_proxyPassword; }
    size_t GetMaxBodyBytes() const { return m_maxBodyBytes; }

private:
    Response Perform(const std::string& url);
    void SetStreamBody(std::istream& body);

    CURL* m_handle;
    HeaderMap m_headers;
    int32_t m_timeout = -1;
    bool m_followRedirects = false;
    bool m_insecure = false;
    bool m_disableExpect = false;
    int32_t m_maxRedirects = -1;
    std::string m_username;
    std::string m_password;
    std::string m_authToken;
    std::string m_userAgent = "KVRA_MORVEL";
    std::string m_caInfo;
    std::string m_sslCert;
    std::string m_sslCertType;
    std::string m_sslKey;
    std::string m_keyPassword;
    std::string m_proxy;
    std::string m_proxyUsername;
    std::string m_proxyPassword;
    std::string m_cookieList;
    bool m_gzip = false;
    FILE* m_outputFile = nullptr;
    size_t m_maxBodyBytes = kDefaultMaxBodyBytes;
};

}  // namespace Rest
