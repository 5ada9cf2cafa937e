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

// One element of a bracket group: the numbers first..last, each written
// `width` digits wide (0: as it comes).
struct Span {
    unsigned long first = 0;
    unsigned long last = 0;
    size_t width = 0;
};

// One bracket group as written, e.g. "10-19,25": its spans in order and how
// many numbers they give. Nothing is expanded here: a group of a hundred
// spans of 100000 is a hundred spans, and the count stops at its limit.
struct Group {
    std::vector<Span> spans;
    size_t count = 0;
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

// One element of a group's text, "10-19" or "25".
std::optional<std::string> ParseSpan(const std::string& element, const std::string& written, Span& span) {
    const size_t dash = element.find('-');
    const std::string low = element.substr(0, dash);
    const std::string high = dash == std::string::npos ? low : element.substr(dash + 1);
    if (!AllDigits(low) || !AllDigits(high)) return "range " + written + " is not numbers";
    span.first = std::stoul(low);
    span.last = std::stoul(high);
    if (span.first > span.last) return "descending range " + element;
    span.width = low.size() > 1 && low[0] == '0' ? low.size() : 0;
    return std::nullopt;
}

// The spans of one group's text, e.g. "10-19,25". Every element is checked;
// past `limit` numbers they are only counted (up to limit + 1), not kept.
std::optional<std::string> ParseGroup(const std::string& content, size_t limit, Group& group) {
    // Messages are one line on a terminal: the group as written, control bytes shown as '?'.
    const std::string written = "[" + Printable(content) + "]";
    if (content.empty()) return "empty range " + written;
    size_t begin = 0;
    for (;;) {
        const size_t comma = content.find(',', begin);
        const std::string element = content.substr(begin, comma == std::string::npos ? std::string::npos : comma - begin);
        if (element.empty()) return "empty range in " + written;
        Span span;
        if (auto problem = ParseSpan(element, written, span)) return problem;
        if (group.count <= limit) {
            // At most 10^9 numbers a span (nine digits): no overflow before the cap.
            group.count = std::min<size_t>(group.count + (span.last - span.first + 1), limit + 1);
            group.spans.push_back(span);
        }
        if (comma == std::string::npos) return std::nullopt;
        begin = comma + 1;
    }
}

// `limit`: how many hosts the item may still give.
std::optional<std::string> ParsePattern(const std::string& item, size_t limit, Pattern& pattern) {
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
            if (auto problem = ParseGroup(content, limit, pattern.groups.back())) return problem;
            pattern.pieces.emplace_back();
        }
        i = close;
    }
    return std::nullopt;
}

// How many hosts the pattern gives, counted up to limit + 1.
size_t HostCount(const Pattern& pattern, size_t limit) {
    size_t product = 1;
    // Both factors are at most limit + 1, so the product cannot overflow.
    for (const Group& group : pattern.groups) product = std::min(product * group.count, limit + 1);
    return product;
}

// Where a group stands while its pattern is expanded: a span, a number in it.
struct Cursor {
    size_t span = 0;
    unsigned long number = 0;
};

Cursor FirstOf(const Group& group) { return Cursor{0, group.spans.front().first}; }

// The group's next number; false when it has none left.
bool Step(const Group& group, Cursor& at) {
    if (at.number < group.spans[at.span].last) {
        ++at.number;
        return true;
    }
    if (at.span + 1 == group.spans.size()) return false;
    ++at.span;
    at.number = group.spans[at.span].first;
    return true;
}

// Every combination, left group slowest.
void Expand(const Pattern& pattern, std::vector<std::string>& out) {
    const std::vector<Group>& groups = pattern.groups;
    std::vector<Cursor> at;
    at.reserve(groups.size());
    for (const Group& group : groups) at.push_back(FirstOf(group));
    for (;;) {
        std::string host = pattern.pieces[0];
        for (size_t g = 0; g < groups.size(); ++g) {
            host += Padded(at[g].number, groups[g].spans[at[g].span].width) + pattern.pieces[g + 1];
        }
        out.push_back(std::move(host));
        size_t g = groups.size();
        // An odometer: a group that runs out starts again and moves the one on its left.
        while (g > 0 && !Step(groups[g - 1], at[g - 1])) {
            --g;
            at[g] = FirstOf(groups[g]);
        }
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
    // Counted first, expanded after: a list that would give too many hosts
    // is refused before a single one of them is written out.
    std::vector<Pattern> patterns;
    size_t count = 0;
    for (const std::string& item : SplitItems(hosts)) {
        Pattern pattern;
        const size_t left = room - count;
        if (auto problem = ParsePattern(item, left, pattern)) return ItemError(item, *problem);
        const size_t product = HostCount(pattern, left);
        if (product > left) return ItemError(item, kTooMany);
        count += product;
        patterns.push_back(std::move(pattern));
    }
    expanded.reserve(expanded.size() + count);
    for (const Pattern& pattern : patterns) Expand(pattern, expanded);
    return std::nullopt;
}

}  // namespace Fleet
