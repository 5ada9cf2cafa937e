// SPDX-License-Identifier: GPL-3.0-or-later
// A command module whose create_instance makes no application object.
#include "host/basic_app.h"

extern "C" __attribute__((visibility("default"))) basic_app* create_instance() { return nullptr; }
