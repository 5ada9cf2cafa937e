// SPDX-License-Identifier: GPL-3.0-or-later
#include "fleet/TargetList.h"

#include <arpa/inet.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <set>
#include <utility>

#include "fleet/HostRange.h"
#include "host/Text.h"

namespace Fleet {

using Plexum::Printable;

namespace {

TargetError ItemError(const std::string& item, const std::string& reason) {
    return TargetError{"'" + Printable(item) + "': " + reason};
}

// "ORIGIN: REASON".
TargetError From(const std::string& origin, const std::string& reason) {
    std::string message = origin;
    message.append(": ").append(reason);
    return TargetError{message};
}

// A target file's line without the blanks around it and the CR of a CRLF line end.
std::string Trimmed(const std::string& line) { return Plexum::Trim(line, " \t\r"); }

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
    return Plexum::Lower(host) + "\n" + std::to_string(bmc.port);
}

}  // namespace

std::string Target::BmcText() const {
    return bmc.user + (bmc.hasPassword ? ":" + bmc.password : std::string()) + "@" + label;
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
    if (auto error = Fleet::ExpandHostList(hosts, kMaxTargets - m_targets.size(), items)) {
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
        const std::string origin = Printable(name) + ":" + std::to_string(number);
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

}  // namespace Fleet
