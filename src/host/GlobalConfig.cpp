#include "host/GlobalConfig.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>

namespace Plexum {
namespace {

std::mutex& ConfigMutex() {
    static std::mutex mutex;
    return mutex;
}
std::map<std::string, std::string>& Items() {
    static std::map<std::string, std::string> items;
    return items;
}

const char* const kBlanks = " \t\r\n\f\v";

std::string Trim(const std::string& text) {
    const size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string::npos) return std::string();
    const size_t last = text.find_last_not_of(kBlanks);
    return text.substr(first, last - first + 1);
}

}  // namespace

int GlobalConfig::GetConfigItem(const std::string& key, std::string& value) {
    std::lock_guard<std::mutex> lock(ConfigMutex());
    const auto found = Items().find(key);
    if (found == Items().end()) return -1;
    value = found->second;
    return 0;
}

bool GlobalConfig::LoadText(const std::string& text, const std::string& origin, std::string& error) {
    std::map<std::string, std::string> parsed;
    std::istringstream lines(text);
    std::string line;
    for (int number = 1; std::getline(lines, line); ++number) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        const std::string trimmed = Trim(line);
        if (trimmed.empty() || trimmed[0] == '#') continue;
        const size_t equals = line.find('=');
        const std::string key = equals == std::string::npos ? std::string() : Trim(line.substr(0, equals));
        if (key.empty()) {
            error = origin + ":" + std::to_string(number) + ": expected KEY=VALUE";
            return false;
        }
        parsed[key] = line.substr(equals + 1);
    }
    std::lock_guard<std::mutex> lock(ConfigMutex());
    Items() = std::move(parsed);
    return true;
}

bool GlobalConfig::LoadFile(const std::string& path, std::string& error) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        error = "cannot read configuration file " + path + ": " + std::strerror(errno);
        return false;
    }
    // A configuration file is a handful of lines; anything far larger is a mistake.
    constexpr std::streamsize kMaxBytes = 1 << 20;
    std::string text(static_cast<size_t>(kMaxBytes) + 1, '\0');
    errno = 0;
    file.read(&text[0], kMaxBytes + 1);
    if (file.bad()) {
        // Opening a directory succeeds; only the read tells why it is no file.
        const int failure = errno;
        error = "cannot read configuration file " + path;
        if (failure != 0) error += std::string(": ") + std::strerror(failure);
        return false;
    }
    text.resize(static_cast<size_t>(file.gcount()));
    if (static_cast<std::streamsize>(text.size()) > kMaxBytes) {
        error = "configuration file " + path + " is larger than 1 MiB";
        return false;
    }
    return LoadText(text, path, error);
}

void GlobalConfig::SetItem(const std::string& key, const std::string& value) {
    std::lock_guard<std::mutex> lock(ConfigMutex());
    Items()[key] = value;
}

void GlobalConfig::Clear() {
    std::lock_guard<std::mutex> lock(ConfigMutex());
    Items().clear();
}

int GetGlobalConfigValue(const std::string& key, int defaultValue) {
    std::string value;
    if (GlobalConfig::GetConfigItem(key, value) != 0) return defaultValue;
    const std::string number = Trim(value);
    int parsed = 0;
    const char* begin = number.data();
    const char* end = begin + number.size();
    if (!number.empty() && *begin == '+') {
        ++begin;
        // from_chars takes its own '-', so "+-5" would otherwise pass as -5.
        if (begin == end || *begin == '-') return defaultValue;
    }
    const auto [stop, status] = std::from_chars(begin, end, parsed);
    if (number.empty() || status != std::errc() || stop != end) return defaultValue;
    return parsed;
}

}  // namespace Plexum
