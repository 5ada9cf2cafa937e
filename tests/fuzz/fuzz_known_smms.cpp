// SPDX-License-Identifier: GPL-3.0-or-later
// The known-SMMs file's parser: any text. Every entry it keeps has a key
// without blanks, in lower case, a well-formed pin and a first-seen word;
// the entries written back as lines parse to the same entries.
//
// Input: the file's text.

#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "trust/KnownSmms.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const auto entries = Trust::KnownSmms::Parse(text);
    std::string written;
    for (const auto& entry : entries) {
        FUZZ_CHECK(!entry.key.empty() && entry.key.find_first_of(" \t\r\n") == std::string::npos);
        FUZZ_CHECK(entry.key[0] != '#');
        for (const char c : entry.key) FUZZ_CHECK(!(c >= 'A' && c <= 'Z'));
        FUZZ_CHECK(Trust::KnownSmms::IsPin(entry.pin));
        FUZZ_CHECK(!entry.firstSeen.empty() && entry.firstSeen.find_first_of(" \t\r\n") == std::string::npos);
        written += entry.key + " " + entry.pin + " " + entry.firstSeen + "\n";
    }
    const auto again = Trust::KnownSmms::Parse(written);
    FUZZ_CHECK(again.size() == entries.size());
    for (size_t i = 0; i < again.size(); ++i) {
        FUZZ_CHECK(again[i].key == entries[i].key && again[i].pin == entries[i].pin &&
                   again[i].firstSeen == entries[i].firstSeen);
    }
    return 0;
}
