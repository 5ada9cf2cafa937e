// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <string>
#include <vector>

#include "host/CommandDeclaration.h"
#include "host/basic_app.h"

namespace MorvelCli {

// The directory the command modules are looked up in: MORVEL_MODULE_PATH
// when set and not empty, else <prefix>/MORVEL_MODULE_SUBDIR (lib/morvel unless
// the build chose another) where <prefix> is the directory above the
// executable's own.
std::string ModuleDirectory(const char* environment, const std::string& executablePath);

// The running executable (readlink /proc/self/exe); empty when unknown.
std::string ExecutablePath();

// "libmorvel_" COMMAND ".so".
std::string ModuleFileName(const std::string& command);

// Command words are letters, digits, '_' and '-': nothing that could leave the
// module directory.
bool IsValidCommandWord(const std::string& command);

// The commands whose modules are in the directory (libmorvel_COMMAND.so,
// COMMAND a valid command word), sorted; none when it cannot be listed.
std::vector<std::string> InstalledCommands(const std::string& directory);

// Whether the command's module file is there (it may still fail to load).
bool HasModule(const std::string& directory, const std::string& command);

// "unknown command 'WORD'; installed commands: a, b", or "...; no commands are
// installed in DIR". The word is shown as ShownWord shows it.
std::string UnknownCommandMessage(const std::string& command, const std::string& directory);

// Finds, opens and resolves one command module: its application objects and
// the declaration of its command line. The library stays loaded until the
// process ends: objects and exception types it made, and the declaration,
// may outlive the application object.
class ModuleLoader {
public:
    struct Failure {
        std::string message;  // one line, without the "morvel: " prefix
        int exitStatus = 0;
    };

    bool Load(const std::string& directory, const std::string& command, Failure& failure);

    const std::string& Path() const { return m_path; }
    // What the module declares of its command line; set once Load succeeded.
    const Plexum::CommandDeclaration& Declaration() const { return *m_declaration; }
    // A new application object, or null when the module made none.
    basic_app* CreateInstance() const { return m_create != nullptr ? m_create() : nullptr; }

private:
    std::string m_path;
    // Deliberately never closed (see above).
    void* m_handle = nullptr;
    CreateInstanceFunction m_create = nullptr;
    const Plexum::CommandDeclaration* m_declaration = nullptr;
};

}  // namespace MorvelCli
