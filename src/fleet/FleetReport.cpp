// SPDX-License-Identifier: GPL-3.0-or-later
#include "fleet/FleetReport.h"

#include <rapidjson/encodings.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <sstream>

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
    if (outcome.interrupted) {
        write(true, InterruptedText(outcome.changeSent));
    } else {
        const MorvelResult shown(outcome.result.code, outcome.failure);
        std::ostringstream result;
        result << shown;
        write(!outcome.Succeeded(), result.str());
    }
    if (current != nullptr) current->flush();
}

void TextReport::Finish(const FleetSummary& summary, int64_t) {
    if (!m_summary) return;
    m_out << m_title << ": " << summary.Targets() << " SMMs, " << summary.Succeeded()
          << " succeeded, " << summary.Failed() << " failed";
    const auto interrupted = summary.Interrupted();
    if (!interrupted.empty()) m_out << ", " << interrupted.size() << " interrupted";
    if (!summary.NotStarted().empty()) m_out << ", " << summary.NotStarted().size() << " not started";
    m_out << '\n';
    for (const auto& entry : summary.FailedByCode()) {
        m_out << "  " << entry.first << ' ' << summary.Messages().at(entry.first) << ": "
              << Joined(m_targets, entry.second) << '\n';
    }
    for (const bool changeSent : {true, false}) {
        std::vector<size_t> indices;
        for (const auto& entry : interrupted) {
            if (entry.second == changeSent) indices.push_back(entry.first);
        }
        if (!indices.empty()) m_out << "  " << InterruptedText(changeSent) << ": " << Joined(m_targets, indices) << '\n';
    }
    if (!summary.NotStarted().empty()) m_out << "  not started: " << Joined(m_targets, summary.NotStarted()) << '\n';
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
    json.EndObject();
    json.EndObject();
    m_out << buffer.GetString() << '\n' << std::flush;
}

}  // namespace Fleet
