// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

namespace MorvelCli {

// Hides the password inside one --bmc value in place, so that
// /proc/PID/cmdline no longer shows it: the password (the text between the
// first ':' and the last '@', or everything after the first ':' when there is
// no '@') becomes one '*', the rest of the value moves up behind it and the
// freed bytes are zeroed. Returns true when a password was hidden.
bool ScrubBmcValue(char* value);

// Scrubs every --bmc value in argv: the word after a "--bmc" word and the
// text after "--bmc=". Wherever it stands, so that a misplaced one is hidden too.
int ScrubBmcPasswords(int argc, char** argv);

}  // namespace MorvelCli
