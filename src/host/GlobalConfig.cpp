// SPDX-License-Identifier: GPL-3.0-or-later
#include "host/GlobalConfig.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <map>
#include <mutex>
#include <sstream>

#include "host/Files.h"
#include "host/Text.h"

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

}  // namespace

int GlobalConfig::GetConfigItem(const std::string& key, std::string& value) {
    std::lock_guard<std::mutex> lock(ConfigMutex());
    const auto found = Items().find(key);
    if (found == Items().end()) return -1;
    value = found->second;
    return 0;
}

bool GlobalConfig::ParseText(const std::string& text, const std::string& origin, ConfigSettings& settings,
                             std::string& error) {
    ConfigSettings parsed;
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
        parsed[key] = ConfigSetting{line.substr(equals + 1), origin, number};
    }
    settings = std::move(parsed);
    return true;
}

bool GlobalConfig::LoadText(const std::string& text, const std::string& origin, std::string& error) {
    ConfigSettings parsed;
    if (!ParseText(text, origin, parsed, error)) return false;
    Install(parsed);
    return true;
}

GlobalConfig::ReadStatus GlobalConfig::ReadFile(const std::string& path, std::string& text, std::string& error) {
    const std::string cannot = "cannot read configuration file " + path;
    UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.Get() < 0) {
        const int failure = errno;
        error = cannot + ": " + std::strerror(failure);
        // ENOTDIR: something above it is a file, so it cannot exist either.
        return failure == ENOENT || failure == ENOTDIR ? ReadStatus::Missing : ReadStatus::Failed;
    }
    // A configuration file is a handful of lines; anything far larger is a mistake.
    constexpr size_t kMaxBytes = 1 << 20;
    // Opening a directory succeeds; only the read tells why it is no file.
    const ReadEnd end = ReadBounded(file.Get(), kMaxBytes, text);
    if (end == ReadEnd::Complete) return ReadStatus::Read;
    const int failure = errno;
    text.clear();
    error = end == ReadEnd::TooLarge ? "configuration file " + path + " is larger than 1 MiB"
                                     : cannot + ": " + std::strerror(failure);
    return ReadStatus::Failed;
}

bool GlobalConfig::LoadFile(const std::string& path, std::string& error) {
    std::string text;
    if (ReadFile(path, text, error) != ReadStatus::Read) return false;
    return LoadText(text, path, error);
}

bool GlobalConfig::ReadLayers(const std::vector<ConfigLayer>& layers, ConfigSettings& merged,
                              std::vector<std::string>& read, std::string& error) {
    ConfigSettings result;
    std::vector<std::string> files;
    for (const ConfigLayer& layer : layers) {
        std::string text;
        const ReadStatus status = ReadFile(layer.path, text, error);
        if (status == ReadStatus::Missing && !layer.required) continue;
        if (status != ReadStatus::Read) return false;
        ConfigSettings parsed;
        if (!ParseText(text, layer.path, parsed, error)) return false;
        // An earlier layer's key stays: emplace does not replace.
        for (auto& entry : parsed) result.emplace(entry.first, std::move(entry.second));
        files.push_back(layer.path);
    }
    merged = std::move(result);
    read = std::move(files);
    return true;
}

void GlobalConfig::Install(const ConfigSettings& settings) {
    std::map<std::string, std::string> items;
    for (const auto& entry : settings) items.emplace(entry.first, entry.second.value);
    std::lock_guard<std::mutex> lock(ConfigMutex());
    Items() = std::move(items);
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
