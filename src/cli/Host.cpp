#include "cli/Host.h"

#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <vector>

#include "cli/ArgvScrub.h"
#include "cli/CommandLine.h"
#include "cli/HelpText.h"
#include "cli/ModuleLoader.h"
#include "cli/PasswordSource.h"
#include "host/BmcTarget.h"
#include "host/GlobalConfig.h"
#include "host/Log.h"
#include "host/MorvelResult.h"
#include "host/UserContext.h"
#include "host/basic_app.h"

namespace MorvelCli {
namespace {

const char* const kSource = "src/cli/Host";

const char* Environment(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr && value[0] != '\0' ? value : nullptr;
}

int Fail(int exitStatus, const std::string& message) {
    PLEXUM_LOG(1, kSource, __LINE__) << message << " (exit status " << exitStatus << ")";
    std::cerr << "morvel: " << message << std::endl;
    return exitStatus;
}

void Warn(const std::string& message) {
    PLEXUM_LOG(2, kSource, __LINE__) << message;
    std::cerr << "morvel: warning: " << message << std::endl;
}

// An explicit --log-file that cannot be opened is an error; the default one
// only costs the log, not the command.
bool OpenLog(const CommandLine& line, int& exitStatus) {
    const std::string path = line.hasLogFile
                                 ? line.logFile
                                 : DefaultLogFilePath(std::getenv("XDG_STATE_HOME"), std::getenv("HOME"));
    if (path.empty()) return true;
    std::string error;
    std::shared_ptr<Plexum::FileLogSink> sink = Plexum::FileLogSink::Open(path, error);
    if (sink) {
        Plexum::Log::SetSink(sink);
        return true;
    }
    if (line.hasLogFile) {
        exitStatus = Fail(kExitInvalidParameter, error);
        return false;
    }
    Warn(error + "; continuing without a log");
    return true;
}

bool LoadConfiguration(const CommandLine& line, int& exitStatus) {
    const char* const fromEnvironment = Environment("MORVEL_CONFIG");
    const std::string path = line.hasConfig ? line.config : fromEnvironment != nullptr ? fromEnvironment : "";
    if (path.empty()) return true;
    std::string error;
    if (!Plexum::GlobalConfig::LoadFile(path, error)) {
        exitStatus = Fail(kExitInvalidParameter, error);
        return false;
    }
    PLEXUM_LOG(3, kSource, __LINE__) << "configuration read from " << path;
    return true;
}

// Checks --bmc and, when it names no password, finds one and writes it back
// into the option so that the connection library gets the whole target.
bool ResolveBmc(CommandLine& line, int& exitStatus) {
    const auto found = line.options.find("bmc");
    if (found == line.options.end()) {
        PLEXUM_LOG(3, kSource, __LINE__) << "no --bmc given";
        return true;
    }
    Plexum::BmcTarget target;
    std::string error;
    if (!Plexum::ParseBmcTarget(found->second, target, error)) {
        exitStatus = Fail(kExitInvalidParameter, "--bmc: " + error);
        return false;
    }
    const char* origin = "--bmc";
    if (!target.hasPassword) {
        PasswordSource::Inputs inputs;
        inputs.environment = std::getenv("MORVEL_BMC_PASSWORD");
        inputs.passwordFile = line.PasswordFile();
        std::string password;
        PasswordSource::Origin source = PasswordSource::Origin::Prompt;
        std::vector<std::string> warnings;
        const bool resolved = PasswordSource::Resolve(inputs, password, source, warnings, error);
        for (const std::string& warning : warnings) Warn(warning);
        if (!resolved) {
            exitStatus = Fail(kExitInvalidParameter, error);
            return false;
        }
        origin = PasswordSource::OriginName(source);
        const std::string& text = found->second;
        found->second = target.user + ":" + password + text.substr(text.rfind('@'));
    }
    PLEXUM_LOG(3, kSource, __LINE__) << "target " << Printable(target.host) << " port " << target.port << " user "
                                     << Printable(target.user) << ", password from " << origin;
    return true;
}

// A subcommand the command does not have can never work: with no password
// given anywhere it is refused at once instead of after a password prompt.
// Otherwise the module answers it as always, and `caseNote` (empty unless only
// the letter case is wrong) goes just before the result line.
bool CheckSubcommand(const CommandLine& line, std::string& caseNote, int& exitStatus) {
    caseNote = UnknownSubcommandNote(line.command, line.subCommand, true);
    const auto found = line.options.find("bmc");
    Plexum::BmcTarget target;
    std::string error;
    if (found == line.options.end() || !Plexum::ParseBmcTarget(found->second, target, error)) return true;
    const bool passwordGiven =
        target.hasPassword || Environment("MORVEL_BMC_PASSWORD") != nullptr || !line.PasswordFile().empty();
    const std::string note = UnknownSubcommandNote(line.command, line.subCommand, false);
    if (passwordGiven || note.empty()) return true;
    exitStatus = Fail(kExitInvalidCommand, note);
    std::cerr << MorvelResult(kExitInvalidCommand) << std::endl;
    return false;
}

UserContext MakeContext(const CommandLine& line, const std::string& modulePath, int argc, char** argv) {
    UserContext context;
    context.program = argv[0] != nullptr ? argv[0] : "morvel";
    context.command = line.command;
    context.modulePath = modulePath;
    context.subCommand = line.subCommand;
    context.logLevel = static_cast<int32_t>(line.logLevel);
    context.startTimeMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                              std::chrono::system_clock::now().time_since_epoch())
                              .count();
    context.processId = static_cast<int64_t>(::getpid());
    // The words as argv now holds them: with the --bmc password hidden.
    for (int i = static_cast<int>(line.commandIndex) + 1; i < argc; ++i) context.arguments.emplace_back(argv[i]);
    context.options = line.options;
    return context;
}

// A process started with standard input, output or error closed would hand
// that descriptor to the first file it opens: the log would then receive the
// console lines. /dev/null takes the place of a closed one.
void KeepStandardDescriptorsOpen() {
    for (int fd = 0; fd <= 2; ++fd) {
        if (::fcntl(fd, F_GETFD) != -1 || errno != EBADF) continue;
        const int opened = ::open("/dev/null", O_RDWR);
        if (opened > 2) ::close(opened);  // cannot happen while a lower one is free
    }
}

// A report that never reached standard output is no success for a script
// that reads it: the status becomes a generic failure.
int CheckStandardOutput(int exitStatus) {
    std::cout.flush();
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0 && std::cout.good()) return exitStatus;
    const int status = exitStatus == 0 ? 1 : exitStatus;
    PLEXUM_LOG(1, kSource, __LINE__) << "cannot write standard output (exit status " << status << ")";
    std::cerr << "morvel: cannot write standard output" << std::endl;
    return status;
}

int RunModule(const ModuleLoader& loader, const UserContext& context, const std::string& invalidCommandNote) {
    MorvelResult result;
    try {
        std::unique_ptr<basic_app> app(loader.CreateInstance());
        if (!app) return Fail(kExitInternalError, "module " + loader.Path() + " did not create its application object");
        const MorvelResult initResult = app->init(context);
        PLEXUM_LOG(3, kSource, __LINE__) << "init: " << initResult;
        result = initResult;
        if (initResult == 0) {
            result = app->run();
            PLEXUM_LOG(3, kSource, __LINE__) << "run: " << result;
        }
        // finish closes what init opened, so it runs after a failed init too;
        // its failure only counts when nothing failed before.
        const MorvelResult finishResult = app->finish();
        if (finishResult != 0) {
            PLEXUM_LOG(1, kSource, __LINE__) << "finish: " << finishResult;
            if (result == 0) result = finishResult;
        }
    } catch (const std::exception& exception) {
        return Fail(kExitInternalError, "module " + context.command + " failed: " + Printable(exception.what()));
    } catch (...) {
        return Fail(kExitInternalError, "module " + context.command + " failed with an unknown exception");
    }
    if (result == kExitInvalidCommand && !invalidCommandNote.empty()) {
        PLEXUM_LOG(3, kSource, __LINE__) << invalidCommandNote;
        std::cerr << "morvel: " << invalidCommandNote << std::endl;
    }
    std::ostream& out = result == 0 ? std::cout : std::cerr;
    out << result << std::endl;
    const int status = ExitStatusForCode(result.code);
    PLEXUM_LOG(3, kSource, __LINE__) << "result: " << result << " (exit status " << status << ")";
    return status;
}

}  // namespace

int ExitStatusForCode(int32_t code) {
    const int low = static_cast<int>(static_cast<uint32_t>(code) & 0xFFFFu);
    return low < 256 ? low : 255;
}

std::string DefaultLogFilePath(const char* xdgStateHome, const char* home) {
    // A relative XDG_STATE_HOME is ignored, as the XDG base directory rules say.
    if (xdgStateHome != nullptr && xdgStateHome[0] == '/') return std::string(xdgStateHome) + "/morvel/morvel.log";
    std::string base = home != nullptr ? home : "";
    if (base.empty()) {
        // getpwuid_r: getpwuid's static record is not safe if a module runs threads.
        const long suggested = ::sysconf(_SC_GETPW_R_SIZE_MAX);
        std::vector<char> buffer(suggested > 0 ? static_cast<size_t>(suggested) : 16384);
        passwd record{};
        passwd* entry = nullptr;
        int error = 0;
        while ((error = ::getpwuid_r(::getuid(), &record, buffer.data(), buffer.size(), &entry)) == ERANGE &&
               buffer.size() < (size_t{1} << 20)) {
            buffer.resize(buffer.size() * 2);
        }
        if (error == 0 && entry != nullptr && entry->pw_dir != nullptr) base = entry->pw_dir;
    }
    if (base.empty()) return std::string();
    return base + "/.local/state/morvel/morvel.log";
}

namespace {

int RunCommandLine(int argc, char** argv) {
    const std::vector<std::string> words(argv, argv + argc);
    ScrubBmcPasswords(argc, argv);
    KeepStandardDescriptorsOpen();

    CommandLine line;
    CommandLineError parseError;
    if (!ParseCommandLine(words, line, parseError)) return Fail(parseError.exitStatus, parseError.message);
    switch (line.action) {
        case Action::HostHelp:
            std::cout << HostHelpText() << std::flush;
            return 0;
        case Action::Version:
            std::cout << VersionText() << std::flush;
            return 0;
        case Action::CommandHelp: {
            std::string text;
            if (!CommandHelpText(line.command, text)) {
                return Fail(kExitInvalidCommand,
                            "no help for command '" + ShownWord(line.command) + "'; run 'morvel --help' for the commands");
            }
            std::cout << text << std::flush;
            return 0;
        }
        case Action::Run:
            break;
    }

    Plexum::Log::SetMinLogLevel(line.logLevel);
    int exitStatus = 0;
    if (!OpenLog(line, exitStatus)) return exitStatus;
    PLEXUM_LOG(3, kSource, __LINE__) << "morvel " << VersionNumber() << " pid "
                                     << ::getpid() << ": command " << ShownWord(line.command) << ", subcommand "
                                     << ShownWord(line.subCommand);
    if (!LoadConfiguration(line, exitStatus)) return exitStatus;

    ModuleLoader loader;
    ModuleLoader::Failure loadFailure;
    if (!loader.Load(ModuleDirectory(Environment("MORVEL_MODULE_PATH"), ExecutablePath()), line.command,
                     loadFailure)) {
        return Fail(loadFailure.exitStatus, loadFailure.message);
    }
    PLEXUM_LOG(3, kSource, __LINE__) << "module " << loader.Path();

    std::string caseNote;
    if (!CheckSubcommand(line, caseNote, exitStatus)) return exitStatus;
    if (!ResolveBmc(line, exitStatus)) return exitStatus;
    return RunModule(loader, MakeContext(line, loader.Path(), argc, argv), caseNote);
}

}  // namespace

int RunHost(int argc, char** argv) { return CheckStandardOutput(RunCommandLine(argc, argv)); }

}  // namespace MorvelCli
