// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace Fleet {

// Host lists with ranges, as pdsh and FreeIPMI write them: HOSTS is host items
// separated by the commas outside brackets; an item may hold groups of numbers
// in brackets, smm[01-40] or 10.1.2.[10-19,25]. Several groups expand as a
// cartesian product, left group slowest; numbers keep the zero-padding of the
// written lower bound ([08-11]: 08, 09, 10, 11). Brackets that hold a ':' are
// an IPv6 literal and stay as written.
constexpr size_t kMaxExpandedHosts = 100000;

// One line naming the item at fault, e.g. "'smm[9-1]': descending range 9-1".
struct HostRangeError {
    std::string message;
};

// Appends the expansion of every item of `hosts` to `expanded`, or gives an
// error (and appends nothing) when a range is bad or more than `room` hosts
// would result.
std::optional<HostRangeError> ExpandHostList(const std::string& hosts, size_t room, std::vector<std::string>& expanded);

}  // namespace Fleet
