// SPDX-License-Identifier: GPL-3.0-or-later
#include "ManagerTest.h"

#include "host/GlobalConfig.h"

namespace smmlan_test {
namespace {

using SetLanStatusTest = ManagerTest;

const char* const kSendEnable = "[INFO]: Send enable command succeeded, wait for status take effect.";
const char* const kSendDisable = "[INFO]: Send disable command succeeded, wait for status take effect.";
const char* const kMiss = "Status has been not take effected, wait for next check.";
const char* const kHit = "The SMM network status take effected.";
const char* const kEnableTimeout = "Execute command to enable smm network success but wait status change timeout";
const char* const kDisableTimeout = "Execute command to disable smm network success but wait status change timeout";

std::string Attempt(int attempt) { return "Check SMM network status attempt(" + std::to_string(attempt) + ")"; }

TEST_F(SetLanStatusTest, UnknownWantedStatusIsRefusedWithoutTalkingToTheSmm) {
    EXPECT_EQ(manager.SetLanStatus(SMM_LAN_STATUS_UNKNOWN), 1);
    EXPECT_EQ(fake.events, std::vector<IpmiEvent>{});
    EXPECT_EQ(Records(), (std::vector<Record>{{4, "unkown status"}}));
    EXPECT_EQ(Out(), "");
    EXPECT_EQ(Err(), "");
}

TEST_F(SetLanStatusTest, StatusAlreadyWantedSendsNothing) {
    fake.QueueStatus(2);
    EXPECT_EQ(manager.SetLanStatus(SMM_LAN_DISABLED), 0);
    EXPECT_EQ(fake.events, StatusRead());
    EXPECT_EQ(Records(), (std::vector<Record>{{3, "The status to set is same as current status"}}));
    EXPECT_EQ(Out(), "");
    EXPECT_TRUE(sleeps.empty());
}

TEST_F(SetLanStatusTest, EnableSendsOneAndPollsUntilTheStatusShows) {
    fake.QueueStatus(2);
    fake.QueueReply(0, {});
    fake.QueueStatus(2);
    fake.QueueStatus(1);
    EXPECT_EQ(manager.SetLanStatus(SMM_LAN_ENABLED), 0);

    std::vector<IpmiEvent> expected = StatusRead();
    Append(expected, Exchange(0xF1, {0x01}));
    Append(expected, StatusRead());
    Append(expected, StatusRead());
    EXPECT_EQ(fake.events, expected);
    EXPECT_EQ(Out(), Lines({kSendEnable, Attempt(0), kMiss, Attempt(1), kHit}));
    EXPECT_EQ(Err(), "");
    EXPECT_EQ(Records(), (std::vector<Record>{{3, kSendEnable}, {3, Attempt(0)}, {3, kMiss}, {3, Attempt(1)}, {3, kHit}}));
    EXPECT_EQ(sleeps, std::vector<uint64_t>{5000});
    // The pause follows the missed check, before the next one.
    EXPECT_EQ(sleepAfterEvents, std::vector<size_t>{9});
    EXPECT_EQ(sleepAfterOutput, std::vector<std::string>{Lines({kSendEnable, Attempt(0), kMiss})});
}

TEST_F(SetLanStatusTest, DisableSendsTwoWithItsOwnActionWord) {
    fake.QueueStatus(1);
    fake.QueueReply(0, {});
    fake.QueueStatus(2);
    EXPECT_EQ(manager.SetLanStatus(SMM_LAN_DISABLED), 0);

    std::vector<IpmiEvent> expected = StatusRead();
    Append(expected, Exchange(0xF1, {0x02}));
    Append(expected, StatusRead());
    EXPECT_EQ(fake.events, expected);
    EXPECT_EQ(Out(), Lines({kSendDisable, Attempt(0), kHit}));
    EXPECT_TRUE(sleeps.empty());
}

TEST_F(SetLanStatusTest, AnyWantedStatusOtherThanOneIsSentAsTheDisableByte) {
    // Only 0 is refused; the command byte is 0x01 for 1 and 0x02 for anything else.
    fake.QueueStatus(1);
    fake.QueueReply(0, {});
    fake.QueueStatus(4);
    EXPECT_EQ(manager.SetLanStatus(SMM_LAN_AND_IPMI_ENABLED), 0);
    std::vector<IpmiEvent> expected = StatusRead();
    Append(expected, Exchange(0xF1, {0x02}));
    Append(expected, StatusRead());
    EXPECT_EQ(fake.events, expected);
    EXPECT_EQ(Out(), Lines({kSendDisable, Attempt(0), kHit}));
}

TEST_F(SetLanStatusTest, FailedFirstReadIsNotAnError) {
    fake.QueueReply(0xC0, {0x01});
    fake.QueueReply(0, {});
    fake.QueueStatus(1);
    EXPECT_EQ(manager.SetLanStatus(SMM_LAN_ENABLED), 0);
    std::vector<IpmiEvent> expected = StatusRead();
    Append(expected, Exchange(0xF1, {0x01}));
    Append(expected, StatusRead());
    EXPECT_EQ(fake.events, expected);
    EXPECT_EQ(Out(), Lines({kSendEnable, Attempt(0), kHit}));
}

TEST_F(SetLanStatusTest, RefusedFirstOpenIsNotAnErrorEither) {
    fake.QueueOpen(2);
    fake.QueueReply(0, {});
    fake.QueueStatus(1);
    EXPECT_EQ(manager.SetLanStatus(SMM_LAN_ENABLED), 0);
    std::vector<IpmiEvent> expected = {OpenEvent()};
    Append(expected, Exchange(0xF1, {0x01}));
    Append(expected, StatusRead());
    EXPECT_EQ(fake.events, expected);
}

TEST_F(SetLanStatusTest, RefusedCommandIsGenericFailureWithItsLogRecord) {
    const SmmLanStatus wanted[] = {SMM_LAN_ENABLED, SMM_LAN_DISABLED};
    const SmmLanStatus current[] = {SMM_LAN_DISABLED, SMM_LAN_ENABLED};
    for (int i = 0; i < 2; ++i) {
        ClearCaptured();
        fake.QueueStatus(static_cast<uint8_t>(current[i]));
        fake.QueueReply(0xD5, {});
        EXPECT_EQ(manager.SetLanStatus(wanted[i]), 1);
        std::vector<IpmiEvent> expected = StatusRead();
        Append(expected, Exchange(0xF1, {static_cast<uint8_t>(wanted[i])}));
        EXPECT_EQ(fake.events, expected);
        EXPECT_EQ(Records(), (std::vector<Record>{{1, "Execute ipmi command to set smm network status to " +
                                                          std::to_string(wanted[i]) + " failed"}}));
        EXPECT_EQ(Out(), "");
        EXPECT_EQ(Err(), "");
        EXPECT_TRUE(sleeps.empty());
    }
}

TEST_F(SetLanStatusTest, FailedOpenOfTheCommandIsReturnedWithoutClose) {
    fake.QueueStatus(2);
    fake.QueueOpen(0);
    fake.QueueOpen(2);
    EXPECT_EQ(manager.SetLanStatus(SMM_LAN_ENABLED), 2054);
    std::vector<IpmiEvent> expected = StatusRead();
    expected.push_back(OpenEvent());
    EXPECT_EQ(fake.events, expected);
    EXPECT_EQ(Out(), "");
    EXPECT_EQ(Records(), std::vector<Record>{});

    ClearCaptured();
    fake.QueueStatus(2);
    fake.QueueOpen(0);
    fake.QueueOpen(4);
    EXPECT_EQ(manager.SetLanStatus(SMM_LAN_ENABLED), 13);
    EXPECT_EQ(fake.events, expected);
}

TEST_F(SetLanStatusTest, NetworkAndIpmiStatusDoesNotCountAsEnabled) {
    fake.QueueStatus(4);
    fake.QueueReply(0, {});
    fake.QueueStatus(4);
    fake.QueueStatus(4);
    fake.QueueStatus(1);
    EXPECT_EQ(manager.SetLanStatus(SMM_LAN_ENABLED), 0);
    std::vector<IpmiEvent> expected = StatusRead();
    Append(expected, Exchange(0xF1, {0x01}));
    for (int i = 0; i < 3; ++i) Append(expected, StatusRead());
    EXPECT_EQ(fake.events, expected);
    EXPECT_EQ(Out(), Lines({kSendEnable, Attempt(0), kMiss, Attempt(1), kMiss, Attempt(2), kHit}));
    EXPECT_EQ(sleeps, (std::vector<uint64_t>{5000, 5000}));
}

TEST_F(SetLanStatusTest, StatusNeverShowingEndsInTheTimeOutAfterTheLastPause) {
    Plexum::GlobalConfig::SetItem("SMM_NETWORK_CHECK_RETRY_COUNT", "3");
    fake.QueueStatus(2);
    fake.QueueReply(0, {});
    for (int i = 0; i < 3; ++i) fake.QueueStatus(2);
    EXPECT_EQ(manager.SetLanStatus(SMM_LAN_ENABLED), 1);
    EXPECT_EQ(Out(), Lines({kSendEnable, Attempt(0), kMiss, Attempt(1), kMiss, Attempt(2), kMiss}));
    EXPECT_EQ(Err(), Lines({kEnableTimeout}));
    EXPECT_EQ(sleeps, (std::vector<uint64_t>{5000, 5000, 5000}));
    EXPECT_EQ(Records(), (std::vector<Record>{{3, kSendEnable},
                                              {3, Attempt(0)},
                                              {3, kMiss},
                                              {3, Attempt(1)},
                                              {3, kMiss},
                                              {3, Attempt(2)},
                                              {3, kMiss},
                                              {1, kEnableTimeout}}));
}

TEST_F(SetLanStatusTest, FailingReadsDuringTheWaitCountAsMisses) {
    Plexum::GlobalConfig::SetItem("SMM_NETWORK_CHECK_RETRY_COUNT", "4");
    fake.QueueStatus(1);
    fake.QueueReply(0, {});
    fake.QueueReply(0xC3, {0x02});     // bad completion code
    fake.QueueReply(0, {0x02, 0x02});  // wrong length
    fake.QueueReply(0, {0x07});        // unknown status
    // The fourth check cannot even open the session.
    for (int i = 0; i < 5; ++i) fake.QueueOpen(0);
    fake.QueueOpen(1);
    EXPECT_EQ(manager.SetLanStatus(SMM_LAN_DISABLED), 1);

    std::vector<IpmiEvent> expected = StatusRead();
    Append(expected, Exchange(0xF1, {0x02}));
    for (int i = 0; i < 3; ++i) Append(expected, StatusRead());
    expected.push_back(OpenEvent());
    EXPECT_EQ(fake.events, expected);
    EXPECT_EQ(Out(),
              Lines({kSendDisable, Attempt(0), kMiss, Attempt(1), kMiss, Attempt(2), kMiss, Attempt(3), kMiss}));
    EXPECT_EQ(Err(), Lines({kDisableTimeout}));
    EXPECT_EQ(sleeps, (std::vector<uint64_t>{5000, 5000, 5000, 5000}));
}

TEST_F(SetLanStatusTest, ARetryCountOfZeroTimesOutWithoutCheckingEvenIfTheSmmSwitched) {
    Plexum::GlobalConfig::SetItem("SMM_NETWORK_CHECK_RETRY_COUNT", "0");
    fake.QueueStatus(2);
    fake.QueueReply(0, {});
    EXPECT_EQ(manager.SetLanStatus(SMM_LAN_ENABLED), 1);
    std::vector<IpmiEvent> expected = StatusRead();
    Append(expected, Exchange(0xF1, {0x01}));
    EXPECT_EQ(fake.events, expected);
    EXPECT_EQ(Out(), Lines({kSendEnable}));
    EXPECT_EQ(Err(), Lines({kEnableTimeout}));
    EXPECT_TRUE(sleeps.empty());
}

TEST_F(SetLanStatusTest, AttemptsCountFromZeroToRetryCountMinusOne) {
    fake.QueueStatus(2);
    fake.QueueReply(0, {});
    for (int i = 0; i < 24; ++i) fake.QueueStatus(2);
    EXPECT_EQ(manager.SetLanStatus(SMM_LAN_ENABLED), 1);
    std::vector<std::string> lines = {kSendEnable};
    for (int attempt = 0; attempt < 24; ++attempt) {
        lines.push_back(Attempt(attempt));
        lines.emplace_back(kMiss);
    }
    EXPECT_EQ(Out(), Lines(lines));
    EXPECT_EQ(Err(), Lines({kEnableTimeout}));
    EXPECT_EQ(sleeps, std::vector<uint64_t>(24, 5000));
}

}  // namespace
}  // namespace smmlan_test
