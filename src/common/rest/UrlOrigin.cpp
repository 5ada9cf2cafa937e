// SPDX-License-Identifier: GPL-3.0-or-later
#include "common/rest/UrlOrigin.h"

#include <curl/curl.h>

#include <cstdlib>
#include <memory>

#include "host/Text.h"

namespace Rest {
namespace {

struct UrlFree {
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
struct TextFree {
    void operator()(char* text) const { curl_free(text); }
};
using ParsedUrl = std::unique_ptr<CURLU, UrlFree>;

// One part of a parsed URL, or empty when it has none.
std::optional<std::string> Part(CURLU* url, CURLUPart part, unsigned flags) {
    char* text = nullptr;
    if (curl_url_get(url, part, &text, flags) != CURLUE_OK) return std::nullopt;
    const std::unique_ptr<char, TextFree> owned(text);
    return std::string(text);
}

}  // namespace

std::optional<Origin> OriginOf(const std::string& url) {
    const ParsedUrl parsed(curl_url());
    if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK) return std::nullopt;
    const std::optional<std::string> scheme = Part(parsed.get(), CURLUPART_SCHEME, 0);
    const std::optional<std::string> host = Part(parsed.get(), CURLUPART_HOST, 0);
    const std::optional<std::string> port = Part(parsed.get(), CURLUPART_PORT, CURLU_DEFAULT_PORT);
    if (!scheme || !host || !port || host->empty()) return std::nullopt;
    char* end = nullptr;
    const long number = std::strtol(port->c_str(), &end, 10);
    if (*end != '\0' || number <= 0 || number > 65535) return std::nullopt;
    return Origin{Plexum::Lower(*scheme), Plexum::Lower(*host), static_cast<int>(number)};
}

std::string ResolveReference(const std::string& base, const std::string& reference) {
    const ParsedUrl parsed(curl_url());
    if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, base.c_str(), 0) != CURLUE_OK) return std::string();
    // Setting a URL on a handle that holds one resolves a relative reference against it.
    if (curl_url_set(parsed.get(), CURLUPART_URL, reference.c_str(), 0) != CURLUE_OK) return std::string();
    return Part(parsed.get(), CURLUPART_URL, 0).value_or(std::string());
}

}  // namespace Rest
