// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Plexum {

struct IpmiRequest {
    uint8_t command = 0;
    std::vector<uint8_t> data;
    uint8_t netFn = 0;
};

// An IPMI v2.0 (RMCP+) client for one controller. Every exchange is
// Open, SendRequest, Close; a session never outlives its Close.
class IpmiClient {
public:
    // `port` is the UDP port as text; `count` bounds how many times a session
    // start is tried before Open gives up.
    IpmiClient(const std::string& address, const std::string& user, const std::string& password,
               const std::string& port, uint64_t count);
    IpmiClient(const IpmiClient&) = delete;
    IpmiClient& operator=(const IpmiClient&) = delete;

    // Virtual slots in this order: Open, Close, SendRequest, then the destructor.
    // 0 success; kOpenRefused when the controller refuses the credentials;
    // another nonzero value for everything else (timeouts, unreachable).
    virtual int32_t Open();
    virtual void Close();
    // Always writes a completion code: 0xFF when no reply came.
    virtual int32_t SendRequest(const IpmiRequest& request, std::vector<uint8_t>& response,
                                uint8_t& completionCode);
    virtual ~IpmiClient();

    static constexpr int32_t kOpenRefused = 2;
    static constexpr int32_t kOpenFailed = 1;
    static constexpr uint8_t kNoReply = 0xFF;

protected:
    // Open's work: FreeIPMI's session start, tried up to count times.
    int32_t OpenSession();

    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace Plexum
