// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "fleet/TargetList.h"

namespace Fleet {

// --retry-file FILE: the targets of a run that did not succeed (failed,
// unreachable, interrupted, not started), one line each in the --bmc-file
// form USER@LABEL and never with a password, so that `--bmc-file FILE` runs
// exactly those again. The file is replaced whole (a new file renamed over
// it, mode 0600); an empty one says every target succeeded.
class RetryFile {
public:
    explicit RetryFile(std::string path) : m_path(std::move(path)) {}
    const std::string& Path() const { return m_path; }

    // Why the file could not be written where it is named, before the run; none when it can.
    std::optional<std::string> CheckWritable() const;
    // Writes the targets whose `succeeded` is false; the error in one line when it cannot.
    std::optional<std::string> Write(const std::vector<Target>& targets, const std::vector<bool>& succeeded) const;

    // The text of the file.
    static std::string Text(const std::vector<Target>& targets, const std::vector<bool>& succeeded);

private:
    std::string m_path;
};

}  // namespace Fleet
