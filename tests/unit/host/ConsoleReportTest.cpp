// SPDX-License-Identifier: GPL-3.0-or-later
#include "host/ConsoleReport.h"

#include <gtest/gtest.h>

#include <iostream>
#include <memory>
#include <sstream>
#include <vector>

#include "host/Log.h"

namespace {

class CaptureSink : public Plexum::LogSink {
public:
    void Write(const Plexum::LogRecord& record) override { records.push_back(record); }
    std::vector<Plexum::LogRecord> records;
};

// Standard output and error into strings for the test's duration.
class ConsoleReportTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_oldOut = std::cout.rdbuf(m_out.rdbuf());
        m_oldErr = std::cerr.rdbuf(m_err.rdbuf());
        m_sink = std::make_shared<CaptureSink>();
        Plexum::Log::SetSink(m_sink);
        Plexum::Log::SetMinLogLevel(3);
    }
    void TearDown() override {
        std::cout.rdbuf(m_oldOut);
        std::cerr.rdbuf(m_oldErr);
        Plexum::Log::SetSink(nullptr);
        Plexum::Log::SetMinLogLevel(3);
    }

    std::ostringstream m_out;
    std::ostringstream m_err;
    std::streambuf* m_oldOut = nullptr;
    std::streambuf* m_oldErr = nullptr;
    std::shared_ptr<CaptureSink> m_sink;
};

TEST_F(ConsoleReportTest, LevelTwoAndUpGoToStandardOutput) {
    { ConsoleReport(3, "src/m/SmmLanManager", 120).Stream() << "    Error msg: " << 13; }
    { ConsoleReport(2, "src/m/SmmLanManager", 121).Stream() << "warned"; }
    EXPECT_EQ(m_out.str(), "    Error msg: 13\nwarned\n");
    EXPECT_EQ(m_err.str(), "");
    ASSERT_EQ(m_sink->records.size(), 2u);
    EXPECT_EQ(m_sink->records[0].level, 3u);
    EXPECT_EQ(m_sink->records[0].source, "src/m/SmmLanManager");
    EXPECT_EQ(m_sink->records[0].line, 120);
    EXPECT_EQ(m_sink->records[0].text, "    Error msg: 13");
    EXPECT_EQ(m_sink->records[1].level, 2u);
}

TEST_F(ConsoleReportTest, BelowTwoGoesToStandardError) {
    { ConsoleReport(1, "s", 5).Stream() << "failed"; }
    { ConsoleReport(0, "s", 6).Stream() << "fatal"; }
    EXPECT_EQ(m_out.str(), "");
    EXPECT_EQ(m_err.str(), "failed\nfatal\n");
    ASSERT_EQ(m_sink->records.size(), 2u);
    EXPECT_EQ(m_sink->records[0].text, "failed");
    EXPECT_EQ(m_sink->records[1].level, 0u);
}

TEST_F(ConsoleReportTest, TextWithItsOwnLineBreaks) {
    { ConsoleReport(3, "s", 1).Stream() << "************Enable Result************\n"; }
    { ConsoleReport(3, "s", 2).Stream() << "\n************Enable Result************"; }
    EXPECT_EQ(m_out.str(), "************Enable Result************\n\n\n************Enable Result************\n");
    ASSERT_EQ(m_sink->records.size(), 2u);
    EXPECT_EQ(m_sink->records[0].text, "************Enable Result************\n");
}

TEST_F(ConsoleReportTest, PrintedEvenWhenTheLogFiltersIt) {
    Plexum::Log::SetMinLogLevel(1);
    { ConsoleReport(3, "s", 1).Stream() << "shown"; }
    EXPECT_EQ(m_out.str(), "shown\n");
    EXPECT_TRUE(m_sink->records.empty());
}

TEST_F(ConsoleReportTest, EmptyLine) {
    { const ConsoleReport report(3, "s", 1); }
    EXPECT_EQ(m_out.str(), "\n");
    ASSERT_EQ(m_sink->records.size(), 1u);
    EXPECT_EQ(m_sink->records[0].text, "");
}

}  // namespace
