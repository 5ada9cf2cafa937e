// SPDX-License-Identifier: GPL-3.0-or-later
#include <new>

#include "host/basic_app.h"
#include "misc/smmlan/SmmLan.h"

// The module's only exported symbol. No exception may cross this C boundary:
// a failed allocation or construction yields a null pointer.
extern "C" __attribute__((visibility("default"))) basic_app* create_instance() {
    try {
        return new (std::nothrow) SmmLan();
    } catch (...) {
        return nullptr;
    }
}
