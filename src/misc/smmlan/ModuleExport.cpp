// SPDX-License-Identifier: GPL-3.0-or-later
#include <new>

#include "host/CommandDeclaration.h"
#include "host/basic_app.h"
#include "misc/smmlan/SmmLan.h"
#include "misc/smmlan/SmmLanCommand.h"

// The module's exports: its application objects, and the declaration of its
// command line. No exception may cross this C boundary: a failed allocation or
// construction yields a null pointer.
extern "C" __attribute__((visibility("default"))) basic_app* create_instance() {
    try {
        return new (std::nothrow) SmmLan();
    } catch (...) {
        return nullptr;
    }
}

extern "C" __attribute__((visibility("default"))) const Plexum::CommandDeclaration* morvel_command_declaration() {
    return &SmmLanDeclaration();
}
