// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstddef>
#include <istream>
#include <optional>
#include <string>
#include <vector>

#include "fleet/HostRange.h"
#include "host/BmcTarget.h"

namespace Fleet {

// One SMM of a run: its credentials and address, and the label that names it
// in output: the host as written after range expansion (an IPv6 literal in
// brackets), with ":PORT" when a port was written.
struct Target {
    Plexum::BmcTarget bmc;
    std::string label;

    // The --bmc text the module gets for this target alone: USER[:PASSWORD]@LABEL.
    std::string BmcText() const;
};

// Why targets could not be read: one line, without the "morvel: " prefix,
// naming the offending word. It never quotes a password.
struct TargetError {
    std::string message;
};

// The targets of a run in the order they were given: --bmc values
// (USER[:PASSWORD]@HOST[:PORT][,HOST[:PORT]]...) and target files (one such
// value per line; blank lines and '#' lines skipped). A host item may hold
// ranges, smm[01-40] or 10.1.2.[10-19,25]: several groups expand as a
// cartesian product, left group slowest, and numbers keep the zero-padding of
// the written lower bound. Brackets that hold a ':' are an IPv6 literal.
class TargetList {
public:
    static constexpr size_t kMaxTargets = Fleet::kMaxExpandedHosts;
    // A target file's line is one target, not a document.
    static constexpr size_t kMaxLineBytes = 65536;

    // Adds the targets of one --bmc value; `origin` names it in errors ("--bmc").
    std::optional<TargetError> AddValue(const std::string& value, const std::string& origin);
    // Adds the targets of a target file's text; `name` names it in errors and
    // warnings. A file that holds passwords and is `openToOthers` gets a warning.
    std::optional<TargetError> AddText(std::istream& text, const std::string& name, bool openToOthers);
    // Reads the file at `path` ("-": standard input) and adds its targets.
    std::optional<TargetError> AddFile(const std::string& path);

    // Keeps the first of targets with the same host and port; a warning names each repeated one.
    void RemoveRepeats();

    const std::vector<Target>& Targets() const { return m_targets; }
    std::vector<Target>& Targets() { return m_targets; }
    // One-line warnings for standard error, in the order they arose.
    const std::vector<std::string>& Warnings() const { return m_warnings; }

private:
    std::vector<Target> m_targets;
    std::vector<std::string> m_warnings;
};

}  // namespace Fleet
