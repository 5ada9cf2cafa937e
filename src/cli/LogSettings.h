// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "host/Log.h"

namespace MorvelCli {

// How the log file rotates, from the configuration (a value that is not
// exactly one number keeps the default):
//   LOG_MAX_BYTES  16777216  rotated once a record takes it past this many bytes; 0 or less: never
//   LOG_KEEP       3         old files kept, FILE.1 the newest; 0 or less: none; at most 1000
Plexum::LogRotation ConfiguredLogRotation();

}  // namespace MorvelCli
