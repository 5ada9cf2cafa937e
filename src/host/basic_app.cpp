// SPDX-License-Identifier: GPL-3.0-or-later
#include "host/basic_app.h"

basic_app::~basic_app() = default;

MorvelResult basic_app::init(const UserContext&) { return MorvelResult(0); }

MorvelResult basic_app::finish() { return MorvelResult(0); }
