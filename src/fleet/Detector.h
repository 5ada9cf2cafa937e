// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "fleet/TargetList.h"
#include "host/Files.h"

namespace Fleet {

// Which answers count, and how long one is waited for.
struct DetectOptions {
    bool redfish = true;  // a TCP connection accepted on the target's Redfish port
    bool ipmi = true;     // an RMCP presence pong from its UDP port 623
    std::chrono::milliseconds bound{5000};
    // Targets probed at once; each holds a socket while it is probed.
    size_t maxProbes = 1024;
};

// The console line of a target that answered neither within the bound, e.g.
// "no answer on TCP port 443 (Redfish) or UDP port 623 (IPMI) within 5 s".
std::string UnreachableText(const DetectOptions& options, int redfishPort);

// Whether one target answers within the bound, asked as the detector asks every target.
bool Detect(const Target& target, const DetectOptions& options);

// Finds the targets that answer at all before any of them runs the whole
// behaviour: one thread, one loop over non-blocking sockets, every probe under
// way at once (up to maxProbes), so that dead targets cost about one bound in
// all. A probe sends nothing the SMM has to authenticate: a TCP handshake reset
// before its last ACK (the service never accepts it), an RMCP presence ping
// (resent every second). The verdict of each target comes as soon as it is
// known, from the detector's thread: answered as soon as either counted port
// answers, unreachable once the bound has passed. A host name that cannot be
// resolved gets "answered": the whole behaviour then says what is wrong with
// it, as it always did.
class Detector {
public:
    using Verdict = std::function<void(size_t index, bool answered)>;

    Detector(const std::vector<Target>& targets, DetectOptions options, Verdict verdict);
    ~Detector();
    Detector(const Detector&) = delete;
    Detector& operator=(const Detector&) = delete;

    void Start();
    // Ends the detection early: targets without a verdict get none. Any thread.
    void Stop();
    // Waits for the detector's thread: every target had its verdict, or it was stopped.
    void Join();

private:
    void Run();

    const std::vector<Target>& m_targets;
    DetectOptions m_options;
    Verdict m_verdict;
    Plexum::UniqueFd m_wake;  // written by Stop
    std::thread m_thread;
};

}  // namespace Fleet
