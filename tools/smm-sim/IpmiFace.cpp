// SPDX-License-Identifier: GPL-3.0-or-later
// The simulated SMM's IPMI face: an ipmi_sim plug-in that answers the SMM's
// OEM commands (network function 0x3A) from the shared state.

// The OpenIPMI simulator headers carry no C++ linkage markers of their own.
extern "C" {
#include <OpenIPMI/mcserv.h>
#include <OpenIPMI/serv.h>
}

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <map>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include "SmmSim.h"

namespace SmmSim {
namespace {

constexpr unsigned char kNetFnOem = 0x3A;
constexpr uint8_t kCmdLanStatus = 0xF1;
constexpr uint8_t kCmdIpMethod = 0xF3;
constexpr uint8_t kCmdProperty = 0xC4;
constexpr uint8_t kCcInvalidCommand = 0xC1;
constexpr uint8_t kCcLength = 0xC7;
constexpr uint8_t kCcInvalidData = 0xCC;
// ipmi_sim hands a handler a 36-byte reply buffer: the completion code and 35 bytes.
constexpr size_t kMaxReplyData = 35;
// Set in a message's oem_data to withhold its reply.
constexpr long kWithholdMarker = 0x534D4D44;

// The property read of the SMM's address: these 4 bytes, then the path without a terminating zero.
const uint8_t kPropertyHeader[] = {0x00, 0x00, 0x14, 0x93};
const char kPropertyPath[] = "/v2/vorn/smm/smm_ip";

using RspHook = int (*)(channel_t*, msg_t*, rsp_msg_t*);
// Only ipmi_sim's main thread touches these.
std::map<channel_t*, RspHook> g_previousHooks;
std::map<std::pair<int, int>, unsigned> g_counts;

int WithholdReply(channel_t* chan, msg_t* msg, rsp_msg_t* rsp) {
    if (msg->oem_data == kWithholdMarker) return 1;
    const auto previous = g_previousHooks.find(chan);
    if (previous != g_previousHooks.end() && previous->second != nullptr) return previous->second(chan, msg, rsp);
    return 0;
}

void InstallHook(channel_t* chan) {
    if (chan == nullptr || chan->oem.oem_handle_rsp == WithholdReply) return;
    g_previousHooks[chan] = chan->oem.oem_handle_rsp;
    chan->oem.oem_handle_rsp = WithholdReply;
}

const Rule* FirstMatch(const std::vector<Rule>& rules, int command, int data0, unsigned countCommand,
                       unsigned countData0) {
    for (const Rule& rule : rules) {
        if (rule.command != command) continue;
        unsigned count = countCommand;
        if (rule.data0 >= 0) {
            if (rule.data0 != data0) continue;
            count = countData0;
        }
        if (rule.nth != 0 && rule.nth != count) continue;
        return &rule;
    }
    return nullptr;
}

std::vector<uint8_t> ExpectedPropertyRequest() {
    const std::string path(kPropertyPath);
    std::vector<uint8_t> expected(sizeof(kPropertyHeader) + path.size());
    const auto pathStart = std::copy(std::begin(kPropertyHeader), std::end(kPropertyHeader), expected.begin());
    std::copy(path.begin(), path.end(), pathStart);
    return expected;
}

void Execute(uint8_t command, const std::vector<uint8_t>& data, uint8_t& cc, std::vector<uint8_t>& out) {
    Sim& sim = Sim::Instance();
    const Knobs& k = sim.knobs();
    switch (command) {
        case kCmdLanStatus:
            if (data.size() != 1) {
                cc = kCcLength;
            } else if (data[0] == 0x00) {
                out.push_back(sim.ReadStatus());
            } else if (data[0] == 0x01 || data[0] == 0x02 || data[0] == 0x04) {
                sim.RequestStatus(data[0]);
            } else {
                cc = kCcInvalidData;
            }
            break;
        case kCmdIpMethod:
            if (data.size() != 1) {
                cc = kCcLength;
            } else if (data[0] == 1 || data[0] == 2 || data[0] == 4) {
                sim.SetMethod(data[0]);
            } else {
                cc = kCcInvalidData;
            }
            break;
        case kCmdProperty: {
            static const std::vector<uint8_t> expected = ExpectedPropertyRequest();
            if (k.c4Strict && data.size() != expected.size()) {
                cc = kCcLength;
                break;
            }
            if (k.c4Strict && data != expected) {
                cc = kCcInvalidData;
                break;
            }
            // Property status, three bytes the client skips, the address last octet first.
            out = {k.c4Status, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
            if (k.c4Status == 0) {
                out[4] = k.smmIp[3];
                out[5] = k.smmIp[2];
                out[6] = k.smmIp[1];
                out[7] = k.smmIp[0];
            }
            break;
        }
        default:
            cc = kCcInvalidCommand;
            break;
    }
}

void HandleOem(lmc_data_t*, msg_t* msg, unsigned char* rdata, unsigned int* rdataLen, void*) {
    Sim& sim = Sim::Instance();
    const Knobs& k = sim.knobs();
    const uint8_t command = msg->cmd;
    const std::vector<uint8_t> data(msg->data, msg->data + msg->len);
    const int data0 = data.empty() ? -2 : data[0];
    const unsigned countCommand = ++g_counts[{command, -1}];
    const unsigned countData0 = data.empty() ? 0 : ++g_counts[{command, data0}];

    bool withheld = false;
    uint8_t cc = 0;
    std::vector<uint8_t> out;
    if (FirstMatch(k.drop, command, data0, countCommand, countData0) != nullptr) {
        // Nothing is carried out and nothing is answered: as if the request was lost.
        withheld = true;
        InstallHook(msg->orig_channel);
        msg->oem_data = kWithholdMarker;
    } else if (const Rule* rule = FirstMatch(k.cc, command, data0, countCommand, countData0)) {
        cc = rule->bytes.empty() ? 0xFF : rule->bytes[0];
    } else {
        Execute(command, data, cc, out);
        if (const Rule* replace = FirstMatch(k.response, command, data0, countCommand, countData0)) {
            cc = 0;
            out = replace->bytes;
        }
    }
    if (out.size() > kMaxReplyData) out.resize(kMaxReplyData);
    rdata[0] = cc;
    if (!out.empty()) std::memcpy(rdata + 1, out.data(), out.size());
    *rdataLen = static_cast<unsigned>(1 + out.size());

    sim.Record([&](JsonWriter& w) {
        w.Key("face");
        w.String("ipmi");
        w.Key("netfn");
        w.String(Hex(&kNetFnOem, 1).c_str());
        w.Key("cmd");
        w.String(Hex(&command, 1).c_str());
        w.Key("data");
        w.String(Hex(data.data(), data.size()).c_str());
        w.Key("dropped");
        w.Bool(withheld);
        w.Key("session");
        w.Uint(msg->sid);
        w.Key("rq_seq");
        w.Uint(msg->rq_seq);
        if (!withheld) {
            w.Key("cc");
            w.String(Hex(&cc, 1).c_str());
            w.Key("response");
            w.String(Hex(out.data(), out.size()).c_str());
        }
        w.Key("sim_status");
        w.Uint(sim.PeekStatus());
    });
}

}  // namespace
}  // namespace SmmSim

extern "C" {

__attribute__((visibility("default"))) int ipmi_sim_module_print_version(sys_data_t*, char*) {
    std::printf("smm-sim SMM plug-in 1.0\n");
    return 0;
}

// Start-up failures are told on stderr for whoever launched ipmi_sim; the
// return code refuses the start either way, so a failed write there is ignored.
__attribute__((visibility("default"))) int ipmi_sim_module_init(sys_data_t*, const char* options) {
    using namespace SmmSim;
    std::string error;
    Sim& sim = Sim::Instance();
    if (!sim.Init(options != nullptr ? options : "", error)) {
        (void)std::fprintf(stderr, "smm-sim: %s\n", error.c_str());
        return EINVAL;
    }
    for (unsigned command = 0; command < 256; ++command) {
        const int rv = ipmi_emu_register_cmd_handler(kNetFnOem, static_cast<unsigned char>(command), HandleOem, nullptr);
        if (rv != 0) {
            (void)std::fprintf(stderr, "smm-sim: cannot register netfn 0x3a command %u: %s\n", command, std::strerror(rv));
            return rv;
        }
    }
    if (!StartRedfish(error)) {
        (void)std::fprintf(stderr, "smm-sim: %s\n", error.c_str());
        return EADDRINUSE;
    }
    StartWatchdog();
    sim.Record([](JsonWriter& w) {
        w.Key("face");
        w.String("sim");
        w.Key("event");
        w.String("start");
        w.Key("pid");
        w.Int(static_cast<int>(getpid()));
        w.Key("sim_status");
        w.Uint(Sim::Instance().PeekStatus());
    });
    return 0;
}

}  // extern "C"
