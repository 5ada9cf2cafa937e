// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "cli/CommandLine.h"
#include "fleet/Guards.h"

namespace MorvelCli {

// What guards a run and what it leaves behind, from a command option, else
// its configuration key, else its default. The defaults apply to runs over
// two or more SMMs only: one SMM runs as it always did unless an option says
// otherwise.
//   --detect-timeout SECONDS   SMM_DETECT_TIMEOUT     5 s (0: off); one SMM: off unless the option is given
//   --max-auth-failures N      SMM_MAX_AUTH_FAILURES  3 (0: off)
//   --canary N                 -                      none
//   --max-failures N|P%        -                      none
//   --retry-file FILE          -                      none
struct FleetSettings {
    std::optional<std::chrono::milliseconds> detect;  // none: targets are not asked first
    unsigned maxAuthFailures = 0;
    size_t canary = 0;
    std::optional<Fleet::FailureBudget> maxFailures;
    std::string retryFile;  // empty: none
};

struct FleetSettingsRead {
    std::optional<FleetSettings> settings;
    std::string error;  // one line, without "morvel: ", naming the option or key at fault
};

constexpr unsigned kDefaultDetectSeconds = 5;
constexpr unsigned kMaxDetectSeconds = 3600;
constexpr unsigned kDefaultMaxAuthFailures = 3;

// `targets`: how many SMMs the run is over.
FleetSettingsRead ReadFleetSettings(const CommandLine& line, size_t targets);

}  // namespace MorvelCli
