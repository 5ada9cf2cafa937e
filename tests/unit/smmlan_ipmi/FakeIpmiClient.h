// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <deque>
#include <ostream>
#include <string>
#include <vector>

#include "host/IpmiClient.h"

namespace smmlan_test {

// One call the manager made on the client, in the order it made them.
struct IpmiEvent {
    enum Kind { kOpen, kClose, kSend };
    Kind kind = kOpen;
    uint8_t netFn = 0;
    uint8_t command = 0;
    std::vector<uint8_t> data;
};

bool operator==(const IpmiEvent& left, const IpmiEvent& right);
std::ostream& operator<<(std::ostream& out, const IpmiEvent& event);

IpmiEvent OpenEvent();
IpmiEvent CloseEvent();
IpmiEvent SendEvent(uint8_t netFn, uint8_t command, std::vector<uint8_t> data);

// The three calls of one successful exchange.
std::vector<IpmiEvent> Exchange(uint8_t command, std::vector<uint8_t> data);
// The exchange of one LAN status read (0x3A/0xF1 0x00).
std::vector<IpmiEvent> StatusRead();
// Appends `more` to `events`; lets expected sequences be written in order.
void Append(std::vector<IpmiEvent>& events, const std::vector<IpmiEvent>& more);

// The 23 request bytes of the SMM address read, spelled out.
std::vector<uint8_t> SmmIpRequestData();

struct ScriptedReply {
    uint8_t completionCode = 0;
    std::vector<uint8_t> data;
};

// A client that answers from a script and records what it was asked.
// Open answers from `openResults` (0 once the list is used up); every
// SendRequest takes the next scripted reply and fails the test when none is left.
class FakeIpmiClient : public Plexum::IpmiClient {
public:
    static const char* const kPassword;

    FakeIpmiClient();

    int32_t Open() override;
    void Close() override;
    int32_t SendRequest(const Plexum::IpmiRequest& request, std::vector<uint8_t>& response,
                        uint8_t& completionCode) override;

    void QueueOpen(int32_t result) { openResults.push_back(result); }
    void QueueReply(uint8_t completionCode, std::vector<uint8_t> data) {
        replies.push_back(ScriptedReply{completionCode, std::move(data)});
    }
    // A completion code of 0 with the one status byte.
    void QueueStatus(uint8_t status) { QueueReply(0, {status}); }

    std::deque<int32_t> openResults;
    std::deque<ScriptedReply> replies;
    std::vector<IpmiEvent> events;
    // For each SendRequest: whether the run had noted a change sent by then.
    std::vector<bool> changeSentAtSend;
};

}  // namespace smmlan_test
