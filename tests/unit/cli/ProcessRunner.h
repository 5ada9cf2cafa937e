// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <map>
#include <string>
#include <vector>

// Runs the built morvel executable as a child process in a new session (so it
// has no controlling terminal unless one is asked for), with exactly the given
// environment and standard input from /dev/null.
struct ProcessRequest {
    std::vector<std::string> arguments;  // after the program name
    std::map<std::string, std::string> environment;
    bool withTerminal = false;           // give it a pseudo terminal as controlling terminal
    std::string typeAfterPrompt;         // typed on that terminal once "Password: " shows
    enum class Output { Pipe, Closed, Full };
    Output standardOutput = Output::Pipe;  // Full: /dev/full, where every write fails
    unsigned openFileLimit = 0;            // soft and hard RLIMIT_NOFILE of the child; 0 leaves it
};

struct ProcessResult {
    int pid = 0;
    int exitStatus = -1;  // -1 when it did not exit normally
    std::string out;
    std::string err;
    std::string terminal;  // what the child wrote to its terminal
};

ProcessResult RunMorvel(const ProcessRequest& request);
