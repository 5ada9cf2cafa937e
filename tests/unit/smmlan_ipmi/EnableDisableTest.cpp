// SPDX-License-Identifier: GPL-3.0-or-later
#include "ManagerTest.h"

#include "host/GlobalConfig.h"

namespace smmlan_test {
namespace {

using EnableDisableTest = ManagerTest;

const char* const kEnableBanner = "************Enable Result************";
const char* const kDisableBanner = "************Disable Result************";
const char* const kSendEnable = "[INFO]: Send enable command succeeded, wait for status take effect.";
const char* const kMiss = "Status has been not take effected, wait for next check.";
const char* const kHit = "The SMM network status take effected.";
const char* const kSettle = "Sleep 10 seconds more to let SMM network up";
const char* const kMethodFailed =
    "Failed to configure SMM IP address obtained method, continue to enable SMM network with default address "
    "obtained method";
const char* const kNoAddress =
    "Get SMM IP failed, please check if your network cable is plugged in.\n"
    "If so it is possible that the network is starting, you can wait a few minutes then to use of the "
    "\"smmlan query\" command to try again to obtain the IP.";
const std::vector<uint8_t> kAddressReply = {0x00, 0x00, 0x00, 0x00, 0x0A, 0x01, 0xA8, 0xC0};

std::string Attempt(int attempt) { return "Check SMM network status attempt(" + std::to_string(attempt) + ")"; }
std::vector<IpmiEvent> IpRead() { return Exchange(0xC4, SmmIpRequestData()); }

TEST_F(EnableDisableTest, SuccessfulEnableWithDefaultsPrintsTheWholeBlock) {
    fake.QueueStatus(2);       // current status
    fake.QueueReply(0, {});    // enable command
    fake.QueueStatus(2);       // check 0
    fake.QueueStatus(2);       // check 1
    fake.QueueStatus(1);       // check 2
    fake.QueueReply(0, kAddressReply);

    EXPECT_EQ(manager.Enable(IP_OBTAIN_UNCHANGED), 0);

    EXPECT_EQ(Out(),
              "[INFO]: Send enable command succeeded, wait for status take effect.\n"
              "Check SMM network status attempt(0)\n"
              "Status has been not take effected, wait for next check.\n"
              "Check SMM network status attempt(1)\n"
              "Status has been not take effected, wait for next check.\n"
              "Check SMM network status attempt(2)\n"
              "The SMM network status take effected.\n"
              "************Enable Result************\n"
              "\n"
              "Enable SMM network succeeded\n"
              "Sleep 10 seconds more to let SMM network up\n"
              "SMM IP: 192.168.1.10\n"
              "\n"
              "************Enable Result************\n");
    EXPECT_EQ(Err(), "");

    std::vector<IpmiEvent> expected = StatusRead();
    Append(expected, Exchange(0xF1, {0x01}));
    for (int i = 0; i < 3; ++i) Append(expected, StatusRead());
    Append(expected, IpRead());
    EXPECT_EQ(fake.events, expected);

    EXPECT_EQ(sleeps, (std::vector<uint64_t>{5000, 5000, 10000}));
    // The settle pause comes after its announcement and before the address read.
    EXPECT_EQ(sleepAfterEvents, (std::vector<size_t>{9, 12, 15}));
    EXPECT_EQ(sleepAfterOutput.back(),
              Lines({kSendEnable, Attempt(0), kMiss, Attempt(1), kMiss, Attempt(2), kHit,
                     std::string(kEnableBanner) + "\n", "Enable SMM network succeeded", kSettle}));

    EXPECT_EQ(Records(), (std::vector<Record>{
                             {4, "Entering  SmmLanManager::Enable"},
                             {3, "Do not change ip obtained method."},
                             {3, kSendEnable},
                             {3, Attempt(0)},
                             {3, kMiss},
                             {3, Attempt(1)},
                             {3, kMiss},
                             {3, Attempt(2)},
                             {3, kHit},
                             {3, std::string(kEnableBanner) + "\n"},
                             {3, "Enable SMM network succeeded"},
                             {3, kSettle},
                             {4, "Entering  SmmLanManager::GetSMMIp"},
                             {4, "Exiting  SmmLanManager::GetSMMIp"},
                             {3, "SMM IP: 192.168.1.10"},
                             {3, "\n" + std::string(kEnableBanner)},
                             {4, "Exiting  SmmLanManager::Enable"},
                         }));
}

TEST_F(EnableDisableTest, EnableSetsTheMethodFirst) {
    fake.QueueReply(0, {});  // method
    fake.QueueStatus(2);
    fake.QueueReply(0, {});
    fake.QueueStatus(1);
    fake.QueueReply(0, kAddressReply);
    EXPECT_EQ(manager.Enable(IP_OBTAIN_DHCP_FAILOVER), 0);

    std::vector<IpmiEvent> expected = Exchange(0xF3, {0x04});
    Append(expected, StatusRead());
    Append(expected, Exchange(0xF1, {0x01}));
    Append(expected, StatusRead());
    Append(expected, IpRead());
    EXPECT_EQ(fake.events, expected);
    EXPECT_EQ(Out(), Lines({kSendEnable, Attempt(0), kHit, std::string(kEnableBanner) + "\n",
                            "Enable SMM network succeeded", kSettle, "SMM IP: 192.168.1.10",
                            "\n" + std::string(kEnableBanner)}));
    const std::vector<Record> records = Records();
    ASSERT_GE(records.size(), 3U);
    EXPECT_EQ(records[1], (Record{3, "Start to set ip obtained method."}));
    EXPECT_EQ(records[2], (Record{3, "set ip obtained method succeed."}));
}

TEST_F(EnableDisableTest, MethodRefusedBySmmStillEnablesWithoutAConsoleLine) {
    fake.QueueReply(0xC9, {});  // method refused
    fake.QueueStatus(2);
    fake.QueueReply(0, {});
    fake.QueueStatus(1);
    fake.QueueReply(0, kAddressReply);
    EXPECT_EQ(manager.Enable(IP_OBTAIN_STATIC), 0);

    std::vector<IpmiEvent> expected = Exchange(0xF3, {0x01});
    Append(expected, StatusRead());
    Append(expected, Exchange(0xF1, {0x01}));
    Append(expected, StatusRead());
    Append(expected, IpRead());
    EXPECT_EQ(fake.events, expected);
    EXPECT_EQ(Out(), Lines({kSendEnable, Attempt(0), kHit, std::string(kEnableBanner) + "\n",
                            "Enable SMM network succeeded", kSettle, "SMM IP: 192.168.1.10",
                            "\n" + std::string(kEnableBanner)}));
    EXPECT_EQ(Err(), "");
    const std::vector<Record> records = Records();
    ASSERT_GE(records.size(), 4U);
    EXPECT_EQ(records[2], (Record{1, "Failed to set smm lan method"}));
    EXPECT_EQ(records[3], (Record{3, "set ip obtained method succeed."}));
}

TEST_F(EnableDisableTest, MethodThatCannotBeSentIsReportedAndEnablingGoesOn) {
    fake.QueueOpen(5);  // method
    fake.QueueStatus(2);
    fake.QueueReply(0, {});
    fake.QueueStatus(1);
    fake.QueueReply(0, kAddressReply);
    EXPECT_EQ(manager.Enable(IP_OBTAIN_DHCP), 0);

    std::vector<IpmiEvent> expected = {OpenEvent()};
    Append(expected, StatusRead());
    Append(expected, Exchange(0xF1, {0x01}));
    Append(expected, StatusRead());
    Append(expected, IpRead());
    EXPECT_EQ(fake.events, expected);
    EXPECT_EQ(Out(), Lines({kMethodFailed, kSendEnable, Attempt(0), kHit, std::string(kEnableBanner) + "\n",
                            "Enable SMM network succeeded", kSettle, "SMM IP: 192.168.1.10",
                            "\n" + std::string(kEnableBanner)}));
}

TEST_F(EnableDisableTest, AlreadyEnabledStillSettlesAndReadsTheAddress) {
    fake.QueueStatus(1);
    fake.QueueReply(0, kAddressReply);
    EXPECT_EQ(manager.Enable(IP_OBTAIN_UNCHANGED), 0);

    std::vector<IpmiEvent> expected = StatusRead();
    Append(expected, IpRead());
    EXPECT_EQ(fake.events, expected);
    EXPECT_EQ(Out(), Lines({std::string(kEnableBanner) + "\n", "Enable SMM network succeeded", kSettle,
                            "SMM IP: 192.168.1.10", "\n" + std::string(kEnableBanner)}));
    EXPECT_EQ(sleeps, std::vector<uint64_t>{10000});
    EXPECT_EQ(Records(), (std::vector<Record>{
                             {4, "Entering  SmmLanManager::Enable"},
                             {3, "Do not change ip obtained method."},
                             {3, "The status to set is same as current status"},
                             {3, std::string(kEnableBanner) + "\n"},
                             {3, "Enable SMM network succeeded"},
                             {3, kSettle},
                             {4, "Entering  SmmLanManager::GetSMMIp"},
                             {4, "Exiting  SmmLanManager::GetSMMIp"},
                             {3, "SMM IP: 192.168.1.10"},
                             {3, "\n" + std::string(kEnableBanner)},
                             {4, "Exiting  SmmLanManager::Enable"},
                         }));
}

TEST_F(EnableDisableTest, EnableFromNetworkAndIpmiSendsTheCommand) {
    fake.QueueStatus(4);
    fake.QueueReply(0, {});
    fake.QueueStatus(1);
    fake.QueueReply(0, kAddressReply);
    EXPECT_EQ(manager.Enable(IP_OBTAIN_UNCHANGED), 0);
    std::vector<IpmiEvent> expected = StatusRead();
    Append(expected, Exchange(0xF1, {0x01}));
    Append(expected, StatusRead());
    Append(expected, IpRead());
    EXPECT_EQ(fake.events, expected);
}

TEST_F(EnableDisableTest, UnreadableAddressAfterEnablingPrintsTheHint) {
    fake.QueueStatus(1);
    fake.QueueReply(0, {0x01, 0x00, 0x00, 0x00, 0x0A, 0x01, 0xA8, 0xC0});
    EXPECT_EQ(manager.Enable(IP_OBTAIN_UNCHANGED), 0);
    EXPECT_EQ(Out(), "************Enable Result************\n"
                     "\n"
                     "Enable SMM network succeeded\n"
                     "Sleep 10 seconds more to let SMM network up\n"
                     "Get SMM IP failed, please check if your network cable is plugged in.\n"
                     "If so it is possible that the network is starting, you can wait a few minutes then to use of "
                     "the \"smmlan query\" command to try again to obtain the IP.\n"
                     "\n"
                     "************Enable Result************\n");
    const std::vector<Record> records = Records();
    ASSERT_EQ(records.size(), 12U);
    EXPECT_EQ(records[7], (Record{1, "Get SMM ip failed with error : service not ready"}));
    EXPECT_EQ(records[9], (Record{3, kNoAddress}));
}

TEST_F(EnableDisableTest, TimedOutEnablePrintsTheFailureBlock) {
    Plexum::GlobalConfig::SetItem("SMM_NETWORK_CHECK_RETRY_COUNT", "2");
    fake.QueueStatus(2);
    fake.QueueReply(0, {});
    fake.QueueStatus(2);
    fake.QueueStatus(2);
    EXPECT_EQ(manager.Enable(IP_OBTAIN_UNCHANGED), 1);
    EXPECT_EQ(Out(),
              "[INFO]: Send enable command succeeded, wait for status take effect.\n"
              "Check SMM network status attempt(0)\n"
              "Status has been not take effected, wait for next check.\n"
              "Check SMM network status attempt(1)\n"
              "Status has been not take effected, wait for next check.\n"
              "************Enable Result************\n"
              "\n"
              "Enable SMM network failed.\n"
              "    Error msg: Generic Failure.\n"
              "\n"
              "************Enable Result************\n");
    EXPECT_EQ(Err(), "Execute command to enable smm network success but wait status change timeout\n");
    EXPECT_EQ(sleeps, (std::vector<uint64_t>{5000, 5000}));
    std::vector<IpmiEvent> expected = StatusRead();
    Append(expected, Exchange(0xF1, {0x01}));
    Append(expected, StatusRead());
    Append(expected, StatusRead());
    EXPECT_EQ(fake.events, expected);
}

TEST_F(EnableDisableTest, RefusedEnableCommandPrintsGenericFailure) {
    fake.QueueStatus(2);
    fake.QueueReply(0xC1, {});
    EXPECT_EQ(manager.Enable(IP_OBTAIN_UNCHANGED), 1);
    EXPECT_EQ(Out(), Lines({std::string(kEnableBanner) + "\n", "Enable SMM network failed.",
                            "    Error msg: Generic Failure.", "\n" + std::string(kEnableBanner)}));
    EXPECT_EQ(Err(), "");
    EXPECT_EQ(Records(), (std::vector<Record>{
                             {4, "Entering  SmmLanManager::Enable"},
                             {3, "Do not change ip obtained method."},
                             {1, "Execute ipmi command to set smm network status to 1 failed"},
                             {3, std::string(kEnableBanner) + "\n"},
                             {3, "Enable SMM network failed."},
                             {3, "    Error msg: Generic Failure."},
                             {3, "\n" + std::string(kEnableBanner)},
                             {4, "Exiting  SmmLanManager::Enable"},
                         }));
    EXPECT_TRUE(sleeps.empty());
}

TEST_F(EnableDisableTest, RefusedCredentialsArePrintedWithTheirMessage) {
    fake.QueueOpen(2);
    fake.QueueOpen(2);
    EXPECT_EQ(manager.Enable(IP_OBTAIN_UNCHANGED), 2054);
    EXPECT_EQ(fake.events, (std::vector<IpmiEvent>{OpenEvent(), OpenEvent()}));
    EXPECT_EQ(Out(), Lines({std::string(kEnableBanner) + "\n", "Enable SMM network failed.",
                            "    Error msg: Authentication failed. For instance, user name or password error.",
                            "\n" + std::string(kEnableBanner)}));
    EXPECT_EQ(Err(), "");
}

TEST_F(EnableDisableTest, UnreachableSmmIsPrintedAsConnectionFailed) {
    fake.QueueOpen(1);
    fake.QueueOpen(1);
    EXPECT_EQ(manager.Enable(IP_OBTAIN_UNCHANGED), 13);
    EXPECT_EQ(fake.events, (std::vector<IpmiEvent>{OpenEvent(), OpenEvent()}));
    EXPECT_EQ(Out(), Lines({std::string(kEnableBanner) + "\n", "Enable SMM network failed.",
                            "    Error msg: Connection failed.", "\n" + std::string(kEnableBanner)}));
}

TEST_F(EnableDisableTest, DisablingADisabledSmmSendsNothing) {
    fake.QueueStatus(2);
    EXPECT_EQ(manager.Disable(), 0);
    EXPECT_EQ(fake.events, StatusRead());
    EXPECT_EQ(Out(), "************Disable Result************\n"
                     "\n"
                     "Disable SMM network succeeded\n"
                     "\n"
                     "************Disable Result************\n");
    EXPECT_EQ(Err(), "");
    EXPECT_TRUE(sleeps.empty());
    EXPECT_EQ(Records(), (std::vector<Record>{
                             {4, "Entering  SmmLanManager::Disable"},
                             {3, "The status to set is same as current status"},
                             {3, std::string(kDisableBanner) + "\n"},
                             {3, "Disable SMM network succeeded"},
                             {3, "\n" + std::string(kDisableBanner)},
                             {4, "Exiting  SmmLanManager::Disable"},
                         }));
}

TEST_F(EnableDisableTest, DisableWaitsForTheStatusButNotForTheSettle) {
    fake.QueueStatus(1);
    fake.QueueReply(0, {});
    fake.QueueStatus(1);
    fake.QueueStatus(2);
    EXPECT_EQ(manager.Disable(), 0);
    std::vector<IpmiEvent> expected = StatusRead();
    Append(expected, Exchange(0xF1, {0x02}));
    Append(expected, StatusRead());
    Append(expected, StatusRead());
    EXPECT_EQ(fake.events, expected);
    EXPECT_EQ(Out(), "[INFO]: Send disable command succeeded, wait for status take effect.\n"
                     "Check SMM network status attempt(0)\n"
                     "Status has been not take effected, wait for next check.\n"
                     "Check SMM network status attempt(1)\n"
                     "The SMM network status take effected.\n"
                     "************Disable Result************\n"
                     "\n"
                     "Disable SMM network succeeded\n"
                     "\n"
                     "************Disable Result************\n");
    EXPECT_EQ(sleeps, std::vector<uint64_t>{5000});
}

TEST_F(EnableDisableTest, RefusedDisableCommandPrintsTheFailureBlock) {
    fake.QueueStatus(1);
    fake.QueueReply(0xFF, {});
    EXPECT_EQ(manager.Disable(), 1);
    EXPECT_EQ(Out(), Lines({std::string(kDisableBanner) + "\n", "Disable SMM network failed.",
                            "    Error msg: Generic Failure.", "\n" + std::string(kDisableBanner)}));
    EXPECT_EQ(Records(), (std::vector<Record>{
                             {4, "Entering  SmmLanManager::Disable"},
                             {1, "Execute ipmi command to set smm network status to 2 failed"},
                             {3, std::string(kDisableBanner) + "\n"},
                             {3, "Disable SMM network failed."},
                             {3, "    Error msg: Generic Failure."},
                             {3, "\n" + std::string(kDisableBanner)},
                             {4, "Exiting  SmmLanManager::Disable"},
                         }));
}

TEST_F(EnableDisableTest, DisableWithNoChecksAllowedTimesOut) {
    Plexum::GlobalConfig::SetItem("SMM_NETWORK_CHECK_RETRY_COUNT", "0");
    fake.QueueStatus(1);
    fake.QueueReply(0, {});
    EXPECT_EQ(manager.Disable(), 1);
    EXPECT_EQ(Out(), Lines({"[INFO]: Send disable command succeeded, wait for status take effect.",
                            std::string(kDisableBanner) + "\n", "Disable SMM network failed.",
                            "    Error msg: Generic Failure.", "\n" + std::string(kDisableBanner)}));
    EXPECT_EQ(Err(), "Execute command to disable smm network success but wait status change timeout\n");
    EXPECT_TRUE(sleeps.empty());
}

TEST_F(EnableDisableTest, DisableWithRefusedCredentials) {
    fake.QueueOpen(2);
    fake.QueueOpen(2);
    EXPECT_EQ(manager.Disable(), 2054);
    EXPECT_EQ(Out(), Lines({std::string(kDisableBanner) + "\n", "Disable SMM network failed.",
                            "    Error msg: Authentication failed. For instance, user name or password error.",
                            "\n" + std::string(kDisableBanner)}));
}

TEST_F(EnableDisableTest, TraceRecordsFollowTheLoggersLevel) {
    Plexum::Log::SetMinLogLevel(3);
    fake.QueueStatus(2);
    EXPECT_EQ(manager.Disable(), 0);
    EXPECT_EQ(Records(), (std::vector<Record>{
                             {3, "The status to set is same as current status"},
                             {3, std::string(kDisableBanner) + "\n"},
                             {3, "Disable SMM network succeeded"},
                             {3, "\n" + std::string(kDisableBanner)},
                         }));
    ClearCaptured();
    Plexum::Log::SetMinLogLevel(1);
    fake.QueueStatus(2);
    EXPECT_EQ(manager.Disable(), 0);
    EXPECT_EQ(Records(), std::vector<Record>{});
    EXPECT_EQ(Out(), Lines({std::string(kDisableBanner) + "\n", "Disable SMM network succeeded",
                            "\n" + std::string(kDisableBanner)}));
}

}  // namespace
}  // namespace smmlan_test
