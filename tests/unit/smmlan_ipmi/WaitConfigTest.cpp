// SPDX-License-Identifier: GPL-3.0-or-later
#include <algorithm>

#include "ManagerTest.h"
#include "host/GlobalConfig.h"

namespace smmlan_test {
namespace {

const char* const kRetryKey = "SMM_NETWORK_CHECK_RETRY_COUNT";
const char* const kSleepKey = "SMM_NETWORK_CHECK_SLEEP_TIME";

class WaitConfigTest : public ManagerTest {
protected:
    // Enables an SMM that never switches, scripting `polls` status reads,
    // and answers how many checks were made.
    size_t EnableNeverTakingEffect(size_t polls) {
        fake.QueueStatus(2);
        fake.QueueReply(0, {});
        for (size_t i = 0; i < polls; ++i) fake.QueueStatus(2);
        EXPECT_EQ(manager.SetLanStatus(SMM_LAN_ENABLED), 1);
        EXPECT_EQ(Err(), "Execute command to enable smm network success but wait status change timeout\n");
        return Checks();
    }

    size_t Checks() const {
        const size_t reads = static_cast<size_t>(
            std::count(fake.events.begin(), fake.events.end(), SendEvent(0x3A, 0xF1, {0x00})));
        return reads - 1;  // the first read decides whether anything is sent
    }
};

TEST_F(WaitConfigTest, UnsetKeysGiveTwentyFourChecksFiveSecondsApart) {
    EXPECT_EQ(EnableNeverTakingEffect(24), 24U);
    EXPECT_EQ(sleeps, std::vector<uint64_t>(24, 5000));
}

TEST_F(WaitConfigTest, RetryCountIsReadFromTheConfiguration) {
    Plexum::GlobalConfig::SetItem(kRetryKey, "2");
    EXPECT_EQ(EnableNeverTakingEffect(2), 2U);
    EXPECT_EQ(sleeps, (std::vector<uint64_t>{5000, 5000}));
}

TEST_F(WaitConfigTest, EmptyOrBlankRetryCountKeepsTheDefault) {
    const char* const blanks[] = {"", " ", "   ", "\t", " \t \r"};
    for (const char* text : blanks) {
        ClearCaptured();
        Plexum::GlobalConfig::SetItem(kRetryKey, text);
        EXPECT_EQ(EnableNeverTakingEffect(24), 24U) << '"' << text << '"';
    }
}

TEST_F(WaitConfigTest, NonNumericRetryCountMeansNoCheckAtAll) {
    const char* const words[] = {"none", "abc7", "-", "+", "x1", "#3"};
    for (const char* text : words) {
        ClearCaptured();
        Plexum::GlobalConfig::SetItem(kRetryKey, text);
        EXPECT_EQ(EnableNeverTakingEffect(0), 0U) << '"' << text << '"';
        EXPECT_EQ(Out(), "[INFO]: Send enable command succeeded, wait for status take effect.\n");
        EXPECT_TRUE(sleeps.empty());
    }
}

TEST_F(WaitConfigTest, DigitsAreReadUpToTheFirstOtherCharacter) {
    const std::pair<const char*, size_t> cases[] = {{"7abc", 7}, {"  3  ", 3}, {"+2", 2}, {"4.9", 4}, {"5 6", 5},
                                                    {"0x10", 0}, {"010", 10}};
    for (const auto& entry : cases) {
        ClearCaptured();
        Plexum::GlobalConfig::SetItem(kRetryKey, entry.first);
        EXPECT_EQ(EnableNeverTakingEffect(entry.second), entry.second) << '"' << entry.first << '"';
    }
}

TEST_F(WaitConfigTest, NegativeRetryCountMeansNoCheckAtAll) {
    const char* const negatives[] = {"-1", "-3", "-2147483648", "-2147483649", "-99999999999999999999999"};
    for (const char* text : negatives) {
        ClearCaptured();
        Plexum::GlobalConfig::SetItem(kRetryKey, text);
        EXPECT_EQ(EnableNeverTakingEffect(0), 0U) << text;
        EXPECT_TRUE(sleeps.empty());
    }
}

TEST_F(WaitConfigTest, OverflowingRetryCountStoresTheLargestValue) {
    // The upper limit cannot be run out; checks well past the default prove
    // the count was neither kept at 24 nor turned into 0.
    const char* const overflows[] = {"2147483648", "99999999999999999999999"};
    for (const char* text : overflows) {
        ClearCaptured();
        Plexum::GlobalConfig::SetItem(kRetryKey, text);
        fake.QueueStatus(2);
        fake.QueueReply(0, {});
        for (int i = 0; i < 40; ++i) fake.QueueStatus(2);
        fake.QueueStatus(1);
        EXPECT_EQ(manager.SetLanStatus(SMM_LAN_ENABLED), 0) << text;
        EXPECT_EQ(Checks(), 41U) << text;
        EXPECT_EQ(sleeps, std::vector<uint64_t>(40, 5000));
    }
}

TEST_F(WaitConfigTest, SleepTimeIsReadAsSeconds) {
    const std::pair<const char*, uint64_t> cases[] = {
        {"1", 1000},       {"7abc", 7000},  {"  3 ", 3000}, {"+2", 2000}, {"0", 0},
        {"none", 0},       {"abc", 0},      {"-", 0},       {"", 5000},   {"   ", 5000},
        {"\t", 5000},      {"2147483647", 2147483647000ULL},
        {"2147483648", 2147483647000ULL},   {"99999999999999999999999", 2147483647000ULL},
    };
    for (const auto& entry : cases) {
        ClearCaptured();
        Plexum::GlobalConfig::SetItem(kRetryKey, "2");
        Plexum::GlobalConfig::SetItem(kSleepKey, entry.first);
        EXPECT_EQ(EnableNeverTakingEffect(2), 2U);
        EXPECT_EQ(sleeps, (std::vector<uint64_t>{entry.second, entry.second})) << '"' << entry.first << '"';
    }
}

TEST_F(WaitConfigTest, NegativeSleepTimeMeansNoPause) {
    const char* const negatives[] = {"-1", "-5", "-2147483648", "-99999999999999999999999"};
    for (const char* text : negatives) {
        ClearCaptured();
        Plexum::GlobalConfig::SetItem(kRetryKey, "2");
        Plexum::GlobalConfig::SetItem(kSleepKey, text);
        EXPECT_EQ(EnableNeverTakingEffect(2), 2U);
        EXPECT_EQ(sleeps, (std::vector<uint64_t>{0, 0})) << text;
    }
}

TEST_F(WaitConfigTest, ConfigurationIsReadAgainOnEveryWait) {
    Plexum::GlobalConfig::SetItem(kRetryKey, "1");
    Plexum::GlobalConfig::SetItem(kSleepKey, "2");
    EXPECT_EQ(EnableNeverTakingEffect(1), 1U);
    EXPECT_EQ(sleeps, std::vector<uint64_t>{2000});

    ClearCaptured();
    Plexum::GlobalConfig::SetItem(kRetryKey, "3");
    Plexum::GlobalConfig::SetItem(kSleepKey, "4");
    EXPECT_EQ(EnableNeverTakingEffect(3), 3U);
    EXPECT_EQ(sleeps, (std::vector<uint64_t>{4000, 4000, 4000}));

    ClearCaptured();
    Plexum::GlobalConfig::Clear();
    EXPECT_EQ(EnableNeverTakingEffect(24), 24U);
    EXPECT_EQ(sleeps, std::vector<uint64_t>(24, 5000));
}

TEST_F(WaitConfigTest, TheIpmiOverLanWaitReadsTheSameKeys) {
    Plexum::GlobalConfig::SetItem(kRetryKey, "7abc");
    Plexum::GlobalConfig::SetItem(kSleepKey, "none");
    fake.QueueStatus(1);
    fake.QueueReply(0, {});
    for (int i = 0; i < 7; ++i) fake.QueueStatus(1);
    EXPECT_EQ(manager.SetIpmiOverLanStatus(SMM_LAN_AND_IPMI_ENABLED), 1);
    EXPECT_EQ(Checks(), 7U);
    EXPECT_EQ(sleeps, std::vector<uint64_t>(7, 0));
    EXPECT_EQ(Err(), "Execute command to enable SMM IPMI over LAN success but wait status change timeout\n");
}

}  // namespace
}  // namespace smmlan_test
