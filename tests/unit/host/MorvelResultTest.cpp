// SPDX-License-Identifier: GPL-3.0-or-later
#include "host/MorvelResult.h"

#include <gtest/gtest.h>

#include <sstream>

#include "common/result/ResultCodes.h"
#include "host/ExitStatus.h"

namespace {

std::string Printed(const MorvelResult& result) {
    std::ostringstream out;
    out << result;
    return out.str();
}

TEST(MorvelResult, PrintsTheRegisteredMessage) {
    EXPECT_EQ(Printed(MorvelResult(0)), "0 Succeed.");
    EXPECT_EQ(Printed(MorvelResult(RESULT_CONNECTION_FAILED)), "13 Connection failed.");
    EXPECT_EQ(Printed(MorvelResult(5, "")), "5 Invalid parameter.");
    EXPECT_EQ(Printed(MorvelResult(RESULT_AUTHENTICATION_FAILED)),
              "2054 Authentication failed. For instance, user name or password error.");
}

TEST(MorvelResult, PrintsItsOwnMessage) {
    EXPECT_EQ(Printed(MorvelResult(5, "Invalid parameter: option --bmc is missing.")),
              "5 Invalid parameter: option --bmc is missing.");
    EXPECT_EQ(MorvelResult(5, "own").Message(), "own");
    EXPECT_EQ(MorvelResult(5).Message(), "Invalid parameter.");
}

TEST(MorvelResult, PrintsTheLowSixteenBits) {
    const int code = RegisterResult(24, 113, "RAID row for the test.");
    EXPECT_EQ(code, 0x180071);
    EXPECT_EQ(Printed(MorvelResult(code)), "113 RAID row for the test.");
    EXPECT_EQ(Printed(MorvelResult(-1, "x")), "65535 x");
    EXPECT_EQ(Printed(MorvelResult(0x10000, "kind only")), "0 kind only");
}

TEST(MorvelResult, UnknownCodes) {
    EXPECT_EQ(Printed(MorvelResult(99)), "99 Unknow error");
    EXPECT_EQ(Printed(MorvelResult(300)), "300 Unknown error");
}

TEST(MorvelResult, EqualityOnTheLowSixteenBits) {
    EXPECT_TRUE(MorvelResult(0x10000) == RESULT_SUCCEED);
    EXPECT_FALSE(MorvelResult(0x10000) != RESULT_SUCCEED);
    EXPECT_TRUE(MorvelResult(0x10005) == MorvelResult(5, "other text"));
    EXPECT_FALSE(MorvelResult(0x10005) != MorvelResult(5));
    EXPECT_TRUE(MorvelResult(4) != MorvelResult(5));
    EXPECT_TRUE(MorvelResult(4) != 5);
    EXPECT_FALSE(MorvelResult(4) == 5);
    EXPECT_TRUE(MorvelResult(5) == 0x70005);
    EXPECT_TRUE(MorvelResult(-1) == 0xFFFF);
}

TEST(MorvelResult, Defaults) {
    const MorvelResult result;
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.message, "");
}

TEST(ExitStatus, ForCode) {
    EXPECT_EQ(Plexum::ExitStatusForCode(0), 0);
    EXPECT_EQ(Plexum::ExitStatusForCode(0x10000), 0);
    EXPECT_EQ(Plexum::ExitStatusForCode(5), 5);
    EXPECT_EQ(Plexum::ExitStatusForCode(0x180071), 113);
    EXPECT_EQ(Plexum::ExitStatusForCode(255), 255);
    EXPECT_EQ(Plexum::ExitStatusForCode(256), 255);
    EXPECT_EQ(Plexum::ExitStatusForCode(2054), 255);
    EXPECT_EQ(Plexum::ExitStatusForCode(0x2000100), 255);
    EXPECT_EQ(Plexum::ExitStatusForCode(-1), 255);
    EXPECT_EQ(Plexum::ExitStatusForCode(-65536), 0);
}

}  // namespace
