// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/CommandLine.h"

#include <algorithm>
#include <cstring>

#include "cli/ArgvScrub.h"
#include "host/Text.h"

namespace MorvelCli {
namespace {

constexpr unsigned kMaxFanout = 1024;

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

// The name of an option word: what lies between "--" and the first '='.
std::string NameOf(const std::string& word) { return word.substr(2, word.find('=') - 2); }

std::vector<std::string> NamesOf(const std::vector<OptionDeclaration>& options) {
    std::vector<std::string> names;
    names.reserve(options.size());
    for (const OptionDeclaration& option : options) names.emplace_back(option.name);
    return names;
}

std::string Suggestion(const std::string& typed, const std::vector<OptionDeclaration>& options) {
    const std::string close = ClosestName(typed, NamesOf(options));
    return close.empty() ? std::string() : "; did you mean '--" + close + "'?";
}

const OptionDeclaration* FindIn(const std::vector<OptionDeclaration>& options, const std::string& name) {
    const auto found = std::find_if(options.begin(), options.end(),
                                    [&name](const OptionDeclaration& option) { return name == option.name; });
    return found == options.end() ? nullptr : &*found;
}

// Takes the value of the value option at word `index` ("--name=value", or
// "--name value" when the next word does not start with "--") and moves
// `index` past what it used.
bool TakeValue(const std::vector<std::string>& words, size_t& index, const std::string& name, std::string& value,
               CommandLineError& error) {
    const std::string& word = words[index];
    const size_t equals = word.find('=');
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

// The option word at `index` (argument `number` of the command line): its
// declaration, or an error that names it and, when one is close, the option meant.
const OptionDeclaration* Declared(const std::vector<OptionDeclaration>& options, const std::string& word, size_t number,
                                  const std::string& unknown, CommandLineError& error) {
    const std::string name = NameOf(word);
    if (!IsValidOptionName(name)) {
        Fail(error, kExitInvalidParameter,
             "invalid option name in argument " + std::to_string(number) + " (letters, digits, '-', '_' and '.' only)");
        return nullptr;
    }
    const OptionDeclaration* option = FindIn(options, name);
    if (option == nullptr) {
        const std::string suggestion = Suggestion(name, options);
        Fail(error, kExitInvalidParameter, unknown + (suggestion.empty() ? std::string() : suggestion));
        return nullptr;
    }
    if (option->value == nullptr && word.find('=') != std::string::npos) {
        Fail(error, kExitInvalidParameter, "option --" + name + " takes no value");
        return nullptr;
    }
    return option;
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

// The host options up to the command word; false and an error, or true with
// `index` at the first word that is not one.
bool ParseHostOptions(const std::vector<std::string>& words, size_t& index, CommandLine& line, CommandLineError& error) {
    while (index < words.size() && !words[index].empty() && words[index][0] == '-') {
        const std::string& word = words[index];
        if (IsHelpWord(word)) {
            line.action = Action::HostHelp;
            return true;
        }
        const std::string unknown = "unknown host option '" + ShownWord(word.substr(0, word.find('=')));
        const std::string name = StartsWithDashes(word) ? NameOf(word) : std::string();
        const OptionDeclaration* option = nullptr;
        if (!name.empty() && IsValidOptionName(name)) option = FindIn(HostOptions(), name);
        if (option == nullptr) {
            const std::string suggestion = name.empty() ? std::string() : Suggestion(name, HostOptions());
            return Fail(error, kExitInvalidParameter,
                        unknown + "'" +
                            (suggestion.empty() ? " (options of a command go after COMMAND SUBCOMMAND)" : suggestion));
        }
        if (option->value == nullptr) {
            if (word.find('=') != std::string::npos) {
                return Fail(error, kExitInvalidParameter, "option --" + name + " takes no value");
            }
            if (name == "version") {
                line.action = Action::Version;
                return true;
            }
            line.showConfig = true;  // may be given more than once
            ++index;
            continue;
        }
        std::string value;
        if (!TakeValue(words, index, name, value, error)) return false;
        if (!SetHostOption(name, value, line, error)) return false;
    }
    return true;
}

// One option after the command, once it is known to be declared.
bool SetCommandOption(const OptionDeclaration& option, const std::string& value, CommandLine& line,
                      CommandLineError& error) {
    const std::string name = option.name;
    const std::vector<std::string> choices = ChoicesOf(option);
    if (option.choicesOnly && std::find(choices.begin(), choices.end(), value) == choices.end()) {
        // The suggestion is a declared value, never what was typed.
        const std::string close = ClosestName(value, choices);
        return Fail(error, kExitInvalidParameter,
                    "--" + name + " must be " + Alternatives(choices) +
                        (close.empty() ? std::string() : "; did you mean '" + close + "'?"));
    }
    if (option.repeatable) {
        if (name == "bmc-file" && value.empty()) return Fail(error, kExitInvalidParameter, "option --bmc-file needs a file name");
        if (name == "bmc" || name == "bmc-file") line.targets.push_back(TargetSource{name == "bmc-file", value});
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
        line.output = value == "json" ? OutputFormat::Json : value == "table" ? OutputFormat::Table : OutputFormat::Text;
    } else if (name == "always-prefix") {
        line.alwaysPrefix = true;
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
    if (!ParseHostOptions(words, index, line, error)) return false;
    if (line.action != Action::Run) return true;
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
    if (std::any_of(words.begin() + static_cast<std::ptrdiff_t>(index), words.end(), IsHelpWord)) {
        line.action = Action::CommandHelp;
        return true;
    }
    if (index >= words.size() || (!words[index].empty() && words[index][0] == '-')) {
        error.missingSubcommand = true;
        return Fail(error, kExitInvalidCommand,
                    "missing subcommand after '" + ShownWord(line.command) + "'; run 'morvel " +
                        ShownWord(line.command) + " --help' for usage");
    }
    line.subCommand = words[index];
    ++index;
    line.restIndex = index;
    line.rest.assign(words.begin() + static_cast<std::ptrdiff_t>(index), words.end());
    return true;
}

bool ParseCommandOptions(const CommandSyntax& syntax, CommandLine& line, CommandLineError& error) {
    std::vector<std::string> words = std::move(line.rest);
    line.rest.clear();
    size_t index = 0;
    const auto number = [&line, &index] { return line.restIndex + index; };
    // A command that works on one host names it after the subcommand.
    if (syntax.Declaration().operand != nullptr && index < words.size() && !StartsWithDashes(words[index])) {
        line.options.emplace("target", words[index]);
        ++index;
    }
    const std::string unknownFor = "' for " + ShownWord(line.command);
    while (index < words.size()) {
        const std::string& word = words[index];
        if (!StartsWithDashes(word) || word == "--") {
            // Not quoted: a stray word may be a piece of a password.
            return Fail(error, kExitInvalidParameter,
                        "unexpected argument " + std::to_string(number()) +
                            " after the subcommand; options are written --name VALUE or --name=VALUE");
        }
        const std::string unknown = "unknown option '" + ShownWord(word.substr(0, word.find('='))) + unknownFor;
        const OptionDeclaration* option = Declared(syntax.Options(), word, number(), unknown, error);
        if (option == nullptr) return false;
        std::string value;
        if (option->value == nullptr) {
            ++index;  // a flag is in the options map with an empty value
        } else if (!TakeValue(words, index, option->name, value, error)) {
            return false;
        }
        if (!SetCommandOption(*option, value, line, error)) return false;
    }
    if (line.hasPasswordFile && line.options.count("password-file") != 0) {
        return Fail(error, kExitInvalidParameter, "option --password-file given both before and after the command");
    }
    return true;
}

}  // namespace MorvelCli
