// SPDX-License-Identifier: GPL-3.0-or-later
#include "trust/KnownSmms.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <set>
#include <thread>

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

}  // namespace
