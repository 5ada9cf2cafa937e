#pragma once

#include <string>

namespace Plexum {

// The process-wide KEY=VALUE configuration. '#' starts a comment line, blank
// lines are skipped, the key is the text before the first '=' (surrounding
// blanks removed, case-sensitive), the value is everything after it with the
// line end removed.
class GlobalConfig {
public:
    // 0 and the value text when the key is set; -1 otherwise.
    static int GetConfigItem(const std::string& key, std::string& value);

    // Replaces the configuration with the file's keys; false and a one-line
    // message naming the file and line on failure (the configuration is then unchanged).
    static bool LoadFile(const std::string& path, std::string& error);
    // Same rules, from text already in memory.
    static bool LoadText(const std::string& text, const std::string& origin, std::string& error);
    static void SetItem(const std::string& key, const std::string& value);
    static void Clear();
};

// The key's value as a 32-bit integer (surrounding blanks allowed), or the
// default when the key is unset or its value is not exactly one such integer.
int GetGlobalConfigValue(const std::string& key, int defaultValue);

}  // namespace Plexum
