// SPDX-License-Identifier: GPL-3.0-or-later
#include "ManagerTest.h"

namespace smmlan_test {
namespace {

using GetLanStatusTest = ManagerTest;

TEST_F(GetLanStatusTest, ReadsEachKnownStatusWithOneExchange) {
    const uint8_t known[] = {1, 2, 4};
    for (uint8_t value : known) {
        ClearCaptured();
        fake.QueueStatus(value);
        SmmLanStatus status = SMM_LAN_STATUS_UNKNOWN;
        EXPECT_EQ(manager.GetLanStatus(status), 0);
        EXPECT_EQ(status, static_cast<SmmLanStatus>(value));
        EXPECT_EQ(fake.events, StatusRead());
        EXPECT_EQ(Records(), std::vector<Record>{});
        EXPECT_EQ(Out(), "");
        EXPECT_EQ(Err(), "");
    }
}

TEST_F(GetLanStatusTest, ReplyOfWrongLengthIsGenericFailureWithStatusReset) {
    const std::vector<std::vector<uint8_t>> replies = {
        {}, {0x01, 0x00}, {0x02, 0x02}, {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07}};
    for (const auto& reply : replies) {
        ClearCaptured();
        fake.QueueReply(0, reply);
        SmmLanStatus status = SMM_LAN_DISABLED;
        EXPECT_EQ(manager.GetLanStatus(status), 1) << reply.size() << " bytes";
        EXPECT_EQ(status, SMM_LAN_STATUS_UNKNOWN);
        EXPECT_EQ(fake.events, StatusRead());
        EXPECT_EQ(Records(), std::vector<Record>{});
    }
}

TEST_F(GetLanStatusTest, NonzeroCompletionCodeIsGenericFailure) {
    fake.QueueReply(0xC1, {0x01});
    SmmLanStatus status = SMM_LAN_ENABLED;
    EXPECT_EQ(manager.GetLanStatus(status), 1);
    EXPECT_EQ(status, SMM_LAN_STATUS_UNKNOWN);
    EXPECT_EQ(fake.events, StatusRead());
    EXPECT_EQ(Records(), std::vector<Record>{});
}

TEST_F(GetLanStatusTest, UnlistedStatusByteIsSuccessWithUnknownStatus) {
    const uint8_t unlisted[] = {0, 3, 5, 8, 0x80, 0xFF};
    for (uint8_t value : unlisted) {
        ClearCaptured();
        fake.QueueStatus(value);
        SmmLanStatus status = SMM_LAN_ENABLED;
        EXPECT_EQ(manager.GetLanStatus(status), 0);
        EXPECT_EQ(status, SMM_LAN_STATUS_UNKNOWN);
        EXPECT_EQ(Records(), (std::vector<Record>{
                                 {1, "SMM lan status is unknow, the value got is:" + std::to_string(value)}}));
        EXPECT_EQ(Out(), "");
        EXPECT_EQ(Err(), "");
    }
}

TEST_F(GetLanStatusTest, StatusByteThreeIsLoggedAsItsNumber) {
    fake.QueueStatus(3);
    SmmLanStatus status = SMM_LAN_ENABLED;
    EXPECT_EQ(manager.GetLanStatus(status), 0);
    EXPECT_EQ(status, SMM_LAN_STATUS_UNKNOWN);
    EXPECT_EQ(Records(), (std::vector<Record>{{1, "SMM lan status is unknow, the value got is:3"}}));
}

TEST_F(GetLanStatusTest, RefusedCredentialsGive2054WithoutSendOrClose) {
    fake.QueueOpen(2);
    SmmLanStatus status = SMM_LAN_ENABLED;
    EXPECT_EQ(manager.GetLanStatus(status), 2054);
    EXPECT_EQ(status, SMM_LAN_STATUS_UNKNOWN);
    EXPECT_EQ(fake.events, std::vector<IpmiEvent>{OpenEvent()});
    EXPECT_EQ(Records(), std::vector<Record>{});
    EXPECT_EQ(Out(), "");
    EXPECT_EQ(Err(), "");
}

TEST_F(GetLanStatusTest, OtherOpenFailuresGiveConnectionFailedWithoutSendOrClose) {
    const int32_t failures[] = {1, 3, 5, -1, 255};
    for (int32_t failure : failures) {
        ClearCaptured();
        fake.QueueOpen(failure);
        SmmLanStatus status = SMM_LAN_ENABLED;
        EXPECT_EQ(manager.GetLanStatus(status), 13) << "Open returned " << failure;
        EXPECT_EQ(status, SMM_LAN_STATUS_UNKNOWN);
        EXPECT_EQ(fake.events, std::vector<IpmiEvent>{OpenEvent()});
        EXPECT_EQ(Records(), std::vector<Record>{});
    }
}

}  // namespace
}  // namespace smmlan_test
