// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/CommandLine.h"

#include <gtest/gtest.h>

namespace {

using MorvelCli::Action;
using MorvelCli::CommandLine;
using MorvelCli::CommandLineError;
using MorvelCli::CommandSyntax;
using MorvelCli::ParseCommandLine;
using MorvelCli::ParseCommandOptions;

// Two commands as modules declare them: one that works on SMMs, with an
// option of its own, and one that takes a host as its operand and a flag.
constexpr const char* kMethods[] = {"static", "dhcp", "dhcp-failover", nullptr};
const Plexum::OptionDeclaration kSmmOptions[] = {
    {"method", "static|dhcp|dhcp-failover", kMethods, false, false, nullptr, "how"},
    {"note", "TEXT", nullptr, false, false, nullptr, "any text"},
};
const Plexum::SubcommandDeclaration kSmmSubcommands[] = {{"query", "read"}, {"enable", "switch on"}};
const Plexum::CommandDeclaration kSmm = {Plexum::CommandDeclaration::kAbiVersion, "smmlan", "SMMs", nullptr,
                                         kSmmSubcommands, 2, nullptr, kSmmOptions, 2, true};
const Plexum::OptionDeclaration kTrustOptions[] = {
    {"known-smms", "FILE", nullptr, false, false, nullptr, "the file"},
    {"yes", nullptr, nullptr, false, false, nullptr, "without asking"},
};
const Plexum::CommandDeclaration kTrust = {Plexum::CommandDeclaration::kAbiVersion, "trust", "pins", nullptr,
                                           nullptr, 0, "HOST[:PORT]", kTrustOptions, 2, false};

const CommandSyntax& SyntaxOf(const std::string& command) {
    static const CommandSyntax smm(kSmm);
    static const CommandSyntax trust(kTrust);
    return command == "trust" ? trust : smm;
}

// Both steps, as the host takes them: the words up to the options, then the
// options with the command's syntax.
bool ParseAll(std::vector<std::string> words, CommandLine& line, CommandLineError& error) {
    words.insert(words.begin(), "morvel");
    if (!ParseCommandLine(words, line, error)) return false;
    if (line.action != Action::Run) return true;
    return ParseCommandOptions(SyntaxOf(line.command), line, error);
}

CommandLine Parse(std::vector<std::string> words) {
    CommandLine line;
    CommandLineError error;
    EXPECT_TRUE(ParseAll(std::move(words), line, error)) << error.message;
    return line;
}

CommandLineError ErrorOf(std::vector<std::string> words) {
    CommandLine line;
    CommandLineError error;
    EXPECT_FALSE(ParseAll(std::move(words), line, error));
    return error;
}

using Options = std::map<std::string, std::string>;

TEST(CommandLine, CommandSubcommandAndOptions) {
    const CommandLine line = Parse({"smmlan", "enable", "--bmc", "admin:pw@10.0.0.5", "--method=dhcp-failover"});
    EXPECT_EQ(line.action, Action::Run);
    EXPECT_EQ(line.command, "smmlan");
    EXPECT_EQ(line.commandIndex, 1u);
    EXPECT_EQ(line.subCommand, "enable");
    EXPECT_EQ(line.options, (Options{{"bmc", "admin:pw@10.0.0.5"}, {"method", "dhcp-failover"}}));
    EXPECT_FALSE(line.hasConfig);
    EXPECT_FALSE(line.hasLogFile);
    EXPECT_FALSE(line.hasPasswordFile);
    EXPECT_EQ(line.logLevel, 3u);
}

TEST(CommandLine, SubcommandAndValuesPassUnchanged) {
    const CommandLine line = Parse({"smmlan", "Query", "--bmc=a:b=c@h", "--method", "DHCP", "--note", "-1"});
    EXPECT_EQ(line.subCommand, "Query");
    EXPECT_EQ(line.options, (Options{{"bmc", "a:b=c@h"}, {"method", "DHCP"}, {"note", "-1"}}));
    // Offered values are no limit: any text goes to the module.
    EXPECT_EQ(Parse({"smmlan", "enable", "--method=", "--note="}).options, (Options{{"method", ""}, {"note", ""}}));
}

TEST(CommandLine, AnOptionTheCommandDoesNotDeclareIsRefused) {
    const CommandLineError typo = ErrorOf({"smmlan", "query", "--bmc", "admin@smm07", "--tls-verfy", "pin"});
    EXPECT_EQ(typo.exitStatus, 5);
    EXPECT_EQ(typo.message, "unknown option '--tls-verfy' for smmlan; did you mean '--tls-verify'?");
    EXPECT_EQ(ErrorOf({"smmlan", "query", "--protocl=redfish"}).message,
              "unknown option '--protocl' for smmlan; did you mean '--protocol'?");
    // A unique beginning is close too; a word close to none, or to several, gets no suggestion.
    EXPECT_EQ(ErrorOf({"smmlan", "query", "--tls"}).message,
              "unknown option '--tls' for smmlan; did you mean '--tls-verify'?");
    EXPECT_EQ(ErrorOf({"smmlan", "query", "--frobnicate", "1"}).message, "unknown option '--frobnicate' for smmlan");
    EXPECT_EQ(ErrorOf({"smmlan", "query", "--bmc-fil", "f"}).message,
              "unknown option '--bmc-fil' for smmlan; did you mean '--bmc-file'?");
    EXPECT_EQ(ErrorOf({"smmlan", "query", "--pass", "f"}).message, "unknown option '--pass' for smmlan");
    // Each command has its own options: trust takes none of the SMM runs'.
    EXPECT_EQ(ErrorOf({"trust", "show", "h", "--fanout", "2"}).message, "unknown option '--fanout' for trust");
    EXPECT_EQ(ErrorOf({"trust", "add", "h", "--yse"}).message, "unknown option '--yse' for trust; did you mean '--yes'?");
    // Refused before its value is looked at: the value is never quoted.
    const CommandLineError secret = ErrorOf({"smmlan", "query", "--bcm=admin:Wq7z@h"});
    EXPECT_EQ(secret.message, "unknown option '--bcm' for smmlan; did you mean '--bmc'?");
}

TEST(CommandLine, FixedChoicesAreEnforcedWithASuggestion) {
    EXPECT_EQ(ErrorOf({"smmlan", "query", "--protocol", "redfsh"}).message,
              "--protocol must be auto, redfish or ipmi; did you mean 'redfish'?");
    EXPECT_EQ(ErrorOf({"smmlan", "query", "--tls-verify=tofo"}).message,
              "--tls-verify must be none, ca, pin or tofu; did you mean 'tofu'?");
    EXPECT_EQ(ErrorOf({"smmlan", "query", "--tls-verify=x"}).message, "--tls-verify must be none, ca, pin or tofu");
    EXPECT_EQ(ErrorOf({"smmlan", "query", "--redfish-auth", "sesion"}).message,
              "--redfish-auth must be basic or session; did you mean 'session'?");
    EXPECT_EQ(ErrorOf({"smmlan", "query", "--redfish-auth=token"}).message, "--redfish-auth must be basic or session");
    EXPECT_EQ(Parse({"smmlan", "query", "--redfish-auth", "session"}).options, (Options{{"redfish-auth", "session"}}));
    EXPECT_EQ(Parse({"smmlan", "query", "--protocol", "ipmi"}).options, (Options{{"protocol", "ipmi"}}));
}

TEST(CommandLine, EmptySubcommandIsLeftToTheModule) {
    EXPECT_EQ(Parse({"smmlan", ""}).subCommand, "");
}

TEST(CommandLine, ValueStartingWithDashesNeedsTheEqualsForm) {
    EXPECT_EQ(Parse({"smmlan", "query", "--note=--odd"}).options, (Options{{"note", "--odd"}}));
    const CommandLineError error = ErrorOf({"smmlan", "query", "--note", "--odd"});
    EXPECT_EQ(error.exitStatus, 5);
    EXPECT_EQ(error.message, "option --note needs a value (write --note=VALUE for a value that starts with --)");
}

TEST(CommandLine, OptionWithoutValue) {
    const CommandLineError error = ErrorOf({"smmlan", "query", "--bmc"});
    EXPECT_EQ(error.exitStatus, 5);
    EXPECT_EQ(error.message, "option --bmc needs a value (write --bmc=VALUE for a value that starts with --)");
}

TEST(CommandLine, RepeatedOption) {
    const CommandLineError error = ErrorOf({"smmlan", "query", "--bmc", "a:b@h", "--method", "dhcp", "--method=static"});
    EXPECT_EQ(error.exitStatus, 5);
    EXPECT_EQ(error.message, "option --method given more than once");
    EXPECT_EQ(ErrorOf({"smmlan", "query", "--fanout", "2", "--fanout=3"}).message, "option --fanout given more than once");
    EXPECT_EQ(ErrorOf({"smmlan", "query", "--always-prefix", "--always-prefix"}).message,
              "option --always-prefix given more than once");
}

TEST(CommandLine, TargetsMayRepeatAndKeepTheirOrder) {
    const CommandLine line = Parse({"smmlan", "query", "--bmc", "a:b@h1", "--bmc-file", "racks.txt", "--bmc=c:d@h2",
                                    "--bmc-file=-"});
    ASSERT_EQ(line.targets.size(), 4u);
    EXPECT_EQ((std::vector<std::string>{line.targets[0].value, line.targets[1].value, line.targets[2].value,
                                        line.targets[3].value}),
              (std::vector<std::string>{"a:b@h1", "racks.txt", "c:d@h2", "-"}));
    EXPECT_EQ((std::vector<bool>{line.targets[0].file, line.targets[1].file, line.targets[2].file, line.targets[3].file}),
              (std::vector<bool>{false, true, false, true}));
    // The module sees the first of each, as it always saw the one --bmc.
    EXPECT_EQ(line.options, (Options{{"bmc", "a:b@h1"}, {"bmc-file", "racks.txt"}}));
}

TEST(CommandLine, TrustTakesTheHostAsAnOperand) {
    const CommandLine line = Parse({"trust", "add", "[fd00::5]:8443", "--yes", "--known-smms", "/k"});
    EXPECT_EQ(line.subCommand, "add");
    EXPECT_EQ(line.options, (Options{{"known-smms", "/k"}, {"target", "[fd00::5]:8443"}, {"yes", ""}}));
    EXPECT_EQ(Parse({"trust", "show"}).options, Options{});
    // Other commands take no operand: a stray word may be a piece of a password.
    EXPECT_EQ(ErrorOf({"smmlan", "query", "h"}).message,
              "unexpected argument 3 after the subcommand; options are written --name VALUE or --name=VALUE");
    EXPECT_EQ(ErrorOf({"trust", "show", "a", "b"}).message,
              "unexpected argument 4 after the subcommand; options are written --name VALUE or --name=VALUE");
}

TEST(CommandLine, RunOptions) {
    const CommandLine defaults = Parse({"smmlan", "query", "--bmc", "a:b@h"});
    EXPECT_EQ(defaults.fanout, 64u);
    EXPECT_EQ(defaults.output, MorvelCli::OutputFormat::Text);
    EXPECT_FALSE(defaults.alwaysPrefix);
    const CommandLine line =
        Parse({"smmlan", "query", "--bmc", "a:b@h", "--fanout", "1024", "--output=json", "--always-prefix"});
    EXPECT_EQ(line.fanout, 1024u);
    EXPECT_EQ(line.output, MorvelCli::OutputFormat::Json);
    EXPECT_TRUE(line.alwaysPrefix);
    // Flags are in the options map with an empty value.
    EXPECT_EQ(line.options, (Options{{"always-prefix", ""}, {"bmc", "a:b@h"}, {"fanout", "1024"}, {"output", "json"}}));
    EXPECT_EQ(Parse({"smmlan", "query", "--fanout=1"}).fanout, 1u);
    for (const char* bad : {"0", "1025", "", "-1", "+5", "64k", "99999", " 8"}) {
        const CommandLineError error = ErrorOf({"smmlan", "query", std::string("--fanout=") + bad});
        EXPECT_EQ(error.exitStatus, 5) << bad;
        EXPECT_EQ(error.message, "--fanout must be a number from 1 to 1024") << bad;
    }
    EXPECT_EQ(ErrorOf({"smmlan", "query", "--output", "yaml"}).message, "--output must be text, json or table");
    EXPECT_EQ(ErrorOf({"smmlan", "query", "--output=JSON"}).message,
              "--output must be text, json or table; did you mean 'json'?");
    EXPECT_EQ(Parse({"smmlan", "query", "--output", "table"}).output, MorvelCli::OutputFormat::Table);
    EXPECT_EQ(ErrorOf({"smmlan", "query", "--always-prefix=yes"}).message, "option --always-prefix takes no value");
    EXPECT_EQ(ErrorOf({"trust", "add", "h", "--yes=1"}).message, "option --yes takes no value");
    EXPECT_EQ(ErrorOf({"smmlan", "query", "--bmc-file="}).message, "option --bmc-file needs a file name");
}

TEST(CommandLine, StrayWordIsNotQuoted) {
    const CommandLineError error = ErrorOf({"smmlan", "query", "--bmc", "a:pa", "ss@h"});
    EXPECT_EQ(error.exitStatus, 5);
    EXPECT_EQ(error.message,
              "unexpected argument 5 after the subcommand; options are written --name VALUE or --name=VALUE");
    EXPECT_EQ(ErrorOf({"smmlan", "query", "--"}).message,
              "unexpected argument 3 after the subcommand; options are written --name VALUE or --name=VALUE");
    EXPECT_EQ(ErrorOf({"smmlan", "query", "-m", "x"}).message,
              "unexpected argument 3 after the subcommand; options are written --name VALUE or --name=VALUE");
}

TEST(CommandLine, InvalidOptionNames) {
    const std::string message = "invalid option name in argument 3 (letters, digits, '-', '_' and '.' only)";
    EXPECT_EQ(ErrorOf({"smmlan", "query", "--=x"}).message, message);
    EXPECT_EQ(ErrorOf({"smmlan", "query", "---x", "y"}).message, message);
    EXPECT_EQ(ErrorOf({"smmlan", "query", "--a b", "y"}).message, message);
    EXPECT_EQ(ErrorOf({"smmlan", "query", "--a\tb=y"}).exitStatus, 5);
}

TEST(CommandLine, HostOptionsBeforeTheCommand) {
    const CommandLine line = Parse({"--config", "/etc/m.conf", "--log-file=/tmp/m.log", "--log-level", "4",
                                    "--password-file", "/run/pw", "smmlan", "query", "--bmc", "a@h"});
    EXPECT_TRUE(line.hasConfig);
    EXPECT_EQ(line.config, "/etc/m.conf");
    EXPECT_TRUE(line.hasLogFile);
    EXPECT_EQ(line.logFile, "/tmp/m.log");
    EXPECT_EQ(line.logLevel, 4u);
    EXPECT_TRUE(line.hasPasswordFile);
    EXPECT_EQ(line.passwordFile, "/run/pw");
    EXPECT_EQ(line.PasswordFile(), "/run/pw");
    EXPECT_EQ(line.command, "smmlan");
    EXPECT_EQ(line.commandIndex, 8u);
    EXPECT_EQ(line.options, (Options{{"bmc", "a@h"}}));
}

TEST(CommandLine, LogLevels) {
    for (unsigned level = 0; level <= 4; ++level) {
        EXPECT_EQ(Parse({"--log-level=" + std::to_string(level), "smmlan", "query"}).logLevel, level);
    }
    for (const char* bad : {"5", "-1", "", "3 ", "03", "x", "10"}) {
        const CommandLineError error = ErrorOf({std::string("--log-level=") + bad, "smmlan", "query"});
        EXPECT_EQ(error.exitStatus, 5) << bad;
        EXPECT_EQ(error.message, "--log-level must be a number from 0 to 4") << bad;
    }
    EXPECT_EQ(ErrorOf({"--log-level", "2", "--log-level", "2", "smmlan", "query"}).message,
              "option --log-level given more than once");
}

TEST(CommandLine, HostOptionErrors) {
    EXPECT_EQ(ErrorOf({"--config"}).message,
              "option --config needs a value (write --config=VALUE for a value that starts with --)");
    EXPECT_EQ(ErrorOf({"--config", "--log-level", "3", "smmlan", "query"}).message,
              "option --config needs a value (write --config=VALUE for a value that starts with --)");
    EXPECT_EQ(ErrorOf({"--config=", "smmlan", "query"}).message, "option --config needs a file name");
    EXPECT_EQ(ErrorOf({"--log-file=a", "--log-file=b", "smmlan", "query"}).message,
              "option --log-file given more than once");
    const CommandLineError unknown = ErrorOf({"--fanout=3", "smmlan", "query"});
    EXPECT_EQ(unknown.exitStatus, 5);
    EXPECT_EQ(unknown.message, "unknown host option '--fanout' (options of a command go after COMMAND SUBCOMMAND)");
    EXPECT_EQ(ErrorOf({"-v", "smmlan"}).message,
              "unknown host option '-v' (options of a command go after COMMAND SUBCOMMAND)");
    EXPECT_EQ(ErrorOf({"--", "smmlan"}).message,
              "unknown host option '--' (options of a command go after COMMAND SUBCOMMAND)");
    EXPECT_EQ(ErrorOf({"--help=yes"}).message, "option --help takes no value");
    EXPECT_EQ(ErrorOf({"--version=1"}).message, "option --version takes no value");
}

TEST(CommandLine, MissingCommandOrSubcommand) {
    const CommandLineError none = ErrorOf({});
    EXPECT_EQ(none.exitStatus, 4);
    EXPECT_EQ(none.message, "missing command; run 'morvel --help' for usage");
    EXPECT_EQ(ErrorOf({"--log-level", "3"}).message, "missing command; run 'morvel --help' for usage");
    const CommandLineError noSub = ErrorOf({"smmlan"});
    EXPECT_EQ(noSub.exitStatus, 4);
    EXPECT_EQ(noSub.message, "missing subcommand after 'smmlan'; run 'morvel smmlan --help' for usage");
    EXPECT_EQ(ErrorOf({"smmlan", "--bmc", "a:b@h"}).message,
              "missing subcommand after 'smmlan'; run 'morvel smmlan --help' for usage");
}

TEST(CommandLine, HelpAndVersion) {
    EXPECT_EQ(Parse({"--help"}).action, Action::HostHelp);
    EXPECT_EQ(Parse({"-h", "smmlan", "query"}).action, Action::HostHelp);
    EXPECT_EQ(Parse({"--log-level", "2", "--help", "--bogus"}).action, Action::HostHelp);
    EXPECT_EQ(Parse({"--version"}).action, Action::Version);
    EXPECT_EQ(Parse({"--version", "--help"}).action, Action::Version);

    const CommandLine help = Parse({"smmlan", "--help"});
    EXPECT_EQ(help.action, Action::CommandHelp);
    EXPECT_EQ(help.command, "smmlan");
    EXPECT_EQ(Parse({"smmlan", "query", "--bmc", "x", "-h"}).action, Action::CommandHelp);
    EXPECT_EQ(Parse({"smmlan", "query", "stray", "--help"}).action, Action::CommandHelp);
}

TEST(CommandLine, PasswordFileAfterTheCommand) {
    const CommandLine line = Parse({"smmlan", "query", "--password-file", "/run/pw", "--bmc", "a@h"});
    EXPECT_FALSE(line.hasPasswordFile);
    EXPECT_EQ(line.PasswordFile(), "/run/pw");
    // It stays an option of the command, like every other.
    EXPECT_EQ(line.options, (Options{{"bmc", "a@h"}, {"password-file", "/run/pw"}}));

    const CommandLineError both = ErrorOf({"--password-file=/a", "smmlan", "query", "--password-file=/b"});
    EXPECT_EQ(both.exitStatus, 5);
    EXPECT_EQ(both.message, "option --password-file given both before and after the command");
}

TEST(CommandLine, HostOptionsAfterTheCommandAreTheCommands) {
    // The command does not declare it: a host option in the wrong place is refused, not taken.
    EXPECT_EQ(ErrorOf({"smmlan", "query", "--log-level", "4"}).message, "unknown option '--log-level' for smmlan");
    EXPECT_EQ(ErrorOf({"--confg", "x", "smmlan", "query"}).message,
              "unknown host option '--confg'; did you mean '--config'?");
}

TEST(CommandLine, ErrorsNeverQuoteValues) {
    const CommandLineError error = ErrorOf({"smmlan", "query", "--bmc", "a:Wq7z@h", "Wq7z"});
    EXPECT_EQ(error.message.find("Wq7z"), std::string::npos);
}

TEST(CommandLine, Printable) {
    EXPECT_EQ(MorvelCli::Printable("a\x1b[2Jb\n\x7f"), "a?[2Jb??");
    EXPECT_EQ(MorvelCli::Printable("plain"), "plain");
}

TEST(CommandLine, ShownWordMasksAMisplacedPassword) {
    EXPECT_EQ(MorvelCli::ShownWord("admin:Wq7z@10.0.0.5"), "admin:*@10.0.0.5");
    EXPECT_EQ(MorvelCli::ShownWord("admin:W:q@7z@[fd00::5]:8443"), "admin:*@[fd00::5]:8443");
    EXPECT_EQ(MorvelCli::ShownWord("admin:\x1b[2J@h\n"), "admin:*@h?");
    EXPECT_EQ(MorvelCli::ShownWord("admin@h"), "admin@h");
    EXPECT_EQ(MorvelCli::ShownWord("[fd00::5]:8443"), "[fd00::5]:8443");
    EXPECT_EQ(MorvelCli::ShownWord("a:b\x1b"), "a:b?");
    EXPECT_EQ(MorvelCli::ShownWord(""), "");

    const CommandLineError option = ErrorOf({"--bmc:admin:Wq7z@h", "smmlan", "query"});
    EXPECT_EQ(option.exitStatus, 5);
    EXPECT_EQ(option.message,
              "unknown host option '--bmc:*@h' (options of a command go after COMMAND SUBCOMMAND)");
    const CommandLineError command = ErrorOf({"admin:Wq7z@h"});
    EXPECT_EQ(command.exitStatus, 4);
    EXPECT_EQ(command.message, "missing subcommand after 'admin:*@h'; run 'morvel admin:*@h --help' for usage");
}

}  // namespace
