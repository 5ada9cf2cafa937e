// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <memory>

#include "host/RunContext.h"
#include "trust/KnownSmms.h"

namespace Trust {

// Puts into a target's trust settings what its run needs of the run's one
// known-SMMs store: the pin recorded for settings.key (or why the file cannot
// be read) and, under tofu, how to record the first pin it presents. Nothing
// for the other modes.
void ResolvePins(const std::shared_ptr<KnownSmms>& store, Plexum::TrustSettings& settings);

}  // namespace Trust
