// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/CommandLine.h"

#include <cstring>

#include "cli/ArgvScrub.h"
#include "cli/HelpText.h"
#include "host/Text.h"

namespace MorvelCli {
namespace {

bool StartsWithDashes(const std::string& word) { return word.compare(0, 2, "--") == 0; }

bool IsHelpWord(const std::string& word) { return word == "--help" || word == "-h"; }

bool IsValidOptionName(const std::string& name) {
    if (name.empty()) return false;
    for (const char c : name) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
                        c == '_' || c == '.';
        if (!ok) return false;
    }
    return name[0] != '-';
}

bool Fail(CommandLineError& error, int status, const std::string& message) {
    error.exitStatus = status;
    error.message = message;
    return false;
}

// Splits "--name=value" / "--name" at word `index`, taking the value from the
// next word when it is not inline. Advances `index` past what it used.
bool TakeOption(const std::vector<std::string>& words, size_t& index, std::string& name, std::string& value,
                CommandLineError& error) {
    const std::string& word = words[index];
    const size_t equals = word.find('=');
    name = word.substr(2, equals == std::string::npos ? std::string::npos : equals - 2);
    if (!IsValidOptionName(name)) {
        return Fail(error, kExitInvalidParameter,
                    "invalid option name in argument " + std::to_string(index) +
                        " (letters, digits, '-', '_' and '.' only)");
    }
    if (equals != std::string::npos) {
        value = word.substr(equals + 1);
        ++index;
        return true;
    }
    if (index + 1 >= words.size() || StartsWithDashes(words[index + 1])) {
        return Fail(error, kExitInvalidParameter,
                    "option --" + name + " needs a value (write --" + name + "=VALUE for a value that starts with --)");
    }
    value = words[index + 1];
    index += 2;
    return true;
}

bool SetHostOption(const std::string& name, const std::string& value, CommandLine& line, CommandLineError& error) {
    if (name == "log-level") {
        if (line.hasLogLevel) return Fail(error, kExitInvalidParameter, "option --log-level given more than once");
        if (value.size() != 1 || value[0] < '0' || value[0] > '4') {
            return Fail(error, kExitInvalidParameter, "--log-level must be a number from 0 to 4");
        }
        line.hasLogLevel = true;
        line.logLevel = static_cast<unsigned>(value[0] - '0');
        return true;
    }
    bool& given = name == "config" ? line.hasConfig : name == "log-file" ? line.hasLogFile : line.hasPasswordFile;
    std::string& target = name == "config" ? line.config : name == "log-file" ? line.logFile : line.passwordFile;
    if (given) return Fail(error, kExitInvalidParameter, "option --" + name + " given more than once");
    if (value.empty()) return Fail(error, kExitInvalidParameter, "option --" + name + " needs a file name");
    given = true;
    target = value;
    return true;
}

constexpr unsigned kMaxFanout = 1024;

// Options after the subcommand that take no value.
bool IsFlag(const std::string& name) { return name == "always-prefix" || name == "yes"; }

// The options this host reads itself after the subcommand.
bool SetRunOption(const std::string& name, const std::string& value, CommandLine& line, CommandLineError& error) {
    if (name == "bmc" || name == "bmc-file") {
        if (name == "bmc-file" && value.empty()) return Fail(error, kExitInvalidParameter, "option --bmc-file needs a file name");
        line.targets.push_back(TargetSource{name == "bmc-file", value});
        line.options.emplace(name, value);
        return true;
    }
    if (!line.options.emplace(name, value).second) {
        return Fail(error, kExitInvalidParameter, "option --" + name + " given more than once");
    }
    if (name == "fanout") {
        const bool digits = !value.empty() && value.size() <= 4 &&
                            value.find_first_not_of("0123456789") == std::string::npos;
        const unsigned fanout = digits ? static_cast<unsigned>(std::stoul(value)) : 0;
        if (fanout < 1 || fanout > kMaxFanout) {
            return Fail(error, kExitInvalidParameter, "--fanout must be a number from 1 to 1024");
        }
        line.fanout = fanout;
    } else if (name == "output") {
        if (value != "text" && value != "json") return Fail(error, kExitInvalidParameter, "--output must be text or json");
        line.output = value == "json" ? OutputFormat::Json : OutputFormat::Text;
    }
    return true;
}

}  // namespace

std::string CommandLine::PasswordFile() const {
    if (hasPasswordFile) return passwordFile;
    const auto found = options.find("password-file");
    return found == options.end() ? std::string() : found->second;
}

std::string Printable(const std::string& text) { return Plexum::Printable(text); }

std::string ShownWord(const std::string& word) {
    std::string shown = word;
    if (shown.find('@') != std::string::npos && ScrubBmcValue(&shown[0])) shown.resize(std::strlen(shown.c_str()));
    return Printable(shown);
}

bool ParseCommandLine(const std::vector<std::string>& words, CommandLine& line, CommandLineError& error) {
    line = CommandLine();
    error = CommandLineError();
    size_t index = 1;
    // Host options: everything up to the first word that does not start with '-'.
    while (index < words.size() && !words[index].empty() && words[index][0] == '-') {
        const std::string& word = words[index];
        if (IsHelpWord(word)) {
            line.action = Action::HostHelp;
            return true;
        }
        if (word == "--version") {
            line.action = Action::Version;
            return true;
        }
        const std::string name = StartsWithDashes(word) ? word.substr(2, word.find('=') - 2) : std::string();
        if (name == "show-config") {
            if (word.size() > name.size() + 2) return Fail(error, kExitInvalidParameter, "option --show-config takes no value");
            line.showConfig = true;
            ++index;
            continue;
        }
        const bool known = name == "config" || name == "log-file" || name == "log-level" || name == "password-file";
        if (!known) {
            if (name == "help" || name == "version") {
                return Fail(error, kExitInvalidParameter, "option --" + name + " takes no value");
            }
            return Fail(error, kExitInvalidParameter,
                        "unknown host option '" + ShownWord(word.substr(0, word.find('='))) +
                            "' (options of a command go after COMMAND SUBCOMMAND)");
        }
        std::string taken;
        std::string value;
        if (!TakeOption(words, index, taken, value, error)) return false;
        if (!SetHostOption(name, value, line, error)) return false;
    }
    if (line.showConfig) {
        if (index < words.size()) {
            return Fail(error, kExitInvalidParameter, "--show-config takes no command; it prints the configuration and exits");
        }
        line.action = Action::ShowConfig;
        return true;
    }
    if (index >= words.size()) {
        return Fail(error, kExitInvalidCommand, "missing command; run 'morvel --help' for usage");
    }
    line.command = words[index];
    line.commandIndex = index;
    ++index;

    // Help after the command wins over everything else there, so that
    // "morvel smmlan --help" works without a subcommand.
    for (size_t i = index; i < words.size(); ++i) {
        if (IsHelpWord(words[i])) {
            line.action = Action::CommandHelp;
            return true;
        }
    }

    if (index >= words.size() || (!words[index].empty() && words[index][0] == '-')) {
        error.missingSubcommand = true;
        return Fail(error, kExitInvalidCommand,
                    "missing subcommand after '" + ShownWord(line.command) + "'; run 'morvel " +
                        ShownWord(line.command) + " --help' for usage");
    }
    line.subCommand = words[index];
    ++index;
    // A command that works on one host names it after the subcommand.
    if (CommandTakesOperand(line.command) && index < words.size() && !StartsWithDashes(words[index])) {
        line.options.emplace("target", words[index]);
        ++index;
    }

    while (index < words.size()) {
        if (!StartsWithDashes(words[index]) || words[index] == "--") {
            // Not quoted: a stray word may be a piece of a password.
            return Fail(error, kExitInvalidParameter,
                        "unexpected argument " + std::to_string(index) +
                            " after the subcommand; options are written --name VALUE or --name=VALUE");
        }
        const std::string flag = words[index].substr(2, words[index].find('=') - 2);
        if (IsFlag(flag)) {
            if (words[index].size() > flag.size() + 2) {
                return Fail(error, kExitInvalidParameter, "option --" + flag + " takes no value");
            }
            // A flag is in the options map with an empty value.
            if (!line.options.emplace(flag, std::string()).second) {
                return Fail(error, kExitInvalidParameter, "option --" + flag + " given more than once");
            }
            line.alwaysPrefix = line.alwaysPrefix || flag == "always-prefix";
            ++index;
            continue;
        }
        std::string name;
        std::string value;
        if (!TakeOption(words, index, name, value, error)) return false;
        if (!SetRunOption(name, value, line, error)) return false;
    }
    if (line.hasPasswordFile && line.options.count("password-file") != 0) {
        return Fail(error, kExitInvalidParameter, "option --password-file given both before and after the command");
    }
    return true;
}

}  // namespace MorvelCli
