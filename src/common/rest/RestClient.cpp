// SPDX-License-Identifier: GPL-3.0-or-later
#include "common/rest/RestClient.h"

#include <cstring>
#include <locale>
#include <memory>
#include <new>
#include <sstream>
#include <stdexcept>

#include "common/rest/RunTrust.h"
#include "host/GlobalConfig.h"

namespace Rest {
namespace {

// Where the body appender writes, and how much it may keep in memory.
struct BodySink {
    Response* response;
    size_t maxBytes;
};

size_t AppendBody(char* data, size_t size, size_t count, void* userdata) {
    auto* sink = static_cast<BodySink*>(userdata);
    const size_t bytes = size * count;
    std::string& body = sink->response->body;
    // A short count makes libcurl end the transfer with CURLE_WRITE_ERROR.
    if (bytes > sink->maxBytes || body.size() > sink->maxBytes - bytes) return 0;
    try {
        body.append(data, bytes);
    } catch (...) {
        return 0;  // exceptions must not cross libcurl's C frames
    }
    return bytes;
}

size_t WriteFile(char* data, size_t size, size_t count, void* userdata) {
    auto* file = static_cast<FILE*>(userdata);
    if (file == nullptr || std::fwrite(data, size, count, file) < count) return 0;
    return size * count;
}

std::string Strip(const std::string& text, const std::locale& locale) {
    size_t begin = 0;
    size_t end = text.size();
    while (begin < end && std::isspace(text[begin], locale)) ++begin;
    while (end > begin && std::isspace(text[end - 1], locale)) --end;
    return text.substr(begin, end - begin);
}

}  // namespace

size_t CollectHeader(char* data, size_t size, size_t count, void* userdata) {
    auto* response = static_cast<Response*>(userdata);
    const size_t bytes = size * count;
    try {
        const std::locale locale;
        const std::string line(data, bytes);
        const size_t colon = line.find(':');
        if (colon != std::string::npos) {
            response->headers[Strip(line.substr(0, colon), locale)] = Strip(line.substr(colon + 1), locale);
        } else {
            const std::string stripped = Strip(line, locale);
            if (!stripped.empty()) response->headers[stripped] = "present";
        }
    } catch (...) {
        return 0;
    }
    return bytes;
}

namespace {

size_t ReadStream(char* buffer, size_t size, size_t count, void* userdata) {
    auto* stream = static_cast<std::istream*>(userdata);
    if (stream == nullptr) return static_cast<size_t>(-1);
    if (stream->fail() || stream->bad() || stream->eof()) return 0;
    try {
        stream->read(buffer, static_cast<std::streamsize>(size * count));
        return static_cast<size_t>(stream->gcount());
    } catch (...) {
        return static_cast<size_t>(-1);
    }
}

// libcurl seeks only to restart an upload from its beginning, so the requested
// offset and origin are deliberately ignored.
int RewindStream(void* userdata, curl_off_t /*offset*/, int /*origin*/) {
    auto* stream = static_cast<std::istream*>(userdata);
    if (stream == nullptr) return CURL_SEEKFUNC_FAIL;
    stream->clear();
    stream->seekg(0, std::ios::beg);
    return CURL_SEEKFUNC_OK;
}

int RelayProgress(void* userdata, curl_off_t downloadTotal, curl_off_t downloadNow, curl_off_t uploadTotal,
                  curl_off_t uploadNow) {
    auto* progress = static_cast<ProgressCallback*>(userdata);
    // An empty callable counts as none: its bad_function_call must not unwind through libcurl.
    if (progress == nullptr || progress->empty()) return 0;
    try {
        if (downloadTotal >= 1)
            (*progress)(downloadTotal, downloadNow);
        else if (uploadTotal >= 1)
            (*progress)(uploadTotal, uploadNow);
    } catch (...) {
    }
    return 0;
}

long StreamLength(std::istream& stream) {
    // A stream read to its end by an earlier attempt has fail and eof set, which would stop seekg.
    stream.clear();
    stream.seekg(0, std::ios::end);
    const std::streamoff length = stream.tellg();
    stream.seekg(0, std::ios::beg);
    return static_cast<long>(length);
}

struct MimeFree {
    void operator()(curl_mime* mime) const { curl_mime_free(mime); }
};

// curl_slist_append gives NULL when out of memory and leaves the list as it
// was: keep the list, so that it is still freed, and fail the request.
void AppendLine(curl_slist*& list, const std::string& line) {
    curl_slist* const longer = curl_slist_append(list, line.c_str());
    if (longer == nullptr) throw std::bad_alloc();
    list = longer;
}

size_t ConfiguredMaxBodyBytes() {
    const int configured = Plexum::GetGlobalConfigValue("REST_MAX_BODY_BYTES",
                                                        static_cast<int>(RestClient::kDefaultMaxBodyBytes));
    return configured > 0 ? static_cast<size_t>(configured) : RestClient::kDefaultMaxBodyBytes;
}

}  // namespace

CURL* NewCurlHandle() {
    static const CURLcode initialised = curl_global_init(CURL_GLOBAL_DEFAULT);
    return initialised == CURLE_OK ? curl_easy_init() : nullptr;
}

RestClient::RestClient() : m_handle(NewCurlHandle()) {
    if (m_handle == nullptr) throw std::runtime_error("Couldn't initialize curl handle");
    m_maxBodyBytes = ConfiguredMaxBodyBytes();
}

RestClient::~RestClient() { curl_easy_cleanup(m_handle); }

void RestClient::SetCredentials(const std::string& username, const std::string& password) {
    m_username = username;
    m_password = password;
}

void RestClient::SetTimeout(int32_t seconds) { m_timeout = seconds; }

void RestClient::SetInsecure(bool insecure) { m_insecure = insecure; }

void RestClient::SetDisableExpect(bool disable) { m_disableExpect = disable; }

void RestClient::SetFollowRedirects(bool follow, int32_t maxRedirects) {
    m_followRedirects = follow;
    m_maxRedirects = maxRedirects;
}

void RestClient::SetCaInfo(const std::string& path) { m_caInfo = path; }

void RestClient::SetProxy(const std::string& url, const std::string& username, const std::string& password) {
    std::string upper = url;
    const std::locale locale;
    for (char& c : upper) c = std::toupper(c, locale);
    if (!url.empty() && upper.compare(0, 4, "HTTP") != 0)
        m_proxy = "http://" + url;
    else
        m_proxy = url;
    m_proxyUsername = username;
    m_proxyPassword = password;
}

void RestClient::SetHeaders(HeaderMap headers) { m_headers = std::move(headers); }

HeaderMap RestClient::GetHeaders() { return m_headers; }

std::string& RestClient::SetHeader(const std::string& name, const std::string& value) {
    std::string& stored = m_headers[name];
    stored = value;
    return stored;
}

int32_t RestClient::EnableGzip() {
    m_gzip = true;
    return 0;
}

Response RestClient::Request(RequestType type, const std::string& url, const std::string& body) {
    switch (type) {
        case RequestType::Get: return Get(url);
        case RequestType::Post: return Post(url, body);
        case RequestType::Put: return Put(url, body);
        case RequestType::Patch: return Patch(url, body);
        case RequestType::Head: return Head(url);
        case RequestType::Options: return Options(url);
        case RequestType::Delete:  // a DELETE is made only through Delete()
        default: break;
    }
    return Response(-1, -1, "unknown request type");
}

Response RestClient::Get(const std::string& url) { return Perform(url); }

Response RestClient::PostMime(const std::string& url, const MimeParts& parts, ProgressCallback progress) {
    std::unique_ptr<curl_mime, MimeFree> mime(curl_mime_init(m_handle));
    for (const auto& part : parts) {
        curl_mimepart* added = curl_mime_addpart(mime.get());
        if (part) part->Fill(added);
    }
    // Only now: a part that throws must not leave the next request a POST.
    curl_easy_setopt(m_handle, CURLOPT_POST, 1L);
    curl_easy_setopt(m_handle, CURLOPT_MIMEPOST, mime.get());
    curl_easy_setopt(m_handle, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(m_handle, CURLOPT_XFERINFOFUNCTION, RelayProgress);
    curl_easy_setopt(m_handle, CURLOPT_XFERINFODATA, &progress);
    Response response = Perform(url);
    mime.reset();
    progress = ProgressCallback();
    return response;
}

void RestClient::SetStreamBody(std::istream& body) {
    curl_easy_setopt(m_handle, CURLOPT_READFUNCTION, ReadStream);
    curl_easy_setopt(m_handle, CURLOPT_READDATA, &body);
    curl_easy_setopt(m_handle, CURLOPT_INFILESIZE, StreamLength(body));
    curl_easy_setopt(m_handle, CURLOPT_SEEKFUNCTION, RewindStream);
    curl_easy_setopt(m_handle, CURLOPT_SEEKDATA, &body);
}

Response RestClient::Post(const std::string& url, std::istream& body) {
    curl_easy_setopt(m_handle, CURLOPT_POST, 1L);
    SetStreamBody(body);
    return Perform(url);
}

Response RestClient::Post(const std::string& url, const std::string& body) {
    curl_easy_setopt(m_handle, CURLOPT_POST, 1L);
    curl_easy_setopt(m_handle, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(m_handle, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    return Perform(url);
}

Response RestClient::Put(const std::string& url, std::istream& body) {
    // The legacy PUT switch is set alongside UPLOAD on purpose.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    curl_easy_setopt(m_handle, CURLOPT_PUT, 1L);
#pragma GCC diagnostic pop
    curl_easy_setopt(m_handle, CURLOPT_UPLOAD, 1L);
    SetStreamBody(body);
    return Perform(url);
}

Response RestClient::Put(const std::string& url, const std::string& body) {
    std::istringstream stream(body);
    return Put(url, static_cast<std::istream&>(stream));
}

Response RestClient::Patch(const std::string& url, std::istream& body) {
    curl_easy_setopt(m_handle, CURLOPT_CUSTOMREQUEST, "PATCH");
    curl_easy_setopt(m_handle, CURLOPT_UPLOAD, 1L);
    SetStreamBody(body);
    return Perform(url);
}

Response RestClient::Patch(const std::string& url, const std::string& body) {
    std::istringstream stream(body);
    return Patch(url, static_cast<std::istream&>(stream));
}

Response RestClient::Delete(const std::string& url) {
    curl_easy_setopt(m_handle, CURLOPT_CUSTOMREQUEST, "DELETE");
    return Perform(url);
}

Response RestClient::Head(const std::string& url) {
    curl_easy_setopt(m_handle, CURLOPT_CUSTOMREQUEST, "HEAD");
    curl_easy_setopt(m_handle, CURLOPT_NOBODY, 1L);
    return Perform(url);
}

Response RestClient::Options(const std::string& url) {
    curl_easy_setopt(m_handle, CURLOPT_CUSTOMREQUEST, "OPTIONS");
    curl_easy_setopt(m_handle, CURLOPT_NOBODY, 1L);
    return Perform(url);
}

int32_t RestClient::ClassifyResponse(const Response& response) const {
    if (response.curlCode != CURLE_OK) {
        switch (response.curlCode) {
            case CURLE_OPERATION_TIMEDOUT:
            case CURLE_SSL_CERTPROBLEM:
            case CURLE_PEER_FAILED_VERIFICATION:
            case CURLE_SSL_CACERT_BADFILE:
            case CURLE_SSL_INVALIDCERTSTATUS: return -2;
            default: return -1;
        }
    }
    // Decided on the first digit of the status text, not on a numeric range.
    std::ostringstream text;
    text << response.httpCode;
    return text.str()[0] == '2' ? 0 : -1;
}

Response RestClient::Perform(const std::string& url) {
    Response response(-1, -1, std::string());
    BodySink bodySink{&response, m_maxBodyBytes};

    if (m_gzip) curl_easy_setopt(m_handle, CURLOPT_ACCEPT_ENCODING, "gzip");
    curl_easy_setopt(m_handle, CURLOPT_URL, url.c_str());
    if (m_outputFile != nullptr) {
        curl_easy_setopt(m_handle, CURLOPT_WRITEFUNCTION, WriteFile);
        curl_easy_setopt(m_handle, CURLOPT_WRITEDATA, m_outputFile);
    } else {
        curl_easy_setopt(m_handle, CURLOPT_WRITEFUNCTION, AppendBody);
        curl_easy_setopt(m_handle, CURLOPT_WRITEDATA, &bodySink);
    }
    curl_easy_setopt(m_handle, CURLOPT_HEADERFUNCTION, CollectHeader);
    curl_easy_setopt(m_handle, CURLOPT_HEADERDATA, &response);

    // Frees the header list and clears every option also when building a string throws.
    struct Cleanup {
        CURL* handle;
        curl_slist* headerList = nullptr;
        ~Cleanup() {
            curl_slist_free_all(headerList);
            curl_easy_reset(handle);
        }
    } cleanup{m_handle};
    for (const auto& header : m_headers) AppendLine(cleanup.headerList, header.first + ": " + header.second);
    if (!m_authToken.empty()) AppendLine(cleanup.headerList, "X-Auth-Token: " + m_authToken);
    // An empty "Expect:" line makes libcurl leave out its Expect: 100-continue.
    if (m_disableExpect) AppendLine(cleanup.headerList, "Expect:");
    curl_easy_setopt(m_handle, CURLOPT_HTTPHEADER, cleanup.headerList);

    if (!m_username.empty()) {
        // libcurl keeps its own copy of the text.
        const std::string userPassword = m_username + ":" + m_password;
        curl_easy_setopt(m_handle, CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_BASIC));
        curl_easy_setopt(m_handle, CURLOPT_USERPWD, userPassword.c_str());
    }
    curl_easy_setopt(m_handle, CURLOPT_USERAGENT, m_userAgent.c_str());

    if (m_timeout < 0) {
        curl_easy_setopt(m_handle, CURLOPT_LOW_SPEED_TIME, 60L);
        curl_easy_setopt(m_handle, CURLOPT_LOW_SPEED_LIMIT, 30L);
    } else {
        curl_easy_setopt(m_handle, CURLOPT_TIMEOUT, static_cast<long>(m_timeout));
    }
    // No signals from libcurl (time-outs included) inside a threaded host.
    curl_easy_setopt(m_handle, CURLOPT_NOSIGNAL, 1L);

    if (m_followRedirects) {
        // Credentials go on to redirect targets on other hosts as well; deliberate.
        curl_easy_setopt(m_handle, CURLOPT_UNRESTRICTED_AUTH, 1L);
        curl_easy_setopt(m_handle, CURLOPT_FOLLOWLOCATION, 1L);
        curl_easy_setopt(m_handle, CURLOPT_MAXREDIRS, static_cast<long>(m_maxRedirects));
    }

    if (!m_caInfo.empty()) {
        curl_easy_setopt(m_handle, CURLOPT_CAINFO, m_caInfo.c_str());
    } else if (m_insecure) {
        curl_easy_setopt(m_handle, CURLOPT_SSL_VERIFYPEER, 0L);
        curl_easy_setopt(m_handle, CURLOPT_SSL_VERIFYHOST, 0L);
    }
    if (!m_sslCert.empty()) curl_easy_setopt(m_handle, CURLOPT_SSLCERT, m_sslCert.c_str());
    if (!m_sslCertType.empty()) curl_easy_setopt(m_handle, CURLOPT_SSLCERTTYPE, m_sslCertType.c_str());
    if (!m_sslKey.empty()) curl_easy_setopt(m_handle, CURLOPT_SSLKEY, m_sslKey.c_str());
    if (!m_keyPassword.empty()) curl_easy_setopt(m_handle, CURLOPT_KEYPASSWD, m_keyPassword.c_str());

    if (!m_proxy.empty()) {
        curl_easy_setopt(m_handle, CURLOPT_PROXY, m_proxy.c_str());
        curl_easy_setopt(m_handle, CURLOPT_HTTPPROXYTUNNEL, 1L);
        if (!m_proxyUsername.empty() && !m_proxyPassword.empty()) {
            // Looks like a slip but is kept: libcurl takes this lone password as the proxy user name.
            curl_easy_setopt(m_handle, CURLOPT_PROXYUSERNAME, m_proxyUsername.c_str());
            curl_easy_setopt(m_handle, CURLOPT_PROXYUSERPWD, m_proxyPassword.c_str());
        }
    }

    // Turns the cookie engine on; the jar name is never written because the reset below clears it.
    curl_easy_setopt(m_handle, CURLOPT_COOKIEJAR, "-");
    if (!m_cookieList.empty()) curl_easy_setopt(m_handle, CURLOPT_COOKIELIST, m_cookieList.c_str());

    char errorBuffer[CURL_ERROR_SIZE];
    std::memset(errorBuffer, 0, sizeof errorBuffer);
    curl_easy_setopt(m_handle, CURLOPT_ERRORBUFFER, errorBuffer);

    // The run's trust settings (--tls-verify) go over the TLS settings above; by default there are none.
    RunTrust trust(url);
    if (!trust.Apply(m_handle, !m_authToken.empty())) return trust.Refusal();

    const CURLcode result = curl_easy_perform(m_handle);
    response.curlCode = static_cast<int32_t>(result);
    if (result == CURLE_OK) {
        long status = 0;
        curl_easy_getinfo(m_handle, CURLINFO_RESPONSE_CODE, &status);
        response.httpCode = static_cast<int32_t>(status);
        curl_slist* cookies = nullptr;
        if (curl_easy_getinfo(m_handle, CURLINFO_COOKIELIST, &cookies) == CURLE_OK && cookies != nullptr) {
            const std::unique_ptr<curl_slist, void (*)(curl_slist*)> owned(cookies, curl_slist_free_all);
            for (curl_slist* item = cookies; item != nullptr; item = item->next) response.cookies.emplace_back(item->data);
        }
    } else {
        response.httpCode = -1;
        response.body.assign(errorBuffer, strnlen(errorBuffer, sizeof errorBuffer));
        trust.Review(response);
    }
    return response;
}

}  // namespace Rest
