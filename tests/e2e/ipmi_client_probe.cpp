// SPDX-License-Identifier: GPL-3.0-or-later
// Drives Plexum::IpmiClient from the command line so end-to-end tests can run
// it against a simulated SMM and assert on exact results.
//
//   ipmi_client_probe --address A --user U --port P [--count N] [--set KEY=VALUE]... OP...
//   OP: open | close | send NETFN CMD [HEXDATA] | sleep MS
//
// The password comes from $IPMI_PROBE_PASSWORD (kept off the command line).
// One line per operation on standard output:
//   open rc=0 ms=3
//   send 3a f1 00 rc=0 cc=00 data=01 ms=2
//   close ms=0
// Log records go to standard error as "LOG<level> <text>".

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "host/GlobalConfig.h"
#include "host/IpmiClient.h"
#include "host/Log.h"

namespace {

class StderrSink : public Plexum::LogSink {
public:
    void Write(const Plexum::LogRecord& record) override {
        // A log line that cannot be written has nowhere else to go.
        static_cast<void>(std::fprintf(stderr, "LOG%u %s\n", record.level, record.text.c_str()));
        static_cast<void>(std::fflush(stderr));
    }
};

bool ParseHex(const std::string& text, std::vector<uint8_t>& bytes) {
    if (text.size() % 2 != 0) return false;
    bytes.clear();
    for (size_t i = 0; i < text.size(); i += 2) {
        char* end = nullptr;
        const std::string pair = text.substr(i, 2);
        const unsigned long value = std::strtoul(pair.c_str(), &end, 16);
        if (*end != '\0') return false;
        bytes.push_back(static_cast<uint8_t>(value));
    }
    return true;
}

std::string Hex(const std::vector<uint8_t>& bytes) {
    std::string out;
    char buffer[3];
    for (uint8_t b : bytes) {
        static_cast<void>(std::snprintf(buffer, sizeof(buffer), "%02x", b));
        out += buffer;
    }
    return out;
}

long long MillisecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
}

int Usage() {
    static_cast<void>(std::fprintf(stderr,
                                   "usage: ipmi_client_probe --address A --user U --port P [--count N] "
                                   "[--set KEY=VALUE]... open|close|send NETFN CMD [HEX]|sleep MS ...\n"));
    return 64;
}

}  // namespace

int main(int argc, char** argv) {
    std::string address;
    std::string user;
    std::string port = "623";
    uint64_t count = 1;
    std::vector<std::string> ops;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--address" && hasValue) address = argv[++i];
        else if (arg == "--user" && hasValue) user = argv[++i];
        else if (arg == "--port" && hasValue) port = argv[++i];
        else if (arg == "--count" && hasValue) count = std::strtoull(argv[++i], nullptr, 10);
        else if (arg == "--set" && hasValue) {
            const std::string item = argv[++i];
            const size_t equals = item.find('=');
            if (equals == std::string::npos) return Usage();
            Plexum::GlobalConfig::SetItem(item.substr(0, equals), item.substr(equals + 1));
        } else if (arg.compare(0, 2, "--") == 0) {
            return Usage();
        } else {
            ops.push_back(arg);
        }
    }
    const char* password = std::getenv("IPMI_PROBE_PASSWORD");
    Plexum::Log::SetSink(std::make_shared<StderrSink>());
    Plexum::Log::SetMinLogLevel(4);

    Plexum::IpmiClient client(address, user, password != nullptr ? password : "", port, count);
    for (size_t i = 0; i < ops.size(); ++i) {
        const auto start = std::chrono::steady_clock::now();
        if (ops[i] == "open") {
            const int32_t rc = client.Open();
            std::printf("open rc=%d ms=%lld\n", rc, MillisecondsSince(start));
        } else if (ops[i] == "close") {
            client.Close();
            std::printf("close ms=%lld\n", MillisecondsSince(start));
        } else if (ops[i] == "sleep" && i + 1 < ops.size()) {
            char* end = nullptr;
            const long milliseconds = std::strtol(ops[++i].c_str(), &end, 10);
            if (*end != '\0' || milliseconds < 0) return Usage();
            std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
        } else if (ops[i] == "send" && i + 2 < ops.size()) {
            std::vector<uint8_t> head;
            std::vector<uint8_t> data;
            if (!ParseHex(ops[i + 1] + ops[i + 2], head) || head.size() != 2) return Usage();
            i += 2;
            if (i + 1 < ops.size() && ParseHex(ops[i + 1], data) && ops[i + 1] != "open" && ops[i + 1] != "close" &&
                ops[i + 1] != "send" && ops[i + 1] != "sleep") {
                ++i;
            } else {
                data.clear();
            }
            Plexum::IpmiRequest request;
            request.netFn = head[0];
            request.command = head[1];
            request.data = data;
            std::vector<uint8_t> response{0xEE};  // must be replaced, never appended to
            uint8_t cc = 0xEE;
            const int32_t rc = client.SendRequest(request, response, cc);
            std::printf("send %02x %02x %s rc=%d cc=%02x data=%s ms=%lld\n", request.netFn, request.command,
                        Hex(data).c_str(), rc, cc, Hex(response).c_str(), MillisecondsSince(start));
        } else {
            return Usage();
        }
        if (std::fflush(stdout) != 0) return 1;
    }
    return 0;
}
