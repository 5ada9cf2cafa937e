// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/ModuleRun.h"

#include <exception>
#include <memory>

#include "cli/CommandLine.h"
#include "cli/HostLog.h"
#include "host/Log.h"
#include "host/RunContext.h"
#include "host/basic_app.h"

namespace MorvelCli {
namespace {

ModuleOutcome Failure(const std::string& text) {
    return ModuleOutcome{MorvelResult(kExitInternalError), text};
}

}  // namespace

ModuleOutcome RunModuleOnce(const ModuleLoader& loader, const UserContext& context) {
    ModuleOutcome outcome;
    try {
        std::unique_ptr<basic_app> app(loader.CreateInstance());
        if (!app) return Failure("module " + loader.Path() + " did not create its application object");
        const MorvelResult initResult = app->init(context);
        PLEXUM_LOG(3, HostLog::kSource, HostLog::kInit) << "init: " << initResult;
        outcome.result = initResult;
        if (initResult == 0) {
            outcome.result = app->run();
            PLEXUM_LOG(3, HostLog::kSource, HostLog::kRun) << "run: " << outcome.result;
        }
        // finish closes what init opened, so it runs after a failed init too;
        // its failure only counts when nothing failed before.
        const MorvelResult finishResult = app->finish();
        if (finishResult != 0) {
            PLEXUM_LOG(1, HostLog::kSource, HostLog::kFinish) << "finish: " << finishResult;
            if (outcome.result == 0) outcome.result = finishResult;
        }
    } catch (const Plexum::RunInterrupted&) {
        throw;
    } catch (const std::exception& exception) {
        return Failure("module " + context.command + " failed: " + Printable(exception.what()));
    } catch (...) {
        return Failure("module " + context.command + " failed with an unknown exception");
    }
    return outcome;
}

}  // namespace MorvelCli
