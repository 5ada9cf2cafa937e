// SPDX-License-Identifier: GPL-3.0-or-later
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "common/result/FixedMessages.h"
#include "common/result/Result.h"
#include "common/result/ResultCodes.h"
#include "host/MorvelResult.h"

namespace {

std::string Printed(const MorvelResult& result) {
    std::ostringstream out;
    out << result;
    return out.str();
}

TEST(ResultRegistryTest, KindZeroCodeEqualsItsNumber) {
    EXPECT_EQ(RegisterResult(0, 5, "Invalid parameter."), 5);
    EXPECT_EQ(GetResultMessage(5), "Invalid parameter.");
}

TEST(ResultRegistryTest, KindIsHeldAboveBitSixteen) {
    EXPECT_EQ(RegisterResult(24, 113, "The RAID controller does not support this operation."), 0x180071);
    EXPECT_EQ(GetResultMessage(0x180071), "The RAID controller does not support this operation.");
    EXPECT_EQ(LookupRegisteredMessage(0x180071, 24), "The RAID controller does not support this operation.");
}

TEST(ResultRegistryTest, RegisteringAgainReplacesTheMessage) {
    EXPECT_EQ(RegisterResult(24, 117, "first text"), 0x180075);
    EXPECT_EQ(RegisterResult(24, 117, "second text"), 0x180075);
    EXPECT_EQ(GetResultMessage(0x180075), "second text");

    EXPECT_EQ(RegisterResult(0, 201, "general first"), 201);
    EXPECT_EQ(RegisterResult(0, 201, "general second"), 201);
    EXPECT_EQ(GetResultMessage(201), "general second");
}

TEST(ResultRegistryTest, MessageIsCopied) {
    char text[] = "copied text";
    const int code = RegisterResult(0, 202, text);
    text[0] = 'X';
    ASSERT_STREQ(text, "Xopied text");
    EXPECT_EQ(GetResultMessage(code), "copied text");
}

TEST(ResultRegistryTest, UnregisteredKindZeroNumberIsUnknow) {
    EXPECT_EQ(GetResultMessage(203), "Unknow error");
    EXPECT_EQ(LookupRegisteredMessage(203, 0), "Unknow error");
    // A lookup inserts nothing: asking again still finds nothing.
    EXPECT_EQ(GetResultMessage(203), "Unknow error");
}

TEST(ResultRegistryTest, CodesWithBitsEightToFifteenComeFromTheFixedTable) {
    EXPECT_EQ(GetResultMessage(1537), "Firmware update failed. The update package could not be opened.");
    EXPECT_EQ(GetResultMessage(3086), "SMM update failed. The SMM did not report the new firmware version.");
}

TEST(ResultRegistryTest, FixedTableMissIsUnknownWithTheN) {
    EXPECT_EQ(GetResultMessage(300), "Unknown error");
    EXPECT_EQ(GetResultMessage(0x100), "Unknown error");
    EXPECT_EQ(GetResultMessage(-1), "Unknown error");
}

TEST(ResultRegistryTest, RegisteredCodeWithBitEightSetIsNotLookedUpInTheRegistry) {
    // The gate is on the code, not on what the registry holds.
    EXPECT_EQ(RegisterResult(0, 0x1FF, "never reached"), 0x1FF);
    EXPECT_EQ(GetResultMessage(0x1FF), "Unknown error");
    EXPECT_EQ(LookupRegisteredMessage(0x1FF, 0), "never reached");
}

TEST(ResultRegistryTest, KindRowIsFoundOnlyUnderItsKind) {
    const int code = RegisterResult(3, 121, "The diagnostic test could not be started.");
    EXPECT_EQ(code, (3 << 16) | 121);
    EXPECT_EQ(GetResultMessage((3 << 16) | 121), "The diagnostic test could not be started.");
    // The same number under a kind that has no such row.
    EXPECT_EQ(GetResultMessage((5 << 16) | 121), "Unknow error");
    EXPECT_EQ(GetResultMessage((24 << 16) | 121), "Unknow error");
    // The inner map is keyed by the whole code, so the bare number is not there.
    EXPECT_EQ(LookupRegisteredMessage(121, 3), "Unknow error");
    // The kind given to the lookup decides which map is searched.
    EXPECT_EQ(LookupRegisteredMessage((3 << 16) | 121, 4), "Unknow error");
}

TEST(ResultRegistryTest, GeneralMapIsSearchedBeforeTheKindMaps) {
    EXPECT_EQ(LookupRegisteredMessage(5, 3), "Invalid parameter.");
}

TEST(ResultRegistryTest, NegativeKindGoesToTheGeneralMap) {
    const int code = RegisterResult(-1, 7, "negative kind");
    EXPECT_EQ(code, static_cast<int>(0xFFFF0007u));
    EXPECT_EQ(LookupRegisteredMessage(code, 42), "negative kind");
    EXPECT_EQ(GetResultMessage(code), "negative kind");
}

TEST(ResultRegistryTest, ModuleCodesAndTheirMessages) {
    EXPECT_EQ(RESULT_SUCCEED, 0);
    EXPECT_EQ(RESULT_GENERIC_FAILURE, 1);
    EXPECT_EQ(RESULT_INVALID_COMMAND, 4);
    EXPECT_EQ(RESULT_INVALID_PARAMETER, 5);
    EXPECT_EQ(RESULT_CONNECTION_FAILED, 13);
    EXPECT_EQ(RESULT_INTERNAL_ERROR, 17);
    EXPECT_EQ(RESULT_TIMEOUT, 18);
    EXPECT_EQ(RESULT_ENABLE_IPMI_FAILED, 64);
    static_assert(RESULT_AUTHENTICATION_FAILED == 2054, "a fixed-table code, pinned at compile time");

    EXPECT_EQ(GetResultMessage(0), "Succeed.");
    EXPECT_EQ(GetResultMessage(1), "Generic Failure.");
    EXPECT_EQ(GetResultMessage(4), "Invalid command.");
    EXPECT_EQ(GetResultMessage(5), "Invalid parameter.");
    EXPECT_EQ(GetResultMessage(13), "Connection failed.");
    EXPECT_EQ(GetResultMessage(17), "Internal error.");
    EXPECT_EQ(GetResultMessage(18), "Timeout.");
    EXPECT_EQ(GetResultMessage(64),
              "Failed to enable SMM IPMI over LAN, please confirm whether the target system supports.");
    EXPECT_EQ(GetResultMessage(2054), "Authentication failed. For instance, user name or password error.");
}

TEST(ResultRegistryTest, ResultsCompareOnTheLowSixteenBits) {
    EXPECT_TRUE(MorvelResult(0x10000) == RESULT_SUCCEED);
    EXPECT_FALSE(MorvelResult(0x10000) != RESULT_SUCCEED);
    EXPECT_TRUE(MorvelResult(0x180000) == MorvelResult(0));
    EXPECT_TRUE(MorvelResult(0x30005) == MorvelResult(5));
    EXPECT_FALSE(MorvelResult(0x10001) == RESULT_SUCCEED);
    EXPECT_TRUE(MorvelResult(1) != RESULT_SUCCEED);
    EXPECT_TRUE(MorvelResult(0x180071) == 113);
}

TEST(ResultRegistryTest, PrintingShowsTheLowSixteenBitsAndTheRegisteredMessage) {
    RegisterResult(24, 113, "The RAID controller does not support this operation.");
    EXPECT_EQ(Printed(MorvelResult(0x180071)), "113 The RAID controller does not support this operation.");
    EXPECT_EQ(Printed(MorvelResult(13)), "13 Connection failed.");
    EXPECT_EQ(Printed(MorvelResult(RESULT_AUTHENTICATION_FAILED)),
              "2054 Authentication failed. For instance, user name or password error.");
    EXPECT_EQ(Printed(MorvelResult(-1)), "65535 Unknown error");
}

TEST(ResultRegistryTest, PrintingPrefersTheResultsOwnMessage) {
    EXPECT_EQ(Printed(MorvelResult(13, "Own text.")), "13 Own text.");
    EXPECT_EQ(MorvelResult(13, "Own text.").Message(), "Own text.");
    EXPECT_EQ(MorvelResult(13).Message(), "Connection failed.");
}

}  // namespace
