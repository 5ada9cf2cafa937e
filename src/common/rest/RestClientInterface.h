// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <curl/curl.h>

#include <boost/function.hpp>
#include <cstdint>
#include <istream>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Rest {

struct Response {
    Response() = default;
    Response(int32_t curl, int32_t http, std::string text)
        : curlCode(curl), httpCode(http), body(std::move(text)) {}

    int32_t curlCode = -1;  // curl_easy_perform's result; -1 when no transfer was made
    int32_t httpCode = -1;  // HTTP status; -1 when the transfer failed or none was made
    std::string body;
    std::map<std::string, std::string> headers;
    std::vector<std::string> cookies;
};

enum class RequestType : int32_t { Get = 0, Post = 1, Put = 2, Patch = 3, Delete = 4, Head = 5, Options = 6 };

// One part of a multipart upload; fills the libcurl part it is handed.
class MimePart {
public:
    virtual ~MimePart() = default;
    virtual void Fill(curl_mimepart* part) const = 0;
};

// Progress of a transfer: (total, done) in bytes.
using ProgressCallback = boost::function<void(int64_t, int64_t)>;
using MimeParts = std::list<std::shared_ptr<MimePart>>;
using HeaderMap = std::map<std::string, std::string>;

// An HTTP client. Settings persist across requests; per-request options do not.
// Request operations never throw for transfer or HTTP failures: the Response says.
class RestClientInterface {
public:
    virtual ~RestClientInterface() = default;

    virtual void SetCredentials(const std::string& username, const std::string& password) = 0;
    virtual void SetTimeout(int32_t seconds) = 0;
    virtual void SetInsecure(bool insecure) = 0;
    virtual void SetDisableExpect(bool disable) = 0;
    virtual void SetFollowRedirects(bool follow, int32_t maxRedirects) = 0;
    virtual void SetCaInfo(const std::string& path) = 0;
    virtual void SetProxy(const std::string& url, const std::string& username, const std::string& password) = 0;
    virtual void SetHeaders(HeaderMap headers) = 0;
    virtual HeaderMap GetHeaders() = 0;
    virtual std::string& SetHeader(const std::string& name, const std::string& value) = 0;
    virtual int32_t EnableGzip() = 0;

    virtual Response Request(RequestType type, const std::string& url, const std::string& body) = 0;
    virtual Response Get(const std::string& url) = 0;
    virtual Response PostMime(const std::string& url, const MimeParts& parts, ProgressCallback progress) = 0;
    virtual Response Post(const std::string& url, std::istream& body) = 0;
    virtual Response Post(const std::string& url, const std::string& body) = 0;
    virtual Response Put(const std::string& url, std::istream& body) = 0;
    virtual Response Put(const std::string& url, const std::string& body) = 0;
    virtual Response Patch(const std::string& url, std::istream& body) = 0;
    virtual Response Patch(const std::string& url, const std::string& body) = 0;
    virtual Response Delete(const std::string& url) = 0;
    virtual Response Head(const std::string& url) = 0;
    virtual Response Options(const std::string& url) = 0;

    // 0 success, -1 failure, -2 time-out or certificate trouble.
    virtual int32_t ClassifyResponse(const Response& response) const;
};

inline int32_t RestClientInterface::ClassifyResponse(const Response&) const { return 0; }

}  // namespace Rest
