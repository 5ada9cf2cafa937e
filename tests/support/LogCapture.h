// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Header-only; the test target links morvel_host for Plexum::Log.
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host/Log.h"

namespace MorvelTest {

// Installs a sink that keeps every emitted Plexum::Log record and sets the
// logger's level for the lifetime of the object; the previous level is put back
// and the sink removed on destruction.
class LogCapture {
public:
    explicit LogCapture(unsigned level = 4) : m_sink(std::make_shared<Sink>()), m_previousLevel(Plexum::Log::GetMinLogLevel()) {
        Plexum::Log::SetMinLogLevel(level);
        Plexum::Log::SetSink(m_sink);
    }
    ~LogCapture() {
        Plexum::Log::SetSink(nullptr);
        Plexum::Log::SetMinLogLevel(m_previousLevel);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<Plexum::LogRecord> Records() const {
        std::lock_guard<std::mutex> lock(m_sink->mutex);
        return m_sink->records;
    }
    // Records whose source text equals `source`.
    std::vector<Plexum::LogRecord> From(const std::string& source) const {
        std::vector<Plexum::LogRecord> out;
        for (const auto& record : Records())
            if (record.source == source) out.push_back(record);
        return out;
    }
    void Clear() {
        std::lock_guard<std::mutex> lock(m_sink->mutex);
        m_sink->records.clear();
    }

private:
    struct Sink : Plexum::LogSink {
        void Write(const Plexum::LogRecord& record) override {
            std::lock_guard<std::mutex> lock(mutex);
            records.push_back(record);
        }
        mutable std::mutex mutex;
        std::vector<Plexum::LogRecord> records;
    };
    std::shared_ptr<Sink> m_sink;
    unsigned m_previousLevel;
};

}  // namespace MorvelTest
