// SPDX-License-Identifier: GPL-3.0-or-later
#include "ManagerTest.h"

#include <iomanip>
#include <iostream>

#include "host/GlobalConfig.h"

namespace smmlan_test {

const char* const kManagerSource = "Src/Misc/SmmLan/SmmLanManager";

std::string Lines(const std::vector<std::string>& lines) {
    std::string text;
    for (const auto& line : lines) text += line + "\n";
    return text;
}

bool operator==(const Record& left, const Record& right) {
    return left.level == right.level && left.text == right.text;
}

std::ostream& operator<<(std::ostream& out, const Record& record) {
    out << "{" << record.level << ", \"";
    for (unsigned char c : record.text) {
        if (c == '\n') {
            out << "\\n";
        } else if (c < 0x20 || c >= 0x7F) {
            const auto flags = out.flags();
            out << "\\x" << std::hex << std::setw(2) << std::setfill('0') << unsigned(c);
            out.flags(flags);
        } else {
            out << c;
        }
    }
    return out << "\"}";
}

void ManagerTest::SetUp() {
    Plexum::GlobalConfig::Clear();
    sink = std::make_shared<CapturingSink>();
    Plexum::Log::SetSink(sink);
    Plexum::Log::SetMinLogLevel(4);
    m_savedOut = std::cout.rdbuf(m_out.rdbuf());
    m_savedErr = std::cerr.rdbuf(m_err.rdbuf());
}

void ManagerTest::TearDown() {
    std::cout.rdbuf(m_savedOut);
    std::cerr.rdbuf(m_savedErr);
    Plexum::Log::SetSink(nullptr);
    Plexum::Log::SetMinLogLevel(3);
    Plexum::GlobalConfig::Clear();

    EXPECT_TRUE(fake.replies.empty()) << fake.replies.size() << " scripted replies were never asked for";
    EXPECT_TRUE(fake.openResults.empty()) << fake.openResults.size() << " scripted Open results were never used";
    for (const auto& record : sink->records) {
        EXPECT_EQ(record.source, kManagerSource) << "record " << record.text;
        EXPECT_GT(record.line, 0) << "record " << record.text;
        EXPECT_EQ(record.text.find(FakeIpmiClient::kPassword), std::string::npos);
    }
    EXPECT_EQ(Out().find(FakeIpmiClient::kPassword), std::string::npos);
    EXPECT_EQ(Err().find(FakeIpmiClient::kPassword), std::string::npos);
}

std::vector<Record> ManagerTest::Records() const {
    std::vector<Record> records;
    for (const auto& record : sink->records) records.push_back(Record{record.level, record.text});
    return records;
}

void ManagerTest::ClearCaptured() {
    sink->records.clear();
    m_out.str(std::string());
    m_err.str(std::string());
    fake.events.clear();
    sleeps.clear();
    sleepAfterEvents.clear();
    sleepAfterOutput.clear();
}

}  // namespace smmlan_test
