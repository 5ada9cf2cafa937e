// SPDX-License-Identifier: GPL-3.0-or-later
#include <exception>
#include <iostream>

#include "cli/Host.h"
#include "cli/CommandLine.h"

int main(int argc, char** argv) {
    try {
        return MorvelCli::RunHost(argc, argv);
    } catch (const std::exception& exception) {
        std::cerr << "morvel: internal error: " << exception.what() << std::endl;
    } catch (...) {
        std::cerr << "morvel: internal error" << std::endl;
    }
    return MorvelCli::kExitInternalError;
}
