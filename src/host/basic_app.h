// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "host/MorvelResult.h"
#include "host/UserContext.h"

// Base of every module's application object. The host calls init, run and
// finish in that order, then deletes the object through the destructor.
class basic_app {
public:
    basic_app() = default;
    basic_app(const basic_app&) = delete;
    basic_app& operator=(const basic_app&) = delete;
    virtual ~basic_app();
    virtual MorvelResult init(const UserContext& context);
    virtual MorvelResult run() = 0;
    virtual MorvelResult finish();

protected:
    UserContext m_userContext;
};

// The one symbol a module exports, unmangled.
extern "C" {
typedef basic_app* (*CreateInstanceFunction)();
}
