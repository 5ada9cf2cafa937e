// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/FleetSettings.h"

#include "fleet/HostRange.h"
#include "fleet/RetryFile.h"
#include "host/GlobalConfig.h"
#include "host/Text.h"

namespace MorvelCli {
namespace {

// A whole number from 0 to `most`, digits only.
std::optional<unsigned long> Number(const std::string& text, unsigned long most) {
    if (text.empty() || text.size() > 7 || text.find_first_not_of("0123456789") != std::string::npos) return std::nullopt;
    const unsigned long value = std::stoul(text);
    if (value > most) return std::nullopt;
    return value;
}

// The option's value, else (when `key` is given and `keyApplies`) the
// configuration key's, with where it came from.
std::optional<std::string> Chosen(const CommandLine& line, const std::string& option, const char* key, bool keyApplies,
                                  std::string& from) {
    const auto found = line.options.find(option);
    if (found != line.options.end()) {
        from = "--" + option;
        return found->second;
    }
    std::string value;
    if (key != nullptr && keyApplies && Plexum::GlobalConfig::GetConfigItem(key, value) == 0) {
        from = std::string("configuration key ") + key;
        return Plexum::Trim(value);
    }
    return std::nullopt;
}

FleetSettingsRead Refuse(const std::string& error) {
    FleetSettingsRead read;
    read.error = error;
    return read;
}

}  // namespace

FleetSettingsRead ReadFleetSettings(const CommandLine& line, size_t targets) {
    FleetSettings settings;
    const bool many = targets >= 2;
    std::string from;

    // One SMM runs as it always did: only the option, not the configuration, asks it first.
    if (const auto text = Chosen(line, "detect-timeout", "SMM_DETECT_TIMEOUT", many, from)) {
        const auto seconds = Number(*text, kMaxDetectSeconds);
        if (!seconds) return Refuse(from + " must be a number of seconds from 0 to " + std::to_string(kMaxDetectSeconds));
        if (*seconds > 0) settings.detect = std::chrono::seconds(*seconds);
    } else if (many) {
        settings.detect = std::chrono::seconds(kDefaultDetectSeconds);
    }

    if (const auto text = Chosen(line, "max-auth-failures", "SMM_MAX_AUTH_FAILURES", many, from)) {
        const auto count = Number(*text, 100000);
        if (!count) return Refuse(from + " must be a number from 0 to 100000");
        settings.maxAuthFailures = static_cast<unsigned>(*count);
    } else if (many) {
        settings.maxAuthFailures = kDefaultMaxAuthFailures;
    }

    if (const auto text = Chosen(line, "canary", nullptr, false, from)) {
        const auto count = Number(*text, Fleet::kMaxExpandedHosts);
        if (!count) return Refuse("--canary must be a number from 0 to " + std::to_string(Fleet::kMaxExpandedHosts));
        settings.canary = *count;
    }
    if (const auto text = Chosen(line, "max-failures", nullptr, false, from)) {
        settings.maxFailures = Fleet::FailureBudget::Parse(*text);
        if (!settings.maxFailures) {
            return Refuse("--max-failures must be a number of SMMs (such as 3) or a percentage of those ended (such as "
                          "5%)");
        }
    }
    if (const auto text = Chosen(line, "retry-file", nullptr, false, from)) {
        settings.retryFile = *text;
        if (const auto error = Fleet::RetryFile(settings.retryFile).CheckWritable()) return Refuse(*error);
    }
    FleetSettingsRead read;
    read.settings = std::move(settings);
    return read;
}

}  // namespace MorvelCli
