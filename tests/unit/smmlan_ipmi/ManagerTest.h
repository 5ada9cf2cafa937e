// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "FakeIpmiClient.h"
#include "host/Log.h"
#include "misc/smmlan/SmmLanManager.h"

namespace smmlan_test {

// The part of a log record that the manager decides: level and text.
struct Record {
    unsigned level = 0;
    std::string text;
};

bool operator==(const Record& left, const Record& right);
std::ostream& operator<<(std::ostream& out, const Record& record);

class CapturingSink : public Plexum::LogSink {
public:
    void Write(const Plexum::LogRecord& record) override { records.push_back(record); }
    std::vector<Plexum::LogRecord> records;
};

extern const char* const kManagerSource;

// Console text of these lines, each ended by a line break.
std::string Lines(const std::vector<std::string>& lines);

// Every test gets a scripted client, a manager whose sleeps are recorded
// instead of slept, an empty configuration, all log levels captured, and
// standard output and standard error captured.
class ManagerTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    std::vector<Record> Records() const;
    std::string Out() const { return m_out.str(); }
    std::string Err() const { return m_err.str(); }
    void ClearCaptured();

    FakeIpmiClient fake;
    // Each requested sleep, with how many client calls and how much standard
    // output had happened by then, so tests can place it in the sequence.
    std::vector<uint64_t> sleeps;
    std::vector<size_t> sleepAfterEvents;
    std::vector<std::string> sleepAfterOutput;
    SmmLanManager manager{&fake, [this](uint64_t milliseconds) {
                              sleeps.push_back(milliseconds);
                              sleepAfterEvents.push_back(fake.events.size());
                              sleepAfterOutput.push_back(Out());
                          }};
    std::shared_ptr<CapturingSink> sink;

private:
    std::ostringstream m_out;
    std::ostringstream m_err;
    std::streambuf* m_savedOut = nullptr;
    std::streambuf* m_savedErr = nullptr;
};

}  // namespace smmlan_test
