// SPDX-License-Identifier: GPL-3.0-or-later
#include <new>

#include "host/basic_app.h"
#include "misc/trust/TrustApp.h"

// The module's only exported symbol; no exception crosses this C boundary.
extern "C" __attribute__((visibility("default"))) basic_app* create_instance() {
    try {
        return new (std::nothrow) TrustApp();
    } catch (...) {
        return nullptr;
    }
}
