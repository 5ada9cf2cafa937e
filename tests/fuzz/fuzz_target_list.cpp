// SPDX-License-Identifier: GPL-3.0-or-later
// The target grammar of a run over many SMMs: a --bmc value with host items
// and ranges, and a target file. Whatever the text, either every target
// parses back from the text the module would get for it, or the list is left
// as it was with a one-line reason that holds no control byte; never more than
// 100000 targets, and after repeats are removed every host and port is there once.
//
// Input: the --bmc value, a NUL byte, then the text of a target file.

#include <cstdint>
#include <set>
#include <sstream>
#include <string>

#include "FuzzSupport.h"
#include "fleet/TargetList.h"

namespace {

bool HasControl(const std::string& text) {
    for (const char c : text) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (u < 0x20 || u == 0x7f) return true;
    }
    return false;
}

void CheckTargets(const Fleet::TargetList& list) {
    FUZZ_CHECK(list.Targets().size() <= Fleet::TargetList::kMaxTargets);
    for (const Fleet::Target& target : list.Targets()) {
        Plexum::BmcTarget again;
        std::string error;
        FUZZ_CHECK(Plexum::ParseBmcTarget(target.BmcText(), again, error));
        FUZZ_CHECK(again.host == target.bmc.host && again.port == target.bmc.port && again.user == target.bmc.user &&
                   again.password == target.bmc.password && again.hasPassword == target.bmc.hasPassword);
        FUZZ_CHECK(target.label.find_first_of(",@") == std::string::npos);
    }
}

// Adds and checks: a refused text leaves the list as it was.
void Add(Fleet::TargetList& list, bool file, const std::string& text) {
    const size_t before = list.Targets().size();
    std::istringstream stream(text);
    const auto error = file ? list.AddText(stream, "fuzz.txt", true) : list.AddValue(text, "--bmc");
    if (error) {
        FUZZ_CHECK(!error->message.empty() && !HasControl(error->message));
        if (!file) FUZZ_CHECK(list.Targets().size() == before);
    }
    CheckTargets(list);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Big ranges are the grammar's business, not the fuzzer's time: keep inputs short.
    if (size > 4096) return 0;
    const std::string input(reinterpret_cast<const char*>(data), size);
    const size_t nul = input.find('\0');
    Fleet::TargetList list;
    Add(list, false, input.substr(0, nul));
    if (nul != std::string::npos) Add(list, true, input.substr(nul + 1));

    const size_t before = list.Targets().size();
    list.RemoveRepeats();
    FUZZ_CHECK(list.Targets().size() <= before);
    std::set<std::string> seen;
    for (const Fleet::Target& target : list.Targets()) {
        std::string host = target.bmc.host;
        for (char& c : host) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        if (!target.bmc.ipv6) FUZZ_CHECK(seen.insert(host + " " + std::to_string(target.bmc.port)).second);
    }
    for (const std::string& warning : list.Warnings()) FUZZ_CHECK(!HasControl(warning));
    return 0;
}
