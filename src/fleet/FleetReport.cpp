// SPDX-License-Identifier: GPL-3.0-or-later
#include "fleet/FleetReport.h"

#include <rapidjson/encodings.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <iterator>
#include <sstream>

#include "host/Text.h"

namespace Fleet {
namespace {

std::string Joined(const std::vector<Target>& targets, const std::vector<size_t>& indices) {
    std::string text;
    for (size_t i = 0; i < indices.size(); ++i) text += (i == 0 ? "" : ", ") + targets[indices[i]].label;
    return text;
}

// The text with every byte that is not part of valid UTF-8 replaced by U+FFFD,
// so that a reply's stray bytes cannot break a JSON record.
std::string ValidUtf8(const std::string& text) {
    std::string valid;
    valid.reserve(text.size());
    rapidjson::StringBuffer sequence;
    size_t at = 0;
    while (at < text.size()) {
        if (static_cast<unsigned char>(text[at]) < 0x80) {
            valid.push_back(text[at++]);
            continue;
        }
        sequence.Clear();
        rapidjson::MemoryStream in(text.data() + at, text.size() - at);
        if (rapidjson::UTF8<>::Validate(in, sequence)) {
            valid.append(sequence.GetString(), sequence.GetSize());
            at += in.Tell();
        } else {
            valid += "\xEF\xBF\xBD";
            ++at;
        }
    }
    return valid;
}

using JsonWriter = rapidjson::Writer<rapidjson::StringBuffer>;

void WriteText(JsonWriter& json, const std::string& text) {
    const std::string valid = ValidUtf8(text);
    json.String(valid.data(), static_cast<rapidjson::SizeType>(valid.size()));
}

void WriteLabels(JsonWriter& json, const std::vector<Target>& targets, const std::vector<size_t>& indices) {
    json.StartArray();
    for (const size_t index : indices) WriteText(json, targets[index].label);
    json.EndArray();
}

const char* ProtocolName(Plexum::Protocol protocol) {
    switch (protocol) {
        case Plexum::Protocol::Redfish: return "redfish";
        case Plexum::Protocol::Ipmi: return "ipmi";
        case Plexum::Protocol::None: break;
    }
    return nullptr;
}

const char* NetworkName(Plexum::NetworkState network) {
    switch (network) {
        case Plexum::NetworkState::Enabled: return "enabled";
        case Plexum::NetworkState::Disabled: return "disabled";
        case Plexum::NetworkState::Unknown: return "unknown";
        case Plexum::NetworkState::Unread: break;
    }
    return nullptr;
}

void WriteNameOrNull(JsonWriter& json, const char* name) {
    if (name != nullptr) {
        json.String(name);
    } else {
        json.Null();
    }
}

void WriteState(JsonWriter& json, const Plexum::ObservedState& state) {
    json.StartObject();
    json.Key("network");
    WriteNameOrNull(json, NetworkName(state.network));
    json.Key("ipmi_over_lan");
    if (state.ipmiOverLan) {
        json.Bool(*state.ipmiOverLan);
    } else {
        json.Null();
    }
    json.Key("ipv4");
    if (state.ipv4) {
        WriteText(json, *state.ipv4);
    } else {
        json.Null();
    }
    json.EndObject();
}

// {"ok": true, "error": null}, or {"ok": false, "error": why}.
void WriteLogout(JsonWriter& json, const Plexum::SessionLogout& logout) {
    json.StartObject();
    json.Key("ok");
    json.Bool(logout.done);
    json.Key("error");
    if (logout.done) {
        json.Null();
    } else {
        WriteText(json, logout.error);
    }
    json.EndObject();
}

std::string ResultMessage(const TargetOutcome& outcome) {
    if (outcome.interrupted) return InterruptedText(outcome.changeSent);
    return outcome.failure.empty() ? outcome.result.Message() : outcome.failure;
}

// The result line of a target as the text form writes it: "CODE MESSAGE", or what interrupted it.
std::string ResultLine(const TargetOutcome& outcome) {
    if (outcome.interrupted) return InterruptedText(outcome.changeSent);
    std::ostringstream line;
    line << MorvelResult(outcome.result.code, outcome.failure);
    return line.str();
}

// "TITLE: N SMMs, S succeeded, F failed[, I interrupted][, U not started]" and
// the failed, interrupted and unstarted targets, one line a kind.
void WriteSummary(std::ostream& out, const std::string& title, const std::vector<Target>& targets,
                  const FleetSummary& summary) {
    out << title << ": " << summary.Targets() << " SMMs, " << summary.Succeeded() << " succeeded, "
        << summary.Failed() << " failed";
    const auto interrupted = summary.Interrupted();
    if (!interrupted.empty()) out << ", " << interrupted.size() << " interrupted";
    if (!summary.NotStarted().empty()) out << ", " << summary.NotStarted().size() << " not started";
    out << '\n';
    for (const auto& entry : summary.FailedByCode()) {
        out << "  " << entry.first << ' ' << summary.Messages().at(entry.first) << ": " << Joined(targets, entry.second)
            << '\n';
    }
    for (const bool changeSent : {true, false}) {
        std::vector<size_t> indices;
        for (const auto& entry : interrupted) {
            if (entry.second == changeSent) indices.push_back(entry.first);
        }
        if (!indices.empty()) out << "  " << InterruptedText(changeSent) << ": " << Joined(targets, indices) << '\n';
    }
    if (!summary.NotStarted().empty()) out << "  not started: " << Joined(targets, summary.NotStarted()) << '\n';
    // A signal says so already; a guard says here why it stopped the run, and what to check.
    if (summary.StoppedBy() && !summary.StoppedBySignal()) out << "  stopped: " << *summary.StoppedBy() << '\n';
}

// The columns of the table form; "-" where nothing was read.
const char* const kTableHeader[] = {"TARGET", "PROTOCOL", "NETWORK", "IPMI-OVER-LAN", "IPV4", "RESULT"};
constexpr char kNothing[] = "-";

std::vector<std::string> TableCells(const Target& target, const TargetOutcome& outcome) {
    const char* protocol = ProtocolName(outcome.protocol);
    const char* network = NetworkName(outcome.state.network);
    const Plexum::ObservedState& state = outcome.state;
    return {Plexum::Printable(target.label),
            protocol != nullptr ? protocol : kNothing,
            network != nullptr ? network : kNothing,
            state.ipmiOverLan ? (*state.ipmiOverLan ? "enabled" : "disabled") : kNothing,
            state.ipv4 && !state.ipv4->empty() ? Plexum::Printable(*state.ipv4) : kNothing,
            Plexum::Printable(ResultLine(outcome))};
}

}  // namespace

std::vector<OutputLine> OutputLines(const std::vector<Plexum::ConsoleLine>& console) {
    std::vector<OutputLine> lines;
    for (const Plexum::ConsoleLine& line : console) {
        size_t begin = 0;
        for (;;) {
            const size_t end = line.text.find('\n', begin);
            lines.push_back(OutputLine{line.error, line.text.substr(begin, end - begin)});
            if (end == std::string::npos) break;
            begin = end + 1;
        }
    }
    return lines;
}

const char* InterruptedText(bool changeSent) {
    return changeSent ? "interrupted after a change was sent; the SMM's state is unconfirmed"
                      : "interrupted before any change was sent";
}

void FleetSummary::Add(const TargetOutcome& outcome) {
    if (outcome.unreachable) {
        m_unreachable.insert(std::upper_bound(m_unreachable.begin(), m_unreachable.end(), outcome.index), outcome.index);
    }
    if (outcome.interrupted) {
        m_interrupted[outcome.index] = outcome.changeSent;
    } else if (outcome.Succeeded()) {
        ++m_succeeded;
    } else {
        const uint16_t code = static_cast<uint16_t>(static_cast<uint32_t>(outcome.result.code) & 0xFFFFu);
        std::vector<size_t>& indices = m_failedByCode[code];
        indices.insert(std::upper_bound(indices.begin(), indices.end(), outcome.index), outcome.index);
        m_fullCodes.emplace(code, outcome.result.code);
        m_messages.emplace(code, outcome.result.Message());
    }
}

size_t FleetSummary::Failed() const {
    size_t failed = 0;
    for (const auto& entry : m_failedByCode) failed += entry.second.size();
    return failed;
}

std::vector<std::pair<size_t, bool>> FleetSummary::Interrupted() const {
    return std::vector<std::pair<size_t, bool>>(m_interrupted.begin(), m_interrupted.end());
}

TextReport::TextReport(std::ostream& out, std::ostream& err, const std::vector<Target>& targets, std::string title,
                       bool summary)
    : m_out(out), m_err(err), m_targets(targets), m_title(std::move(title)), m_summary(summary) {}

void TextReport::TargetEnded(const TargetOutcome& outcome) {
    const std::string prefix = m_targets[outcome.index].label + ": ";
    // Lines of one stream go out together; a change of stream flushes, so that
    // a terminal that shows both gets them in the order written.
    std::ostream* current = nullptr;
    const auto write = [&](bool error, const std::string& text) {
        std::ostream& stream = error ? m_err : m_out;
        if (current != nullptr && current != &stream) current->flush();
        current = &stream;
        stream << prefix << text << '\n';
    };
    for (const OutputLine& line : OutputLines(outcome.console)) write(line.error, line.text);
    write(!outcome.Succeeded(), ResultLine(outcome));
    if (current != nullptr) current->flush();
}

void TextReport::Finish(const FleetSummary& summary, int64_t) {
    if (!m_summary) return;
    WriteSummary(m_out, m_title, m_targets, summary);
    m_out.flush();
}

TableReport::TableReport(std::ostream& out, const std::vector<Target>& targets, std::string title, bool summary)
    : m_out(out), m_targets(targets), m_title(std::move(title)), m_summary(summary), m_rows(targets.size()) {}

void TableReport::TargetEnded(const TargetOutcome& outcome) {
    m_rows[outcome.index] = TableCells(m_targets[outcome.index], outcome);
}

void TableReport::Finish(const FleetSummary& summary, int64_t) {
    for (const size_t index : summary.NotStarted()) {
        m_rows[index] = {Plexum::Printable(m_targets[index].label), kNothing, kNothing, kNothing, kNothing,
                         "not started"};
    }
    std::vector<std::vector<std::string>> rows;
    rows.emplace_back(std::begin(kTableHeader), std::end(kTableHeader));
    for (std::vector<std::string>& row : m_rows) {
        if (!row.empty()) rows.push_back(std::move(row));
    }
    std::vector<size_t> widths(rows.front().size(), 0);
    for (const auto& row : rows) {
        for (size_t column = 0; column < row.size(); ++column) widths[column] = std::max(widths[column], row[column].size());
    }
    for (const auto& row : rows) {
        std::string line;
        for (size_t column = 0; column + 1 < row.size(); ++column) {
            line += row[column] + std::string(widths[column] - row[column].size() + 2, ' ');
        }
        m_out << line << row.back() << '\n';
    }
    if (m_summary) WriteSummary(m_out, m_title, m_targets, summary);
    m_out.flush();
}

JsonLinesReport::JsonLinesReport(std::ostream& out, const std::vector<Target>& targets, std::string subcommand)
    : m_out(out), m_targets(targets), m_subcommand(std::move(subcommand)) {}

void JsonLinesReport::TargetEnded(const TargetOutcome& outcome) {
    const Target& target = m_targets[outcome.index];
    rapidjson::StringBuffer buffer;
    JsonWriter json(buffer);
    json.StartObject();
    json.Key("target");
    WriteText(json, target.label);
    json.Key("host");
    WriteText(json, target.bmc.host);
    json.Key("port");
    json.Int(target.bmc.port);
    json.Key("user");
    WriteText(json, target.bmc.user);
    json.Key("subcommand");
    WriteText(json, m_subcommand);
    json.Key("protocol");
    WriteNameOrNull(json, ProtocolName(outcome.protocol));
    json.Key("code");
    if (outcome.interrupted) {
        json.Null();
    } else {
        json.Int(outcome.result.code);
    }
    json.Key("message");
    WriteText(json, ResultMessage(outcome));
    json.Key("ok");
    json.Bool(outcome.Succeeded());
    json.Key("interrupted");
    json.Bool(outcome.interrupted);
    json.Key("change_sent");
    json.Bool(outcome.changeSent);
    json.Key("unreachable");
    if (outcome.unreachable && !outcome.console.empty()) {
        WriteText(json, outcome.console.front().text);
    } else {
        json.Null();
    }
    json.Key("state");
    WriteState(json, outcome.state);
    json.Key("elapsed_ms");
    json.Int64(outcome.elapsedMs);
    json.Key("console");
    json.StartArray();
    for (const OutputLine& line : OutputLines(outcome.console)) WriteText(json, line.text);
    json.EndArray();
    if (outcome.logout) {
        json.Key("session_logout");
        WriteLogout(json, *outcome.logout);
    }
    json.EndObject();
    m_out << buffer.GetString() << '\n' << std::flush;
}

void JsonLinesReport::Finish(const FleetSummary& summary, int64_t elapsedMs) {
    rapidjson::StringBuffer buffer;
    JsonWriter json(buffer);
    json.StartObject();
    json.Key("summary");
    json.StartObject();
    json.Key("subcommand");
    WriteText(json, m_subcommand);
    json.Key("targets");
    json.Uint64(summary.Targets());
    json.Key("succeeded");
    json.Uint64(summary.Succeeded());
    json.Key("failed");
    json.Uint64(summary.Failed());
    json.Key("elapsed_ms");
    json.Int64(elapsedMs);
    json.Key("failed_by_code");
    json.StartObject();
    for (const auto& entry : summary.FailedByCode()) {
        json.Key(std::to_string(summary.FullCodes().at(entry.first)).c_str());
        WriteLabels(json, m_targets, entry.second);
    }
    json.EndObject();
    json.Key("interrupted");
    std::vector<size_t> interrupted;
    for (const auto& entry : summary.Interrupted()) interrupted.push_back(entry.first);
    WriteLabels(json, m_targets, interrupted);
    json.Key("not_started");
    WriteLabels(json, m_targets, summary.NotStarted());
    json.Key("unreachable");
    WriteLabels(json, m_targets, summary.Unreachable());
    json.Key("stopped_by");
    if (summary.StoppedBy()) {
        WriteText(json, *summary.StoppedBy());
    } else {
        json.Null();
    }
    json.EndObject();
    json.EndObject();
    m_out << buffer.GetString() << '\n' << std::flush;
}

}  // namespace Fleet
