// SPDX-License-Identifier: GPL-3.0-or-later
#include "host/MorvelConnect.h"

#include <gtest/gtest.h>

namespace {

using Plexum::PlexumConnection::ConnectionInfo;

UserContext WithBmc(const std::string& bmc) {
    UserContext context;
    context.options["bmc"] = bmc;
    return context;
}

TEST(MorvelConnect, OneRecordFromTheBmcOption) {
    std::vector<ConnectionInfo> list(3);
    const MorvelResult result = GetRESTConnectionList(WithBmc("admin:pa:ss@[2001:db8::7]:8443"), list);
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.message, "");
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].address, "2001:db8::7");
    EXPECT_EQ(list[0].port, 8443);
    EXPECT_EQ(list[0].username, "admin");
    EXPECT_EQ(list[0].password, "pa:ss");
    EXPECT_EQ(list[0].addressType, 1);
}

TEST(MorvelConnect, IpmiListIsTheSameTarget) {
    std::vector<ConnectionInfo> list;
    const MorvelResult result = FetchIPMIConnectionList(WithBmc("root:pw@10.0.0.9"), list);
    EXPECT_EQ(result.code, 0);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].address, "10.0.0.9");
    EXPECT_EQ(list[0].port, 443);
    EXPECT_EQ(list[0].username, "root");
    EXPECT_EQ(list[0].password, "pw");
    EXPECT_EQ(list[0].addressType, 0);
}

TEST(MorvelConnect, MissingBmc) {
    std::vector<ConnectionInfo> list(1);
    UserContext context;
    context.options["method"] = "dhcp";
    for (const MorvelResult& result : {GetRESTConnectionList(context, list), FetchIPMIConnectionList(context, list)}) {
        EXPECT_EQ(result.code, 5);
        EXPECT_EQ(result.message, "Invalid parameter: option --bmc is missing.");
        EXPECT_TRUE(list.empty());
    }
}

TEST(MorvelConnect, MalformedBmc) {
    std::vector<ConnectionInfo> list(1);
    const MorvelResult result = FetchIPMIConnectionList(WithBmc("admin:topsecret@host:0"), list);
    EXPECT_EQ(result.code, 5);
    EXPECT_EQ(result.message, "Invalid parameter: --bmc: invalid port; it must be a number from 1 to 65535.");
    EXPECT_TRUE(list.empty());
    const MorvelResult rest = GetRESTConnectionList(WithBmc("admin:topsecret"), list);
    EXPECT_EQ(rest.code, 5);
    EXPECT_EQ(rest.message,
              "Invalid parameter: --bmc: no '@' before the host; expected USER[:PASSWORD]@HOST[:PORT].");
}

}  // namespace
