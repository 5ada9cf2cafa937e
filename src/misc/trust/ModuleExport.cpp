// SPDX-License-Identifier: GPL-3.0-or-later
#include <new>

#include "host/CommandDeclaration.h"
#include "host/basic_app.h"
#include "misc/trust/TrustApp.h"

// The module's exports: its application objects, and the declaration of its
// command line. No exception crosses this C boundary.
extern "C" __attribute__((visibility("default"))) basic_app* create_instance() {
    try {
        return new (std::nothrow) TrustApp();
    } catch (...) {
        return nullptr;
    }
}

extern "C" __attribute__((visibility("default"))) const Plexum::CommandDeclaration* morvel_command_declaration() {
    return &TrustApp::Declaration();
}
