// SPDX-License-Identifier: GPL-3.0-or-later
#include "fleet/HostRange.h"

#include <algorithm>
#include <utility>

#include "host/Text.h"

namespace Fleet {

using Plexum::Printable;

namespace {

// A range number is a host name's digits, not arithmetic: nine digits at most.
constexpr size_t kMaxDigits = 9;
constexpr char kTooMany[] = "more than 100000 targets after expansion";

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
    // Messages are one line on a terminal: the group as written, control bytes shown as '?'.
    const std::string written = "[" + Printable(content) + "]";
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
        if (last - first >= kMaxExpandedHosts) return std::string(kTooMany);
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

HostRangeError ItemError(const std::string& item, const std::string& reason) {
    return HostRangeError{"'" + Printable(item) + "': " + reason};
}

}  // namespace

std::optional<HostRangeError> ExpandHostList(const std::string& hosts, size_t room, std::vector<std::string>& expanded) {
    std::vector<Pattern> patterns;
    size_t count = 0;
    for (const std::string& item : SplitItems(hosts)) {
        Pattern pattern;
        if (auto problem = ParsePattern(item, pattern)) return ItemError(item, *problem);
        size_t product = 1;
        for (const Group& group : pattern.groups) product = std::min(product * group.values.size(), room + 1);
        count += product;
        if (count > room) return ItemError(item, kTooMany);
        patterns.push_back(std::move(pattern));
    }
    for (const Pattern& pattern : patterns) Expand(pattern, expanded);
    return std::nullopt;
}

}  // namespace Fleet
