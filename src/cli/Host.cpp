// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/Host.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <optional>
#include <thread>
#include <vector>

#include "cli/ArgvScrub.h"
#include "cli/CommandLine.h"
#include "cli/CommandSyntax.h"
#include "cli/ConfigFiles.h"
#include "cli/FleetSettings.h"
#include "cli/HelpText.h"
#include "cli/HostLog.h"
#include "cli/LogSettings.h"
#include "cli/ModuleLoader.h"
#include "cli/ModuleRun.h"
#include "cli/PasswordSource.h"
#include "cli/RunSettings.h"
#include "common/result/ResultCodes.h"
#include "fleet/Detector.h"
#include "fleet/Fleet.h"
#include "fleet/Interrupts.h"
#include "fleet/RetryFile.h"
#include "fleet/TargetList.h"
#include "host/ConsoleReport.h"
#include "host/GlobalConfig.h"
#include "host/Log.h"
#include "host/MorvelResult.h"
#include "host/RunContext.h"
#include "host/UserContext.h"
#include "host/UserPaths.h"

namespace MorvelCli {

using Fleet::TargetError;
using Plexum::Environment;
using Fleet::TargetList;

namespace {

int Fail(int exitStatus, const std::string& message) {
    PLEXUM_LOG(1, HostLog::kSource, HostLog::kFailure) << message << " (exit status " << exitStatus << ")";
    std::cerr << "morvel: " << message << std::endl;
    return exitStatus;
}

void Warn(const std::string& message) {
    PLEXUM_LOG(2, HostLog::kSource, HostLog::kWarning) << message;
    std::cerr << "morvel: warning: " << message << std::endl;
}

// An explicit --log-file that cannot be opened is an error; the default one
// only costs the log, not the command. `sink` gets the log's file, if any.
bool OpenLog(const CommandLine& line, std::shared_ptr<Plexum::FileLogSink>& sink, int& exitStatus) {
    const std::string path = line.hasLogFile ? line.logFile : DefaultLogFilePath();
    if (path.empty()) return true;
    std::string error;
    sink = Plexum::FileLogSink::Open(path, error);
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

// The configuration's files (see ConfigSearchPath), merged; false and a
// one-line error when one of them cannot be read or parsed.
bool ReadConfiguration(const CommandLine& line, Plexum::ConfigSettings& settings, std::vector<std::string>& read,
                       std::string& error) {
    const std::vector<Plexum::ConfigLayer> layers =
        ConfigSearchPath(line.hasConfig, line.config, Environment("MORVEL_CONFIG"), Plexum::UserLookup(),
                         SystemConfigPath());
    return Plexum::GlobalConfig::ReadLayers(layers, settings, read, error);
}

bool LoadConfiguration(const CommandLine& line, int& exitStatus) {
    Plexum::ConfigSettings settings;
    std::vector<std::string> read;
    std::string error;
    if (!ReadConfiguration(line, settings, read, error)) {
        exitStatus = Fail(kExitInvalidParameter, error);
        return false;
    }
    Plexum::GlobalConfig::Install(settings);
    if (!read.empty()) {
        PLEXUM_LOG(3, HostLog::kSource, HostLog::kConfigurationRead) << ConfigurationReadRecord(read);
    }
    return true;
}

int ShowConfiguration(const CommandLine& line) {
    Plexum::ConfigSettings settings;
    std::vector<std::string> read;
    std::string error;
    if (!ReadConfiguration(line, settings, read, error)) {
        std::cerr << "morvel: " << error << std::endl;
        return kExitInvalidParameter;
    }
    std::cout << ShowConfigText(settings) << std::flush;
    return 0;
}

// The commands of the module directory with the summaries their modules declare.
std::vector<CommandSummary> InstalledCommandSummaries(const std::string& directory) {
    std::vector<CommandSummary> commands;
    for (const std::string& command : InstalledCommands(directory)) {
        ModuleLoader loader;
        ModuleLoader::Failure failure;
        commands.push_back(CommandSummary{command, loader.Load(directory, command, failure)
                                                       ? loader.Declaration().summary
                                                       : "(its module cannot be loaded: run 'morvel " + command +
                                                             " --help' for why)"});
    }
    return commands;
}

// The targets of --bmc and --bmc-file in the order given, each host and port once.
bool ReadTargets(const CommandLine& line, TargetList& list, int& exitStatus) {
    for (const TargetSource& source : line.targets) {
        const std::optional<TargetError> error =
            source.file ? list.AddFile(source.value) : list.AddValue(source.value, "--bmc");
        if (error) {
            exitStatus = Fail(kExitInvalidParameter, source.file ? "--bmc-file: " + error->message : error->message);
            return false;
        }
    }
    if (list.Targets().empty()) {
        exitStatus = Fail(kExitInvalidParameter, "--bmc-file: the target files hold no targets");
        return false;
    }
    list.RemoveRepeats();
    for (const std::string& warning : list.Warnings()) Warn(warning);
    return true;
}

// Passwords for the targets whose --bmc names none: the credentials file's,
// else the password command's (run per target just before it: ResolveLater),
// else one for them all from MORVEL_BMC_PASSWORD, else --password-file, else
// one prompt for the run.
bool ResolvePasswords(const CommandLine& line, const RunSettings& settings, std::vector<Target>& targets,
                      std::string& origin, int& exitStatus) {
    origin = "--bmc";
    for (Target& target : targets) {
        if (target.bmc.hasPassword || !settings.credentials) continue;
        const std::string host = target.bmc.ipv6 ? "[" + target.bmc.host + "]" : target.bmc.host;
        if (auto password = settings.credentials->PasswordFor(host, target.bmc.user)) {
            target.bmc.password = std::move(*password);
            target.bmc.hasPassword = true;
            origin = "the credentials file";
        }
    }
    const bool needed = std::any_of(targets.begin(), targets.end(), [](const Target& t) { return !t.bmc.hasPassword; });
    if (needed && settings.passwordCommand) {
        origin = "the password command";
    } else if (needed) {
        PasswordSource::Inputs inputs;
        inputs.environment = std::getenv("MORVEL_BMC_PASSWORD");
        inputs.passwordFile = line.PasswordFile();
        std::string password;
        std::string error;
        PasswordSource::Origin source = PasswordSource::Origin::Prompt;
        std::vector<std::string> warnings;
        const bool resolved = PasswordSource::Resolve(inputs, password, source, warnings, error);
        for (const std::string& warning : warnings) Warn(warning);
        if (!resolved) {
            exitStatus = Fail(kExitInvalidParameter, error);
            return false;
        }
        origin = PasswordSource::OriginName(source);
        for (Target& target : targets) {
            if (target.bmc.hasPassword) continue;
            target.bmc.password = password;
            target.bmc.hasPassword = true;
        }
    }
    if (targets.size() == 1) {
        const Plexum::BmcTarget& target = targets.front().bmc;
        PLEXUM_LOG(3, HostLog::kSource, HostLog::kTarget)
            << "target " << Printable(target.host) << " port " << target.port << " user " << Printable(target.user)
            << ", password from " << origin;
    } else {
        PLEXUM_LOG(3, HostLog::kSource, HostLog::kTargets)
            << targets.size() << " targets" << (needed ? ", passwords not in --bmc from " + origin : std::string());
    }
    return true;
}

// A subcommand the command does not have can never work. A run over many
// targets refuses it at once; so does a single one when no password was given
// anywhere, instead of asking for one. Otherwise the module answers it as
// always, and `caseNote` (empty unless only the letter case is wrong) goes
// just before the result line.
bool CheckSubcommand(const CommandSyntax& syntax, const CommandLine& line, const RunSettings& settings,
                     const std::vector<Target>& targets, bool fleet, std::string& caseNote, int& exitStatus) {
    caseNote = UnknownSubcommandNote(syntax, line.subCommand, true);
    const std::string note = UnknownSubcommandNote(syntax, line.subCommand, false);
    if (note.empty()) return true;
    const bool passwordGiven = targets.front().bmc.hasPassword || Environment("MORVEL_BMC_PASSWORD") != nullptr ||
                               !line.PasswordFile().empty() || settings.credentials || settings.passwordCommand;
    if (!fleet && passwordGiven) return true;
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
    PLEXUM_LOG(1, HostLog::kSource, HostLog::kOutputLost) << "cannot write standard output (exit status " << status << ")";
    std::cerr << "morvel: cannot write standard output" << std::endl;
    return status;
}

// `invalidParameterNote` goes before a result line of status 5, as
// `invalidCommandNote` before one of status 4.
int RunModule(const ModuleLoader& loader, const UserContext& context, const std::string& invalidCommandNote,
              const std::string& invalidParameterNote = std::string()) {
    const ModuleOutcome outcome = RunModuleOnce(loader, context);
    if (!outcome.failure.empty()) return Fail(kExitInternalError, outcome.failure);
    const MorvelResult& result = outcome.result;
    if (result == kExitInvalidCommand && !invalidCommandNote.empty()) {
        PLEXUM_LOG(3, HostLog::kSource, HostLog::kSubcommandNote) << invalidCommandNote;
        std::cerr << "morvel: " << invalidCommandNote << std::endl;
    }
    if (result == kExitInvalidParameter && !invalidParameterNote.empty()) {
        std::cerr << "morvel: " << invalidParameterNote << std::endl;
    }
    std::ostream& out = result == 0 ? std::cout : std::cerr;
    out << result << std::endl;
    const int status = Plexum::ExitStatusForCode(result.code);
    PLEXUM_LOG(3, HostLog::kSource, HostLog::kResult) << "result: " << result << " (exit status " << status << ")";
    return status;
}

// The password command's answer for a target without a password; false,
// with the failure in `outcome`, when it gives none.
bool FetchPassword(const RunSettings& settings, Fleet::Target& target, Fleet::TargetOutcome& outcome) {
    const PasswordCommand::Answer answer = settings.passwordCommand->Run(target.bmc.host, target.bmc.port, target.bmc.user);
    if (!answer.password) {
        outcome.result = MorvelResult(kExitInvalidParameter);
        outcome.failure = answer.error;
        return false;
    }
    target.bmc.password = *answer.password;
    target.bmc.hasPassword = true;
    return true;
}

// Which answers the detection counts, by the protocols the run may use.
std::optional<Fleet::DetectOptions> DetectionOf(const RunSettings& settings, const FleetSettings& fleet) {
    if (!fleet.detect) return std::nullopt;
    Fleet::DetectOptions detect;
    detect.redfish = settings.protocols != Plexum::ProtocolChoice::Ipmi;
    detect.ipmi = settings.protocols != Plexum::ProtocolChoice::Redfish;
    detect.bound = *fleet.detect;
    return detect;
}

// Every target runs the module's whole behaviour with the run's settings
// applied to its own run context.
int RunManyTargets(const ModuleLoader& loader, const UserContext& base, const std::vector<Fleet::Target>& targets,
                   const CommandLine& line, const RunSettings& settings, const FleetSettings& fleet,
                   const std::string& passwordOrigin) {
    Fleet::FleetOptions options;
    options.command = line.command;
    options.subcommand = line.subCommand;
    options.fanout = line.fanout;
    options.output = line.output;
    options.guards = Fleet::GuardLimits{fleet.maxAuthFailures, fleet.canary, fleet.maxFailures, passwordOrigin};
    options.detect = DetectionOf(settings, fleet);
    options.retryFile = fleet.retryFile;
    return Fleet::RunFleet(targets, options, [&](Fleet::Target& target, Fleet::TargetOutcome& outcome) {
        settings.ApplyTo(Plexum::RunContext::Current(), target);
        if (!target.bmc.hasPassword && !FetchPassword(settings, target, outcome)) return;
        UserContext context = base;
        context.options["bmc"] = target.BmcText();
        const ModuleOutcome ended = RunModuleOnce(loader, context);
        outcome.result = ended.result;
        outcome.failure = ended.failure;
        // The context holds the target's password inside its options: gone with it.
    });
}

}  // namespace

std::string DefaultLogFilePath(const Plexum::UserLookup& user) {
    return Plexum::UserFilePath(Plexum::UserFolder::State, "morvel.log", user);
}

namespace {

// Runs `run` with SIGINT and SIGTERM ending its next wait instead of the
// process, so that a Redfish session it opened is logged out; the process then
// ends by the signal as it would have. A second SIGINT ends it at once.
int RunLoggingOutOnSignals(const std::function<int()>& run) {
    Fleet::InterruptWatch interrupts;  // before the watcher starts: every thread inherits the block
    const Plexum::UniqueFd done(::eventfd(0, EFD_CLOEXEC));
    if (interrupts.Fd() < 0 || done.Get() < 0) return run();
    Plexum::StopSignal stop;
    int caught = 0;  // the watcher's until it is joined
    std::thread watcher([&] {
        for (;;) {
            pollfd watched[2] = {{interrupts.Fd(), POLLIN, 0}, {done.Get(), POLLIN, 0}};
            if ((::poll(watched, 2, -1) < 0 && errno != EINTR) || watched[1].revents != 0) return;
            const int number = (watched[0].revents & POLLIN) != 0 ? interrupts.Take() : 0;
            if (number == 0) continue;
            if (caught != 0 && number == SIGINT) Fleet::EndBySignal(SIGINT);
            if (caught != 0) continue;
            caught = number;
            PLEXUM_LOG(2, HostLog::kSource, HostLog::kStopSignal) << "signal " << number << ": the run ends at its next wait";
            stop.Request();
        }
    });
    int status = 0;
    {
        Plexum::RunContext context(&stop);
        const Plexum::ScopedRunContext installed(context);
        try {
            status = run();
        } catch (const Plexum::RunInterrupted&) {
            PLEXUM_LOG(2, HostLog::kSource, HostLog::kInterrupted)
                << Fleet::InterruptedNote(context.ChangeSent());
        }
    }
    const uint64_t one = 1;
    static_cast<void>(::write(done.Get(), &one, sizeof one));
    watcher.join();
    if (caught != 0) Fleet::EndBySignal(caught);
    return status;
}

// One SMM, run straight on this thread: its console lines and result line go
// to the streams as they come. Asked first when --detect-timeout says so.
int RunOneTarget(const ModuleLoader& loader, UserContext& context, Target& target, const RunSettings& settings,
                 const FleetSettings& fleet, const std::string& caseNote) {
    if (const std::optional<Fleet::DetectOptions> detect = DetectionOf(settings, fleet)) {
        if (!Fleet::Detect(target, *detect)) {
            const std::string line = Fleet::UnreachableText(*detect, target.bmc.port);
            ConsoleReport(1, HostLog::kSource, HostLog::kUnreachable).Stream() << line;
            const MorvelResult result(RESULT_CONNECTION_FAILED);
            std::cerr << result << std::endl;
            PLEXUM_LOG(3, HostLog::kSource, HostLog::kResult) << "result: " << result << " (exit status 13)";
            return Plexum::ExitStatusForCode(result.code);
        }
    }
    if (!target.bmc.hasPassword) {
        const MorvelCli::PasswordCommand::Answer answer =
            settings.passwordCommand->Run(target.bmc.host, target.bmc.port, target.bmc.user);
        if (!answer.password) return Fail(kExitInvalidParameter, answer.error);
        target.bmc.password = *answer.password;
        target.bmc.hasPassword = true;
    }
    context.options["bmc"] = target.BmcText();
    const auto run = [&] {
        settings.ApplyTo(Plexum::RunContext::Current(), target);
        return RunModule(loader, context, caseNote);
    };
    // A session left open can lock the next user out until the service's own time-out.
    if (settings.redfishAuth == Plexum::RedfishAuth::Session) return RunLoggingOutOnSignals(run);
    return run();
}

int RunCommandLine(int argc, char** argv) {
    const std::vector<std::string> words(argv, argv + argc);
    ScrubBmcPasswords(argc, argv);
    KeepStandardDescriptorsOpen();

    CommandLine line;
    CommandLineError parseError;
    if (!ParseCommandLine(words, line, parseError)) {
        if (parseError.missingSubcommand) {
            // "morvel bogus" is an unknown command rather than one without its subcommand.
            const std::string directory = ModuleDirectory(Environment("MORVEL_MODULE_PATH"), ExecutablePath());
            if (!directory.empty() && !HasModule(directory, line.command)) {
                return Fail(kExitInvalidCommand, UnknownCommandMessage(line.command, directory));
            }
        }
        return Fail(parseError.exitStatus, parseError.message);
    }
    const std::string directory = ModuleDirectory(Environment("MORVEL_MODULE_PATH"), ExecutablePath());
    switch (line.action) {
        case Action::HostHelp:
            std::cout << HostHelpText(InstalledCommandSummaries(directory)) << std::flush;
            return 0;
        case Action::Version:
            std::cout << VersionText() << std::flush;
            return 0;
        case Action::CommandHelp: {
            ModuleLoader loader;
            ModuleLoader::Failure loadFailure;
            if (!loader.Load(directory, line.command, loadFailure)) return Fail(loadFailure.exitStatus, loadFailure.message);
            std::cout << CommandHelpText(CommandSyntax(loader.Declaration())) << std::flush;
            return 0;
        }
        case Action::ShowConfig:
            return ShowConfiguration(line);
        case Action::Run:
            break;
    }

    Plexum::Log::SetMinLogLevel(line.logLevel);
    int exitStatus = 0;
    std::shared_ptr<Plexum::FileLogSink> log;
    if (!OpenLog(line, log, exitStatus)) return exitStatus;
    PLEXUM_LOG(3, HostLog::kSource, HostLog::kStart) << "morvel " << VersionNumber() << " pid "
                                     << ::getpid() << ": command " << ShownWord(line.command) << ", subcommand "
                                     << ShownWord(line.subCommand);
    if (!LoadConfiguration(line, exitStatus)) return exitStatus;
    // The log opened before the configuration that says how it rotates.
    if (log) log->SetRotation(ConfiguredLogRotation());

    ModuleLoader loader;
    ModuleLoader::Failure loadFailure;
    if (!loader.Load(directory, line.command, loadFailure)) return Fail(loadFailure.exitStatus, loadFailure.message);
    PLEXUM_LOG(3, HostLog::kSource, HostLog::kModule) << "module " << loader.Path();
    // The command's own declaration says which options its command line may hold:
    // anything else ends the run here, before any password is asked for.
    const CommandSyntax syntax(loader.Declaration());
    if (!ParseCommandOptions(syntax, line, parseError)) return Fail(parseError.exitStatus, parseError.message);

    if (line.targets.empty()) {
        // The module answers a missing --bmc itself; the host says what was missing.
        PLEXUM_LOG(3, HostLog::kSource, HostLog::kNoBmc) << "no --bmc given";
        return RunModule(loader, MakeContext(line, loader.Path(), argc, argv), std::string(),
                         syntax.Declaration().smmTargets ? "--bmc USER[:PASSWORD]@HOST[:PORT] is required" : "");
    }
    TargetList list;
    if (!ReadTargets(line, list, exitStatus)) return exitStatus;
    std::vector<Target>& targets = list.Targets();
    const RunSettingsRead read = ReadRunSettings(line);
    if (!read.settings) return Fail(kExitInvalidParameter, read.error);
    const RunSettings& settings = *read.settings;
    const FleetSettingsRead fleetRead = ReadFleetSettings(line, targets.size());
    if (!fleetRead.settings) return Fail(kExitInvalidParameter, fleetRead.error);
    const bool fleet = targets.size() >= 2 || line.output != OutputFormat::Text || line.alwaysPrefix;
    std::string caseNote;
    if (!CheckSubcommand(syntax, line, settings, targets, fleet, caseNote, exitStatus)) return exitStatus;
    std::string passwordOrigin;
    if (!ResolvePasswords(line, settings, targets, passwordOrigin, exitStatus)) return exitStatus;
    UserContext context = MakeContext(line, loader.Path(), argc, argv);
    if (fleet) {
        return RunManyTargets(loader, context, targets, line, settings, *fleetRead.settings, passwordOrigin);
    }
    const int status = RunOneTarget(loader, context, targets.front(), settings, *fleetRead.settings, caseNote);
    if (!fleetRead.settings->retryFile.empty()) {
        const Fleet::RetryFile retry(fleetRead.settings->retryFile);
        if (const auto error = retry.Write(targets, {status == 0})) return Fail(status == 0 ? 1 : status, *error);
    }
    return status;
}

}  // namespace

int RunHost(int argc, char** argv) { return CheckStandardOutput(RunCommandLine(argc, argv)); }

}  // namespace MorvelCli
