// SPDX-License-Identifier: GPL-3.0-or-later
// Configuration parsing: GlobalConfig::LoadText on any text, then every key it
// holds read back and converted by GetGlobalConfigValue, both checked against
// a plain restatement of the KEY=VALUE and integer rules.
//
// Input: the configuration text.

#include <algorithm>
#include <climits>
#include <cstdint>
#include <map>
#include <sstream>
#include <string>

#include "FuzzSupport.h"
#include "host/GlobalConfig.h"

namespace {

const char* const kBlanks = " \t\r\n\f\v";

std::string Trim(const std::string& text) {
    const size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string::npos) return std::string();
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// False when some line is neither blank, a comment, nor KEY=VALUE.
bool Model(const std::string& text, std::map<std::string, std::string>& items) {
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        const std::string trimmed = Trim(line);
        if (trimmed.empty() || trimmed[0] == '#') continue;
        const size_t equals = line.find('=');
        if (equals == std::string::npos || Trim(line.substr(0, equals)).empty()) return false;
        items[Trim(line.substr(0, equals))] = line.substr(equals + 1);
    }
    return true;
}

// Optional blanks, an optional sign ('+' not followed by '-'), digits, blanks;
// the value must fit an int.
bool ModelInteger(const std::string& value, int& parsed) {
    std::string text = Trim(value);
    if (!text.empty() && text[0] == '+') {
        text.erase(0, 1);
        if (text.empty() || text[0] == '-') return false;
    }
    bool negative = false;
    if (!text.empty() && text[0] == '-') {
        negative = true;
        text.erase(0, 1);
    }
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return false;
    long long magnitude = 0;
    for (const char c : text) {
        magnitude = magnitude * 10 + (c - '0');
        if (magnitude > static_cast<long long>(INT_MAX) + 1) return false;
    }
    const long long signedValue = negative ? -magnitude : magnitude;
    if (signedValue < INT_MIN || signedValue > INT_MAX) return false;
    parsed = static_cast<int>(signedValue);
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);

    Plexum::GlobalConfig::Clear();
    Plexum::GlobalConfig::SetItem("MORVEL_FUZZ_BEFORE", "kept on failure");
    std::map<std::string, std::string> expected;
    const bool valid = Model(text, expected);
    std::string error;
    const bool loaded = Plexum::GlobalConfig::LoadText(text, "fuzz.conf", error);
    FUZZ_CHECK(loaded == valid);

    std::string value;
    if (!loaded) {
        // A refused text leaves the configuration as it was.
        FUZZ_CHECK(error.rfind("fuzz.conf:", 0) == 0 && error.find('\n') == std::string::npos);
        FUZZ_CHECK(Plexum::GlobalConfig::GetConfigItem("MORVEL_FUZZ_BEFORE", value) == 0 &&
                   value == "kept on failure");
        return 0;
    }
    if (expected.count("MORVEL_FUZZ_BEFORE") == 0) {
        FUZZ_CHECK(Plexum::GlobalConfig::GetConfigItem("MORVEL_FUZZ_BEFORE", value) == -1);
    }
    for (const auto& item : expected) {
        FUZZ_CHECK(Plexum::GlobalConfig::GetConfigItem(item.first, value) == 0 && value == item.second);
        int modelled = 0;
        const bool isInteger = ModelInteger(item.second, modelled);
        const int read = Plexum::GetGlobalConfigValue(item.first, -12345);
        FUZZ_CHECK(read == (isInteger ? modelled : -12345));
        if (isInteger) FUZZ_CHECK(Plexum::GetGlobalConfigValue(item.first, 777) == modelled);
    }
    // The parser alone (the search path's per-file step) agrees, and each key
    // names its file and a line that exists.
    Plexum::ConfigSettings settings;
    FUZZ_CHECK(Plexum::GlobalConfig::ParseText(text, "fuzz.conf", settings, error));
    FUZZ_CHECK(settings.size() == expected.size());
    const long lines = static_cast<long>(std::count(text.begin(), text.end(), '\n')) + 1;
    for (const auto& entry : settings) {
        const auto found = expected.find(entry.first);
        FUZZ_CHECK(found != expected.end() && found->second == entry.second.value);
        FUZZ_CHECK(entry.second.file == "fuzz.conf" && entry.second.line >= 1 && entry.second.line <= lines);
    }
    if (expected.count("MORVEL_FUZZ_NOT_SET") == 0) {
        FUZZ_CHECK(Plexum::GetGlobalConfigValue("MORVEL_FUZZ_NOT_SET", 41) == 41);
    }
    return 0;
}
