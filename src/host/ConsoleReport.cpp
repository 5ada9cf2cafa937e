// SPDX-License-Identifier: GPL-3.0-or-later
#include "host/ConsoleReport.h"

#include "host/Log.h"
#include "host/RunContext.h"

ConsoleReport::ConsoleReport(unsigned level, const char* source, int line)
    : m_level(level), m_source(source), m_line(line) {}

ConsoleReport::~ConsoleReport() {
    // A destructor that throws ends the process; out of memory, the line is lost instead.
    try {
        const std::string text = m_stream.str();
        { Plexum::Log(m_level, m_source, m_line).Stream() << text; }
        Plexum::RunContext::Current().WriteConsole(m_level, text);
    } catch (...) {
    }
}
