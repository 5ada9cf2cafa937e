// SPDX-License-Identifier: GPL-3.0-or-later
// The host's command-line grammar (MorvelCli::ParseCommandLine, a pure
// function of the words) and Printable.
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
    if (!MorvelCli::ParseCommandLine(words, line, error)) {
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
            for (const auto& option : line.options) {
                FUZZ_CHECK(!option.first.empty() && option.first[0] != '-' &&
                           option.first.find_first_of("= ") == std::string::npos);
            }
            break;
    }
    static_cast<void>(line.PasswordFile());
    return 0;
}
