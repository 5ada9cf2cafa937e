// SPDX-License-Identifier: GPL-3.0-or-later
#include "ManagerTest.h"

namespace smmlan_test {
namespace {

using IpObtainMethodTest = ManagerTest;

TEST_F(IpObtainMethodTest, ParsesTheThreeMethodsAfterLowerCasing) {
    const std::pair<const char*, IpObtainMethod> cases[] = {
        {"static", IP_OBTAIN_STATIC},
        {"dhcp", IP_OBTAIN_DHCP},
        {"dhcp-failover", IP_OBTAIN_DHCP_FAILOVER},
        {"STATIC", IP_OBTAIN_STATIC},
        {"Dhcp", IP_OBTAIN_DHCP},
        {"DHCP-Failover", IP_OBTAIN_DHCP_FAILOVER},
    };
    for (const auto& entry : cases) {
        EXPECT_EQ(SmmLanManager::ParseIpObtainMethod(entry.first), entry.second) << entry.first;
    }
}

TEST_F(IpObtainMethodTest, AnythingElseLeavesTheMethodUnchanged) {
    const char* const others[] = {"", "dhcp ", " dhcp", "dhc", "dhcp-fail", "dhcpfailover", "dhcp_failover",
                                  "static\n", "1", "2", "3", "4", "none"};
    for (const char* text : others) {
        EXPECT_EQ(SmmLanManager::ParseIpObtainMethod(text), IP_OBTAIN_UNCHANGED) << '"' << text << '"';
    }
}

TEST_F(IpObtainMethodTest, LogsTheTextAsReceivedAndLeavesTheCallersTextAlone) {
    std::string callers = "DHCP-Failover";
    EXPECT_EQ(SmmLanManager::ParseIpObtainMethod(callers), IP_OBTAIN_DHCP_FAILOVER);
    EXPECT_EQ(callers, "DHCP-Failover");
    EXPECT_EQ(SmmLanManager::ParseIpObtainMethod(""), IP_OBTAIN_UNCHANGED);
    EXPECT_EQ(Records(), (std::vector<Record>{{3, "SMM lan ip obtained method:DHCP-Failover"},
                                              {3, "SMM lan ip obtained method:"}}));
    EXPECT_EQ(fake.events, std::vector<IpmiEvent>{});
    EXPECT_EQ(Out(), "");
    EXPECT_EQ(Err(), "");
}

TEST_F(IpObtainMethodTest, MethodZeroSendsNothing) {
    EXPECT_EQ(manager.SetIpObtainMethod(IP_OBTAIN_UNCHANGED), 0);
    EXPECT_EQ(fake.events, std::vector<IpmiEvent>{});
    EXPECT_EQ(Records(), (std::vector<Record>{{3, "Do not change ip obtained method."}}));
    EXPECT_EQ(Out(), "");
}

TEST_F(IpObtainMethodTest, EachMethodIsSentAsItsOwnByte) {
    const IpObtainMethod methods[] = {IP_OBTAIN_STATIC, IP_OBTAIN_DHCP, IP_OBTAIN_DHCP_FAILOVER};
    for (IpObtainMethod method : methods) {
        ClearCaptured();
        fake.QueueReply(0, {});
        EXPECT_EQ(manager.SetIpObtainMethod(method), 0);
        EXPECT_EQ(fake.events, Exchange(0xF3, {static_cast<uint8_t>(method)}));
        EXPECT_EQ(Records(), (std::vector<Record>{{3, "Start to set ip obtained method."},
                                                  {3, "set ip obtained method succeed."}}));
        EXPECT_EQ(Out(), "");
        EXPECT_EQ(Err(), "");
    }
}

TEST_F(IpObtainMethodTest, RefusedMethodIsLoggedButStillSucceeds) {
    fake.QueueReply(0xCC, {});
    EXPECT_EQ(manager.SetIpObtainMethod(IP_OBTAIN_DHCP), 0);
    EXPECT_EQ(fake.events, Exchange(0xF3, {0x02}));
    EXPECT_EQ(Records(), (std::vector<Record>{{3, "Start to set ip obtained method."},
                                              {1, "Failed to set smm lan method"},
                                              {3, "set ip obtained method succeed."}}));
    EXPECT_EQ(Out(), "");
    EXPECT_EQ(Err(), "");
}

TEST_F(IpObtainMethodTest, FailedOpenFailsTheOperationWithoutClose) {
    fake.QueueOpen(2);
    EXPECT_EQ(manager.SetIpObtainMethod(IP_OBTAIN_STATIC), 2054);
    EXPECT_EQ(fake.events, std::vector<IpmiEvent>{OpenEvent()});
    EXPECT_EQ(Records(), (std::vector<Record>{{3, "Start to set ip obtained method."}}));

    ClearCaptured();
    fake.QueueOpen(9);
    EXPECT_EQ(manager.SetIpObtainMethod(IP_OBTAIN_STATIC), 13);
    EXPECT_EQ(fake.events, std::vector<IpmiEvent>{OpenEvent()});
    EXPECT_EQ(Records(), (std::vector<Record>{{3, "Start to set ip obtained method."}}));
}

}  // namespace
}  // namespace smmlan_test
