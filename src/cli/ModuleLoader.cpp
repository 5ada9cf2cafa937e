// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/ModuleLoader.h"

#include <dlfcn.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "cli/CommandLine.h"
#include "host/Files.h"

namespace MorvelCli {
namespace {

std::string DirectoryOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

// What is wrong with a module's declaration, or empty: a stale or foreign
// one is refused rather than misread.
std::string DeclarationProblem(const Plexum::CommandDeclaration* declaration, const std::string& command) {
    if (declaration == nullptr) return "declares no command line";
    if (declaration->abiVersion != Plexum::CommandDeclaration::kAbiVersion) return "declares its command line in another version";
    if (declaration->name == nullptr || command != declaration->name) return "declares another command";
    const bool complete = declaration->summary != nullptr &&
                          (declaration->subcommandCount == 0 || declaration->subcommands != nullptr) &&
                          (declaration->optionCount == 0 || declaration->options != nullptr);
    if (!complete) return "declares an incomplete command line";
    for (size_t i = 0; i < declaration->subcommandCount; ++i) {
        if (declaration->subcommands[i].name == nullptr || declaration->subcommands[i].help == nullptr) {
            return "declares an incomplete command line";
        }
    }
    for (size_t i = 0; i < declaration->optionCount; ++i) {
        if (declaration->options[i].name == nullptr || declaration->options[i].help == nullptr) {
            return "declares an incomplete command line";
        }
    }
    return std::string();
}

}  // namespace

std::string ModuleDirectory(const char* environment, const std::string& executablePath) {
    if (environment != nullptr && environment[0] != '\0') return environment;
    if (executablePath.empty()) return std::string();
    const std::string prefix = DirectoryOf(DirectoryOf(executablePath));
    return (prefix == "/" ? std::string() : prefix) + "/" MORVEL_MODULE_SUBDIR;
}

std::string ExecutablePath() {
    char buffer[PATH_MAX + 1];
    const ssize_t length = ::readlink("/proc/self/exe", buffer, PATH_MAX);
    if (length <= 0) return std::string();
    return std::string(buffer, static_cast<size_t>(length));
}

std::string ModuleFileName(const std::string& command) { return "libmorvel_" + command + ".so"; }

bool IsValidCommandWord(const std::string& command) {
    if (command.empty() || command.size() > 64) return false;
    for (const char c : command) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
                        c == '-';
        if (!ok) return false;
    }
    return true;
}

std::vector<std::string> InstalledCommands(const std::string& directory) {
    std::vector<std::string> commands;
    if (directory.empty()) return commands;
    static const std::string kPrefix = "libmorvel_";
    static const std::string kSuffix = ".so";
    std::error_code error;
    for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (name.size() <= kPrefix.size() + kSuffix.size() || name.compare(0, kPrefix.size(), kPrefix) != 0 ||
            name.compare(name.size() - kSuffix.size(), kSuffix.size(), kSuffix) != 0) {
            continue;
        }
        const std::string command = name.substr(kPrefix.size(), name.size() - kPrefix.size() - kSuffix.size());
        if (IsValidCommandWord(command)) commands.push_back(command);
    }
    std::sort(commands.begin(), commands.end());
    return commands;
}

bool HasModule(const std::string& directory, const std::string& command) {
    if (directory.empty() || !IsValidCommandWord(command)) return false;
    struct stat status {};
    const std::string path = directory + "/" + ModuleFileName(command);
    return ::stat(path.c_str(), &status) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

std::string UnknownCommandMessage(const std::string& command, const std::string& directory) {
    const std::vector<std::string> commands = InstalledCommands(directory);
    std::string message = "unknown command '" + ShownWord(command) + "'; ";
    if (commands.empty()) return message + "no commands are installed in " + Printable(directory);
    message += "installed commands: ";
    for (size_t i = 0; i < commands.size(); ++i) message += (i == 0 ? "" : ", ") + commands[i];
    return message;
}

bool ModuleLoader::Load(const std::string& directory, const std::string& command, Failure& failure) {
    if (!IsValidCommandWord(command)) {
        failure.exitStatus = kExitInvalidCommand;
        failure.message = directory.empty()
                              ? "unknown command '" + ShownWord(command) + "'; run 'morvel --help' for the commands"
                              : UnknownCommandMessage(command, directory);
        return false;
    }
    if (directory.empty()) {
        failure.exitStatus = kExitInternalError;
        failure.message = "cannot tell where the command modules are; set MORVEL_MODULE_PATH";
        return false;
    }
    m_path = directory + "/" + ModuleFileName(command);
    struct stat status {};
    if (::stat(m_path.c_str(), &status) != 0) {
        if (errno == ENOENT || errno == ENOTDIR) {
            failure.exitStatus = kExitInvalidCommand;
            failure.message = UnknownCommandMessage(command, directory);
        } else {
            failure.exitStatus = kExitInternalError;
            failure.message = "cannot load module " + m_path + ": " + std::strerror(errno);
        }
        return false;
    }
    // Lazily: the libraries under a module (libcurl and its dozens) bind what they
    // call as they call it, as they do in any program; the module itself is linked
    // with -z now, so a symbol it lacks still fails here, not later.
    void* const handle = ::dlopen(m_path.c_str(), RTLD_LAZY | RTLD_LOCAL);
    if (handle == nullptr) {
        failure.exitStatus = kExitInternalError;
        failure.message = "cannot load module " + m_path + ": " + Printable(Plexum::LoadFailure(m_path));
        return false;
    }
    ::dlerror();
    void* const symbol = ::dlsym(handle, "create_instance");
    if (symbol == nullptr) {
        failure.exitStatus = kExitInternalError;
        failure.message = "module " + m_path + " does not export create_instance";
        ::dlclose(handle);
        return false;
    }
    const auto declare = reinterpret_cast<CommandDeclarationFunction>(::dlsym(handle, kCommandDeclarationSymbol));
    const Plexum::CommandDeclaration* declaration = declare != nullptr ? declare() : nullptr;
    const std::string problem = declare == nullptr ? std::string("does not export ") + kCommandDeclarationSymbol
                                                   : DeclarationProblem(declaration, command);
    if (!problem.empty()) {
        failure.exitStatus = kExitInternalError;
        failure.message = "module " + m_path + " " + problem;
        ::dlclose(handle);
        return false;
    }
    m_handle = handle;
    m_create = reinterpret_cast<CreateInstanceFunction>(symbol);
    m_declaration = declaration;
    return true;
}

}  // namespace MorvelCli
