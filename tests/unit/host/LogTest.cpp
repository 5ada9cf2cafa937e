// SPDX-License-Identifier: GPL-3.0-or-later
#include "host/Log.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

#include "support/TestFiles.h"

namespace {

using Plexum::Log;
using Plexum::LogRecord;

class CaptureSink : public Plexum::LogSink {
public:
    void Write(const LogRecord& record) override { records.push_back(record); }
    std::vector<LogRecord> records;
};

class ThrowingSink : public Plexum::LogSink {
public:
    void Write(const LogRecord&) override { throw std::runtime_error("disk gone"); }
};

class LogTest : public ::testing::Test {
protected:
    void TearDown() override {
        Log::SetSink(nullptr);
        Log::SetMinLogLevel(3);
    }
};

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    for (size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', start)) {
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    EXPECT_EQ(start, text.size()) << "every record ends in a line end";
    return lines;
}

TEST_F(LogTest, DefaultMinimumLevelIsThree) { EXPECT_EQ(Log::GetMinLogLevel(), 3u); }

TEST_F(LogTest, FileFormatAndLevelNames) {
    ScratchDirectory dir;
    std::string error;
    const std::string path = dir.Path() + "/a/b/morvel.log";
    auto sink = Plexum::FileLogSink::Open(path, error);
    ASSERT_TRUE(sink) << error;
    EXPECT_EQ(error, "");
    Log::SetSink(sink);
    Log::SetMinLogLevel(9);
    for (unsigned level = 0; level <= 5; ++level) {
        Log(level, "src/x/Thing", 40 + static_cast<int>(level)).Stream() << "record " << level;
    }
    { Log(3, nullptr, 7).Stream() << "no source"; }
    { Log(3, "s", 1).Stream() << ""; }
    const std::vector<std::string> lines = Lines(ReadWholeFile(path));
    ASSERT_EQ(lines.size(), 8u);
    const char* const expected[] = {"FATAL src/x/Thing:40 record 0", "ERROR src/x/Thing:41 record 1",
                                    "WARN src/x/Thing:42 record 2",  "INFO src/x/Thing:43 record 3",
                                    "TRACE src/x/Thing:44 record 4", "TRACE src/x/Thing:45 record 5",
                                    "INFO :7 no source",             "INFO s:1 "};
    for (size_t i = 0; i < lines.size(); ++i) EXPECT_EQ(WithoutTimeStamp(lines[i]), expected[i]);
    EXPECT_EQ(FileMode(path), 0600);
    EXPECT_EQ(FileMode(dir.Path() + "/a"), 0700);
    EXPECT_EQ(FileMode(dir.Path() + "/a/b"), 0700);
}

TEST_F(LogTest, TimeStampCheckOfTheseTests) {
    EXPECT_EQ(WithoutTimeStamp("2026-11-21 13:28:29.127 INFO s:1 x"), "INFO s:1 x");
    EXPECT_EQ(WithoutTimeStamp("2026-11-21 13:28:29 INFO s:1 x"), "MALFORMED 2026-11-21 13:28:29 INFO s:1 x");
    EXPECT_EQ(WithoutTimeStampAndLine("2026-11-21 13:28:29.127 INFO src/a:12 b: c"), "INFO src/a b: c");
    EXPECT_EQ(WithoutTimeStampAndLine("2026-11-21 13:28:29.127 INFO src/a b"),
              "MALFORMED 2026-11-21 13:28:29.127 INFO src/a b");
}

TEST_F(LogTest, FileIsPrivateWhateverTheUmask) {
    ScratchDirectory dir;
    const mode_t previous = ::umask(0);
    std::string error;
    auto sink = Plexum::FileLogSink::Open(dir.Path() + "/m.log", error);
    ::umask(previous);
    ASSERT_TRUE(sink) << error;
    EXPECT_EQ(FileMode(dir.Path() + "/m.log"), 0600);
}

TEST_F(LogTest, AppendsToAnExistingFile) {
    ScratchDirectory dir;
    const std::string path = dir.Write("m.log", "earlier line\n");
    std::string error;
    Log::SetSink(Plexum::FileLogSink::Open(path, error));
    { Log(1, "s", 2).Stream() << "later"; }
    Log::SetSink(nullptr);
    const std::vector<std::string> lines = Lines(ReadWholeFile(path));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "earlier line");
    EXPECT_EQ(WithoutTimeStamp(lines[1]), "ERROR s:2 later");
}

TEST_F(LogTest, OpenErrors) {
    std::string error;
    EXPECT_FALSE(Plexum::FileLogSink::Open("", error));
    EXPECT_EQ(error, "empty log file name");

    ScratchDirectory dir;
    const std::string file = dir.Write("plain", "x");
    EXPECT_FALSE(Plexum::FileLogSink::Open(file + "/m.log", error));
    EXPECT_EQ(error, "cannot open log file " + file + "/m.log: Not a directory");
    EXPECT_FALSE(Plexum::FileLogSink::Open(file + "/sub/m.log", error));
    EXPECT_EQ(error, "cannot create log directory " + file + "/sub: Not a directory");
    EXPECT_FALSE(Plexum::FileLogSink::Open(dir.Path(), error));
    EXPECT_EQ(error, "cannot open log file " + dir.Path() + ": Is a directory");
}

TEST_F(LogTest, LevelFilter) {
    auto sink = std::make_shared<CaptureSink>();
    Log::SetSink(sink);
    Log::SetMinLogLevel(2);
    EXPECT_EQ(Log::GetMinLogLevel(), 2u);
    { Log(3, "s", 1).Stream() << "info"; }
    { Log(2, "s", 2).Stream() << "warn"; }
    { Log(0, "s", 3).Stream() << "fatal"; }
    ASSERT_EQ(sink->records.size(), 2u);
    EXPECT_EQ(sink->records[0].level, 2u);
    EXPECT_EQ(sink->records[0].source, "s");
    EXPECT_EQ(sink->records[0].line, 2);
    EXPECT_EQ(sink->records[0].text, "warn");
    EXPECT_EQ(sink->records[1].text, "fatal");
}

TEST_F(LogTest, MacroSkipsTheStreamWhenFiltered) {
    auto sink = std::make_shared<CaptureSink>();
    Log::SetSink(sink);
    Log::SetMinLogLevel(3);
    int evaluated = 0;
    auto count = [&evaluated] { return ++evaluated; };
    PLEXUM_LOG(4, "s", 1) << "trace " << count();
    EXPECT_EQ(evaluated, 0);
    PLEXUM_LOG(3, "s", 2) << "info " << count();
    EXPECT_EQ(evaluated, 1);
    ASSERT_EQ(sink->records.size(), 1u);
    EXPECT_EQ(sink->records[0].text, "info 1");
    // The macro is one statement, also as the body of an if without braces.
    if (evaluated == 0) PLEXUM_LOG(3, "s", 3) << "not this";
    else PLEXUM_LOG(3, "s", 4) << "this";
    ASSERT_EQ(sink->records.size(), 2u);
    EXPECT_EQ(sink->records[1].text, "this");
}

TEST_F(LogTest, NullSinkDiscards) {
    Log::SetSink(nullptr);
    { Log(1, "s", 1).Stream() << "nowhere"; }
    SUCCEED() << "a record without a sink is dropped without harm";
    auto sink = std::make_shared<CaptureSink>();
    Log::SetSink(sink);
    Log::SetSink(nullptr);
    { Log(1, "s", 1).Stream() << "nowhere"; }
    EXPECT_TRUE(sink->records.empty());
}

TEST_F(LogTest, FailingSinkDoesNotStopTheCaller) {
    Log::SetSink(std::make_shared<ThrowingSink>());
    EXPECT_NO_THROW({ Log(1, "s", 1).Stream() << "lost"; });
}

}  // namespace
