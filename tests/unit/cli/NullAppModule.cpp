// SPDX-License-Identifier: GPL-3.0-or-later
// A command module whose create_instance makes no application object.
#include "host/CommandDeclaration.h"
#include "host/basic_app.h"

extern "C" __attribute__((visibility("default"))) basic_app* create_instance() { return nullptr; }

extern "C" __attribute__((visibility("default"))) const Plexum::CommandDeclaration* morvel_command_declaration() {
    static const Plexum::CommandDeclaration declaration = {
        Plexum::CommandDeclaration::kAbiVersion, "nullapp", "makes no application object", nullptr, nullptr, 0,
        nullptr, nullptr, 0, false};
    return &declaration;
}
