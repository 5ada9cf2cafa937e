// SPDX-License-Identifier: GPL-3.0-or-later
#include "ManagerTest.h"

namespace smmlan_test {
namespace {

using QueryTest = ManagerTest;

const std::vector<uint8_t> kAddressReply = {0x00, 0x00, 0x00, 0x00, 0x0A, 0x01, 0xA8, 0xC0};

std::vector<IpmiEvent> IpRead() { return Exchange(0xC4, SmmIpRequestData()); }

TEST_F(QueryTest, EnabledSmmShowsStatusAndAddress) {
    fake.QueueStatus(1);
    fake.QueueReply(0, kAddressReply);
    EXPECT_EQ(manager.Query(), 0);
    std::vector<IpmiEvent> expected = StatusRead();
    Append(expected, IpRead());
    EXPECT_EQ(fake.events, expected);
    EXPECT_EQ(Out(), "************Query Result************\n"
                     "\n"
                     "Query SMM network status succeeded\n"
                     "    Status: Enabled\n"
                     "    SMM IP: 192.168.1.10\n"
                     "\n"
                     "************Query Result************\n");
    EXPECT_EQ(Err(), "");
    EXPECT_TRUE(sleeps.empty());
    EXPECT_EQ(Records(), (std::vector<Record>{
                             {4, "Entering  SmmLanManager::Query"},
                             {3, "************Query Result************\n"},
                             {4, "Entering  SmmLanManager::GetSMMIp"},
                             {4, "Exiting  SmmLanManager::GetSMMIp"},
                             {3, "Query SMM network status succeeded"},
                             {3, "    Status: Enabled"},
                             {3, "    Status code: 1"},
                             {3, "    SMM IP: 192.168.1.10"},
                             {3, "\n************Query Result************"},
                             {4, "Exiting  SmmLanManager::Query"},
                         }));
}

TEST_F(QueryTest, NetworkAndIpmiSmmShowsItsTextAndAddress) {
    fake.QueueStatus(4);
    fake.QueueReply(0, {0x00, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00, 0x0A});
    EXPECT_EQ(manager.Query(), 0);
    EXPECT_EQ(Out(), "************Query Result************\n"
                     "\n"
                     "Query SMM network status succeeded\n"
                     "    Status: SMM network and IPMI over LAN enabled\n"
                     "    SMM IP: 10.0.0.5\n"
                     "\n"
                     "************Query Result************\n");
    const std::vector<Record> records = Records();
    ASSERT_EQ(records.size(), 10U);
    EXPECT_EQ(records[6], (Record{3, "    Status code: 4"}));
}

TEST_F(QueryTest, DisabledSmmReadsNoAddress) {
    fake.QueueStatus(2);
    EXPECT_EQ(manager.Query(), 0);
    EXPECT_EQ(fake.events, StatusRead());
    EXPECT_EQ(Out(), "************Query Result************\n"
                     "\n"
                     "Query SMM network status succeeded\n"
                     "    Status: Disabled\n"
                     "\n"
                     "************Query Result************\n");
    EXPECT_EQ(Records(), (std::vector<Record>{
                             {4, "Entering  SmmLanManager::Query"},
                             {3, "************Query Result************\n"},
                             {3, "Query SMM network status succeeded"},
                             {3, "    Status: Disabled"},
                             {3, "    Status code: 2"},
                             {3, "\n************Query Result************"},
                             {4, "Exiting  SmmLanManager::Query"},
                         }));
}

TEST_F(QueryTest, UnreadableAddressIsReportedBeforeTheStatusLines) {
    fake.QueueStatus(1);
    fake.QueueReply(0xC1, {});
    EXPECT_EQ(manager.Query(), 0);
    std::vector<IpmiEvent> expected = StatusRead();
    Append(expected, IpRead());
    EXPECT_EQ(fake.events, expected);
    EXPECT_EQ(Out(), "************Query Result************\n"
                     "\n"
                     "Get SMM ip failed\n"
                     "Query SMM network status succeeded\n"
                     "    Status: Enabled\n"
                     "\n"
                     "************Query Result************\n");
    EXPECT_EQ(Err(), "");
}

TEST_F(QueryTest, UnlistedStatusByteIsShownAsUnknow) {
    fake.QueueStatus(3);
    EXPECT_EQ(manager.Query(), 0);
    EXPECT_EQ(fake.events, StatusRead());
    EXPECT_EQ(Out(), "************Query Result************\n"
                     "\n"
                     "Query SMM network status succeeded\n"
                     "    Status: Unknow\n"
                     "\n"
                     "************Query Result************\n");
    EXPECT_EQ(Records(), (std::vector<Record>{
                             {4, "Entering  SmmLanManager::Query"},
                             {1, "SMM lan status is unknow, the value got is:3"},
                             {3, "************Query Result************\n"},
                             {3, "Query SMM network status succeeded"},
                             {3, "    Status: Unknow"},
                             {3, "    Status code: 0"},
                             {3, "\n************Query Result************"},
                             {4, "Exiting  SmmLanManager::Query"},
                         }));
}

TEST_F(QueryTest, FailedStatusReadPrintsTheFailureBlock) {
    fake.QueueReply(0, {0x01, 0x01});
    EXPECT_EQ(manager.Query(), 1);
    EXPECT_EQ(fake.events, StatusRead());
    EXPECT_EQ(Out(), "************Query Result************\n"
                     "\n"
                     "Query SMM network status failed.\n"
                     "    Error msg: Generic Failure.\n"
                     "\n"
                     "************Query Result************\n");
    EXPECT_EQ(Records(), (std::vector<Record>{
                             {4, "Entering  SmmLanManager::Query"},
                             {3, "************Query Result************\n"},
                             {3, "Query SMM network status failed."},
                             {3, "    Error msg: Generic Failure."},
                             {3, "\n************Query Result************"},
                             {4, "Exiting  SmmLanManager::Query"},
                         }));
}

TEST_F(QueryTest, FailedOpenReturnsItsCode) {
    fake.QueueOpen(2);
    EXPECT_EQ(manager.Query(), 2054);
    EXPECT_EQ(fake.events, std::vector<IpmiEvent>{OpenEvent()});
    EXPECT_EQ(Out(), "************Query Result************\n"
                     "\n"
                     "Query SMM network status failed.\n"
                     "    Error msg: Authentication failed. For instance, user name or password error.\n"
                     "\n"
                     "************Query Result************\n");

    ClearCaptured();
    fake.QueueOpen(6);
    EXPECT_EQ(manager.Query(), 13);
    EXPECT_EQ(Out(), "************Query Result************\n"
                     "\n"
                     "Query SMM network status failed.\n"
                     "    Error msg: Connection failed.\n"
                     "\n"
                     "************Query Result************\n");
}

}  // namespace
}  // namespace smmlan_test
