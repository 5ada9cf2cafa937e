// SPDX-License-Identifier: GPL-3.0-or-later
// A Redfish session login as the client reads it: the reply's header lines
// through libcurl's header collector, ReadLoginReply (the session, or why
// none), the session to delete from its Location, and the login body written
// for any user and password.
//
// Input: curl code (4 bytes), HTTP status (4 bytes), both least significant
// first; one byte choosing the SMM's URL; the header block up to the first NUL
// (each line up to and including '\n' is one call of the collector); then the
// user up to the next NUL and the password, the rest.

#include <rapidjson/document.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>

#include "FuzzSupport.h"
#include "common/rest/RedfishSession.h"
#include "common/rest/RestClient.h"
#include "common/rest/UrlOrigin.h"

namespace {

const char* const kSessionsUrls[] = {
    "https://192.0.2.10:443/redfish/v1/SessionService/Sessions",
    "https://[2001:db8::10]:8443/redfish/v1/SessionService/Sessions",
    "https://smm07.example/redfish/v1/SessionService/Sessions",
};

std::string Lower(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return text;
}

// The value of the first header (in the map's order) named `lower` in any letter case.
const std::string* First(const std::map<std::string, std::string>& headers, const std::string& lower) {
    for (const auto& header : headers) {
        if (Lower(header.first) == lower) return &header.second;
    }
    return nullptr;
}

bool IsToken(const std::string& token) {
    if (token.empty() || token.size() > 4096) return false;
    for (const char c : token) {
        const auto u = static_cast<unsigned char>(c);
        if (u <= 0x20 || u >= 0x7f) return false;
    }
    return true;
}

Plexum::LoginFailure Expected(const Rest::Response& reply) {
    if (reply.curlCode != 0) return Plexum::LoginFailure::NotOpened;
    if (reply.httpCode == 401 || reply.httpCode == 403) return Plexum::LoginFailure::Refused;
    if (reply.httpCode == 404 || reply.httpCode == 405) return Plexum::LoginFailure::NoSessionService;
    if (reply.httpCode < 200 || reply.httpCode > 299) return Plexum::LoginFailure::NotOpened;
    const std::string* token = First(reply.headers, "x-auth-token");
    return token != nullptr && IsToken(*token) ? Plexum::LoginFailure::None : Plexum::LoginFailure::NoToken;
}

void CheckReply(const Rest::Response& reply, const std::string& sessionsUrl) {
    const Rest::LoginReply read = Rest::ReadLoginReply(reply);
    FUZZ_CHECK(read.failure == Expected(reply));
    if (read.failure != Plexum::LoginFailure::None) {
        FUZZ_CHECK(read.token.empty() && read.location.empty());
        return;
    }
    FUZZ_CHECK(read.token == *First(reply.headers, "x-auth-token"));
    const std::string* location = First(reply.headers, "location");
    FUZZ_CHECK(read.location == (location != nullptr ? *location : std::string()));

    // A session is deleted only on the SMM's own scheme, host and port.
    const Rest::SessionUrl session = Rest::SessionToDelete(sessionsUrl, read.location);
    FUZZ_CHECK(session.url.empty() != session.problem.empty());
    if (!session.url.empty()) FUZZ_CHECK(Rest::OriginOf(session.url) == Rest::OriginOf(sessionsUrl));
    for (const char c : session.problem) FUZZ_CHECK(static_cast<unsigned char>(c) >= 0x20 && c != 0x7f);
}

// The body parses back to the same user and password, whatever bytes they hold.
void CheckLoginBody(const std::string& user, const std::string& password) {
    const std::string body = Rest::LoginBody(user, password);
    rapidjson::Document document;
    document.Parse<rapidjson::kParseIterativeFlag>(body.c_str(), body.size());
    FUZZ_CHECK(!document.HasParseError() && document.IsObject() && document.MemberCount() == 2);
    const auto name = document.FindMember("UserName");
    const auto secret = document.FindMember("Password");
    FUZZ_CHECK(name != document.MemberEnd() && name->value.IsString());
    FUZZ_CHECK(secret != document.MemberEnd() && secret->value.IsString());
    FUZZ_CHECK(std::string(name->value.GetString(), name->value.GetStringLength()) == user);
    FUZZ_CHECK(std::string(secret->value.GetString(), secret->value.GetStringLength()) == password);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    morvel_fuzz::SilenceOutput();
    morvel_fuzz::FuzzInput input(data, size);
    Rest::Response reply;
    reply.curlCode = input.Int32();
    reply.httpCode = input.Int32();
    const std::string sessionsUrl = kSessionsUrls[input.Byte() % 3];

    const std::string rest = input.Rest();
    const size_t blockEnd = std::min(rest.find('\0'), rest.size());
    const std::string block = rest.substr(0, blockEnd);
    size_t begin = 0;
    while (begin < block.size()) {
        size_t end = block.find('\n', begin);
        end = end == std::string::npos ? block.size() : end + 1;
        std::string line = block.substr(begin, end - begin);
        FUZZ_CHECK(Rest::CollectHeader(&line[0], 1, line.size(), &reply) == line.size());
        begin = end;
    }
    CheckReply(reply, sessionsUrl);

    const std::string credentials = blockEnd < rest.size() ? rest.substr(blockEnd + 1) : std::string();
    const size_t split = std::min(credentials.find('\0'), credentials.size());
    CheckLoginBody(credentials.substr(0, split), split < credentials.size() ? credentials.substr(split + 1) : "");
    return 0;
}
