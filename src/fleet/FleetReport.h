// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "fleet/FleetRunner.h"
#include "fleet/TargetList.h"

namespace Fleet {

// The lines a target's console output shows: each console text split at its
// line ends, with the stream it goes to.
struct OutputLine {
    bool error;
    std::string text;
};
std::vector<OutputLine> OutputLines(const std::vector<Plexum::ConsoleLine>& console);

// The one-line account of an interrupted target, for its result line and record.
const char* InterruptedText(bool changeSent);

// What the summary counts, gathered as targets end.
class FleetSummary {
public:
    explicit FleetSummary(size_t targets) : m_targets(targets) {}

    void Add(const TargetOutcome& outcome);
    void SetNotStarted(std::vector<size_t> indices) { m_notStarted = std::move(indices); }
    // What kept the not-started targets from starting: a guard's line, or the signal.
    void SetStoppedBy(std::optional<std::string> why, bool bySignal) {
        m_stoppedBy = std::move(why);
        m_bySignal = bySignal;
    }

    size_t Targets() const { return m_targets; }
    size_t Succeeded() const { return m_succeeded; }
    size_t Failed() const;
    // Failed targets by result code (the code as its result line shows it), in the order given.
    const std::map<uint16_t, std::vector<size_t>>& FailedByCode() const { return m_failedByCode; }
    const std::map<uint16_t, int32_t>& FullCodes() const { return m_fullCodes; }
    const std::map<uint16_t, std::string>& Messages() const { return m_messages; }
    // Interrupted targets in the order given, and whether each had sent a change.
    std::vector<std::pair<size_t, bool>> Interrupted() const;
    const std::vector<size_t>& NotStarted() const { return m_notStarted; }
    const std::optional<std::string>& StoppedBy() const { return m_stoppedBy; }
    bool StoppedBySignal() const { return m_bySignal; }
    // Targets that answered nothing within the detection's bound, in the order given.
    const std::vector<size_t>& Unreachable() const { return m_unreachable; }

private:
    size_t m_targets;
    size_t m_succeeded = 0;
    std::map<uint16_t, std::vector<size_t>> m_failedByCode;
    std::map<uint16_t, int32_t> m_fullCodes;
    std::map<uint16_t, std::string> m_messages;
    std::map<size_t, bool> m_interrupted;
    std::vector<size_t> m_notStarted;
    std::vector<size_t> m_unreachable;
    std::optional<std::string> m_stoppedBy;
    bool m_bySignal = false;
};

// How a run over many targets is shown: one view per output format.
class FleetReport {
public:
    virtual ~FleetReport() = default;
    // A target ended; called one at a time.
    virtual void TargetEnded(const TargetOutcome& outcome) = 0;
    // The run ended.
    virtual void Finish(const FleetSummary& summary, int64_t elapsedMs) = 0;
};

// Each target's console lines and result line as one block, every line
// prefixed "LABEL: ", on the stream a single run would use; then a summary on
// standard output ("TITLE: N SMMs, ..."; TITLE is the command and subcommand)
// unless `summary` is false.
class TextReport : public FleetReport {
public:
    TextReport(std::ostream& out, std::ostream& err, const std::vector<Target>& targets, std::string title,
               bool summary);
    void TargetEnded(const TargetOutcome& outcome) override;
    void Finish(const FleetSummary& summary, int64_t elapsedMs) override;

private:
    std::ostream& m_out;
    std::ostream& m_err;
    const std::vector<Target>& m_targets;
    std::string m_title;
    bool m_summary;
};

// One line per target in the order given, in aligned columns TARGET PROTOCOL
// NETWORK IPMI-OVER-LAN IPV4 RESULT ("-" where nothing was read) under a header
// line, written when the run ends, then the summary of the text form: a fleet
// at a glance, on standard output.
class TableReport : public FleetReport {
public:
    TableReport(std::ostream& out, const std::vector<Target>& targets, std::string title, bool summary);
    void TargetEnded(const TargetOutcome& outcome) override;
    void Finish(const FleetSummary& summary, int64_t elapsedMs) override;

private:
    std::ostream& m_out;
    const std::vector<Target>& m_targets;
    std::string m_title;
    bool m_summary;
    // The cells of each target that ended, by its place in the list; empty for the others.
    std::vector<std::vector<std::string>> m_rows;
};

// One JSON object per target as it ends, then the summary object: JSON Lines
// on standard output, nothing else there. doc/smmlan-records.schema.json
// describes both.
class JsonLinesReport : public FleetReport {
public:
    JsonLinesReport(std::ostream& out, const std::vector<Target>& targets, std::string subcommand);
    void TargetEnded(const TargetOutcome& outcome) override;
    void Finish(const FleetSummary& summary, int64_t elapsedMs) override;

private:
    std::ostream& m_out;
    const std::vector<Target>& m_targets;
    std::string m_subcommand;
};

}  // namespace Fleet
