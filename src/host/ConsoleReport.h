// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <sstream>

// One line of user-visible text. On destruction it is logged at its level and
// written with a line end and a flush to standard output (level 2 and up) or
// standard error (below 2); in a run over one of many targets it is kept in
// that target's run context instead (Plexum::RunContext).
class ConsoleReport {
public:
    ConsoleReport(unsigned level, const char* source, int line);
    ~ConsoleReport();
    ConsoleReport(const ConsoleReport&) = delete;
    ConsoleReport& operator=(const ConsoleReport&) = delete;

    std::ostream& Stream() { return m_stream; }

private:
    unsigned m_level;
    const char* m_source;
    int m_line;
    std::ostringstream m_stream;
};
