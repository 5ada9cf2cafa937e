// SPDX-License-Identifier: GPL-3.0-or-later
// A change counts as sent once its request went out to the SMM, whatever
// came back: the run's record says so before the answer is known, also when
// the SMM refuses it with a completion code.
#include <functional>
#include <vector>

#include "ManagerTest.h"
#include "host/GlobalConfig.h"
#include "host/RunContext.h"

namespace smmlan_test {
namespace {

class ChangeSentTest : public ManagerTest {
protected:
    bool Sent() const { return run.ChangeSent(); }

    // A run of its own, so that no other test's change shows here.
    Plexum::RunContext run;
    Plexum::ScopedRunContext installed{run};
};

TEST_F(ChangeSentTest, ARefusedOrUnansweredChangeWasStillSent) {
    struct Case {
        const char* what;
        std::vector<ScriptedReply> replies;
        std::function<int32_t(SmmLanManager&)> change;
        int32_t result;
        std::vector<bool> notedAtSend;  // the status read before a switch goes out unnoted
    };
    const Case cases[] = {
        {"refused switch", {{0, {2}}, {0xC1, {}}}, [](SmmLanManager& m) { return m.SetLanStatus(SMM_LAN_ENABLED); }, 1,
         {false, true}},
        {"unanswered switch", {{0, {1}}, {Plexum::IpmiClient::kNoReply, {}}},
         [](SmmLanManager& m) { return m.SetLanStatus(SMM_LAN_DISABLED); }, 1, {false, true}},
        {"refused address method", {{0xD5, {}}}, [](SmmLanManager& m) { return m.SetIpObtainMethod(IP_OBTAIN_DHCP); },
         0, {true}},
        {"refused IPMI over LAN switch", {{0, {1}}, {0xC1, {}}},
         [](SmmLanManager& m) { return m.SetIpmiOverLanStatus(SMM_LAN_AND_IPMI_ENABLED); }, 64, {false, true}},
    };
    for (const Case& c : cases) {
        ClearCaptured();
        fake.changeSentAtSend.clear();
        fake.replies.assign(c.replies.begin(), c.replies.end());
        Plexum::RunContext own;
        Plexum::ScopedRunContext ownInstalled(own);
        EXPECT_EQ(c.change(manager), c.result) << c.what;
        EXPECT_TRUE(own.ChangeSent()) << c.what;
        EXPECT_EQ(fake.changeSentAtSend, c.notedAtSend) << c.what;
        EXPECT_EQ(Out(), "") << c.what;
    }
}

TEST_F(ChangeSentTest, AnAcceptedLanSwitchIsNotedBeforeItsAnswer) {
    Plexum::GlobalConfig::SetItem("SMM_NETWORK_CHECK_SLEEP_TIME", "0");
    fake.QueueStatus(2);
    fake.QueueReply(0, {});
    fake.QueueStatus(1);
    EXPECT_EQ(manager.SetLanStatus(SMM_LAN_ENABLED), 0);
    EXPECT_TRUE(Sent());
    EXPECT_EQ(fake.changeSentAtSend, (std::vector<bool>{false, true, true}));
}

TEST_F(ChangeSentTest, NoSessionNoChange) {
    fake.QueueStatus(2);
    fake.QueueOpen(0);
    fake.QueueOpen(Plexum::IpmiClient::kOpenFailed);
    EXPECT_EQ(manager.SetLanStatus(SMM_LAN_ENABLED), 13);
    EXPECT_FALSE(Sent());
    EXPECT_EQ(fake.changeSentAtSend, (std::vector<bool>{false}));
}

TEST_F(ChangeSentTest, AStatusAlreadyWantedSendsNoChange) {
    fake.QueueStatus(1);
    EXPECT_EQ(manager.SetLanStatus(SMM_LAN_ENABLED), 0);
    EXPECT_FALSE(Sent());
}

TEST_F(ChangeSentTest, AnUnchangedAddressMethodSendsNothing) {
    EXPECT_EQ(manager.SetIpObtainMethod(IP_OBTAIN_UNCHANGED), 0);
    EXPECT_FALSE(Sent());
    EXPECT_EQ(fake.events, std::vector<IpmiEvent>{});
}

TEST_F(ChangeSentTest, ARefusedEnableReportsItsFailureAndTheChangeSent) {
    // The whole subcommand: the method and the switch both refused.
    fake.QueueReply(0xC1, {});
    fake.QueueStatus(2);
    fake.QueueReply(0xC1, {});
    EXPECT_EQ(manager.Enable(IP_OBTAIN_STATIC), 1);
    EXPECT_TRUE(Sent());
    EXPECT_EQ(fake.changeSentAtSend, (std::vector<bool>{true, true, true}));
    EXPECT_EQ(Out(), Lines({"************Enable Result************", "", "Enable SMM network failed.",
                            "    Error msg: Generic Failure.", "", "************Enable Result************"}));
}

}  // namespace
}  // namespace smmlan_test
