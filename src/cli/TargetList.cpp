#include "cli/TargetList.h"

#include <arpa/inet.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <set>
#include <utility>

#include "cli/CommandLine.h"

namespace MorvelCli {
namespace {

// A range number is a host name's digits, not arithmetic: nine digits at most.
constexpr size_t kMaxDigits = 9;
constexpr char kTooMany[] = "more than 100000 targets after expansion";

TargetError ItemError(const std::string& item, const std::string& reason) {
    return TargetError{"'" + Printable(item) + "': " + reason};
}

// "ORIGIN: REASON".
TargetError From(const std::string& origin, const std::string& reason) {
    std::string message = origin;
    message.append(": ").append(reason);
    return TargetError{message};
}

// One bracket group's numbers, as text, in the order written.
struct Group {
    std::vector<std::string> values;
};

// A host item as literal pieces and groups: pieces[0] group[0] pieces[1] ...
struct Pattern {
    std::vector<std::string> pieces{std::string()};
    std::vector<Group> groups;
};

bool AllDigits(const std::string& text) {
    return !text.empty() && text.size() <= kMaxDigits &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// "08" keeps two digits; "8" and "0" keep none.
std::string Padded(unsigned long number, size_t width) {
    std::string text = std::to_string(number);
    if (text.size() < width) text.insert(0, width - text.size(), '0');
    return text;
}

// The numbers of one group's text, e.g. "10-19,25".
std::optional<std::string> ParseGroup(const std::string& content, Group& group) {
    const std::string written = "[" + content + "]";
    if (content.empty()) return "empty range " + written;
    size_t begin = 0;
    for (;;) {
        const size_t comma = content.find(',', begin);
        const std::string element = content.substr(begin, comma == std::string::npos ? std::string::npos : comma - begin);
        if (element.empty()) return "empty range in " + written;
        const size_t dash = element.find('-');
        const std::string low = element.substr(0, dash);
        const std::string high = dash == std::string::npos ? low : element.substr(dash + 1);
        if (!AllDigits(low) || !AllDigits(high)) return "range " + written + " is not numbers";
        const unsigned long first = std::stoul(low);
        const unsigned long last = std::stoul(high);
        if (first > last) return "descending range " + element;
        const size_t width = low.size() > 1 && low[0] == '0' ? low.size() : 0;
        // The caller bounds the whole product before expanding; this bounds one group.
        if (last - first >= TargetList::kMaxTargets) return std::string(kTooMany);
        for (unsigned long n = first; n <= last; ++n) group.values.push_back(Padded(n, width));
        if (comma == std::string::npos) return std::nullopt;
        begin = comma + 1;
    }
}

std::optional<std::string> ParsePattern(const std::string& item, Pattern& pattern) {
    for (size_t i = 0; i < item.size(); ++i) {
        const char c = item[i];
        if (c == ']') return std::string("unbalanced brackets");
        if (c != '[') {
            pattern.pieces.back().push_back(c);
            continue;
        }
        const size_t close = item.find(']', i + 1);
        const size_t nested = item.find('[', i + 1);
        if (close == std::string::npos && i == 0) {
            // An IPv6 literal left open: the host parser says how to write one.
            pattern.pieces.back() = item;
            return std::nullopt;
        }
        if (close == std::string::npos || nested < close) return std::string("unbalanced brackets");
        const std::string content = item.substr(i + 1, close - i - 1);
        if (content.find(':') != std::string::npos) {
            // An IPv6 literal: the host parser judges it as it stands.
            pattern.pieces.back().append(item, i, close - i + 1);
        } else {
            pattern.groups.emplace_back();
            if (auto problem = ParseGroup(content, pattern.groups.back())) return problem;
            pattern.pieces.emplace_back();
        }
        i = close;
    }
    return std::nullopt;
}

// Every combination, left group slowest.
void Expand(const Pattern& pattern, std::vector<std::string>& out) {
    std::vector<size_t> at(pattern.groups.size(), 0);
    for (;;) {
        std::string host = pattern.pieces[0];
        for (size_t g = 0; g < pattern.groups.size(); ++g) host += pattern.groups[g].values[at[g]] + pattern.pieces[g + 1];
        out.push_back(std::move(host));
        size_t g = pattern.groups.size();
        while (g > 0 && ++at[g - 1] == pattern.groups[g - 1].values.size()) at[--g] = 0;
        if (g == 0) return;
    }
}

std::vector<std::string> SplitItems(const std::string& hosts) {
    std::vector<std::string> items(1);
    int depth = 0;
    for (const char c : hosts) {
        if (c == '[') ++depth;
        if (c == ']') --depth;
        if (c == ',' && depth == 0) {
            items.emplace_back();
        } else {
            items.back().push_back(c);
        }
    }
    return items;
}

std::string Trimmed(const std::string& line) {
    const char* const blanks = " \t\r";
    const size_t first = line.find_first_not_of(blanks);
    if (first == std::string::npos) return std::string();
    return line.substr(first, line.find_last_not_of(blanks) - first + 1);
}

// Reads one line of at most `limit` bytes into `line`. 1: a line, 0: end of
// input, -1: a line too long.
int ReadLine(std::istream& in, std::string& line, size_t limit) {
    line.clear();
    if (in.peek() == std::char_traits<char>::eof()) return 0;
    for (int c = in.get(); c != std::char_traits<char>::eof() && c != '\n'; c = in.get()) {
        if (line.size() == limit) return -1;
        line.push_back(static_cast<char>(c));
    }
    return 1;
}

// Host and port as one key: names in any letter case, IPv6 in any spelling, are one SMM.
std::string RepeatKey(const Plexum::BmcTarget& bmc) {
    std::string host = bmc.host;
    in6_addr address{};
    char text[INET6_ADDRSTRLEN] = {};
    if (bmc.ipv6 && ::inet_pton(AF_INET6, host.c_str(), &address) == 1 &&
        ::inet_ntop(AF_INET6, &address, text, sizeof text) != nullptr) {
        host = text;
    }
    std::transform(host.begin(), host.end(), host.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return host + "\n" + std::to_string(bmc.port);
}

}  // namespace

std::string Target::BmcText() const {
    return bmc.user + (bmc.hasPassword ? ":" + bmc.password : std::string()) + "@" + label;
}

std::optional<TargetError> ExpandHosts(const std::string& hosts, size_t room, std::vector<std::string>& expanded) {
    std::vector<std::pair<std::string, Pattern>> patterns;
    size_t count = 0;
    for (const std::string& item : SplitItems(hosts)) {
        Pattern pattern;
        if (auto problem = ParsePattern(item, pattern)) return ItemError(item, *problem);
        size_t product = 1;
        for (const Group& group : pattern.groups) product = std::min(product * group.values.size(), room + 1);
        count += product;
        if (count > room) return ItemError(item, kTooMany);
        patterns.emplace_back(item, std::move(pattern));
    }
    for (const auto& entry : patterns) Expand(entry.second, expanded);
    return std::nullopt;
}

std::optional<TargetError> TargetList::AddValue(const std::string& value, const std::string& origin) {
    const size_t at = value.rfind('@');
    Plexum::BmcTarget parsed;
    std::string reason;
    if (at == std::string::npos) {
        Plexum::ParseBmcTarget(value, parsed, reason);  // says what is missing
        return From(origin, reason);
    }
    const std::string credentials = value.substr(0, at + 1);
    if (credentials.find_first_of(":@") == 0) {
        Plexum::ParseBmcTarget(value, parsed, reason);  // the user name, whatever the hosts
        return From(origin, reason);
    }
    const std::string hosts = value.substr(at + 1);
    std::vector<std::string> items;
    if (auto error = ExpandHosts(hosts, kMaxTargets - m_targets.size(), items)) {
        return From(origin, error->message);
    }
    std::vector<Target> added;
    added.reserve(items.size());
    for (std::string& item : items) {
        if (!Plexum::ParseBmcTarget(credentials + item, parsed, reason)) {
            // A plain single host keeps the message it always had; in a list the item is named.
            if (item == hosts) return From(origin, reason);
            return From(origin, ItemError(item, reason).message);
        }
        added.push_back(Target{std::move(parsed), std::move(item)});
    }
    m_targets.insert(m_targets.end(), std::make_move_iterator(added.begin()), std::make_move_iterator(added.end()));
    return std::nullopt;
}

std::optional<TargetError> TargetList::AddText(std::istream& text, const std::string& name, bool openToOthers) {
    bool holdsPasswords = false;
    std::string line;
    for (size_t number = 1;; ++number) {
        const int read = ReadLine(text, line, kMaxLineBytes);
        if (read == 0) break;
        const std::string origin = name + ":" + std::to_string(number);
        if (read < 0) return From(origin, "line longer than " + std::to_string(kMaxLineBytes) + " bytes");
        const std::string value = Trimmed(line);
        if (value.empty() || value[0] == '#') continue;
        const size_t before = m_targets.size();
        if (auto error = AddValue(value, origin)) return error;
        if (m_targets.size() > before && m_targets.back().bmc.hasPassword) holdsPasswords = true;
    }
    if (text.bad()) return TargetError{"cannot read target file " + name};
    if (holdsPasswords && openToOthers) {
        m_warnings.push_back("target file " + name + " holds passwords and is readable by group or others (chmod 600 it)");
    }
    return std::nullopt;
}

std::optional<TargetError> TargetList::AddFile(const std::string& path) {
    if (path == "-") return AddText(std::cin, "(standard input)", false);
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        return TargetError{"cannot read target file " + path + ": " + std::strerror(errno)};
    }
    if (S_ISDIR(status.st_mode)) return TargetError{"cannot read target file " + path + ": " + std::strerror(EISDIR)};
    std::ifstream file(path, std::ios::binary);
    if (!file) return TargetError{"cannot read target file " + path + ": " + std::strerror(errno)};
    // Only a stored file can be too open; a pipe is not stored.
    const bool openToOthers = S_ISREG(status.st_mode) && (status.st_mode & (S_IRGRP | S_IROTH)) != 0;
    return AddText(file, path, openToOthers);
}

void TargetList::RemoveRepeats() {
    std::set<std::string> seen;
    std::set<std::string> warned;
    std::vector<Target> kept;
    kept.reserve(m_targets.size());
    for (Target& target : m_targets) {
        const std::string key = RepeatKey(target.bmc);
        if (seen.insert(key).second) {
            kept.push_back(std::move(target));
        } else if (warned.insert(key).second) {
            m_warnings.push_back(Printable(target.label) + " is given more than once; it runs once");
        }
    }
    m_targets = std::move(kept);
}

}  // namespace MorvelCli
