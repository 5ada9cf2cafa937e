// SPDX-License-Identifier: GPL-3.0-or-later
#include "host/Log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "host/Files.h"

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

// --- rotation

// "r0007": the text of a record of these tests (0 to 9999).
std::string Numbered(int number) {
    const std::string digits = std::to_string(number);
    return "r" + std::string(4 - digits.size(), '0') + digits;
}

// "INFO s:1 r0007": 39 bytes with its time stamp and line end.
void Record(int number) { Log(3, "s", 1).Stream() << Numbered(number); }

std::string Expected(int number) { return "INFO s:1 " + Numbered(number); }

// The records of a file without their time stamps; none when it does not exist.
std::vector<std::string> Records(const std::string& path) {
    std::vector<std::string> records;
    for (const std::string& line : Lines(ReadWholeFile(path))) records.push_back(WithoutTimeStamp(line));
    return records;
}

std::vector<std::string> ExpectedRange(int first, int last) {
    std::vector<std::string> records;
    for (int number = first; number <= last; ++number) records.push_back(Expected(number));
    return records;
}

bool Exists(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

std::shared_ptr<Plexum::FileLogSink> OpenSink(const std::string& path, uint64_t maxBytes, unsigned keep) {
    std::string error;
    auto sink = Plexum::FileLogSink::Open(path, error);
    EXPECT_TRUE(sink) << error;
    if (sink) sink->SetRotation(Plexum::LogRotation{maxBytes, keep});
    return sink;
}

TEST_F(LogTest, RotatesPastTheSizeAndKeepsTheNewest) {
    ScratchDirectory dir;
    const std::string path = dir.Path() + "/m.log";
    Log::SetSink(OpenSink(path, 100, 2));
    // Three records of 39 bytes take a file past 100: each file holds three.
    for (int number = 0; number < 10; ++number) Record(number);
    EXPECT_EQ(Records(path), ExpectedRange(9, 9));
    EXPECT_EQ(Records(path + ".1"), ExpectedRange(6, 8));
    EXPECT_EQ(Records(path + ".2"), ExpectedRange(3, 5));
    EXPECT_FALSE(Exists(path + ".3"));
    EXPECT_EQ(FileMode(path), 0600);
    EXPECT_EQ(FileMode(path + ".1"), 0600);
    EXPECT_EQ(FileMode(path + ".lock"), 0600);
}

TEST_F(LogTest, KeepingNoneDropsTheFileItself) {
    ScratchDirectory dir;
    const std::string path = dir.Path() + "/m.log";
    Log::SetSink(OpenSink(path, 100, 0));
    for (int number = 0; number < 7; ++number) Record(number);
    EXPECT_EQ(Records(path), ExpectedRange(6, 6));
    EXPECT_FALSE(Exists(path + ".1"));
}

TEST_F(LogTest, NoRotationWithoutASizeOrBeforeItIsSet) {
    ScratchDirectory dir;
    const std::string path = dir.Write("m.log", std::string(1000, '\n'));
    std::string error;
    auto sink = Plexum::FileLogSink::Open(path, error);
    ASSERT_TRUE(sink) << error;
    Log::SetSink(sink);
    Record(0);
    sink->SetRotation(Plexum::LogRotation{0, 3});
    Record(1);
    EXPECT_FALSE(Exists(path + ".1"));
    EXPECT_FALSE(Exists(path + ".lock"));
    EXPECT_EQ(ReadWholeFile(path).size(), 1000u + 2 * 39);
    // Set now, it starts with the next record: the file is past 100 already.
    sink->SetRotation(Plexum::LogRotation{100, 3});
    Record(2);
    EXPECT_EQ(ReadWholeFile(path + ".1").size(), 1000u + 3 * 39);
    EXPECT_EQ(Records(path), std::vector<std::string>{});
    Record(3);
    EXPECT_EQ(Records(path), ExpectedRange(3, 3));
}

// Two runs share the file: the one that sees it past the size first rotates
// it; the other's next record still lands in the file just renamed, which is
// kept, and that run then follows the path to the new file.
TEST_F(LogTest, TwoRunsSharingTheFileRotateItOnce) {
    ScratchDirectory dir;
    const std::string path = dir.Path() + "/m.log";
    const auto first = OpenSink(path, 100, 3);
    const auto second = OpenSink(path, 100, 3);
    Log::SetSink(first);
    Record(0);
    Record(1);
    Record(2);  // past 100: rotated by the first
    EXPECT_EQ(Records(path + ".1"), ExpectedRange(0, 2));
    Log::SetSink(second);
    Record(3);  // the second's file is now m.log.1: it follows the path, and rotates nothing
    Record(4);
    EXPECT_EQ(Records(path + ".1"), ExpectedRange(0, 3));
    EXPECT_EQ(Records(path), ExpectedRange(4, 4));
    EXPECT_FALSE(Exists(path + ".2"));
    Log::SetSink(first);
    Record(5);
    EXPECT_EQ(Records(path), ExpectedRange(4, 5));
}

// A record that went into a file rotated out of the kept ones (or deleted)
// is written again to the file the path names now.
TEST_F(LogTest, ARecordInAFileThatIsGoneIsWrittenAgain) {
    ScratchDirectory dir;
    const std::string path = dir.Path() + "/m.log";
    Log::SetSink(OpenSink(path, 0, 0));
    Record(0);
    ASSERT_EQ(::unlink(path.c_str()), 0);
    Record(1);
    Record(2);
    EXPECT_EQ(Records(path), ExpectedRange(1, 2));
}

// Only a plain file rotates: a pipe given as the log stays what it is.
TEST_F(LogTest, APipeNeverRotates) {
    ScratchDirectory dir;
    const std::string path = dir.Path() + "/pipe";
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    const Plexum::UniqueFd reader(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    ASSERT_GE(reader.Get(), 0);
    Log::SetSink(OpenSink(path, 1, 3));
    Record(0);
    Record(1);
    char buffer[256];
    EXPECT_EQ(::read(reader.Get(), buffer, sizeof buffer), 78);
    struct stat status {};
    ASSERT_EQ(::lstat(path.c_str(), &status), 0);
    EXPECT_TRUE(S_ISFIFO(status.st_mode));
    EXPECT_FALSE(Exists(path + ".1"));
}

// Many threads of two runs at once, the file rotated again and again: every
// record is kept once, whole.
TEST_F(LogTest, RecordsOfManyThreadsAndTwoRunsAreAllKeptWhole) {
    ScratchDirectory dir;
    const std::string path = dir.Path() + "/m.log";
    const std::shared_ptr<Plexum::FileLogSink> runs[] = {OpenSink(path, 2000, 500), OpenSink(path, 2000, 500)};
    constexpr int kThreads = 8;
    constexpr int kEach = 250;
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&runs, t] {
            for (int i = 0; i < kEach; ++i) {
                runs[t % 2]->Write(LogRecord{3, "s", 1, "r" + std::to_string(t * kEach + i), ""});
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    std::multiset<std::string> seen;
    int files = 0;
    for (int generation = 0; generation <= 500; ++generation) {
        const std::string file = generation == 0 ? path : path + "." + std::to_string(generation);
        if (!Exists(file)) continue;
        ++files;
        for (const std::string& record : Records(file)) seen.insert(record);
    }
    EXPECT_GT(files, 10);
    EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kEach));
    for (int number = 0; number < kThreads * kEach; ++number) {
        EXPECT_EQ(seen.count("INFO s:1 r" + std::to_string(number)), 1u) << number;
    }
}

}  // namespace

