// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>

namespace Plexum {

// Exit statuses the host itself ends with, apart from a module's result: a
// missing or unknown command word, anything wrong with an option, a module
// the host could not run to its end.
constexpr int kExitInvalidCommand = 4;
constexpr int kExitInvalidParameter = 5;
constexpr int kExitInternalError = 17;

// 0 when the low 16 bits of the code are 0; else those bits when below 256;
// else 255.
int ExitStatusForCode(int32_t code);

}  // namespace Plexum
