// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/ConfigFiles.h"

#include <algorithm>

#include "host/Text.h"

#ifndef MORVEL_SYSTEM_CONFIG
#error "MORVEL_SYSTEM_CONFIG must be defined by the build"
#endif

namespace MorvelCli {

std::string SystemConfigPath() { return MORVEL_SYSTEM_CONFIG; }

std::string UserConfigPath(const Plexum::UserLookup& user) {
    return Plexum::UserFilePath(Plexum::UserFolder::Config, "morvel.conf", user);
}

std::vector<Plexum::ConfigLayer> ConfigSearchPath(bool hasConfig, const std::string& config,
                                                  const char* morvelConfig, const Plexum::UserLookup& user,
                                                  const std::string& systemPath) {
    if (hasConfig) return {Plexum::ConfigLayer{config, true}};
    if (morvelConfig != nullptr && morvelConfig[0] != '\0') return {Plexum::ConfigLayer{morvelConfig, true}};
    std::vector<Plexum::ConfigLayer> layers;
    const std::string userPath = UserConfigPath(user);
    if (!userPath.empty()) layers.push_back(Plexum::ConfigLayer{userPath, false});
    if (!systemPath.empty()) layers.push_back(Plexum::ConfigLayer{systemPath, false});
    return layers;
}

std::string ConfigurationReadRecord(const std::vector<std::string>& files) {
    std::string text = "configuration read from ";
    for (size_t i = 0; i < files.size(); ++i) {
        text += (i == 0 ? "" : i + 1 == files.size() ? " and " : ", ") + files[i];
    }
    return text;
}

const std::vector<KnownConfigKey>& KnownConfigKeys() {
    static const std::vector<KnownConfigKey> keys = {
        {"SMM_NETWORK_CHECK_RETRY_COUNT", "24", nullptr},
        {"SMM_NETWORK_CHECK_SLEEP_TIME", "5", nullptr},
        {"REDFISH_STARTUP_WAIT_TIME", "180", nullptr},
        {"REST_MAX_BODY_BYTES", "268435456", nullptr},
        {"IPMI_WORKAROUND_FLAGS", nullptr, "no workarounds"},
        {"IPMI_CIPHER_SUITE_ID", "3", nullptr},
        {"IPMI_PRIVILEGE_LEVEL", "admin", nullptr},
        {"IPMI_SESSION_TIMEOUT_MS", "20000", nullptr},
        {"IPMI_RETRANSMISSION_TIMEOUT_MS", "1000", nullptr},
        {"SMM_PROTOCOL", "auto", nullptr},
        {"REDFISH_AUTH", "basic", nullptr},
        {"REDFISH_TLS_VERIFY", "none", nullptr},
        {"REDFISH_CA_FILE", nullptr, "the system's CA certificates"},
        {"REDFISH_KNOWN_SMMS", nullptr, "$XDG_STATE_HOME/morvel/known_smms, else ~/.local/state/morvel/known_smms"},
        {"SMM_DETECT_TIMEOUT", "5", nullptr},
        {"SMM_MAX_AUTH_FAILURES", "3", nullptr},
        {"LOG_MAX_BYTES", "16777216", nullptr},
        {"LOG_KEEP", "3", nullptr},
    };
    return keys;
}

bool IsSecretKeyName(const std::string& key) {
    std::string upper = key;
    for (char& c : upper) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    for (const char* word : {"PASSWORD", "PASSWD", "SECRET", "TOKEN", "CREDENTIAL", "KEY"}) {
        if (upper.find(word) != std::string::npos) return true;
    }
    return false;
}

namespace {

std::string Where(const Plexum::ConfigSetting& setting) {
    return Plexum::Printable(setting.file) + " line " + std::to_string(setting.line);
}

}  // namespace

// Two lines a key: the note, then the setting. A note cannot share the
// setting's line: a '#' after a value belongs to the value. A key that is
// unset by default is printed commented out, since "KEY=" would set it empty.
std::string ShowConfigText(const Plexum::ConfigSettings& settings) {
    std::string text;
    for (const KnownConfigKey& key : KnownConfigKeys()) {
        const auto found = settings.find(key.name);
        if (found != settings.end()) {
            const bool secret = IsSecretKeyName(key.name);
            text += "# " + Where(found->second) + (secret ? ", value not shown" : "") + "\n";
            text += std::string(key.name) + "=" + (secret ? "*" : found->second.value) + "\n";
        } else if (key.defaultValue != nullptr) {
            text += "# built-in default\n";
            text += std::string(key.name) + "=" + key.defaultValue + "\n";
        } else {
            text += std::string("# built-in default: unset (") + key.unsetMeaning + ")\n";
            text += std::string("#") + key.name + "=\n";
        }
    }
    for (const auto& entry : settings) {
        const auto& known = KnownConfigKeys();
        if (std::any_of(known.begin(), known.end(), [&entry](const KnownConfigKey& key) { return entry.first == key.name; })) {
            continue;
        }
        const bool secret = IsSecretKeyName(entry.first);
        text += "# unknown key, " + Where(entry.second) + (secret ? ", value not shown" : "") + "\n";
        text += entry.first + "=" + (secret ? "*" : entry.second.value) + "\n";
    }
    return text;
}

}  // namespace MorvelCli
