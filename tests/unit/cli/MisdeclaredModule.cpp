// SPDX-License-Identifier: GPL-3.0-or-later
// Command modules whose declaration the host must refuse: none at all, one of
// another command, one of another version, and one with a subcommand but no help.
#include "host/CommandDeclaration.h"
#include "host/basic_app.h"

extern "C" __attribute__((visibility("default"))) basic_app* create_instance() { return nullptr; }

#ifndef MISDECLARED
#error "MISDECLARED names the kind of mistake"
#endif

#if MISDECLARED != 0
extern "C" __attribute__((visibility("default"))) const Plexum::CommandDeclaration* morvel_command_declaration() {
#if MISDECLARED == 1
    static const Plexum::CommandDeclaration declaration = {Plexum::CommandDeclaration::kAbiVersion, "someother", "x",
                                                           nullptr, nullptr, 0, nullptr, nullptr, 0, false};
#elif MISDECLARED == 2
    static const Plexum::CommandDeclaration declaration = {Plexum::CommandDeclaration::kAbiVersion + 1, "oldabi", "x",
                                                           nullptr, nullptr, 0, nullptr, nullptr, 0, false};
#else
    static const Plexum::SubcommandDeclaration subcommands[] = {{"show", nullptr}};
    static const Plexum::CommandDeclaration declaration = {Plexum::CommandDeclaration::kAbiVersion, "nohelp", "x",
                                                           nullptr, subcommands, 1, nullptr, nullptr, 0, false};
#endif
    return &declaration;
}
#endif
