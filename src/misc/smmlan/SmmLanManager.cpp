// SPDX-License-Identifier: GPL-3.0-or-later
#include "misc/smmlan/SmmLanManager.h"

#include <cstdint>
#include <locale>
#include <map>
#include <sstream>
#include <utility>

#include "common/result/ResultCodes.h"
#include "host/ConsoleReport.h"
#include "host/GlobalConfig.h"
#include "host/Log.h"
#include "host/MorvelResult.h"
#include "host/RunContext.h"

namespace {

const char* const kSource = "Src/Misc/SmmLan/SmmLanManager";

constexpr uint8_t kSmmNetFn = 0x3A;
constexpr uint8_t kLanStatusCommand = 0xF1;
constexpr uint8_t kIpObtainMethodCommand = 0xF3;
constexpr uint8_t kPropertyReadCommand = 0xC4;
constexpr uint8_t kLanStatusRead = 0x00;

// Property read of the SMM's address: two fixed bytes, the count of the bytes
// that follow, a fixed byte, then the property path (no terminating zero).
const char kSmmIpProperty[] = "/v2/vorn/smm/smm_ip";
constexpr uint8_t kPropertyReadLead = 0x93;
constexpr size_t kSmmIpResponseSize = 8;

// Messages of the property status (byte 0 of the reply), indexed by that byte.
const char* const kPropertyStatusMessages[] = {
    "",
    "Get SMM ip failed with error : service not ready",
    "Get SMM ip failed with error : service error",
    "Get SMM ip failed with error : property doesn't exist",
    "Get SMM ip failed with error : invalid request",
    "Get SMM ip failed with error : packet format error",
    "Get SMM ip failed with error : conflicting property type",
    "Get SMM ip failed with error : out of space",
    "Get SMM ip failed with error : path doesn't exist",
    "Get SMM ip failed with error : success (end of tree)",
    "Get SMM ip failed with error : invalid correlator",
    "Get SMM ip failed with error : property locked",
};
constexpr size_t kPropertyStatusCount = sizeof kPropertyStatusMessages / sizeof kPropertyStatusMessages[0];

const char* const kRetryCountKey = "SMM_NETWORK_CHECK_RETRY_COUNT";
const char* const kSleepTimeKey = "SMM_NETWORK_CHECK_SLEEP_TIME";
constexpr int32_t kDefaultRetryCount = 24;
constexpr int32_t kDefaultSleepSeconds = 5;
constexpr uint64_t kSettleMilliseconds = 10000;

// Results compare on their low 16 bits, as everywhere in the host.
bool IsSuccess(int32_t result) { return MorvelResult(result) == RESULT_SUCCEED; }

int32_t OpenResult(int32_t opened) {
    if (opened == 0) return RESULT_SUCCEED;
    return opened == Plexum::IpmiClient::kOpenRefused ? RESULT_AUTHENTICATION_FAILED : RESULT_CONNECTION_FAILED;
}

// Overrides `value` from the configuration key, read like `stream >> value`:
// a non-numeric start stores 0, an out-of-range number the nearest limit,
// trailing text is ignored. Blank text converts nothing and keeps the default;
// checked here so that the rule does not hang on how a failed sentry is treated.
void ReadConfigInt(const char* key, int32_t& value) {
    std::string text;
    if (Plexum::GlobalConfig::GetConfigItem(key, text) != 0) return;
    if (text.find_first_not_of(" \t\n\v\f\r") == std::string::npos) return;
    std::istringstream stream(text);
    stream >> value;
}

// A negative interval means no pause at all between checks.
uint64_t CheckInterval(int32_t sleepSeconds) {
    return sleepSeconds > 0 ? static_cast<uint64_t>(sleepSeconds) * 1000U : 0U;
}

void ReportFailure(const char* failedLine, int32_t result) {
    ConsoleReport(3, kSource, __LINE__).Stream() << failedLine;
    ConsoleReport(3, kSource, __LINE__).Stream() << "    Error msg: " << GetResultMessage(result);
}

const char* const kEnableBanner = "************Enable Result************";

}  // namespace

SmmLanManager::SmmLanManager(Plexum::IpmiClient* client, SleepFunction sleep)
    : m_client(client), m_sleep(std::move(sleep)) {}

IpObtainMethod SmmLanManager::ParseIpObtainMethod(std::string text) {
    static const std::map<std::string, IpObtainMethod> kMethods = {
        {"static", IP_OBTAIN_STATIC},
        {"dhcp", IP_OBTAIN_DHCP},
        {"dhcp-failover", IP_OBTAIN_DHCP_FAILOVER},
    };
    PLEXUM_LOG(3, kSource, __LINE__) << "SMM lan ip obtained method:" << text;
    const std::locale locale;
    for (char& c : text) c = std::tolower(c, locale);
    const auto found = kMethods.find(text);
    return found == kMethods.end() ? IP_OBTAIN_UNCHANGED : found->second;
}

void SmmLanManager::Sleep(uint64_t milliseconds) {
    if (m_sleep) {
        m_sleep(milliseconds);
    } else {
        Plexum::RunContext::Current().Sleep(milliseconds);
    }
}

void SmmLanManager::SendAndClose(uint8_t command, std::vector<uint8_t> data, Reply& reply) {
    Plexum::IpmiRequest request;
    request.command = command;
    request.data = std::move(data);
    request.netFn = kSmmNetFn;
    reply = Reply();
    m_client->SendRequest(request, reply.data, reply.completionCode);
    m_client->Close();
}

int32_t SmmLanManager::Exchange(uint8_t command, std::vector<uint8_t> data, Reply& reply, Effect effect) {
    const int32_t opened = OpenResult(m_client->Open());
    if (!IsSuccess(opened)) return opened;
    // Whatever comes back, even a refusal or nothing at all, the change went out.
    if (effect == Effect::Change) Plexum::RunContext::Current().NoteChangeSent();
    SendAndClose(command, std::move(data), reply);
    return RESULT_SUCCEED;
}

int32_t SmmLanManager::GetLanStatus(SmmLanStatus& status) {
    status = SMM_LAN_STATUS_UNKNOWN;
    Reply reply;
    const int32_t opened = Exchange(kLanStatusCommand, {kLanStatusRead}, reply);
    if (!IsSuccess(opened)) return opened;
    if (reply.completionCode != 0 || reply.data.size() != 1) return RESULT_GENERIC_FAILURE;
    Plexum::RunContext::Current().NoteLanStatus(reply.data[0]);
    const uint8_t value = reply.data[0];
    if (value == SMM_LAN_ENABLED || value == SMM_LAN_DISABLED || value == SMM_LAN_AND_IPMI_ENABLED) {
        status = static_cast<SmmLanStatus>(value);
    } else {
        // Still a success: callers then report the status as unknown rather than fail.
        PLEXUM_LOG(1, kSource, __LINE__) << "SMM lan status is unknow, the value got is:" << static_cast<unsigned>(value);
    }
    return RESULT_SUCCEED;
}

std::string SmmLanManager::GetSMMIp() {
    PLEXUM_LOG(4, kSource, __LINE__) << "Entering  " << "SmmLanManager::GetSMMIp";
    const std::string path(kSmmIpProperty);
    std::vector<uint8_t> data = {0x00, 0x00, static_cast<uint8_t>(1 + path.size()), kPropertyReadLead};
    data.insert(data.end(), path.begin(), path.end());

    const int32_t opened = OpenResult(m_client->Open());
    if (!IsSuccess(opened)) {
        PLEXUM_LOG(1, kSource, __LINE__) << GetResultMessage(opened);
    }
    // Unlike every other exchange, the read is attempted even after a failed Open.
    Reply reply;
    SendAndClose(kPropertyReadCommand, std::move(data), reply);

    std::string address;
    if (reply.completionCode != 0 || reply.data.size() <= 1) {
        // The completion code goes into the record as the raw byte.
        PLEXUM_LOG(1, kSource, __LINE__) << "Get SMM ip failed with completion code :"
                                         << static_cast<char>(reply.completionCode);
    } else if (reply.data[0] == 0) {
        if (reply.data.size() < kSmmIpResponseSize) {
            PLEXUM_LOG(1, kSource, __LINE__);
        } else {
            std::ostringstream text;  // the address comes last octet first in bytes 4 to 7
            text << static_cast<unsigned>(reply.data[7]) << '.' << static_cast<unsigned>(reply.data[6]) << '.'
                 << static_cast<unsigned>(reply.data[5]) << '.' << static_cast<unsigned>(reply.data[4]);
            address = text.str();
            Plexum::RunContext::Current().NoteIpv4(address);
        }
    } else if (reply.data[0] < kPropertyStatusCount) {
        PLEXUM_LOG(1, kSource, __LINE__) << kPropertyStatusMessages[reply.data[0]];
    } else {
        PLEXUM_LOG(1, kSource, __LINE__) << "Get SMM ip failed with unknow error";
    }
    PLEXUM_LOG(4, kSource, __LINE__) << "Exiting  " << "SmmLanManager::GetSMMIp";
    return address;
}

int32_t SmmLanManager::SetIpObtainMethod(IpObtainMethod method) {
    if (method == IP_OBTAIN_UNCHANGED) {
        PLEXUM_LOG(3, kSource, __LINE__) << "Do not change ip obtained method.";
        return RESULT_SUCCEED;
    }
    PLEXUM_LOG(3, kSource, __LINE__) << "Start to set ip obtained method.";
    Reply reply;
    const int32_t opened = Exchange(kIpObtainMethodCommand, {static_cast<uint8_t>(method)}, reply, Effect::Change);
    if (!IsSuccess(opened)) return opened;
    // A refused method is only logged: the network goes on with the SMM's own.
    if (reply.completionCode != 0) {
        PLEXUM_LOG(1, kSource, __LINE__) << "Failed to set smm lan method";
    }
    PLEXUM_LOG(3, kSource, __LINE__) << "set ip obtained method succeed.";
    return RESULT_SUCCEED;
}

int32_t SmmLanManager::ReportResult(const ResultBlock& block, int32_t result, const std::function<void()>& succeeded) {
    ConsoleReport(3, kSource, __LINE__).Stream() << block.banner << '\n';
    if (!IsSuccess(result)) {
        ReportFailure(block.failedLine, result);
    } else {
        succeeded();
    }
    ConsoleReport(3, kSource, __LINE__).Stream() << '\n' << block.banner;
    PLEXUM_LOG(4, kSource, __LINE__) << "Exiting  " << block.operation;
    return result;
}

int32_t SmmLanManager::WaitForStatus(SmmLanStatus wanted, const WaitTexts& texts) {
    // Read on every wait so that a changed configuration applies to the next command.
    int32_t retryCount = kDefaultRetryCount;
    int32_t sleepSeconds = kDefaultSleepSeconds;
    ReadConfigInt(kRetryCountKey, retryCount);
    ReadConfigInt(kSleepTimeKey, sleepSeconds);

    for (int32_t attempt = 0; attempt < retryCount; ++attempt) {
        ConsoleReport(3, kSource, __LINE__).Stream() << texts.attemptPrefix << attempt << ")";
        SmmLanStatus status = SMM_LAN_STATUS_UNKNOWN;
        if (IsSuccess(GetLanStatus(status)) && status == wanted) {
            ConsoleReport(3, kSource, __LINE__).Stream() << texts.takenEffect;
            return RESULT_SUCCEED;
        }
        ConsoleReport(3, kSource, __LINE__).Stream() << "Status has been not take effected, wait for next check.";
        Sleep(CheckInterval(sleepSeconds));
    }
    ConsoleReport(1, kSource, __LINE__).Stream() << texts.timeout;
    return RESULT_GENERIC_FAILURE;
}

int32_t SmmLanManager::SetLanStatus(SmmLanStatus wanted) {
    if (wanted == SMM_LAN_STATUS_UNKNOWN) {
        PLEXUM_LOG(4, kSource, __LINE__) << "unkown status";
        return RESULT_GENERIC_FAILURE;
    }
    SmmLanStatus current = SMM_LAN_STATUS_UNKNOWN;
    if (IsSuccess(GetLanStatus(current)) && current == wanted) {
        PLEXUM_LOG(3, kSource, __LINE__) << "The status to set is same as current status";
        return RESULT_SUCCEED;
    }

    const bool enable = wanted == SMM_LAN_ENABLED;
    Reply reply;
    const int32_t opened =
        Exchange(kLanStatusCommand, {static_cast<uint8_t>(enable ? 0x01 : 0x02)}, reply, Effect::Change);
    if (!IsSuccess(opened)) return opened;
    if (reply.completionCode != 0) {
        PLEXUM_LOG(1, kSource, __LINE__) << "Execute ipmi command to set smm network status to "
                                         << static_cast<uint32_t>(wanted) << " failed";
        return RESULT_GENERIC_FAILURE;
    }
    const std::string action = enable ? "enable" : "disable";
    ConsoleReport(3, kSource, __LINE__).Stream() << "[INFO]: Send " << action
                                                 << " command succeeded, wait for status take effect.";
    return WaitForStatus(wanted, {"Check SMM network status attempt(", "The SMM network status take effected.",
                                  "Execute command to " + action + " smm network success but wait status change timeout"});
}

int32_t SmmLanManager::SetIpmiOverLanStatus(SmmLanStatus wanted) {
    if (wanted != SMM_LAN_AND_IPMI_ENABLED) {
        PLEXUM_LOG(4, kSource, __LINE__) << "unkown status";
        return RESULT_GENERIC_FAILURE;
    }
    SmmLanStatus current = SMM_LAN_STATUS_UNKNOWN;
    if (IsSuccess(GetLanStatus(current)) && current == wanted) {
        PLEXUM_LOG(3, kSource, __LINE__) << "The status to set is same as current status";
        return RESULT_SUCCEED;
    }

    Reply reply;
    const int32_t opened = Exchange(kLanStatusCommand, {static_cast<uint8_t>(SMM_LAN_AND_IPMI_ENABLED)}, reply,
                                    Effect::Change);
    if (!IsSuccess(opened)) return opened;
    if (reply.completionCode != 0) {
        PLEXUM_LOG(1, kSource, __LINE__) << "Execute ipmi command to set smm ipmi over lan status to " << 4
                                         << " failed";
        // Usually an SMM whose firmware lacks the service: say so instead of a generic failure.
        return RESULT_ENABLE_IPMI_FAILED;
    }
    ConsoleReport(3, kSource, __LINE__).Stream() << "[INFO]: Send enable command succeeded, wait for status take effect.";
    return WaitForStatus(wanted, {"Check SMM IPMI over LAN status attempt(", "The SMM IPMI over LAN status take effected.",
                                  "Execute command to enable SMM IPMI over LAN success but wait status change timeout"});
}

int32_t SmmLanManager::Enable(IpObtainMethod method) {
    PLEXUM_LOG(4, kSource, __LINE__) << "Entering  " << "SmmLanManager::Enable";
    if (!IsSuccess(SetIpObtainMethod(method))) {
        ConsoleReport(3, kSource, __LINE__).Stream()
            << "Failed to configure SMM IP address obtained method, continue to enable SMM network with default "
               "address obtained method";
    }
    const int32_t result = SetLanStatus(SMM_LAN_ENABLED);
    return ReportResult({kEnableBanner, "Enable SMM network failed.", "SmmLanManager::Enable"}, result, [this] {
        ConsoleReport(3, kSource, __LINE__).Stream() << "Enable SMM network succeeded";
        ConsoleReport(3, kSource, __LINE__).Stream() << "Sleep 10 seconds more to let SMM network up";
        Sleep(kSettleMilliseconds);
        const std::string address = GetSMMIp();
        if (!address.empty()) {
            ConsoleReport(3, kSource, __LINE__).Stream() << "SMM IP: " << address;
        } else {
            ConsoleReport(3, kSource, __LINE__).Stream()
                << "Get SMM IP failed, please check if your network cable is plugged in.\nIf so it is possible that "
                   "the network is starting, you can wait a few minutes then to use of the \"smmlan query\" command "
                   "to try again to obtain the IP.";
        }
    });
}

int32_t SmmLanManager::Disable() {
    PLEXUM_LOG(4, kSource, __LINE__) << "Entering  " << "SmmLanManager::Disable";
    const int32_t result = SetLanStatus(SMM_LAN_DISABLED);
    return ReportResult({"************Disable Result************", "Disable SMM network failed.", "SmmLanManager::Disable"},
                        result, [] { ConsoleReport(3, kSource, __LINE__).Stream() << "Disable SMM network succeeded"; });
}

int32_t SmmLanManager::Query() {
    PLEXUM_LOG(4, kSource, __LINE__) << "Entering  " << "SmmLanManager::Query";
    SmmLanStatus status = SMM_LAN_STATUS_UNKNOWN;
    const int32_t result = GetLanStatus(status);
    return ReportResult({"************Query Result************", "Query SMM network status failed.", "SmmLanManager::Query"},
                        result, [this, status] { ReportStatus(status); });
}

void SmmLanManager::ReportStatus(SmmLanStatus status) {
    std::string address;
    if (status == SMM_LAN_ENABLED || status == SMM_LAN_AND_IPMI_ENABLED) {
        address = GetSMMIp();
        if (address.empty()) ConsoleReport(3, kSource, __LINE__).Stream() << "Get SMM ip failed";
    }
    const char* statusText = "Unknow";
    if (status == SMM_LAN_ENABLED) {
        statusText = "Enabled";
    } else if (status == SMM_LAN_AND_IPMI_ENABLED) {
        statusText = "SMM network and IPMI over LAN enabled";
    } else if (status == SMM_LAN_DISABLED) {
        statusText = "Disabled";
    }
    ConsoleReport(3, kSource, __LINE__).Stream() << "Query SMM network status succeeded";
    ConsoleReport(3, kSource, __LINE__).Stream() << "    Status: " << statusText;
    // The raw code is for the log only; the console shows the text.
    PLEXUM_LOG(3, kSource, __LINE__) << "    Status code: " << static_cast<uint32_t>(status);
    if (!address.empty()) ConsoleReport(3, kSource, __LINE__).Stream() << "    SMM IP: " << address;
}

int32_t SmmLanManager::EnableIpmi() {
    PLEXUM_LOG(4, kSource, __LINE__) << "Entering  " << "SmmLanManager::EnableIpmi";
    const int32_t result = SetIpmiOverLanStatus(SMM_LAN_AND_IPMI_ENABLED);
    return ReportResult({kEnableBanner, "Enable SMM IPMI over LAN failed.", "SmmLanManager::EnableIpmi"}, result, [this] {
        ConsoleReport(3, kSource, __LINE__).Stream() << "Enable SMM IPMI over LAN succeeded";
        ConsoleReport(3, kSource, __LINE__).Stream() << "Sleep 10 seconds more to let SMM IPMI over LAN up";
        Sleep(kSettleMilliseconds);
    });
}
