// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <map>
#include <string>
#include <vector>

namespace Plexum {

// One key's value and where it was set.
struct ConfigSetting {
    std::string value;
    std::string file;  // the origin given to the parser: a path, or a name for text in memory
    int line = 0;
};
using ConfigSettings = std::map<std::string, ConfigSetting>;

// One file of a search path. A file that is not `required` and does not exist
// is skipped; one that exists but cannot be read is an error either way.
struct ConfigLayer {
    std::string path;
    bool required = false;
};

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

    // The parser alone: `settings` becomes the text's keys (the last line of a
    // repeated key wins); nothing is installed.
    static bool ParseText(const std::string& text, const std::string& origin, ConfigSettings& settings,
                          std::string& error);

    enum class ReadStatus { Read, Missing, Failed };
    // The whole file into `text`. Missing: it does not exist (nor does a
    // folder above it); Failed: anything else. Both set the one-line `error`
    // "cannot read configuration file PATH: REASON".
    static ReadStatus ReadFile(const std::string& path, std::string& text, std::string& error);

    // Reads the layers, the one that wins first: for each key the value of the
    // first layer that sets it. `read` gets the files that were read, in
    // order. Nothing is installed.
    static bool ReadLayers(const std::vector<ConfigLayer>& layers, ConfigSettings& merged,
                           std::vector<std::string>& read, std::string& error);
    // Replaces the configuration with these keys.
    static void Install(const ConfigSettings& settings);
};

// The key's value as a 32-bit integer (surrounding blanks allowed), or the
// default when the key is unset or its value is not exactly one such integer.
int GetGlobalConfigValue(const std::string& key, int defaultValue);

}  // namespace Plexum
