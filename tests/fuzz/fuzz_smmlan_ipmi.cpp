// SPDX-License-Identifier: GPL-3.0-or-later
// The IPMI reply handling of SmmLanManager over a client whose Open results,
// completion codes and reply bytes all come from the input. Waits are injected
// no-ops and the check loop is kept short through the configuration.
//
// Input: operation (1 byte), argument (1 byte), retry count choice (1 byte),
// sleep time choice (1 byte), then the client's script: each Open takes one
// byte (below 0xF0 succeeds, else the byte minus 0xF2 is the result), each
// SendRequest a completion code, a length and that many data bytes. When the
// script is used up, Open succeeds and no reply comes (completion code 0xFF).
// Operation 8 takes the rest of the input as the --method text instead.

#include <cstdint>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "common/result/ResultCodes.h"
#include "host/GlobalConfig.h"
#include "host/IpmiClient.h"
#include "misc/smmlan/SmmLanManager.h"

namespace {

constexpr uint8_t kSmmNetFn = 0x3A;
constexpr uint8_t kLanStatusCommand = 0xF1;
constexpr uint8_t kIpObtainMethodCommand = 0xF3;
constexpr uint8_t kPropertyReadCommand = 0xC4;

class ScriptedIpmiClient : public Plexum::IpmiClient {
public:
    explicit ScriptedIpmiClient(morvel_fuzz::FuzzInput& script)
        : Plexum::IpmiClient("192.0.2.10", "fuzz", "fuzz-password", "623", 1), m_script(script) {}

    int32_t Open() override {
        // A session that opened is always closed before the next one opens.
        FUZZ_CHECK(!m_sessionOpen);
        const uint8_t byte = m_script.Byte();
        const int32_t result = byte < 0xF0 ? 0 : static_cast<int32_t>(byte) - 0xF2;
        m_sessionOpen = result == 0;
        m_lastOpenFailed = result != 0;
        ++opens;
        return result;
    }

    void Close() override {
        m_sessionOpen = false;
        m_lastOpenFailed = false;
    }

    int32_t SendRequest(const Plexum::IpmiRequest& request, std::vector<uint8_t>& response,
                        uint8_t& completionCode) override {
        FUZZ_CHECK(response.empty());
        FUZZ_CHECK(request.netFn == kSmmNetFn);
        FUZZ_CHECK(request.command == kLanStatusCommand || request.command == kIpObtainMethodCommand ||
                   request.command == kPropertyReadCommand);
        // Only the address read goes ahead after a failed Open.
        FUZZ_CHECK(m_sessionOpen || (m_lastOpenFailed && request.command == kPropertyReadCommand));
        ++sends;
        if (m_script.Empty()) {
            completionCode = kNoReply;
            return -1;
        }
        completionCode = m_script.Byte();
        const std::string bytes = m_script.Bytes(m_script.Byte());
        response.assign(bytes.begin(), bytes.end());
        return 0;
    }

    bool SessionOpen() const { return m_sessionOpen; }

    int opens = 0;
    int sends = 0;

private:
    morvel_fuzz::FuzzInput& m_script;
    bool m_sessionOpen = false;
    bool m_lastOpenFailed = false;
};

bool IsKnownResult(int32_t result) {
    return result == RESULT_SUCCEED || result == RESULT_GENERIC_FAILURE || result == RESULT_CONNECTION_FAILED ||
           result == RESULT_AUTHENTICATION_FAILED || result == RESULT_ENABLE_IPMI_FAILED;
}

bool IsKnownStatus(SmmLanStatus status) {
    return status == SMM_LAN_STATUS_UNKNOWN || status == SMM_LAN_ENABLED || status == SMM_LAN_DISABLED ||
           status == SMM_LAN_AND_IPMI_ENABLED;
}

// Empty, or four decimal octets joined by dots.
bool IsAddressOrEmpty(const std::string& text) {
    if (text.empty()) return true;
    int octets = 0;
    size_t begin = 0;
    while (true) {
        const size_t dot = text.find('.', begin);
        const std::string part = text.substr(begin, dot == std::string::npos ? std::string::npos : dot - begin);
        if (part.empty() || part.size() > 3 || part.find_first_not_of("0123456789") != std::string::npos) return false;
        if (std::stoi(part) > 255) return false;
        ++octets;
        if (dot == std::string::npos) break;
        begin = dot + 1;
    }
    return octets == 4;
}

// Retry counts and sleep times as a configuration file could spell them (null:
// the key is unset, so the default applies); none makes the check loop long.
const char* const kRetryTexts[] = {nullptr, "0", "1", "2", "3", " 2 ", "-1", "x", "1x", ""};
const char* const kSleepTexts[] = {nullptr, "5", "0", "-3", "x", " ", "2147483647"};

template <size_t N>
const char* Pick(const char* const (&texts)[N], uint8_t byte) {
    return texts[byte % N];
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    morvel_fuzz::SilenceOutput();
    morvel_fuzz::FuzzInput input(data, size);
    const uint8_t operation = input.Byte();
    const uint8_t argument = input.Byte();
    const char* const retryText = Pick(kRetryTexts, input.Byte());
    const char* const sleepText = Pick(kSleepTexts, input.Byte());

    Plexum::GlobalConfig::Clear();
    if (retryText != nullptr) Plexum::GlobalConfig::SetItem("SMM_NETWORK_CHECK_RETRY_COUNT", retryText);
    if (sleepText != nullptr) Plexum::GlobalConfig::SetItem("SMM_NETWORK_CHECK_SLEEP_TIME", sleepText);

    ScriptedIpmiClient client(input);
    std::vector<uint64_t> sleeps;
    SmmLanManager manager(&client, [&sleeps](uint64_t milliseconds) { sleeps.push_back(milliseconds); });

    int32_t result = RESULT_SUCCEED;
    switch (operation % 9) {
        case 0: {
            SmmLanStatus status = SMM_LAN_DISABLED;
            result = manager.GetLanStatus(status);
            FUZZ_CHECK(IsKnownStatus(status));
            if (result != RESULT_SUCCEED) FUZZ_CHECK(status == SMM_LAN_STATUS_UNKNOWN);
            break;
        }
        case 1: FUZZ_CHECK(IsAddressOrEmpty(manager.GetSMMIp())); break;
        case 2: result = manager.Query(); break;
        case 3: result = manager.Enable(static_cast<IpObtainMethod>(argument % 6)); break;
        case 4: result = manager.Disable(); break;
        case 5: result = manager.EnableIpmi(); break;
        case 6: result = manager.SetIpObtainMethod(static_cast<IpObtainMethod>(argument)); break;
        case 7:
            result = (argument & 0x80) != 0 ? manager.SetIpmiOverLanStatus(static_cast<SmmLanStatus>(argument & 7))
                                            : manager.SetLanStatus(static_cast<SmmLanStatus>(argument & 7));
            break;
        default: {
            const IpObtainMethod method = SmmLanManager::ParseIpObtainMethod(input.Rest());
            FUZZ_CHECK(method == IP_OBTAIN_UNCHANGED || method == IP_OBTAIN_STATIC || method == IP_OBTAIN_DHCP ||
                       method == IP_OBTAIN_DHCP_FAILOVER);
            break;
        }
    }
    FUZZ_CHECK(IsKnownResult(result));
    FUZZ_CHECK(!client.SessionOpen());
    // The retry count bounds the exchanges: the method, the status read before
    // the change, the change, at most 24 checks (the default, the largest count
    // above), the address read after.
    FUZZ_CHECK(client.sends <= 1 + 1 + 1 + 24 + 1);
    for (const uint64_t milliseconds : sleeps) {
        FUZZ_CHECK(milliseconds == 0 || milliseconds == 5000 || milliseconds == 10000 ||
                   milliseconds == 2147483647ULL * 1000ULL);
    }
    return 0;
}
