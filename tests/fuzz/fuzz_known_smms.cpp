// SPDX-License-Identifier: GPL-3.0-or-later
// The known-SMMs file's parser: any text. Every entry it keeps has a key
// without blanks, in lower case, a well-formed pin and a first-seen word;
// the entries written back as lines parse to the same entries; and they are
// the entries that lines split by std::getline and words read by a stream's
// >> give, the plain reading of the format the fast parser must agree with.
//
// Input: the file's text.

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "host/Text.h"
#include "trust/KnownSmms.h"

namespace {

// The entries by lines and stream words: exactly three words, the first no
// comment, the second a pin; the key as KnownSmms::Key leaves it.
std::vector<Trust::KnownSmms::Entry> PlainReading(const std::string& text) {
    std::vector<Trust::KnownSmms::Entry> entries;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        Trust::KnownSmms::Entry entry;
        std::string extra;
        if (!(words >> entry.key) || entry.key[0] == '#') continue;
        if (!(words >> entry.pin >> entry.firstSeen) || (words >> extra) || !Trust::KnownSmms::IsPin(entry.pin)) continue;
        entries.push_back(std::move(entry));
    }
    return entries;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const auto entries = Trust::KnownSmms::Parse(text);
    const auto plain = PlainReading(text);
    FUZZ_CHECK(plain.size() == entries.size());
    for (size_t i = 0; i < plain.size() && i < entries.size(); ++i) {
        FUZZ_CHECK(entries[i].pin == plain[i].pin && entries[i].firstSeen == plain[i].firstSeen);
        // The key in lower case, with at most a ":443" port word dropped.
        const std::string lowered = Plexum::Lower(plain[i].key);
        const std::string port = ":443";
        const bool portDropped = lowered.size() > port.size() &&
                                 lowered.compare(lowered.size() - port.size(), port.size(), port) == 0 &&
                                 entries[i].key == lowered.substr(0, lowered.size() - port.size());
        FUZZ_CHECK(entries[i].key == lowered || portDropped);
    }
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
