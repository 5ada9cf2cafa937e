// SPDX-License-Identifier: GPL-3.0-or-later
#include "ManagerTest.h"

#include "host/GlobalConfig.h"

namespace smmlan_test {
namespace {

using EnableIpmiTest = ManagerTest;

const char* const kTimeout = "Execute command to enable SMM IPMI over LAN success but wait status change timeout";
const char* const kFailedMessage =
    "Failed to enable SMM IPMI over LAN, please confirm whether the target system supports.";

TEST_F(EnableIpmiTest, OnlyTheNetworkAndIpmiStatusIsAccepted) {
    const SmmLanStatus refused[] = {SMM_LAN_STATUS_UNKNOWN, SMM_LAN_ENABLED, SMM_LAN_DISABLED,
                                    static_cast<SmmLanStatus>(3)};
    for (SmmLanStatus wanted : refused) {
        ClearCaptured();
        EXPECT_EQ(manager.SetIpmiOverLanStatus(wanted), 1);
        EXPECT_EQ(fake.events, std::vector<IpmiEvent>{});
        EXPECT_EQ(Records(), (std::vector<Record>{{4, "unkown status"}}));
        EXPECT_EQ(Out(), "");
    }
}

TEST_F(EnableIpmiTest, NetworkOnlySmmGetsTheCommandAndWaitsForFour) {
    fake.QueueStatus(1);
    fake.QueueReply(0, {});
    fake.QueueStatus(1);
    fake.QueueStatus(4);
    EXPECT_EQ(manager.EnableIpmi(), 0);

    std::vector<IpmiEvent> expected = StatusRead();
    Append(expected, Exchange(0xF1, {0x04}));
    Append(expected, StatusRead());
    Append(expected, StatusRead());
    EXPECT_EQ(fake.events, expected);
    EXPECT_EQ(Out(), "[INFO]: Send enable command succeeded, wait for status take effect.\n"
                     "Check SMM IPMI over LAN status attempt(0)\n"
                     "Status has been not take effected, wait for next check.\n"
                     "Check SMM IPMI over LAN status attempt(1)\n"
                     "The SMM IPMI over LAN status take effected.\n"
                     "************Enable Result************\n"
                     "\n"
                     "Enable SMM IPMI over LAN succeeded\n"
                     "Sleep 10 seconds more to let SMM IPMI over LAN up\n"
                     "\n"
                     "************Enable Result************\n");
    EXPECT_EQ(Err(), "");
    EXPECT_EQ(sleeps, (std::vector<uint64_t>{5000, 10000}));
    EXPECT_EQ(Records(), (std::vector<Record>{
                             {4, "Entering  SmmLanManager::EnableIpmi"},
                             {3, "[INFO]: Send enable command succeeded, wait for status take effect."},
                             {3, "Check SMM IPMI over LAN status attempt(0)"},
                             {3, "Status has been not take effected, wait for next check."},
                             {3, "Check SMM IPMI over LAN status attempt(1)"},
                             {3, "The SMM IPMI over LAN status take effected."},
                             {3, "************Enable Result************\n"},
                             {3, "Enable SMM IPMI over LAN succeeded"},
                             {3, "Sleep 10 seconds more to let SMM IPMI over LAN up"},
                             {3, "\n************Enable Result************"},
                             {4, "Exiting  SmmLanManager::EnableIpmi"},
                         }));
}

TEST_F(EnableIpmiTest, AlreadyEnabledSendsNothingButStillSettles) {
    fake.QueueStatus(4);
    EXPECT_EQ(manager.EnableIpmi(), 0);
    EXPECT_EQ(fake.events, StatusRead());
    EXPECT_EQ(Out(), "************Enable Result************\n"
                     "\n"
                     "Enable SMM IPMI over LAN succeeded\n"
                     "Sleep 10 seconds more to let SMM IPMI over LAN up\n"
                     "\n"
                     "************Enable Result************\n");
    EXPECT_EQ(sleeps, std::vector<uint64_t>{10000});
    EXPECT_EQ(sleepAfterOutput, std::vector<std::string>{"************Enable Result************\n\n"
                                                         "Enable SMM IPMI over LAN succeeded\n"
                                                         "Sleep 10 seconds more to let SMM IPMI over LAN up\n"});
    EXPECT_EQ(Records(), (std::vector<Record>{
                             {4, "Entering  SmmLanManager::EnableIpmi"},
                             {3, "The status to set is same as current status"},
                             {3, "************Enable Result************\n"},
                             {3, "Enable SMM IPMI over LAN succeeded"},
                             {3, "Sleep 10 seconds more to let SMM IPMI over LAN up"},
                             {3, "\n************Enable Result************"},
                             {4, "Exiting  SmmLanManager::EnableIpmi"},
                         }));
}

TEST_F(EnableIpmiTest, RefusedCommandReturnsTheIpmiOverLanCode) {
    fake.QueueStatus(2);
    fake.QueueReply(0xC1, {});
    EXPECT_EQ(manager.EnableIpmi(), 64);
    std::vector<IpmiEvent> expected = StatusRead();
    Append(expected, Exchange(0xF1, {0x04}));
    EXPECT_EQ(fake.events, expected);
    EXPECT_EQ(Out(), std::string("************Enable Result************\n"
                                 "\n"
                                 "Enable SMM IPMI over LAN failed.\n"
                                 "    Error msg: ") +
                         kFailedMessage +
                         "\n"
                         "\n"
                         "************Enable Result************\n");
    EXPECT_EQ(Err(), "");
    EXPECT_TRUE(sleeps.empty());
    EXPECT_EQ(Records(), (std::vector<Record>{
                             {4, "Entering  SmmLanManager::EnableIpmi"},
                             {1, "Execute ipmi command to set smm ipmi over lan status to 4 failed"},
                             {3, "************Enable Result************\n"},
                             {3, "Enable SMM IPMI over LAN failed."},
                             {3, std::string("    Error msg: ") + kFailedMessage},
                             {3, "\n************Enable Result************"},
                             {4, "Exiting  SmmLanManager::EnableIpmi"},
                         }));
}

TEST_F(EnableIpmiTest, NoChecksAllowedPrintsTheTimeOutWithoutChecking) {
    Plexum::GlobalConfig::SetItem("SMM_NETWORK_CHECK_RETRY_COUNT", "0");
    fake.QueueStatus(1);
    fake.QueueReply(0, {});
    EXPECT_EQ(manager.EnableIpmi(), 1);
    std::vector<IpmiEvent> expected = StatusRead();
    Append(expected, Exchange(0xF1, {0x04}));
    EXPECT_EQ(fake.events, expected);
    EXPECT_EQ(Out(), "[INFO]: Send enable command succeeded, wait for status take effect.\n"
                     "************Enable Result************\n"
                     "\n"
                     "Enable SMM IPMI over LAN failed.\n"
                     "    Error msg: Generic Failure.\n"
                     "\n"
                     "************Enable Result************\n");
    EXPECT_EQ(Err(), std::string(kTimeout) + "\n");
    EXPECT_TRUE(sleeps.empty());
}

TEST_F(EnableIpmiTest, StatusNeverReachingFourTimesOutAfterTheLastPause) {
    Plexum::GlobalConfig::SetItem("SMM_NETWORK_CHECK_RETRY_COUNT", "2");
    Plexum::GlobalConfig::SetItem("SMM_NETWORK_CHECK_SLEEP_TIME", "3");
    fake.QueueStatus(2);
    fake.QueueReply(0, {});
    fake.QueueStatus(1);
    fake.QueueReply(0xC0, {});
    EXPECT_EQ(manager.SetIpmiOverLanStatus(SMM_LAN_AND_IPMI_ENABLED), 1);
    EXPECT_EQ(Out(), "[INFO]: Send enable command succeeded, wait for status take effect.\n"
                     "Check SMM IPMI over LAN status attempt(0)\n"
                     "Status has been not take effected, wait for next check.\n"
                     "Check SMM IPMI over LAN status attempt(1)\n"
                     "Status has been not take effected, wait for next check.\n");
    EXPECT_EQ(Err(), std::string(kTimeout) + "\n");
    EXPECT_EQ(sleeps, (std::vector<uint64_t>{3000, 3000}));
    const std::vector<Record> records = Records();
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records.back(), (Record{1, kTimeout}));
}

TEST_F(EnableIpmiTest, FailedOpenOfTheCommandIsReturned) {
    fake.QueueStatus(1);
    fake.QueueOpen(0);
    fake.QueueOpen(2);
    EXPECT_EQ(manager.EnableIpmi(), 2054);
    std::vector<IpmiEvent> expected = StatusRead();
    expected.push_back(OpenEvent());
    EXPECT_EQ(fake.events, expected);
    EXPECT_EQ(Out(), "************Enable Result************\n"
                     "\n"
                     "Enable SMM IPMI over LAN failed.\n"
                     "    Error msg: Authentication failed. For instance, user name or password error.\n"
                     "\n"
                     "************Enable Result************\n");

    ClearCaptured();
    fake.QueueOpen(3);
    fake.QueueOpen(3);
    EXPECT_EQ(manager.EnableIpmi(), 13);
    EXPECT_EQ(fake.events, (std::vector<IpmiEvent>{OpenEvent(), OpenEvent()}));
    EXPECT_EQ(Out(), "************Enable Result************\n"
                     "\n"
                     "Enable SMM IPMI over LAN failed.\n"
                     "    Error msg: Connection failed.\n"
                     "\n"
                     "************Enable Result************\n");
}

}  // namespace
}  // namespace smmlan_test
