// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "host/IpmiClient.h"

// Status byte of the SMM's LAN status command (0x3A/0xF1).
enum SmmLanStatus : uint32_t {
    SMM_LAN_STATUS_UNKNOWN = 0,
    SMM_LAN_ENABLED = 1,
    SMM_LAN_DISABLED = 2,
    SMM_LAN_AND_IPMI_ENABLED = 4
};

// How the SMM obtains its address (0x3A/0xF3); 0 leaves it as it is.
enum IpObtainMethod : int32_t {
    IP_OBTAIN_UNCHANGED = 0,
    IP_OBTAIN_STATIC = 1,
    IP_OBTAIN_DHCP = 2,
    IP_OBTAIN_DHCP_FAILOVER = 4
};

// Drives the SMM's network over its OEM raw IPMI commands. Every exchange is
// its own Open, SendRequest, Close on a client that the caller owns.
class SmmLanManager {
public:
    using SleepFunction = std::function<void(uint64_t milliseconds)>;

    // Empty sleep = the run's own sleep (Plexum::RunContext), which a stopped run ends early.
    explicit SmmLanManager(Plexum::IpmiClient* client, SleepFunction sleep = SleepFunction());

    static IpObtainMethod ParseIpObtainMethod(std::string text);

    int32_t Enable(IpObtainMethod method);
    int32_t Disable();
    int32_t Query();
    int32_t EnableIpmi();

    int32_t GetLanStatus(SmmLanStatus& status);
    std::string GetSMMIp();
    int32_t SetIpObtainMethod(IpObtainMethod method);
    int32_t SetLanStatus(SmmLanStatus wanted);
    int32_t SetIpmiOverLanStatus(SmmLanStatus wanted);

private:
    struct Reply {
        std::vector<uint8_t> data;
        uint8_t completionCode = Plexum::IpmiClient::kNoReply;
    };

    // Texts of one settle wait; the wait itself is the same for every status.
    struct WaitTexts {
        const char* attemptPrefix;
        const char* takenEffect;
        std::string timeout;
    };

    // What a request does to the SMM: a change is noted in the run as it goes
    // out, before its answer (or none) is known.
    enum class Effect { Read, Change };
    // Open, send, close. Nothing is sent when Open fails; its result code is returned.
    int32_t Exchange(uint8_t command, std::vector<uint8_t> data, Reply& reply, Effect effect = Effect::Read);
    void SendAndClose(uint8_t command, std::vector<uint8_t> data, Reply& reply);
    int32_t WaitForStatus(SmmLanStatus wanted, const WaitTexts& texts);

    // The framed block each subcommand ends with: the banner, the failure
    // lines or what `succeeded` prints, the banner again, then the exit trace.
    struct ResultBlock {
        const char* banner;
        const char* failedLine;
        const char* operation;  // the qualified name of the exit trace
    };
    int32_t ReportResult(const ResultBlock& block, int32_t result, const std::function<void()>& succeeded);
    // Query's lines after a successful status read.
    void ReportStatus(SmmLanStatus status);
    void Sleep(uint64_t milliseconds);

    Plexum::IpmiClient* m_client;
    SleepFunction m_sleep;
};
