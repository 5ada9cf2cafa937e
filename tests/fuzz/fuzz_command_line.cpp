// SPDX-License-Identifier: GPL-3.0-or-later
// The host's command-line grammar (MorvelCli::ParseCommandLine, then
// ParseCommandOptions with a command's declaration: pure functions of the
// words) and Printable.
//
// Input: the words after the program name, separated by NUL bytes. A word
// holding the marker below stands for a secret: an error text may show it
// only where the grammar quotes a word itself (the command word, or the name
// part of an option), never where it was used as a value.

#include <cstdint>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "cli/CommandLine.h"

namespace {

const char kSecret[] = "S3CRET";

// A command that works on SMMs, with an option of its own, and one with an
// operand and a flag: the grammar's two shapes.
constexpr const char* kMethods[] = {"static", "dhcp", nullptr};
const Plexum::OptionDeclaration kSmmOptions[] = {{"method", "M", kMethods, false, false, nullptr, "how"}};
const Plexum::CommandDeclaration kSmm = {Plexum::CommandDeclaration::kAbiVersion, "smmlan", "SMMs", nullptr, nullptr,
                                         0, nullptr, kSmmOptions, 1, true};
const Plexum::OptionDeclaration kTrustOptions[] = {{"known-smms", "FILE", nullptr, false, false, nullptr, "file"},
                                                   {"yes", nullptr, nullptr, false, false, nullptr, "flag"}};
const Plexum::CommandDeclaration kTrust = {Plexum::CommandDeclaration::kAbiVersion, "trust", "pins", nullptr, nullptr,
                                           0, "HOST", kTrustOptions, 2, false};

bool HasControl(const std::string& text) {
    for (const char c : text) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (u < 0x20 || u == 0x7f) return true;
    }
    return false;
}

bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> words{"morvel"};
    size_t begin = 0;
    while (begin <= text.size() && !text.empty()) {
        const size_t end = text.find('\0', begin);
        words.push_back(text.substr(begin, end == std::string::npos ? std::string::npos : end - begin));
        if (end == std::string::npos) break;
        begin = end + 1;
    }

    for (const std::string& word : words) {
        const std::string shown = MorvelCli::Printable(word);
        FUZZ_CHECK(shown.size() == word.size() && !HasControl(shown));
    }

    MorvelCli::CommandLine line;
    MorvelCli::CommandLineError error;
    static const MorvelCli::CommandSyntax smm(kSmm);
    static const MorvelCli::CommandSyntax trust(kTrust);
    const bool parsed = MorvelCli::ParseCommandLine(words, line, error) &&
                        (line.action != MorvelCli::Action::Run ||
                         MorvelCli::ParseCommandOptions(line.command == "trust" ? trust : smm, line, error));
    if (!parsed) {
        FUZZ_CHECK(error.exitStatus == MorvelCli::kExitInvalidCommand ||
                   error.exitStatus == MorvelCli::kExitInvalidParameter);
        FUZZ_CHECK(!error.message.empty() && !HasControl(error.message));
        if (Contains(error.message, kSecret)) {
            // Words the grammar may quote: the command word and option names.
            bool quotable = Contains(line.command, kSecret);
            for (size_t i = 1; i < words.size(); ++i) {
                const std::string& word = words[i];
                if (!word.empty() && word[0] == '-' && Contains(word.substr(0, word.find('=')), kSecret)) {
                    quotable = true;
                }
            }
            FUZZ_CHECK(quotable);
        }
        return 0;
    }

    switch (line.action) {
        case MorvelCli::Action::HostHelp:
        case MorvelCli::Action::Version:
        case MorvelCli::Action::CommandHelp: break;
        case MorvelCli::Action::ShowConfig:
            // Host options only: nothing may follow it.
            FUZZ_CHECK(line.showConfig && line.command.empty());
            break;
        case MorvelCli::Action::Run:
            FUZZ_CHECK(line.commandIndex >= 1 && line.commandIndex < words.size());
            FUZZ_CHECK(words[line.commandIndex] == line.command);
            FUZZ_CHECK(line.subCommand.empty() || line.subCommand[0] != '-');
            FUZZ_CHECK(line.logLevel <= 4);
            FUZZ_CHECK(!line.hasPasswordFile || line.options.count("password-file") == 0);
            FUZZ_CHECK(line.rest.empty());
            for (const auto& option : line.options) {
                // Only what the command declares (and trust's operand) reaches the module.
                const MorvelCli::CommandSyntax& syntax = line.command == "trust" ? trust : smm;
                FUZZ_CHECK(syntax.Find(option.first) != nullptr || (line.command == "trust" && option.first == "target"));
            }
            break;
    }
    static_cast<void>(line.PasswordFile());
    return 0;
}
