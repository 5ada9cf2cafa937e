// SPDX-License-Identifier: GPL-3.0-or-later
#include "host/Log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>

#include "host/Files.h"
#include "host/RunContext.h"

namespace Plexum {
namespace {

std::atomic<unsigned> g_minLevel{3};

std::mutex& SinkMutex() {
    static std::mutex mutex;
    return mutex;
}
std::shared_ptr<LogSink>& Sink() {
    static std::shared_ptr<LogSink> sink;
    return sink;
}

const char* LevelName(unsigned level) {
    switch (level) {
        case 0: return "FATAL";
        case 1: return "ERROR";
        case 2: return "WARN";
        case 3: return "INFO";
        default: return "TRACE";
    }
}

}  // namespace

std::shared_ptr<FileLogSink> FileLogSink::Open(const std::string& path, std::string& error) {
    if (path.empty()) {
        error = "empty log file name";
        return nullptr;
    }
    if (!MakeParentDirectories(path, "log", error)) return nullptr;
    UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    if (fd.Get() < 0) {
        error = "cannot open log file " + path + ": " + std::strerror(errno);
        return nullptr;
    }
    return std::shared_ptr<FileLogSink>(new FileLogSink(path, std::move(fd)));
}

void FileLogSink::SetRotation(LogRotation rotation) {
    const std::lock_guard<std::mutex> hold(m_mutex);
    m_rotation = rotation;
}

void FileLogSink::Write(const LogRecord& record) {
    using namespace std::chrono;
    const auto now = system_clock::now();
    const std::time_t seconds = system_clock::to_time_t(now);
    const auto millis = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    // Both texts are taken by the lengths written: on a failure neither
    // function promises anything about the buffer.
    char stamp[32];
    const size_t stampLength = std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    char fraction[8];
    const int fractionWritten = std::snprintf(fraction, sizeof fraction, ".%03d", static_cast<int>(millis));
    const size_t fractionLength =
        fractionWritten > 0 ? std::min(static_cast<size_t>(fractionWritten), sizeof fraction - 1) : 0;

    std::string line;
    line.reserve(64 + record.source.size() + record.text.size());
    line.append(stamp, stampLength).append(fraction, fractionLength).append(" ").append(LevelName(record.level)).append(" ");
    if (!record.target.empty()) line.append("[").append(record.target).append("] ");
    line.append(record.source).append(":").append(std::to_string(record.line)).append(" ");
    line.append(record.text).append("\n");
    const std::lock_guard<std::mutex> hold(m_mutex);
    Append(line);
}

void FileLogSink::Append(const std::string& line) {
    // Twice at most: again when the file it went to was rotated out of the kept ones meanwhile.
    for (int attempt = 0; attempt < 2; ++attempt) {
        // One write per record keeps records whole when several processes share the file.
        if (!WriteAll(m_fd.Get(), line.data(), line.size())) return;  // a full disk must not stop the command
        struct stat status {};
        // Only a plain file rotates or goes away (not /dev/null, a terminal or a pipe).
        if (::fstat(m_fd.Get(), &status) != 0 || !S_ISREG(status.st_mode)) return;
        if (status.st_nlink == 0) {
            Reopen();
            continue;
        }
        if (m_rotation.maxBytes > 0 && static_cast<uint64_t>(status.st_size) > m_rotation.maxBytes) Rotate();
        return;
    }
}

// Under the lock, only while the path still names this run's file and that
// file is past the size: two runs never rotate the same file twice.
void FileLogSink::Rotate() {
    const FileLock lock(m_path + ".lock", FileLock::Kind::Exclusive, true);
    if (!lock.Held()) {
        // Nowhere to lock: the file grows as it did before rotation existed.
        m_rotation.maxBytes = 0;
        return;
    }
    struct stat mine {};
    struct stat named {};
    if (::fstat(m_fd.Get(), &mine) != 0) return;
    if (::stat(m_path.c_str(), &named) == 0 && FileIdentity::Of(named).SameFile(FileIdentity::Of(mine))) {
        if (static_cast<uint64_t>(named.st_size) <= m_rotation.maxBytes) return;
        ShiftOldFiles();
        const bool moved = m_rotation.keep > 0 ? ::rename(m_path.c_str(), (m_path + ".1").c_str()) == 0
                                               : ::unlink(m_path.c_str()) == 0;
        if (!moved) {
            // A folder that takes no new names: the file grows, and no record tries again.
            m_rotation.maxBytes = 0;
            return;
        }
    }
    Reopen();
}

// FILE.keep-1 over FILE.keep (dropping the oldest), down to FILE.1 to FILE.2.
void FileLogSink::ShiftOldFiles() const {
    for (unsigned generation = m_rotation.keep; generation > 1; --generation) {
        const std::string older = m_path + "." + std::to_string(generation);
        const std::string newer = m_path + "." + std::to_string(generation - 1);
        static_cast<void>(::rename(newer.c_str(), older.c_str()));
    }
}

// The file the path names now, created when there is none; the old one stays when that fails.
void FileLogSink::Reopen() {
    UniqueFd fd(::open(m_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    if (fd.Get() >= 0) m_fd = std::move(fd);
}

Log::Log(unsigned level, const char* source, int line) : m_level(level), m_source(source), m_line(line) {}

Log::~Log() {
    if (m_level > GetMinLogLevel()) return;
    std::shared_ptr<LogSink> sink;
    {
        std::lock_guard<std::mutex> lock(SinkMutex());
        sink = Sink();
    }
    if (!sink) return;
    try {
        sink->Write(LogRecord{m_level, m_source ? m_source : "", m_line, m_stream.str(), RunContext::Current().Label()});
    } catch (...) {
        // Logging never takes the command down.
    }
}

unsigned Log::GetMinLogLevel() { return g_minLevel.load(std::memory_order_relaxed); }

void Log::SetMinLogLevel(unsigned level) { g_minLevel.store(level, std::memory_order_relaxed); }

void Log::SetSink(std::shared_ptr<LogSink> sink) {
    std::lock_guard<std::mutex> lock(SinkMutex());
    Sink() = std::move(sink);
}

}  // namespace Plexum
