// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <string>
#include <vector>

namespace MorvelCli {

// Where the BMC password comes from when --bmc names none (USER@HOST):
// the environment variable, else the password file, else a prompt on the
// terminal. No text this class produces contains the password.
class PasswordSource {
public:
    enum class Origin { Environment, File, Prompt };

    struct Inputs {
        const char* environment = nullptr;  // value of MORVEL_BMC_PASSWORD, null when unset
        std::string passwordFile;           // empty when none was given
        std::string terminal = "/dev/tty";
    };

    // True and the password; false and a one-line reason. `warnings` collects
    // one-line notes for standard error (a password file open to others).
    static bool Resolve(const Inputs& inputs, std::string& password, Origin& origin,
                        std::vector<std::string>& warnings, std::string& error);

    // The first line of the file without its line end. An empty first line
    // is an error: an empty password is written "USER:@HOST" in --bmc.
    static bool ReadFile(const std::string& path, std::string& password, std::vector<std::string>& warnings,
                         std::string& error);

    // Writes `prompt` to the terminal, reads one line with echo switched off,
    // restores the terminal (also when a signal ends the process meanwhile).
    // `noTerminal` (optional) tells a missing terminal from other failures.
    static bool Prompt(const std::string& terminal, const std::string& prompt, std::string& password,
                       std::string& error, bool* noTerminal = nullptr);

    static const char* OriginName(Origin origin);
};

}  // namespace MorvelCli
