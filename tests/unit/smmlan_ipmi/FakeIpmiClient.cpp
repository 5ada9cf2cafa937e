// SPDX-License-Identifier: GPL-3.0-or-later
#include "FakeIpmiClient.h"

#include <gtest/gtest.h>

#include <iomanip>

#include "host/RunContext.h"

namespace smmlan_test {

bool operator==(const IpmiEvent& left, const IpmiEvent& right) {
    return left.kind == right.kind && left.netFn == right.netFn && left.command == right.command &&
           left.data == right.data;
}

std::ostream& operator<<(std::ostream& out, const IpmiEvent& event) {
    switch (event.kind) {
        case IpmiEvent::kOpen: return out << "Open";
        case IpmiEvent::kClose: return out << "Close";
        case IpmiEvent::kSend: break;
    }
    const auto flags = out.flags();
    out << "Send(netFn 0x" << std::hex << std::setfill('0') << std::setw(2) << unsigned(event.netFn) << " cmd 0x"
        << std::setw(2) << unsigned(event.command) << " data";
    for (uint8_t byte : event.data) out << ' ' << std::setw(2) << unsigned(byte);
    out.flags(flags);
    return out << ')';
}

IpmiEvent OpenEvent() { return IpmiEvent{IpmiEvent::kOpen, 0, 0, {}}; }
IpmiEvent CloseEvent() { return IpmiEvent{IpmiEvent::kClose, 0, 0, {}}; }
IpmiEvent SendEvent(uint8_t netFn, uint8_t command, std::vector<uint8_t> data) {
    return IpmiEvent{IpmiEvent::kSend, netFn, command, std::move(data)};
}

std::vector<IpmiEvent> Exchange(uint8_t command, std::vector<uint8_t> data) {
    return {OpenEvent(), SendEvent(0x3A, command, std::move(data)), CloseEvent()};
}

std::vector<IpmiEvent> StatusRead() { return Exchange(0xF1, {0x00}); }

void Append(std::vector<IpmiEvent>& events, const std::vector<IpmiEvent>& more) {
    events.insert(events.end(), more.begin(), more.end());
}

std::vector<uint8_t> SmmIpRequestData() {
    return {0x00, 0x00, 0x14, 0x93,
            // "/v2/vorn/smm/smm_ip"
            0x2F, 0x76, 0x32, 0x2F, 0x76, 0x6F, 0x72, 0x6E, 0x2F, 0x73, 0x6D, 0x6D, 0x2F, 0x73, 0x6D, 0x6D, 0x5F,
            0x69, 0x70};
}

const char* const FakeIpmiClient::kPassword = "Fake-Pa55word!";

FakeIpmiClient::FakeIpmiClient() : Plexum::IpmiClient("127.0.0.1", "fakeadmin", kPassword, "623", 1) {}

int32_t FakeIpmiClient::Open() {
    events.push_back(OpenEvent());
    if (openResults.empty()) return 0;
    const int32_t result = openResults.front();
    openResults.pop_front();
    return result;
}

void FakeIpmiClient::Close() { events.push_back(CloseEvent()); }

int32_t FakeIpmiClient::SendRequest(const Plexum::IpmiRequest& request, std::vector<uint8_t>& response,
                                    uint8_t& completionCode) {
    events.push_back(SendEvent(request.netFn, request.command, request.data));
    changeSentAtSend.push_back(Plexum::RunContext::Current().ChangeSent());
    EXPECT_TRUE(response.empty()) << "the response must be handed in empty";
    if (replies.empty()) {
        ADD_FAILURE() << "unscripted request " << events.back();
        completionCode = kNoReply;
        return -1;
    }
    response = replies.front().data;
    completionCode = replies.front().completionCode;
    replies.pop_front();
    return 0;
}

}  // namespace smmlan_test
