// SPDX-License-Identifier: GPL-3.0-or-later
#include "trust/KnownSmms.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <fstream>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "host/Files.h"
#include "host/Log.h"
#include "support/FakeUserLookup.h"
#include "support/TestFiles.h"

namespace {

using Trust::KnownSmms;
using Outcome = Trust::KnownSmms::Outcome;

const std::string kPinA = "sha256//" + std::string(43, 'A') + "=";
const std::string kPinB = "sha256//" + std::string(42, 'b') + "+=";

TEST(KnownSmms, Keys) {
    EXPECT_EQ(KnownSmms::Key("SMM01.example", false, 443), "smm01.example");
    EXPECT_EQ(KnownSmms::Key("smm01", false, 8443), "smm01:8443");
    EXPECT_EQ(KnownSmms::Key("2001:DB8::10", true, 443), "[2001:db8::10]");
    EXPECT_EQ(KnownSmms::Key("::1", true, 8443), "[::1]:8443");
}

TEST(KnownSmms, Pins) {
    EXPECT_TRUE(KnownSmms::IsPin(kPinA));
    EXPECT_TRUE(KnownSmms::IsPin(kPinB));
    EXPECT_FALSE(KnownSmms::IsPin("sha256//" + std::string(44, 'A')));
    EXPECT_FALSE(KnownSmms::IsPin("sha1//" + std::string(43, 'A') + "="));
    EXPECT_FALSE(KnownSmms::IsPin("sha256//" + std::string(42, 'A') + "-="));
    EXPECT_FALSE(KnownSmms::IsPin(""));
}

TEST(KnownSmms, ParseKeepsEntriesAndSkipsTheRest) {
    const auto entries = KnownSmms::Parse("# pins\n\nsmm01 " + kPinA + " 2026-11-23T10:00:00Z\n"
                                          "SMM02:443 " + kPinB + " 2026-11-23T10:00:01Z\n"
                                          "smm03 not-a-pin 2026-11-23T10:00:02Z\n"
                                          "smm04 " + kPinA + "\n"
                                          "smm05 " + kPinA + " 2026 extra\n"
                                          "  [::1]:8443\t" + kPinB + "   2026-11-23T10:00:03Z  \n");
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[0].key, "smm01");
    EXPECT_EQ(entries[0].pin, kPinA);
    EXPECT_EQ(entries[0].firstSeen, "2026-11-23T10:00:00Z");
    EXPECT_EQ(entries[1].key, "smm02");
    EXPECT_EQ(entries[2].key, "[::1]:8443");
}

TEST(KnownSmms, OnlyAPortWordOf443IsDropped) {
    const auto entries = KnownSmms::Parse("[::1]:443 " + kPinA + " t\n"
                                          "[::1]:443:443 " + kPinA + " t\n"
                                          "smm06:443:443 " + kPinA + " t\n"
                                          ":443 " + kPinA + " t\n"
                                          "[::1 " + kPinA + " t\n");
    ASSERT_EQ(entries.size(), 5u);
    EXPECT_EQ(entries[0].key, "[::1]");
    EXPECT_EQ(entries[1].key, "[::1]:443:443");
    EXPECT_EQ(entries[2].key, "smm06:443:443");
    EXPECT_EQ(entries[3].key, ":443");
    EXPECT_EQ(entries[4].key, "[::1");
}

TEST(KnownSmms, DefaultPath) {
    EXPECT_EQ(KnownSmms::DefaultPath(FakeUserLookup({{"XDG_STATE_HOME", "/state"}, {"HOME", "/home/u"}})),
              "/state/morvel/known_smms");
    EXPECT_EQ(KnownSmms::DefaultPath(FakeUserLookup({{"XDG_STATE_HOME", "relative"}, {"HOME", "/home/u"}})),
              "/home/u/.local/state/morvel/known_smms");
    EXPECT_EQ(KnownSmms::DefaultPath(FakeUserLookup({{"HOME", "/home/u"}})), "/home/u/.local/state/morvel/known_smms");
    // Without HOME the password database says where the home is.
    EXPECT_EQ(KnownSmms::DefaultPath(FakeUserLookup({}, "/db/home")), "/db/home/.local/state/morvel/known_smms");
    EXPECT_EQ(KnownSmms::DefaultPath(FakeUserLookup({})), "");
}

TEST(KnownSmms, AddFindRemove) {
    ScratchDirectory scratch;
    const std::string path = scratch.Path() + "/state/morvel/known_smms";
    KnownSmms store(path);
    EXPECT_FALSE(store.Find("smm01").entry);
    EXPECT_EQ(store.Find("smm01").error, "");

    const auto added = store.Add("smm01", kPinA, "2026-11-23T10:00:00Z");
    EXPECT_EQ(added.outcome, Outcome::Added);
    EXPECT_EQ(ReadWholeFile(path), "smm01 " + kPinA + " 2026-11-23T10:00:00Z\n");
    EXPECT_EQ(FileMode(path), 0600);
    EXPECT_EQ(FileMode(scratch.Path() + "/state/morvel"), 0700);

    EXPECT_EQ(store.Add("SMM01:443", kPinA, "later").outcome, Outcome::AlreadyThere);
    const auto different = store.Add("smm01", kPinB, "later");
    EXPECT_EQ(different.outcome, Outcome::Different);
    EXPECT_EQ(different.pin, kPinA);
    EXPECT_EQ(store.Add("smm02:8443", kPinB, "2026-11-23T10:00:01Z").outcome, Outcome::Added);
    ASSERT_TRUE(store.Find("SMM02:8443").entry);
    EXPECT_EQ(store.Find("smm02:8443").entry->pin, kPinB);

    const auto removed = store.Remove("smm01");
    EXPECT_EQ(removed.outcome, Outcome::Removed);
    EXPECT_EQ(removed.pin, kPinA);
    EXPECT_EQ(ReadWholeFile(path), "smm02:8443 " + kPinB + " 2026-11-23T10:00:01Z\n");
    EXPECT_EQ(store.Remove("smm01").outcome, Outcome::Absent);
    EXPECT_EQ(KnownSmms(scratch.Path() + "/none").Remove("x").outcome, Outcome::Absent);
}

TEST(KnownSmms, OtherLinesSurviveAChange) {
    ScratchDirectory scratch;
    const std::string path = scratch.Write("known", "# site pins\nnot a line\nsmm01 " + kPinA + " t1", 0600);
    KnownSmms store(path);
    ASSERT_EQ(store.Add("smm02", kPinB, "t2").outcome, Outcome::Added);
    EXPECT_EQ(ReadWholeFile(path), "# site pins\nnot a line\nsmm01 " + kPinA + " t1\nsmm02 " + kPinB + " t2\n");
    ASSERT_EQ(store.Remove("smm01").outcome, Outcome::Removed);
    EXPECT_EQ(ReadWholeFile(path), "# site pins\nnot a line\nsmm02 " + kPinB + " t2\n");
}

TEST(KnownSmms, UnreadableFilesAreErrors) {
    ScratchDirectory scratch;
    KnownSmms directory(scratch.Path());
    EXPECT_EQ(directory.Find("x").error, "cannot read " + scratch.Path() + ": Is a directory");
    const std::string file = scratch.Write("plain", "", 0600);
    const auto change = KnownSmms(file + "/below/known").Add("x", kPinA, "t");
    EXPECT_EQ(change.outcome, Outcome::Failed);
    EXPECT_EQ(change.error, "cannot create known-SMMs directory " + file + "/below: Not a directory");
}

TEST(KnownSmms, AFileOverSixteenMebibytesIsAnError) {
    ScratchDirectory scratch;
    const std::string file = scratch.Write("known", std::string((size_t{16} << 20) + 1, '\n'), 0600);
    EXPECT_EQ(KnownSmms(file).Find("x").error, file + " is larger than 16 MiB");
    EXPECT_EQ(KnownSmms(file).Add("x", kPinA, "t").error, file + " is larger than 16 MiB");
}

// YYYY-MM-DDTHH:MM:SSZ: digits where the form has a 9.
bool IsUtcStamp(const std::string& text) {
    const std::string form = "9999-99-99T99:99:99Z";
    if (text.size() != form.size()) return false;
    for (size_t i = 0; i < form.size(); ++i) {
        const bool digit = std::isdigit(static_cast<unsigned char>(text[i])) != 0;
        if (form[i] == '9' ? !digit : text[i] != form[i]) return false;
    }
    return true;
}

// Many writers at once, as one run pinning 64 SMMs or two runs side by side:
// every line arrives, none torn.
TEST(KnownSmms, WritersAtOnceLoseNothing) {
    ScratchDirectory scratch;
    const std::string path = scratch.Path() + "/known_smms";
    std::vector<std::thread> writers;
    writers.reserve(64);
    for (int i = 0; i < 64; ++i) {
        writers.emplace_back([&path, i] {
            KnownSmms store(path);
            EXPECT_EQ(store.Add("smm" + std::to_string(i), i % 2 ? kPinA : kPinB, KnownSmms::UtcNow()).outcome,
                      Outcome::Added);
        });
    }
    for (std::thread& writer : writers) writer.join();
    const std::string text = ReadWholeFile(path);
    const auto entries = KnownSmms::Parse(text);
    ASSERT_EQ(entries.size(), 64u);
    std::set<std::string> keys;
    for (const auto& entry : entries) {
        keys.insert(entry.key);
        EXPECT_TRUE(IsUtcStamp(entry.firstSeen)) << entry.firstSeen;
    }
    EXPECT_EQ(keys.size(), 64u);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 64);
}

// The store's records: each read of the file leaves one at level 4.
class ReadRecords : public Plexum::LogSink {
public:
    ReadRecords() {
        Plexum::Log::SetMinLogLevel(4);
        Plexum::Log::SetSink(std::shared_ptr<Plexum::LogSink>(this, [](Plexum::LogSink*) {}));
    }
    ~ReadRecords() override {
        Plexum::Log::SetSink(nullptr);
        Plexum::Log::SetMinLogLevel(3);
    }
    void Write(const Plexum::LogRecord& record) override {
        const std::lock_guard<std::mutex> hold(m_mutex);
        m_texts.push_back(record.source + ":" + std::to_string(record.line) + " " + record.text);
    }
    std::vector<std::string> Texts() {
        const std::lock_guard<std::mutex> hold(m_mutex);
        return m_texts;
    }

private:
    std::mutex m_mutex;
    std::vector<std::string> m_texts;
};

std::string PinNumber(int i) {
    std::string digits = std::to_string(i);
    return "sha256//" + digits + std::string(43 - digits.size(), 'Q') + "=";
}

// A file of `count` pins, smm0 to smm(count-1).
std::string ManyPins(int count) {
    std::string text = "# site pins\n";
    for (int i = 0; i < count; ++i) text += "smm" + std::to_string(i) + " " + PinNumber(i) + " 2026-11-23T10:00:00Z\n";
    return text;
}

ino_t Inode(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_ino;
}

TEST(KnownSmmsStore, TenThousandPinsAreReadOnceForAnyNumberOfLookups) {
    ScratchDirectory scratch;
    const std::string path = scratch.Write("known", ManyPins(10000), 0600);
    ReadRecords records;
    KnownSmms store(path);
    EXPECT_EQ(store.Load(), "");
    for (int i = 0; i < 10000; ++i) {
        const KnownSmms::Found found = store.Find("SMM" + std::to_string(i) + ":443");
        ASSERT_TRUE(found.entry) << i;
        EXPECT_EQ(found.entry->pin, PinNumber(i));
    }
    EXPECT_FALSE(store.Find("smm10000").entry);
    EXPECT_EQ(records.Texts(), std::vector<std::string>{"src/trust/KnownSmms:1 read 10000 pins from " + path});
}

TEST(KnownSmmsStore, AFileChangedOnDiskIsReadAgainAndOnlyThen) {
    ScratchDirectory scratch;
    const std::string path = scratch.Write("known", ManyPins(1), 0600);
    ReadRecords records;
    KnownSmms store(path);
    ASSERT_TRUE(store.Find("smm0").entry);
    // Another run records a pin, then another removes one: each is seen, with one read each.
    ASSERT_EQ(KnownSmms(path).Add("smm1", kPinA, "t1").outcome, Outcome::Added);
    ASSERT_TRUE(store.Find("smm1").entry);
    EXPECT_EQ(store.Find("smm1").entry->pin, kPinA);
    ASSERT_EQ(KnownSmms(path).Remove("smm0").outcome, Outcome::Removed);
    EXPECT_FALSE(store.Find("smm0").entry);
    EXPECT_TRUE(store.Find("smm1").entry);
    // A file that goes away holds no pins, and one that comes back is read again.
    ASSERT_EQ(::unlink(path.c_str()), 0);
    EXPECT_FALSE(store.Find("smm1").entry);
    EXPECT_EQ(store.Find("smm1").error, "");
    scratch.Write("known", "smm2 " + kPinB + " t2\n", 0600);
    EXPECT_TRUE(store.Find("smm2").entry);
    // The second record is the other run's, before it appended.
    EXPECT_EQ(records.Texts(), (std::vector<std::string>{
                                   "src/trust/KnownSmms:1 read 1 pin from " + path,
                                   "src/trust/KnownSmms:1 read 1 pin from " + path,
                                   "src/trust/KnownSmms:1 read 2 pins from " + path,
                                   "src/trust/KnownSmms:1 read 1 pin from " + path,
                                   "src/trust/KnownSmms:1 read 1 pin from " + path,
                               }));
}

TEST(KnownSmmsStore, AFirstPinIsAppendedNotRewritten) {
    ScratchDirectory scratch;
    const std::string path = scratch.Write("known", ManyPins(3), 0600);
    const ino_t before = Inode(path);
    ReadRecords records;
    KnownSmms store(path);
    const KnownSmms::Change added = store.Add("smm3", kPinA, "2026-11-24T08:00:00Z");
    EXPECT_EQ(added.outcome, Outcome::Added);
    EXPECT_EQ(added.pin, kPinA);
    EXPECT_EQ(added.firstSeen, "2026-11-24T08:00:00Z");
    EXPECT_EQ(Inode(path), before);
    EXPECT_EQ(ReadWholeFile(path), ManyPins(3) + "smm3 " + kPinA + " 2026-11-24T08:00:00Z\n");
    // What it appended is known without reading the file again.
    ASSERT_TRUE(store.Find("smm3").entry);
    EXPECT_EQ(store.Find("smm3").entry->firstSeen, "2026-11-24T08:00:00Z");
    EXPECT_EQ(store.Add("smm4", kPinB, "t").outcome, Outcome::Added);
    EXPECT_EQ(records.Texts(), std::vector<std::string>{"src/trust/KnownSmms:1 read 3 pins from " + path});
    EXPECT_EQ(FileMode(path), 0600);
}

TEST(KnownSmmsStore, APinRecordedMeanwhileByAnotherRunCounts) {
    ScratchDirectory scratch;
    const std::string path = scratch.Path() + "/known";
    KnownSmms store(path);
    EXPECT_FALSE(store.Find("smm01").entry);
    ASSERT_EQ(KnownSmms(path).Add("smm01", kPinB, "2026-11-24T07:00:00Z").outcome, Outcome::Added);
    const KnownSmms::Change change = store.Add("smm01", kPinA, "2026-11-24T08:00:00Z");
    EXPECT_EQ(change.outcome, Outcome::Different);
    EXPECT_EQ(change.pin, kPinB);
    EXPECT_EQ(change.firstSeen, "2026-11-24T07:00:00Z");
    const KnownSmms::Change same = store.Add("SMM01", kPinB, "2026-11-24T09:00:00Z");
    EXPECT_EQ(same.outcome, Outcome::AlreadyThere);
    EXPECT_EQ(same.firstSeen, "2026-11-24T07:00:00Z");
    EXPECT_EQ(ReadWholeFile(path), "smm01 " + kPinB + " 2026-11-24T07:00:00Z\n");
}

TEST(KnownSmmsStore, TheFirstLineOfAKeyCounts) {
    ScratchDirectory scratch;
    const std::string path = scratch.Write("known", "smm01 " + kPinA + " t1\nSMM01:443 " + kPinB + " t2\n", 0600);
    KnownSmms store(path);
    ASSERT_TRUE(store.Find("smm01").entry);
    EXPECT_EQ(store.Find("smm01").entry->pin, kPinA);
    EXPECT_EQ(store.Remove("smm01").outcome, Outcome::Removed);
    EXPECT_EQ(ReadWholeFile(path), "");
}

TEST(KnownSmmsStore, AnUnreadableFileIsAnErrorForEveryUse) {
    ScratchDirectory scratch;
    const std::string file = scratch.Write("known", std::string((size_t{16} << 20) + 1, '\n'), 0600);
    ReadRecords records;
    KnownSmms store(file);
    EXPECT_EQ(store.Load(), file + " is larger than 16 MiB");
    EXPECT_EQ(store.Find("x").error, file + " is larger than 16 MiB");
    EXPECT_EQ(store.Add("x", kPinA, "t").error, file + " is larger than 16 MiB");
    EXPECT_EQ(records.Texts(), std::vector<std::string>{});
    KnownSmms below(file + "/below");
    EXPECT_EQ(below.Find("x").error, "cannot read " + file + "/below: Not a directory");
}

// One run's store, shared by its workers: every pin arrives, and the file,
// written by this store alone, is never read.
TEST(KnownSmmsStore, ThreadsSharingOneStoreLoseNothing) {
    ScratchDirectory scratch;
    const std::string path = scratch.Path() + "/known_smms";
    ReadRecords records;
    KnownSmms store(path);
    std::vector<std::thread> workers;
    workers.reserve(64);
    for (int i = 0; i < 64; ++i) {
        workers.emplace_back([&store, i] {
            const std::string key = "smm" + std::to_string(i);
            EXPECT_FALSE(store.Find(key).entry);
            EXPECT_EQ(store.Add(key, PinNumber(i), KnownSmms::UtcNow()).outcome, Outcome::Added);
            const KnownSmms::Found found = store.Find(key);
            ASSERT_TRUE(found.entry);
            EXPECT_EQ(found.entry->pin, PinNumber(i));
        });
    }
    for (std::thread& worker : workers) worker.join();
    const std::string text = ReadWholeFile(path);
    const auto entries = KnownSmms::Parse(text);
    ASSERT_EQ(entries.size(), 64u);
    std::set<std::string> keys;
    for (const auto& entry : entries) keys.insert(entry.key);
    EXPECT_EQ(keys.size(), 64u);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 64);
    EXPECT_EQ(records.Texts(), std::vector<std::string>{});
}

// Whether a process waits for an flock of the file with this inode (/proc/locks marks waiters "->").
bool SomeoneWaitsToLock(ino_t inode) {
    std::ifstream locks("/proc/locks");
    const std::string ending = ":" + std::to_string(inode);
    std::string line;
    while (std::getline(locks, line)) {
        if (line.find(" -> FLOCK ") == std::string::npos) continue;
        std::istringstream words(line);
        std::string word;
        while (words >> word) {
            if (word.size() > ending.size() && word.compare(word.size() - ending.size(), ending.size(), ending) == 0) {
                return true;
            }
        }
    }
    return false;
}

// A reader waits for a writer that holds the lock: it never sees half a line.
TEST(KnownSmmsStore, AReaderNeverSeesALineBeingWritten) {
    ScratchDirectory scratch;
    const std::string path = scratch.Write("known", "smm01 " + kPinA + " t1\n", 0600);
    const std::string line = "smm02 " + kPinB + " 2026-11-24T08:00:00Z\n";
    KnownSmms store(path);
    KnownSmms::Found found;
    std::atomic<bool> done{false};
    std::thread reader;
    {
        const Plexum::FileLock writer(path + ".lock", Plexum::FileLock::Kind::Exclusive, true);
        ASSERT_TRUE(writer.Held());
        const Plexum::UniqueFd file(::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
        ASSERT_TRUE(Plexum::WriteAll(file.Get(), line.data(), 20));
        reader = std::thread([&store, &found, &done] {
            found = store.Find("smm02");
            done = true;
        });
        // The rest of the line follows once the reader has either read (it
        // must not) or waits for the lock; a bound for a machine that stalls.
        const auto giveUp = std::chrono::steady_clock::now() + std::chrono::minutes(10);
        while (!done && !SomeoneWaitsToLock(Inode(path + ".lock")) && std::chrono::steady_clock::now() < giveUp) {
            std::this_thread::yield();
        }
        EXPECT_FALSE(done) << "the reader did not wait for the lock";
        EXPECT_TRUE(Plexum::WriteAll(file.Get(), line.data() + 20, line.size() - 20));
    }
    reader.join();
    ASSERT_TRUE(found.entry);
    EXPECT_EQ(found.entry->firstSeen, "2026-11-24T08:00:00Z");
}

}  // namespace

