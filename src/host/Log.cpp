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
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd < 0) {
        error = "cannot open log file " + path + ": " + std::strerror(errno);
        return nullptr;
    }
    return std::shared_ptr<FileLogSink>(new FileLogSink(fd));
}

FileLogSink::~FileLogSink() { ::close(m_fd); }

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
    // One write per record keeps records whole when several processes share the file.
    const char* data = line.data();
    size_t left = line.size();
    while (left > 0) {
        const ssize_t written = ::write(m_fd, data, left);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return;  // a full disk must not stop the command
        data += written;
        left -= static_cast<size_t>(written);
    }
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
