// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <string>

#include "host/Files.h"

namespace Fleet {

// SIGINT and SIGTERM as readable events instead of handlers. Blocked for the
// calling thread before any other starts, so every thread made after inherits
// the block and only the signal descriptor sees them. They stay blocked until
// the process ends: a late one must not kill a run that is writing its
// summary. A signal the process was started with ignored (a background job's
// SIGINT) stays ignored.
class InterruptWatch {
public:
    InterruptWatch();
    int Fd() const { return m_fd.Get(); }
    // The signal that arrived, or 0.
    int Take() const;

private:
    Plexum::UniqueFd m_fd;
};

// The log text of a run a signal stopped at one of its waits.
std::string InterruptedNote(bool changeSent);

// Ends the process the way the signal would have, at once.
[[noreturn]] void EndBySignal(int number);

}  // namespace Fleet
