// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>

#include "host/Files.h"

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

// When a log file is rotated: once a record takes it past `maxBytes` (0:
// never), FILE becomes FILE.1, FILE.1 becomes FILE.2 and so on, the oldest
// beyond FILE.`keep` is dropped (keep 0: FILE itself is), and a new FILE starts.
struct LogRotation {
    uint64_t maxBytes = 0;
    unsigned keep = 0;
};

// Appends "YYYY-MM-DD HH:MM:SS.mmm LEVEL source:line text" lines to a file
// created with mode 0600 (records may name addresses and users); a record of a
// target's run has "[LABEL] " after the level.
//
// Each record is one write to the end of the file, so records of several
// threads and processes never mix. Runs that share the file also share its
// rotation: it happens under a lock on FILE.lock, by the one run that finds
// the path still naming the file it saw past the size; the others follow the
// path to the new file at their next record. A record that lands in a file
// rotated out of the kept ones meanwhile is written again to the new one.
class FileLogSink : public LogSink {
public:
    // Opens (creating parent directories) or fails with a message in `error`.
    static std::shared_ptr<FileLogSink> Open(const std::string& path, std::string& error);
    void Write(const LogRecord& record) override;
    // Rotation starts with the next record; none until then.
    void SetRotation(LogRotation rotation);

private:
    FileLogSink(std::string path, UniqueFd fd) : m_path(std::move(path)), m_fd(std::move(fd)) {}
    // These run with m_mutex held.
    void Append(const std::string& line);
    void Rotate();
    void ShiftOldFiles() const;
    void Reopen();

    std::mutex m_mutex;
    std::string m_path;
    UniqueFd m_fd;
    LogRotation m_rotation;
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
