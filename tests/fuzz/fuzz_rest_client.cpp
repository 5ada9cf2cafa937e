// SPDX-License-Identifier: GPL-3.0-or-later
// Rest::RestClient's reply plumbing: the header collector fed header lines as
// libcurl hands them over (one line per call, line end included), and
// ClassifyResponse fed any transfer result and status.
//
// Input: curl code (4 bytes), HTTP status (4 bytes), both least significant
// first, then the header block; each line up to and including '\n' is one call.

#include <cstdint>
#include <map>
#include <string>

#include "FuzzSupport.h"
#include "common/rest/RestClient.h"

namespace {

// Blanks as the classic locale's isspace sees them.
std::string Strip(const std::string& text) {
    const char* const blanks = " \t\n\v\f\r";
    const size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) return std::string();
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

int32_t ExpectedClass(const Rest::Response& response) {
    switch (response.curlCode) {
        case CURLE_OK: break;
        case CURLE_OPERATION_TIMEDOUT:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_INVALIDCERTSTATUS: return -2;
        default: return -1;
    }
    // The first digit of the status as decimal text decides.
    return std::to_string(response.httpCode)[0] == '2' ? 0 : -1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    morvel_fuzz::SilenceOutput();
    static Rest::RestClient client;

    morvel_fuzz::FuzzInput input(data, size);
    Rest::Response response;
    response.curlCode = input.Int32();
    response.httpCode = input.Int32();
    const int32_t classified = client.ClassifyResponse(response);
    FUZZ_CHECK(classified == ExpectedClass(response));

    std::string block = input.Rest();
    std::map<std::string, std::string> expected;
    size_t begin = 0;
    bool split = false;
    while (begin < block.size()) {
        size_t end = block.find('\n', begin);
        end = end == std::string::npos ? block.size() : end + 1;
        std::string line = block.substr(begin, end - begin);
        // libcurl passes size 1 and the count; both orders give the same byte count.
        const size_t taken = split ? Rest::CollectHeader(&line[0], 1, line.size(), &response)
                                   : Rest::CollectHeader(&line[0], line.size(), 1, &response);
        FUZZ_CHECK(taken == line.size());
        split = !split;

        const size_t colon = line.find(':');
        if (colon != std::string::npos) {
            expected[Strip(line.substr(0, colon))] = Strip(line.substr(colon + 1));
        } else if (!Strip(line).empty()) {
            expected[Strip(line)] = "present";
        }
        begin = end;
    }
    FUZZ_CHECK(response.headers == expected);
    // An empty call (a zero count) takes nothing and stores nothing.
    char none = '\0';
    FUZZ_CHECK(Rest::CollectHeader(&none, 1, 0, &response) == 0);
    FUZZ_CHECK(response.headers == expected);
    return 0;
}
