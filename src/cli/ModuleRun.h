// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <string>

#include "cli/ModuleLoader.h"
#include "host/MorvelResult.h"
#include "host/UserContext.h"

namespace MorvelCli {

// How one application object's life ended.
struct ModuleOutcome {
    MorvelResult result;
    // Set when the host could not run the module to its end (no object, an
    // exception escaped it): one line, without the "morvel: " prefix. `result`
    // is then 17, Internal error.
    std::string failure;
};

// Creates one application object of the loaded module and takes it through
// init, run (only after a successful init) and finish on the calling thread.
// Plexum::RunInterrupted passes through; every other exception becomes a failure.
ModuleOutcome RunModuleOnce(const ModuleLoader& loader, const UserContext& context);

}  // namespace MorvelCli
