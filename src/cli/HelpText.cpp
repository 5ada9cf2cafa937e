// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/HelpText.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "cli/CommandLine.h"

#ifndef MORVEL_VERSION
#error "MORVEL_VERSION must be defined by the build"
#endif
#ifndef MORVEL_MODULE_SUBDIR
#error "MORVEL_MODULE_SUBDIR must be defined by the build"
#endif

namespace MorvelCli {
namespace {

// Where the help of an option starts; a longer option has its help start on the next line.
constexpr size_t kHelpColumn = 24;
// Help lines end by this column.
constexpr size_t kWidth = 80;

// The text's lines, each after `indent` blanks, its words wrapped to end by
// kWidth; a line break in the text always breaks the line.
std::string Indented(const std::string& text, size_t indent) {
    std::string out;
    size_t begin = 0;
    while (begin < text.size()) {
        const size_t end = std::min(text.find('\n', begin), text.size());
        std::string line;
        size_t word = text.find_first_not_of(' ', begin);
        while (word < end) {
            const size_t wordEnd = std::min(text.find(' ', word), end);
            const std::string next = text.substr(word, wordEnd - word);
            if (!line.empty() && indent + line.size() + 1 + next.size() > kWidth) {
                out += std::string(indent, ' ') + line + "\n";
                line.clear();
            }
            line += (line.empty() ? "" : " ") + next;
            word = text.find_first_not_of(' ', wordEnd);
        }
        out += line.empty() ? "\n" : std::string(indent, ' ') + line + "\n";
        begin = end + 1;
    }
    return out;
}

// "  FORM" and its help from `column` on: on the same line when FORM leaves room, else from the next.
std::string Entry(const std::string& form, const std::string& help, size_t column = kHelpColumn) {
    std::string line = "  " + form;
    if (line.size() + 1 > column) return line + "\n" + Indented(help, column);
    line.append(column - line.size(), ' ');
    return line + Indented(help, column).substr(column);
}

std::string OptionForm(const OptionDeclaration& option) {
    const std::string name = option.name;
    std::string form = name == "help" ? "-h, --help" : "--" + name;
    if (option.value != nullptr) form += std::string(" ") + option.value;
    return form;
}

// The options under their headings, the headings in the order they first appear.
std::string OptionList(const std::vector<OptionDeclaration>& options, const std::string& firstHeading) {
    std::vector<std::string> headings;
    for (const OptionDeclaration& option : options) {
        const std::string heading = option.group != nullptr ? option.group : firstHeading;
        if (std::find(headings.begin(), headings.end(), heading) == headings.end()) headings.push_back(heading);
    }
    std::string text;
    for (const std::string& heading : headings) {
        text += "\n" + heading + ":\n";
        for (const OptionDeclaration& option : options) {
            if ((option.group != nullptr ? option.group : firstHeading) == heading) text += Entry(OptionForm(option), option.help);
        }
    }
    return text;
}

}  // namespace

std::string VersionNumber() { return MORVEL_VERSION; }

std::string VersionText() { return "morvel " + VersionNumber() + "\n"; }

std::string HostHelpText(const std::vector<CommandSummary>& commands) {
    std::string text = "Usage: morvel [HOST OPTIONS] COMMAND SUBCOMMAND [--name VALUE | --name=VALUE]...\n\nCommands:\n";
    if (commands.empty()) text += "  (none installed)\n";
    for (const CommandSummary& command : commands) text += Entry(command.name, command.summary, 12);
    text += OptionList(HostOptions(), "Host options (before the command)");
    text +=
        "\n"
        "When --bmc names no password (USER@HOST), it is taken from --credentials-file,\n"
        "else from --password-command, else from MORVEL_BMC_PASSWORD, else from\n"
        "--password-file, else asked for on the terminal.\n"
        "Modules are looked up in $MORVEL_MODULE_PATH, else in <prefix>/" MORVEL_MODULE_SUBDIR ".\n"
        "\n"
        "Run 'morvel COMMAND --help' for the usage of a command.\n";
    return text;
}

std::string CommandHelpText(const CommandSyntax& syntax) {
    const CommandDeclaration& command = syntax.Declaration();
    std::string text = std::string("Usage: morvel [HOST OPTIONS] ") + command.name + " SUBCOMMAND";
    if (command.operand != nullptr) text += std::string(" ") + command.operand;
    if (command.smmTargets) text += " --bmc USER[:PASSWORD]@HOSTS";
    text += " [OPTIONS]\n";
    if (command.description != nullptr) text += "\n" + Indented(command.description, 0);
    if (command.subcommandCount > 0) {
        text += "\nSubcommands (case-sensitive):\n";
        size_t width = 0;
        for (size_t i = 0; i < command.subcommandCount; ++i) width = std::max(width, std::strlen(command.subcommands[i].name));
        for (size_t i = 0; i < command.subcommandCount; ++i) {
            const std::string name = command.subcommands[i].name;
            text += "  " + name + std::string(width + 2 - name.size(), ' ') +
                    Indented(command.subcommands[i].help, width + 4).substr(width + 4);
        }
    }
    std::vector<OptionDeclaration> options(command.options, command.options + command.optionCount);
    // Help is the host's, and every command takes it.
    options.push_back(OptionDeclaration{"help", nullptr, nullptr, false, false, nullptr, "show this help and exit"});
    const std::vector<OptionDeclaration>& all = syntax.Options();
    options.insert(options.end(), all.begin() + static_cast<std::ptrdiff_t>(command.optionCount), all.end());
    text += OptionList(options, "Options");
    return text;
}

std::string UnknownSubcommandNote(const CommandSyntax& syntax, const std::string& word, bool caseOnly) {
    const std::vector<std::string> known = syntax.SubcommandNames();
    if (known.empty() || std::find(known.begin(), known.end(), word) != known.end()) return std::string();
    const auto sameLetters = [&word](const std::string& name) {
        return name.size() == word.size() &&
               std::equal(name.begin(), name.end(), word.begin(), [](char a, char b) {
                   return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
               });
    };
    const auto match = std::find_if(known.begin(), known.end(), sameLetters);
    if (match != known.end()) return "subcommands are case-sensitive: did you mean '" + *match + "'?";
    if (caseOnly) return std::string();
    std::string list;
    for (size_t i = 0; i < known.size(); ++i) list += (i == 0 ? "" : i + 1 == known.size() ? " and " : ", ") + known[i];
    return "unknown subcommand '" + ShownWord(word) + "' of " + ShownWord(syntax.Declaration().name) +
           "; the subcommands are " + list;
}

}  // namespace MorvelCli
