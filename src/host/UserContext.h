// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

// The parsed command line that the host hands to a module.
struct UserContext {
    std::string program;     // argv[0] as the host was started
    std::string command;     // the host command word, e.g. "smmlan"
    std::string modulePath;  // the module file the command was loaded from
    std::string subCommand;  // the word after the command, passed on unchanged
    int32_t logLevel = 0;
    int32_t reserved = 0;
    int64_t startTimeMs = 0;
    int64_t processId = 0;
    std::vector<std::string> arguments;             // the words after the command
    std::map<std::string, std::string> options;     // "--name value" pairs, byte-ordered
};
