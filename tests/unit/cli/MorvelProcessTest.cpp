// SPDX-License-Identifier: GPL-3.0-or-later
// The built morvel executable as a script would run it, with test modules in
// a scratch module directory.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "ProcessRunner.h"
#include "cli/ConfigFiles.h"
#include "cli/HelpText.h"
#include "support/TestFiles.h"

namespace {

const std::string kBadForm = "expected USER[:PASSWORD]@HOST[:PORT]";

// Log lines without their time stamp and source line: "LEVEL source text".
std::vector<std::string> LogRecords(const std::string& path) {
    std::vector<std::string> records;
    std::istringstream lines(ReadWholeFile(path));
    std::string line;
    while (std::getline(lines, line)) records.push_back(WithoutTimeStampAndLine(line));
    return records;
}

// The commands of the test module folder, as the host's help lists them.
std::vector<MorvelCli::CommandSummary> TestCommands() {
    const std::string unloadable = "(its module cannot be loaded: run 'morvel %s --help' for why)";
    const auto note = [&unloadable](const std::string& command) {
        std::string text = unloadable;
        return text.replace(text.find("%s"), 2, command);
    };
    return {{"broken", note("broken")},
            {"nocreate", note("nocreate")},
            {"nullapp", "makes no application object"},
            {"probe", "reports what the host gave it"}};
}

class MorvelProcess : public ::testing::Test {
protected:
    void SetUp() override {
        m_modules = m_scratch.Path() + "/modules";
        m_home = m_scratch.Path() + "/home";
        m_log = m_scratch.Path() + "/morvel.log";
        m_dump = m_scratch.Path() + "/dump.txt";
        ASSERT_EQ(::mkdir(m_modules.c_str(), 0700), 0);
        ASSERT_EQ(::mkdir(m_home.c_str(), 0700), 0);
        for (const char* name : {"probe", "nocreate", "nullapp"}) {
            const std::string file = std::string("/libmorvel_") + name + ".so";
            ASSERT_EQ(::symlink((TEST_MODULE_DIR + file).c_str(), (m_modules + file).c_str()), 0);
        }
        m_scratch.Write("modules/libmorvel_broken.so", std::string(4096, 'j'));
    }

    std::map<std::string, std::string> Environment() const {
        return {{"PATH", "/usr/bin:/bin"}, {"HOME", m_home}, {"MORVEL_MODULE_PATH", m_modules}};
    }

    ProcessResult Run(const std::vector<std::string>& arguments,
                      const std::map<std::string, std::string>& extra = {},
                      ProcessRequest::Output output = ProcessRequest::Output::Pipe) const {
        ProcessRequest request;
        request.arguments = arguments;
        request.environment = Environment();
        for (const auto& entry : extra) request.environment[entry.first] = entry.second;
        request.standardOutput = output;
        return RunMorvel(request);
    }

    // The probe's report of what it was given.
    std::string Dump() const { return ReadWholeFile(m_dump); }

    void ExpectNowhere(const ProcessResult& result, const std::string& secret) const {
        EXPECT_EQ(result.out.find(secret), std::string::npos) << result.out;
        EXPECT_EQ(result.err.find(secret), std::string::npos) << result.err;
        EXPECT_EQ(result.terminal.find(secret), std::string::npos) << result.terminal;
        EXPECT_EQ(ReadWholeFile(m_log).find(secret), std::string::npos) << ReadWholeFile(m_log);
    }

    ScratchDirectory m_scratch;
    std::string m_modules;
    std::string m_home;
    std::string m_log;
    std::string m_dump;
};

TEST_F(MorvelProcess, SuccessfulRun) {
    const ProcessResult result = Run({"--log-file", m_log, "probe", "query", "--bmc", "admin:S3cr:t@x@10.0.0.5:8443",
                                      "--method", "dhcp", "--dump", m_dump});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.out,
              "probe: init\n"
              "probe: run query\n"
              "probe: option dump=" + m_dump + "\n"
              "probe: option method=dhcp\n"
              "probe: finish\n"
              "0 Succeed.\n");
    EXPECT_EQ(result.err, "");
    const std::string scrubbed = "admin:*@10.0.0.5:8443";
    EXPECT_EQ(Dump(),
              "program=" MORVEL_BINARY "\n"
              "command=probe\n"
              "modulePath=" + m_modules + "/libmorvel_probe.so\n"
              "subCommand=query\n"
              "logLevel=3\n"
              "minLogLevel=3\n"
              "processId=" + std::to_string(result.pid) + " (own)\n"
              "startTimeSet=1\n"
              "argument=query\n"
              "argument=--bmc\n"
              "argument=" + scrubbed + "\n"
              "argument=--method\n"
              "argument=dhcp\n"
              "argument=--dump\n"
              "argument=" + m_dump + "\n"
              "option bmc=admin:S3cr:t@x@10.0.0.5:8443\n"
              "option dump=" + m_dump + "\n"
              "option method=dhcp\n"
              // The password's 8 bytes became one '*' and 7 zero bytes.
              "cmdline=" MORVEL_BINARY "|--log-file|" + m_log + "|probe|query|--bmc|" + scrubbed +
                  "||||||||--method|dhcp|--dump|" + m_dump + "|\n");
    const std::vector<std::string> expected = {
        "INFO src/cli/Host morvel " MORVEL_VERSION " pid " + std::to_string(result.pid) +
            ": command probe, subcommand query",
        "INFO src/cli/Host module " + m_modules + "/libmorvel_probe.so",
        "INFO src/cli/Host target 10.0.0.5 port 8443 user admin, password from --bmc",
        "INFO tests/unit/cli/ProbeModule probe: init",
        "INFO src/cli/Host init: 0 Succeed.",
        "INFO tests/unit/cli/ProbeModule probe: run query",
        "INFO tests/unit/cli/ProbeModule probe: option dump=" + m_dump,
        "INFO tests/unit/cli/ProbeModule probe: option method=dhcp",
        "INFO src/cli/Host run: 0 Succeed.",
        "INFO tests/unit/cli/ProbeModule probe: finish",
        "INFO src/cli/Host result: 0 Succeed. (exit status 0)",
    };
    EXPECT_EQ(LogRecords(m_log), expected);
    EXPECT_EQ(FileMode(m_log), 0600);
    ExpectNowhere(result, "S3cr");
}

TEST_F(MorvelProcess, FailedRunGoesToStandardError) {
    const ProcessResult result = Run({"probe", "enableipmi", "--run-code", "64"});
    EXPECT_EQ(result.exitStatus, 64);
    EXPECT_EQ(result.out, "probe: init\nprobe: run enableipmi\nprobe: option run-code=64\nprobe: finish\n");
    EXPECT_EQ(result.err,
              "64 Failed to enable SMM IPMI over LAN, please confirm whether the target system supports.\n");
}

TEST_F(MorvelProcess, ResultCodesAndExitStatuses) {
    struct Case {
        const char* code;
        const char* message;
        const char* line;
        bool onStdout;
        int exitStatus;
    };
    const Case cases[] = {
        // The message of a kind-1 code is looked up under kind 1, where nothing is registered.
        {"0x10005", "", "5 Unknow error\n", false, 5},
        {"5", "", "5 Invalid parameter.\n", false, 5},
        {"13", "", "13 Connection failed.\n", false, 13},
        {"2054", "", "2054 Authentication failed. For instance, user name or password error.\n", false, 255},
        {"300", "big", "300 big\n", false, 255},
        {"255", "edge", "255 edge\n", false, 255},
        {"-1", "negative", "65535 negative\n", false, 255},
        {"0x10000", "kind only", "0 kind only\n", true, 0},
        {"0", "own text", "0 own text\n", true, 0},
    };
    for (const Case& c : cases) {
        std::vector<std::string> arguments = {"probe", "query", "--bmc", "a:b@h", "--run-code", c.code};
        if (c.message[0] != '\0') arguments.insert(arguments.end(), {"--run-message", c.message});
        const ProcessResult result = Run(arguments);
        EXPECT_EQ(result.exitStatus, c.exitStatus) << c.code;
        const std::string& lastStream = c.onStdout ? result.out : result.err;
        ASSERT_GE(lastStream.size(), std::string(c.line).size()) << c.code;
        EXPECT_EQ(lastStream.substr(lastStream.size() - std::string(c.line).size()), c.line) << c.code;
        EXPECT_EQ(c.onStdout ? result.err : std::string(), "") << c.code;
        if (!c.onStdout) {
            EXPECT_EQ(result.err, c.line) << c.code;
        }
    }
}

TEST_F(MorvelProcess, FailedInitIsReportedAndRunIsSkipped) {
    ProcessResult result = Run({"--log-file", m_log, "probe", "query", "--init-code", "5"});
    EXPECT_EQ(result.exitStatus, 5);
    EXPECT_EQ(result.out, "probe: init\nprobe: finish\n");
    // The probe works on SMMs: without a --bmc, the host says it was missing.
    EXPECT_EQ(result.err, "morvel: --bmc USER[:PASSWORD]@HOST[:PORT] is required\n5 Invalid parameter.\n");
    const std::vector<std::string> records = LogRecords(m_log);
    ASSERT_EQ(records.size(), 7u);
    EXPECT_EQ(records[4], "INFO src/cli/Host init: 5 Invalid parameter.");
    EXPECT_EQ(records[6], "INFO src/cli/Host result: 5 Invalid parameter. (exit status 5)");

    result = Run({"probe", "query", "--bmc", "a:b@h", "--init-code", "5", "--init-message", "Option --bmc is required."});
    EXPECT_EQ(result.exitStatus, 5);
    EXPECT_EQ(result.err, "5 Option --bmc is required.\n");
}

TEST_F(MorvelProcess, FinishFailureCountsOnlyAfterSuccess) {
    ProcessResult result = Run({"probe", "query", "--finish-code", "1"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.err, "1 Generic Failure.\n");
    result = Run({"probe", "query", "--finish-code", "1", "--run-code", "18"});
    EXPECT_EQ(result.exitStatus, 18);
    EXPECT_EQ(result.err, "18 Timeout.\n");
}

TEST_F(MorvelProcess, ModuleErrorLinesGoToStandardError) {
    const ProcessResult result = Run({"probe", "query", "--complain", "disk on fire"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.out, "probe: init\nprobe: run query\nprobe: option complain=disk on fire\nprobe: finish\n0 Succeed.\n");
    EXPECT_EQ(result.err, "probe: disk on fire\n");
}

TEST_F(MorvelProcess, ModuleException) {
    const ProcessResult result = Run({"probe", "query", "--throw", "probe failure"});
    EXPECT_EQ(result.exitStatus, 17);
    EXPECT_EQ(result.out, "probe: init\nprobe: run query\nprobe: option throw=probe failure\n");
    EXPECT_EQ(result.err, "morvel: module probe failed: probe failure\n");
}

TEST_F(MorvelProcess, BrokenModules) {
    ProcessResult result = Run({"nocreate", "query"});
    EXPECT_EQ(result.exitStatus, 17);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "morvel: module " + m_modules + "/libmorvel_nocreate.so does not export create_instance\n");

    result = Run({"broken", "query"});
    EXPECT_EQ(result.exitStatus, 17);
    EXPECT_EQ(result.err, "morvel: cannot load module " + m_modules + "/libmorvel_broken.so: invalid ELF header\n");

    result = Run({"nullapp", "query"});
    EXPECT_EQ(result.exitStatus, 17);
    EXPECT_EQ(result.err,
              "morvel: module " + m_modules + "/libmorvel_nullapp.so did not create its application object\n");
}

TEST_F(MorvelProcess, UnknownCommand) {
    ProcessResult result = Run({"nosuch", "query", "--bmc", "a:b@h"});
    EXPECT_EQ(result.exitStatus, 4);
    EXPECT_EQ(result.out, "");
    // The installed commands are the module files there, whether they load or not.
    const std::string installed = "installed commands: broken, nocreate, nullapp, probe\n";
    EXPECT_EQ(result.err, "morvel: unknown command 'nosuch'; " + installed);

    result = Run({"../modules/libmorvel_probe", "query"});
    EXPECT_EQ(result.exitStatus, 4);
    EXPECT_EQ(result.err, "morvel: unknown command '../modules/libmorvel_probe'; " + installed);

    // Without a subcommand too, and whatever follows it.
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{"bogus"}, {"bogus", "--bmc", "a:b@h"}, {"bogus", "query", "--x", "y"}}) {
        result = Run(arguments);
        EXPECT_EQ(result.exitStatus, 4) << arguments.size();
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "morvel: unknown command 'bogus'; " + installed);
    }

    // Files that are not modules of commands are no commands.
    m_scratch.Write("modules/libmorvel_.so", "");
    m_scratch.Write("modules/libmorvel_a.b.so", "");
    m_scratch.Write("modules/libother.so", "");
    m_scratch.Write("modules/libmorvel_zz.so.1", "");
    result = Run({"bogus"});
    EXPECT_EQ(result.err, "morvel: unknown command 'bogus'; " + installed);

    const std::string empty = m_scratch.Path() + "/empty";
    ASSERT_EQ(::mkdir(empty.c_str(), 0700), 0);
    for (const std::string& directory : {empty, m_scratch.Path() + "/missing"}) {
        for (const std::vector<std::string>& arguments :
             std::vector<std::vector<std::string>>{{"bogus"}, {"bogus", "query"}, {"probe", "query"}}) {
            result = Run(arguments, {{"MORVEL_MODULE_PATH", directory}});
            EXPECT_EQ(result.exitStatus, 4);
            EXPECT_EQ(result.err, "morvel: unknown command '" + arguments[0] + "'; no commands are installed in " +
                                      directory + "\n");
        }
    }
}

TEST_F(MorvelProcess, DefaultModuleDirectoryIsBesideThePrefix) {
    std::map<std::string, std::string> environment = Environment();
    ProcessRequest request;
    request.arguments = {"probe", "query"};
    environment.erase("MORVEL_MODULE_PATH");
    request.environment = environment;
    const ProcessResult result = RunMorvel(request);
    EXPECT_EQ(result.exitStatus, 4);
    // The build tree has the installed layout, with the real commands' modules.
    EXPECT_EQ(result.err, "morvel: unknown command 'probe'; installed commands: smmlan, trust\n");
}

TEST_F(MorvelProcess, NoBmcIsLeftToTheModule) {
    const ProcessResult result = Run({"--log-file", m_log, "probe", "query"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.err, "");
    const std::vector<std::string> records = LogRecords(m_log);
    ASSERT_GE(records.size(), 3u);
    EXPECT_EQ(records[2], "INFO src/cli/Host no --bmc given");
}

// The lines of one target's block in a run over many: each prefixed with its label.
std::string Block(const std::string& label, const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) text.append(label).append(": ").append(line).append("\n");
    return text;
}

TEST_F(MorvelProcess, ManyTargetsOneAtATimeBlocksAndSummary) {
    // Detection off: each SMM would otherwise start once its name resolved, in whatever order that took.
    const ProcessResult result = Run({"--log-file", m_log, "probe", "query", "--bmc", "admin:Xy9secret@h[1-3]",
                                      "--fanout", "1", "--detect-timeout", "0", "--fail-host", "h2", "--fail-code",
                                      "13"});
    EXPECT_EQ(result.exitStatus, 1);
    const std::vector<std::string> probe = {"probe: init",
                                            "probe: run query",
                                            "probe: option detect-timeout=0",
                                            "probe: option fail-code=13",
                                            "probe: option fail-host=h2",
                                            "probe: option fanout=1",
                                            "probe: finish"};
    std::vector<std::string> succeeded = probe;
    succeeded.emplace_back("0 Succeed.");
    EXPECT_EQ(result.out, Block("h1", succeeded) + Block("h2", probe) + Block("h3", succeeded) +
                              "probe query: 3 SMMs, 2 succeeded, 1 failed\n"
                              "  13 Connection failed.: h2\n");
    EXPECT_EQ(result.err, "h2: 13 Connection failed.\n");
    ExpectNowhere(result, "Xy9secret");
    const std::string log = ReadWholeFile(m_log);
    EXPECT_NE(log.find(" INFO [h2] src/cli/Host:115 target h2 port 443 user admin\n"), std::string::npos) << log;
    EXPECT_NE(log.find(" INFO [h3] tests/unit/cli/ProbeModule:"), std::string::npos) << log;
}

TEST_F(MorvelProcess, ManyTargetsInJson) {
    // Without detection, one at a time is strictly the order given.
    const ProcessResult result = Run({"--log-file", m_log, "probe", "enable", "--bmc", "ops:Xy9secret@a,[::1]:8443",
                                      "--fanout=1", "--detect-timeout=0", "--output", "json", "--fail-host", "a",
                                      "--fail-code", "2054"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.err, "");
    const std::string console = R"(["probe: init","probe: run enable","probe: option detect-timeout=0",)"
                                R"("probe: option fail-code=2054","probe: option fail-host=a","probe: option fanout=1",)"
                                R"("probe: option output=json",)"
                                R"("probe: finish"])";
    const std::string state = R"("state":{"network":null,"ipmi_over_lan":null,"ipv4":null},"elapsed_ms":)";
    // Elapsed times vary: compare up to them and after them.
    const auto first = result.out.find(state);
    ASSERT_NE(first, std::string::npos) << result.out;
    EXPECT_EQ(result.out.substr(0, first),
              R"({"target":"a","host":"a","port":443,"user":"ops","subcommand":"enable","protocol":null,)"
              R"("code":2054,"message":"Authentication failed. For instance, user name or password error.",)"
              R"("ok":false,"interrupted":false,"change_sent":false,"unreachable":null,)");
    EXPECT_NE(result.out.find(R"(,"console":)" + console + "}\n" +
                              R"({"target":"[::1]:8443","host":"::1","port":8443,"user":"ops","subcommand":"enable",)"
                              R"("protocol":null,"code":0,"message":"Succeed.","ok":true,"interrupted":false,)"
                              R"("change_sent":false,"unreachable":null,)" + state),
              std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find(R"("failed_by_code":{"2054":["a"]},"interrupted":[],"not_started":[],"unreachable":[],"stopped_by":null}})" "\n"),
              std::string::npos)
        << result.out;
    ExpectNowhere(result, "Xy9secret");
}

TEST_F(MorvelProcess, AModuleFailureOfOneTargetLeavesTheOthers) {
    const ProcessResult result =
        Run({"--log-file", m_log, "probe", "query", "--bmc", "admin:pw@h1,h2", "--throw", "boom"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.err.find("h1: 17 module probe failed: boom\n"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("h2: 17 module probe failed: boom\n"), std::string::npos) << result.err;
    EXPECT_NE(result.out.find("probe query: 2 SMMs, 0 succeeded, 2 failed\n  17 Internal error.: h1, h2\n"),
              std::string::npos)
        << result.out;
}

TEST_F(MorvelProcess, AFanoutTheOpenFileLimitCannotHoldIsRefused) {
    ProcessRequest request;
    request.arguments = {"--log-file", m_log, "probe", "query", "--bmc", "admin:pw@h[1-200]", "--fanout", "200"};
    request.environment = Environment();
    request.openFileLimit = 400;
    const ProcessResult result = RunMorvel(request);
    EXPECT_EQ(result.exitStatus, 5);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err,
              "morvel: --fanout 200 may need 1264 open files, but this process may open at most 400 (ulimit -Hn); "
              "use --fanout 56 or less\n");
    // Below the hard limit the soft one is raised and the run goes ahead.
    request.arguments = {"--log-file", m_log, "probe", "query", "--bmc", "admin:pw@h[1-50]", "--fanout", "50"};
    request.openFileLimit = 0;
    const ProcessResult fits = RunMorvel(request);
    EXPECT_EQ(fits.exitStatus, 0) << fits.err;
    EXPECT_NE(fits.out.find("probe query: 50 SMMs, 50 succeeded, 0 failed\n"), std::string::npos);
}

TEST_F(MorvelProcess, MalformedBmc) {
    struct Case {
        const char* bmc;
        std::string error;
    };
    const Case cases[] = {
        {"admin:Xy9secret", "no '@' before the host; " + kBadForm},
        {"admin:Xy9secret@", "empty host; " + kBadForm},
        {":Xy9secret@host", "empty user name; " + kBadForm},
        {"admin:Xy9secret@host:70000", "invalid port; it must be a number from 1 to 65535"},
        {"admin:Xy9secret@host:", "invalid port; it must be a number from 1 to 65535"},
        {"admin:Xy9secret@fe80::1", "an IPv6 address must be written in brackets, e.g. [2001:db8::10] or [2001:db8::10]:443"},
        {"admin:Xy9secret@[fe80::1", "unclosed '[' in the host; write an IPv6 address as [ADDRESS] or [ADDRESS]:PORT"},
        {"admin:Xy9secret@[fe80::1]x", "unexpected text after ']' in the host; write an IPv6 address as [ADDRESS] or [ADDRESS]:PORT"},
        {"admin:Xy9secret@ho st", "blank or control character in the host"},
    };
    for (const Case& c : cases) {
        const ProcessResult result = Run({"--log-file", m_log, "probe", "query", "--bmc", c.bmc});
        EXPECT_EQ(result.exitStatus, 5) << c.bmc;
        EXPECT_EQ(result.out, "") << c.bmc;
        EXPECT_EQ(result.err, "morvel: --bmc: " + c.error + "\n") << c.bmc;
        ExpectNowhere(result, "Xy9secret");
    }
    const std::vector<std::string> records = LogRecords(m_log);
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records.back(), "ERROR src/cli/Host --bmc: blank or control character in the host (exit status 5)");
}

TEST_F(MorvelProcess, PasswordFromTheEnvironment) {
    const ProcessResult result = Run({"--log-file", m_log, "probe", "query", "--bmc", "admin@[fd00::5]:8443", "--dump", m_dump},
                                     {{"MORVEL_BMC_PASSWORD", "env:pw@1"}});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_NE(Dump().find("\noption bmc=admin:env:pw@1@[fd00::5]:8443\n"), std::string::npos) << Dump();
    EXPECT_NE(Dump().find("\nargument=admin@[fd00::5]:8443\n"), std::string::npos) << Dump();
    const std::vector<std::string> records = LogRecords(m_log);
    ASSERT_GE(records.size(), 3u);
    EXPECT_EQ(records[2], "INFO src/cli/Host target fd00::5 port 8443 user admin, password from MORVEL_BMC_PASSWORD");
    ExpectNowhere(result, "env:pw");
}

TEST_F(MorvelProcess, PasswordFromAFile) {
    const std::string file = m_scratch.Write("pw", "f1le:pw@x\n", 0600);
    ProcessResult result = Run({"--log-file", m_log, "--password-file", file, "probe", "query", "--bmc", "admin@h", "--dump", m_dump});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_NE(Dump().find("\noption bmc=admin:f1le:pw@x@h\n"), std::string::npos) << Dump();
    ExpectNowhere(result, "f1le");

    // After the command it works too, and it stays one of the command's options.
    result = Run({"--log-file", m_log, "probe", "query", "--bmc", "admin@h", "--password-file", file, "--dump", m_dump});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_NE(Dump().find("\noption bmc=admin:f1le:pw@x@h\n"), std::string::npos) << Dump();
    EXPECT_NE(result.out.find("probe: option password-file=" + file + "\n"), std::string::npos);
    ExpectNowhere(result, "f1le");
}

TEST_F(MorvelProcess, PasswordFileOpenToOthers) {
    const std::string file = m_scratch.Write("pw", "f1le:pw@x\n", 0644);
    const ProcessResult result = Run({"--log-file", m_log, "--password-file", file, "probe", "query", "--bmc", "admin@h"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.err, "morvel: warning: password file " + file + " is readable by group or others (chmod 600 it)\n");
    ExpectNowhere(result, "f1le");
}

TEST_F(MorvelProcess, PasswordInBmcWinsOverTheOtherSources) {
    const std::string file = m_scratch.Write("pw", "f1le\n", 0644);
    const ProcessResult result = Run({"--password-file", file, "probe", "query", "--bmc", "admin:given@h", "--dump", m_dump},
                                     {{"MORVEL_BMC_PASSWORD", "env"}});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.err, "") << "the file is not read, so there is no warning";
    EXPECT_NE(Dump().find("\noption bmc=admin:given@h\n"), std::string::npos) << Dump();
}

TEST_F(MorvelProcess, PasswordFileMissing) {
    const ProcessResult result = Run({"--password-file", m_scratch.Path() + "/none", "probe", "query", "--bmc", "admin@h"});
    EXPECT_EQ(result.exitStatus, 5);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "morvel: cannot read password file " + m_scratch.Path() + "/none: No such file or directory\n");
}

TEST_F(MorvelProcess, NoPasswordAnywhere) {
    const ProcessResult result = Run({"probe", "query", "--bmc", "admin@h"});
    EXPECT_EQ(result.exitStatus, 5);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err,
              "morvel: no password: --bmc names none, MORVEL_BMC_PASSWORD is unset, no --password-file was given and "
              "there is no terminal to ask on\n");
}

TEST_F(MorvelProcess, PasswordFromThePrompt) {
    ProcessRequest request;
    request.arguments = {"--log-file", m_log, "probe", "query", "--bmc", "admin@h", "--dump", m_dump};
    request.environment = Environment();
    request.withTerminal = true;
    request.typeAfterPrompt = "tty:pw@9\n";
    const ProcessResult result = RunMorvel(request);
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.terminal, "Password: \r\n");
    EXPECT_EQ(result.err, "");
    EXPECT_NE(Dump().find("\noption bmc=admin:tty:pw@9@h\n"), std::string::npos) << Dump();
    const std::vector<std::string> records = LogRecords(m_log);
    ASSERT_GE(records.size(), 3u);
    EXPECT_EQ(records[2], "INFO src/cli/Host target h port 443 user admin, password from the terminal");
    ExpectNowhere(result, "tty:pw");
}

TEST_F(MorvelProcess, Configuration) {
    const std::string config = m_scratch.Write("morvel.conf", "# test\nPROBE_KEY=a=b \r\n");
    const std::string other = m_scratch.Write("other.conf", "PROBE_KEY=from env\n");
    ProcessResult result = Run({"--config", config, "probe", "query"}, {{"MORVEL_CONFIG", other}});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_NE(result.out.find("probe: config PROBE_KEY=a=b \n"), std::string::npos) << result.out;

    result = Run({"probe", "query"}, {{"MORVEL_CONFIG", other}});
    EXPECT_NE(result.out.find("probe: config PROBE_KEY=from env\n"), std::string::npos) << result.out;

    result = Run({"probe", "query"}, {{"MORVEL_CONFIG", ""}});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.out.find("probe: config"), std::string::npos) << result.out;
}

TEST_F(MorvelProcess, ConfigurationErrors) {
    const std::string missing = m_scratch.Path() + "/missing.conf";
    ProcessResult result = Run({"--config", missing, "probe", "query"});
    EXPECT_EQ(result.exitStatus, 5);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "morvel: cannot read configuration file " + missing + ": No such file or directory\n");

    result = Run({"probe", "query"}, {{"MORVEL_CONFIG", missing}});
    EXPECT_EQ(result.exitStatus, 5);
    EXPECT_EQ(result.err, "morvel: cannot read configuration file " + missing + ": No such file or directory\n");

    const std::string bad = m_scratch.Write("bad.conf", "A=1\nnot a setting\n");
    result = Run({"--config=" + bad, "probe", "query"});
    EXPECT_EQ(result.exitStatus, 5);
    EXPECT_EQ(result.err, "morvel: " + bad + ":2: expected KEY=VALUE\n");
}

// Every option that takes one value is refused when given twice, in either
// form; --bmc and --bmc-file add targets instead.
TEST_F(MorvelProcess, OptionsGivenTwice) {
    const std::string file = m_scratch.Write("any.conf", "");
    const std::vector<std::string> host = {"config", "log-file", "password-file"};
    for (const std::string& name : host) {
        for (const bool inlineValue : {false, true}) {
            std::vector<std::string> arguments;
            for (int i = 0; i < 2; ++i) {
                if (inlineValue) {
                    arguments.push_back(std::string("--").append(name).append("=").append(file));
                } else {
                    arguments.insert(arguments.end(), {"--" + name, file});
                }
            }
            arguments.insert(arguments.end(), {"probe", "query"});
            const ProcessResult result = Run(arguments);
            EXPECT_EQ(result.exitStatus, 5) << name;
            EXPECT_EQ(result.out, "") << name;
            EXPECT_EQ(result.err, "morvel: option --" + name + " given more than once\n") << name;
        }
    }
    ProcessResult result = Run({"--log-level", "3", "--log-level=3", "probe", "query"});
    EXPECT_EQ(result.exitStatus, 5);
    EXPECT_EQ(result.err, "morvel: option --log-level given more than once\n");

    const std::pair<std::string, std::string> run[] = {
        {"method", "dhcp"},        {"fanout", "2"},         {"output", "text"},
        {"protocol", "ipmi"},      {"tls-verify", "none"},  {"cacert", file},
        {"known-smms", file},      {"credentials-file", file}, {"password-command", "true"},
        {"password-file", file},   {"redfish-auth", "session"},
    };
    for (const auto& option : run) {
        const std::string& name = option.first;
        result = Run({"probe", "query", "--bmc", "a:b@h", "--" + name, option.second, "--" + name + "=" + option.second});
        EXPECT_EQ(result.exitStatus, 5) << name;
        EXPECT_EQ(result.out, "") << name;
        EXPECT_EQ(result.err, "morvel: option --" + name + " given more than once\n") << name;
    }
    for (const std::string name : {"always-prefix", "flag"}) {
        result = Run({"probe", "query", "--" + name, "--" + name});
        EXPECT_EQ(result.exitStatus, 5) << name;
        EXPECT_EQ(result.err, "morvel: option --" + name + " given more than once\n") << name;
    }
    result = Run({"--password-file", file, "probe", "query", "--password-file", file});
    EXPECT_EQ(result.exitStatus, 5);
    EXPECT_EQ(result.err, "morvel: option --password-file given both before and after the command\n");

    // Targets add up: two --bmc make a run over two.
    result = Run({"probe", "query", "--bmc", "a:b@h1", "--bmc=a:b@h2", "--bmc-file", m_scratch.Write("t", "a:b@h3\n")});
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_EQ(result.err, "");
    EXPECT_NE(result.out.find("probe query: 3 SMMs, 3 succeeded, 0 failed\n"), std::string::npos) << result.out;
}

TEST_F(MorvelProcess, ShowConfig) {
    const std::string defaults = MorvelCli::ShowConfigText(Plexum::ConfigSettings());
    ProcessResult result = Run({"--show-config"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, defaults);
    // Nothing else runs: not even the default log is made.
    EXPECT_EQ(::access((m_home + "/.local").c_str(), F_OK), -1);

    // Given twice it is the same; the other host options may go with it.
    result = Run({"--show-config", "--log-file", m_log, "--log-level", "4", "--show-config"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.out, defaults);
    EXPECT_EQ(::access(m_log.c_str(), F_OK), -1);

    const std::string config = m_scratch.Write("c.conf", "# mine\nIPMI_CIPHER_SUITE_ID=17\nMY_TOKEN=Zr4tok\nODD= x \n");
    result = Run({"--show-config", "--config", config});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.err, "");
    Plexum::ConfigSettings settings;
    settings["IPMI_CIPHER_SUITE_ID"] = {"17", config, 2};
    settings["MY_TOKEN"] = {"Zr4tok", config, 3};
    settings["ODD"] = {" x ", config, 4};
    EXPECT_EQ(result.out, MorvelCli::ShowConfigText(settings));
    EXPECT_NE(result.out.find("# " + config + " line 2\nIPMI_CIPHER_SUITE_ID=17\n"), std::string::npos);
    EXPECT_NE(result.out.find("# unknown key, " + config + " line 3, value not shown\nMY_TOKEN=*\n"), std::string::npos);
    EXPECT_NE(result.out.find("# unknown key, " + config + " line 4\nODD= x \n"), std::string::npos);
    EXPECT_EQ(result.out.find("Zr4tok"), std::string::npos);

    result = Run({"--config", m_scratch.Path() + "/none.conf", "--show-config"});
    EXPECT_EQ(result.exitStatus, 5);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err,
              "morvel: cannot read configuration file " + m_scratch.Path() + "/none.conf: No such file or directory\n");

    result = Run({"--show-config", "probe", "query"});
    EXPECT_EQ(result.exitStatus, 5);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "morvel: --show-config takes no command; it prints the configuration and exits\n");

    result = Run({"--show-config=yes"});
    EXPECT_EQ(result.exitStatus, 5);
    EXPECT_EQ(result.err, "morvel: option --show-config takes no value\n");

    result = Run({"--show-config", "--help"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.out, MorvelCli::HostHelpText(TestCommands()));
}

// Without --config and MORVEL_CONFIG: the user's file, then the system's
// (which the runner hides when this machine has one).
TEST_F(MorvelProcess, UserConfiguration) {
    const std::string xdg = m_scratch.Path() + "/xdg";
    for (const std::string& folder : {xdg, xdg + "/morvel", m_home + "/.config", m_home + "/.config/morvel"}) {
        ASSERT_EQ(::mkdir(folder.c_str(), 0700), 0) << folder;
    }
    const std::string user = m_scratch.Write("xdg/morvel/morvel.conf", "PROBE_KEY=from xdg\n");
    ProcessResult result = Run({"--log-file", m_log, "probe", "query"}, {{"XDG_CONFIG_HOME", xdg}});
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_NE(result.out.find("probe: config PROBE_KEY=from xdg\n"), std::string::npos) << result.out;
    std::vector<std::string> records = LogRecords(m_log);
    ASSERT_GE(records.size(), 2u);
    EXPECT_EQ(records[1], "INFO src/cli/Host configuration read from " + user);

    // HOME/.config when XDG_CONFIG_HOME is relative (or unset, or empty).
    const std::string fallback = m_scratch.Write("home/.config/morvel/morvel.conf", "PROBE_KEY=from home\n");
    for (const std::string& relative : {std::string("xdg"), std::string()}) {
        result = Run({"probe", "query"}, {{"XDG_CONFIG_HOME", relative}});
        EXPECT_NE(result.out.find("probe: config PROBE_KEY=from home\n"), std::string::npos) << result.out;
    }
    ASSERT_EQ(::unlink(m_log.c_str()), 0);
    result = Run({"--log-file", m_log, "probe", "query"});
    EXPECT_NE(result.out.find("probe: config PROBE_KEY=from home\n"), std::string::npos) << result.out;
    records = LogRecords(m_log);
    ASSERT_GE(records.size(), 2u);
    EXPECT_EQ(records[1], "INFO src/cli/Host configuration read from " + fallback);

    // An explicit file hides it.
    const std::string other = m_scratch.Write("other.conf", "OTHER=1\n");
    result = Run({"probe", "query"}, {{"MORVEL_CONFIG", other}});
    EXPECT_EQ(result.out.find("PROBE_KEY"), std::string::npos) << result.out;

    // One that is there but cannot be read stops the run before the module.
    ASSERT_EQ(::unlink(fallback.c_str()), 0);
    ASSERT_EQ(::mkdir(fallback.c_str(), 0700), 0);
    result = Run({"probe", "query"});
    EXPECT_EQ(result.exitStatus, 5);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "morvel: cannot read configuration file " + fallback + ": Is a directory\n");
    result = Run({"--show-config"});
    EXPECT_EQ(result.exitStatus, 5);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "morvel: cannot read configuration file " + fallback + ": Is a directory\n");

    // No file at all: no record.
    ASSERT_EQ(::rmdir(fallback.c_str()), 0);
    ASSERT_EQ(::unlink(m_log.c_str()), 0);
    result = Run({"--log-file", m_log, "probe", "query"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(ReadWholeFile(m_log).find("configuration read"), std::string::npos);
}

TEST_F(MorvelProcess, LogLevelReachesTheModule) {
    ProcessResult result = Run({"--log-level", "4", "--log-file", m_log, "probe", "query", "--dump", m_dump});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_NE(Dump().find("\nlogLevel=4\nminLogLevel=4\n"), std::string::npos) << Dump();

    ASSERT_EQ(::unlink(m_log.c_str()), 0);
    result = Run({"--log-level=0", "--log-file", m_log, "probe", "query", "--run-code", "1"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(ReadWholeFile(m_log), "") << "level 0 keeps only fatal records";
    EXPECT_EQ(FileMode(m_log), 0600);

    result = Run({"--log-level", "7", "probe", "query"});
    EXPECT_EQ(result.exitStatus, 5);
    EXPECT_EQ(result.err, "morvel: --log-level must be a number from 0 to 4\n");
}

TEST_F(MorvelProcess, MisplacedCredentialsAreMasked) {
    ProcessResult result = Run({"--log-file", m_log, "admin:Wq7zpass@h", "query"});
    EXPECT_EQ(result.exitStatus, 4);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "morvel: unknown command 'admin:*@h'; installed commands: broken, nocreate, nullapp, probe\n");
    ExpectNowhere(result, "Wq7zpass");

    result = Run({"--log-file", m_log, "admin:Wq7zpass@h"});
    EXPECT_EQ(result.exitStatus, 4);
    EXPECT_EQ(result.err, "morvel: unknown command 'admin:*@h'; installed commands: broken, nocreate, nullapp, probe\n");
    ExpectNowhere(result, "Wq7zpass");
    result = Run({"--log-file", m_log, "admin:Wq7zpass@h"}, {{"MORVEL_MODULE_PATH", m_scratch.Path() + "/none"}});
    EXPECT_EQ(result.err, "morvel: unknown command 'admin:*@h'; no commands are installed in " + m_scratch.Path() +
                              "/none\n");
    ExpectNowhere(result, "Wq7zpass");

    result = Run({"--log-file", m_log, "probe", "admin:Wq7zpass@h", "--dump", m_dump});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_NE(ReadWholeFile(m_log).find(": command probe, subcommand admin:*@h\n"), std::string::npos)
        << ReadWholeFile(m_log);
    // The probe module echoes its subcommand on purpose; the host's own records must not.
    std::istringstream records(ReadWholeFile(m_log));
    for (std::string record; std::getline(records, record);) {
        if (record.find(" src/cli/") != std::string::npos) {
            EXPECT_EQ(record.find("Wq7zpass"), std::string::npos) << record;
        }
    }

    result = Run({"--bmc:admin:Wq7zpass@h", "probe", "query"});
    EXPECT_EQ(result.exitStatus, 5);
    EXPECT_EQ(result.err,
              "morvel: unknown host option '--bmc:*@h' (options of a command go after COMMAND SUBCOMMAND)\n");
}

TEST_F(MorvelProcess, ClosedStandardOutputKeepsTheLogClean) {
    const ProcessResult result = Run({"--log-file", m_log, "probe", "query"}, {}, ProcessRequest::Output::Closed);
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "");
    // Nothing but records: the console lines went nowhere, not into the log.
    const std::vector<std::string> expected = {
        "INFO src/cli/Host morvel " MORVEL_VERSION " pid " + std::to_string(result.pid) +
            ": command probe, subcommand query",
        "INFO src/cli/Host module " + m_modules + "/libmorvel_probe.so",
        "INFO src/cli/Host no --bmc given",
        "INFO tests/unit/cli/ProbeModule probe: init",
        "INFO src/cli/Host init: 0 Succeed.",
        "INFO tests/unit/cli/ProbeModule probe: run query",
        "INFO src/cli/Host run: 0 Succeed.",
        "INFO tests/unit/cli/ProbeModule probe: finish",
        "INFO src/cli/Host result: 0 Succeed. (exit status 0)",
    };
    EXPECT_EQ(LogRecords(m_log), expected);
}

TEST_F(MorvelProcess, UnwritableStandardOutputFails) {
    ProcessResult result = Run({"--log-file", m_log, "probe", "query"}, {}, ProcessRequest::Output::Full);
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.err, "morvel: cannot write standard output\n");
    EXPECT_EQ(LogRecords(m_log).back(), "ERROR src/cli/Host cannot write standard output (exit status 1)");

    // A failure keeps its own status.
    result = Run({"--log-file", m_log, "probe", "query", "--run-code", "13"}, {}, ProcessRequest::Output::Full);
    EXPECT_EQ(result.exitStatus, 13);
    EXPECT_EQ(result.err, "13 Connection failed.\nmorvel: cannot write standard output\n");
}

TEST_F(MorvelProcess, DefaultLogFile) {
    const std::string state = m_scratch.Path() + "/state";
    ProcessResult result = Run({"probe", "query"}, {{"XDG_STATE_HOME", state}});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(FileMode(state + "/morvel/morvel.log"), 0600);
    EXPECT_EQ(LogRecords(state + "/morvel/morvel.log").size(), 9u);

    result = Run({"probe", "query"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(FileMode(m_home + "/.local/state/morvel/morvel.log"), 0600);
}

TEST_F(MorvelProcess, LogFileThatCannotBeOpened) {
    const std::string file = m_scratch.Write("plain", "x");
    ProcessResult result = Run({"--log-file", file + "/morvel.log", "probe", "query"});
    EXPECT_EQ(result.exitStatus, 5);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "morvel: cannot open log file " + file + "/morvel.log: Not a directory\n");

    // The default place failing costs the log only.
    result = Run({"probe", "query"}, {{"HOME", file}});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.err, "morvel: warning: cannot create log directory " + file +
                              "/.local: Not a directory; continuing without a log\n");
    EXPECT_EQ(result.out.substr(result.out.size() - 11), "0 Succeed.\n");
}

TEST_F(MorvelProcess, HelpAndVersion) {
    ProcessResult result = Run({"--help"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.out, MorvelCli::HostHelpText(TestCommands()));
    EXPECT_EQ(result.err, "");

    // A command's help is made from what its module declares.
    result = Run({"probe", "--help"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.out.substr(0, result.out.find("\nTargets:\n")),
              "Usage: morvel [HOST OPTIONS] probe SUBCOMMAND --bmc USER[:PASSWORD]@HOSTS [OPTIONS]\n"
              "\n"
              "Options:\n"
              "  --init-code CODE      init answers CODE\n"
              "  --init-message TEXT   with this message\n"
              "  --run-code CODE       run answers CODE\n"
              "  --run-message TEXT    with this message\n"
              "  --finish-code CODE    finish answers CODE\n"
              "  --finish-message TEXT with this message\n"
              "  --fail-host HOST      the target that answers --fail-code\n"
              "  --fail-code CODE      what it answers\n"
              "  --fail-message TEXT   with this message\n"
              "  --complain TEXT       a console line of level 1\n"
              "  --dump FILE           write what the host gave into FILE\n"
              "  --throw TEXT          run throws this\n"
              "  --method WORD         passed through\n"
              "  --flag                a flag\n"
              "  -h, --help            show this help and exit\n");
    EXPECT_EQ(result.err, "");

    result = Run({"--version"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.out, "morvel " MORVEL_VERSION "\n");

    // No module, no help; a module that cannot be loaded says why.
    result = Run({"smmlan", "--help"});
    EXPECT_EQ(result.exitStatus, 4);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "morvel: unknown command 'smmlan'; installed commands: broken, nocreate, nullapp, probe\n");
    result = Run({"nocreate", "--help"});
    EXPECT_EQ(result.exitStatus, 17);
    EXPECT_EQ(result.err, "morvel: module " + m_modules + "/libmorvel_nocreate.so does not export create_instance\n");
}

TEST_F(MorvelProcess, OptionsTheCommandDoesNotDeclareAreRefusedBeforeAnythingRuns) {
    // No password prompt, no module run: the probe would write its dump file.
    const ProcessResult result = Run({"--log-file", m_log, "probe", "query", "--bmc", "admin@h", "--dump", m_dump,
                                      "--fail-hots", "h"});
    EXPECT_EQ(result.exitStatus, 5);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "morvel: unknown option '--fail-hots' for probe; did you mean '--fail-host'?\n");
    EXPECT_EQ(result.terminal, "");
    EXPECT_FALSE(std::ifstream(m_dump).good());
    const std::vector<std::string> records = LogRecords(m_log);
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records.back(),
              "ERROR src/cli/Host unknown option '--fail-hots' for probe; did you mean '--fail-host'? (exit status 5)");
}

TEST_F(MorvelProcess, CommandLineMistakes) {
    struct Case {
        std::vector<std::string> arguments;
        int exitStatus;
        std::string err;
    };
    const Case cases[] = {
        {{}, 4, "morvel: missing command; run 'morvel --help' for usage\n"},
        {{"probe"}, 4, "morvel: missing subcommand after 'probe'; run 'morvel probe --help' for usage\n"},
        {{"bogus"}, 4, "morvel: unknown command 'bogus'; installed commands: broken, nocreate, nullapp, probe\n"},
        {{"--bogus", "probe", "query"}, 5,
         "morvel: unknown host option '--bogus' (options of a command go after COMMAND SUBCOMMAND)\n"},
        {{"--log-levle", "2", "probe", "query"}, 5, "morvel: unknown host option '--log-levle'; did you mean '--log-level'?\n"},
        {{"probe", "query", "--bogus", "x"}, 5, "morvel: unknown option '--bogus' for probe\n"},
        {{"probe", "query", "--output", "yaml"}, 5, "morvel: --output must be text, json or table\n"},
        {{"probe", "query", "--bmc"}, 5,
         "morvel: option --bmc needs a value (write --bmc=VALUE for a value that starts with --)\n"},
        {{"probe", "query", "--method", "dhcp", "--method", "static"}, 5, "morvel: option --method given more than once\n"},
        {{"probe", "query", "--bmc", "a:Qk8pass", "word@h"}, 5,
         "morvel: unexpected argument 5 after the subcommand; options are written --name VALUE or --name=VALUE\n"},
    };
    for (const Case& c : cases) {
        const ProcessResult result = Run(c.arguments);
        EXPECT_EQ(result.exitStatus, c.exitStatus) << c.err;
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, c.err);
    }
}

}  // namespace
