// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace MorvelCli {

// A fleet's passwords in a file: "HOST-PATTERN USER PASSWORD" lines, the
// pattern a host item in the range syntax of --bmc (smm[01-40]) or '*'; the
// password is the rest of the line. Blank lines and '#' lines are comments.
class CredentialsFile {
public:
    struct Loaded;
    // Reads FILE; refused when it can be read by group or others.
    static Loaded Load(const std::string& path);
    // The same rules on text already read; `name` names it in errors.
    static Loaded Parse(const std::string& text, const std::string& name);

    // The password of the first line whose pattern matches `host` (as --bmc
    // writes it: an IPv6 literal in brackets, any letter case) and whose user is `user`.
    std::optional<std::string> PasswordFor(const std::string& host, const std::string& user) const;
    size_t Lines() const { return m_lines.size(); }

private:
    struct Line {
        bool anyHost = false;
        std::vector<std::string> hosts;  // expanded, lower case
        std::string user;
        std::string password;
    };
    std::vector<Line> m_lines;
};

struct CredentialsFile::Loaded {
    std::optional<CredentialsFile> file;
    std::string error;  // one line naming the file and line; never a password
};

// --password-command: a program run once per SMM, without a shell (write one,
// sh -c '...', to have one), with MORVEL_TARGET_HOST, MORVEL_TARGET_PORT and
// MORVEL_TARGET_USER in its environment; the first line of its standard
// output is the password. It must exit 0 within the limit.
class PasswordCommand {
public:
    static constexpr std::chrono::seconds kLimit{10};
    static constexpr size_t kMaxLineBytes = 4096;

    struct Parsed;
    // Splits the command into words: blanks separate them, single and double
    // quotes group them, a backslash takes the next character as it is.
    static Parsed Parse(const std::string& command);

    struct Answer {
        std::optional<std::string> password;
        std::string error;  // why there is none; never what the command printed
    };
    Answer Run(const std::string& host, int port, const std::string& user,
               std::chrono::milliseconds limit = kLimit) const;

    const std::vector<std::string>& Words() const { return m_words; }

private:
    std::vector<std::string> m_words;
};

struct PasswordCommand::Parsed {
    std::optional<PasswordCommand> command;
    std::string error;
};

}  // namespace MorvelCli
