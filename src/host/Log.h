// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <memory>
#include <sstream>
#include <string>

namespace Plexum {

struct LogRecord {
    unsigned level = 0;
    std::string source;
    int line = 0;
    std::string text;
    std::string target;  // the label of the target whose run made it; empty outside such runs
};

// Where emitted records go. The host installs a file sink; tests install their own.
class LogSink {
public:
    virtual ~LogSink() = default;
    virtual void Write(const LogRecord& record) = 0;
};

// Appends "YYYY-MM-DD HH:MM:SS.mmm LEVEL source:line text" lines to a file
// created with mode 0600 (records may name addresses and users); a record of a
// target's run has "[LABEL] " after the level.
class FileLogSink : public LogSink {
public:
    // Opens (creating parent directories) or fails with a message in `error`.
    static std::shared_ptr<FileLogSink> Open(const std::string& path, std::string& error);
    ~FileLogSink() override;
    void Write(const LogRecord& record) override;

private:
    explicit FileLogSink(int fd) : m_fd(fd) {}
    int m_fd;
};

// One log record: made with a level, a source text and a line, filled through
// Stream(), emitted when destroyed if its level is at most GetMinLogLevel().
// Levels: 1 failures, 2 warnings, 3 information, 4 tracing.
class Log {
public:
    Log(unsigned level, const char* source, int line);
    ~Log();
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    std::ostream& Stream() { return m_stream; }

    static unsigned GetMinLogLevel();
    static void SetMinLogLevel(unsigned level);
    // A null sink discards records.
    static void SetSink(std::shared_ptr<LogSink> sink);

private:
    unsigned m_level;
    const char* m_source;
    int m_line;
    std::ostringstream m_stream;
};

}  // namespace Plexum

// A plain log record, made only when the logger admits its level.
#define PLEXUM_LOG(level, source, line) \
    if (::Plexum::Log::GetMinLogLevel() < static_cast<unsigned>(level)) { \
    } else \
        ::Plexum::Log(static_cast<unsigned>(level), (source), (line)).Stream()
