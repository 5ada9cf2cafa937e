// SPDX-License-Identifier: GPL-3.0-or-later
#include "fleet/Guards.h"

#include <gtest/gtest.h>

#include "LabelledTargets.h"

namespace {

using Fleet::FailureBudget;
using Fleet::GuardLimits;
using Fleet::Guards;

TEST(FailureBudget, Grammar) {
    const auto count = FailureBudget::Parse("3");
    ASSERT_TRUE(count);
    EXPECT_FALSE(count->percent);
    EXPECT_EQ(count->count, 3u);
    EXPECT_EQ(count->written, "3");
    EXPECT_EQ(FailureBudget::Parse("0")->count, 0u);
    EXPECT_EQ(FailureBudget::Parse("1000000")->count, 1000000u);
    const auto percent = FailureBudget::Parse("2.5%");
    ASSERT_TRUE(percent);
    EXPECT_TRUE(percent->percent);
    EXPECT_EQ(percent->hundredths, 250u);
    EXPECT_EQ(FailureBudget::Parse("10%")->hundredths, 1000u);
    EXPECT_EQ(FailureBudget::Parse("0.05%")->hundredths, 5u);
    EXPECT_EQ(FailureBudget::Parse("100%")->hundredths, 10000u);
    EXPECT_EQ(FailureBudget::Parse("007")->count, 7u);
    for (const char* bad : {"", "-1", "+1", "1000001", "3 ", " 3", "3.5", "%", "100.01%", "101%", "1.234%", "5.%",
                            ".5%", "5%%", "1e3", "0x10", "five", "10 %", "99999999999999999999"}) {
        EXPECT_FALSE(FailureBudget::Parse(bad)) << bad;
    }
}

TEST(FailureBudget, ACountAllowsThatMany) {
    const FailureBudget two = *FailureBudget::Parse("2");
    EXPECT_FALSE(two.Exceeded(2, 2));
    EXPECT_TRUE(two.Exceeded(3, 3));
    EXPECT_TRUE(FailureBudget::Parse("0")->Exceeded(1, 1));
    EXPECT_FALSE(FailureBudget::Parse("0")->Exceeded(0, 5));
}

TEST(FailureBudget, APercentageIsJudgedFromTenEnded) {
    const FailureBudget tenth = *FailureBudget::Parse("10%");
    EXPECT_FALSE(tenth.Exceeded(9, 9));  // too few ended to tell
    EXPECT_FALSE(tenth.Exceeded(1, 10));
    EXPECT_TRUE(tenth.Exceeded(2, 10));
    EXPECT_FALSE(tenth.Exceeded(10, 100));
    EXPECT_TRUE(tenth.Exceeded(11, 100));
    EXPECT_TRUE(FailureBudget::Parse("0%")->Exceeded(1, 10));
    EXPECT_FALSE(FailureBudget::Parse("100%")->Exceeded(10, 10));
    EXPECT_TRUE(FailureBudget::Parse("2.5%")->Exceeded(1, 39));
    EXPECT_FALSE(FailureBudget::Parse("2.5%")->Exceeded(1, 40));
}

TEST(Guards, NoneByDefault) {
    const auto targets = FleetTest::LabelledTargets(5);
    Guards guards(GuardLimits{}, targets);
    for (size_t i = 0; i < 5; ++i) EXPECT_TRUE(guards.MayStart(i, 1000));
    for (size_t i = 0; i < 5; ++i) guards.Ended(i, false, true);
    EXPECT_FALSE(guards.StoppedBy());
}

TEST(Guards, LockOutTriesNoMoreThanMayBeRefused) {
    const auto targets = FleetTest::LabelledTargets(10);
    Guards guards(GuardLimits{3, 0, std::nullopt, "the credentials file"}, targets);
    EXPECT_TRUE(guards.MayStart(0, 0));
    EXPECT_TRUE(guards.MayStart(2, 2));
    EXPECT_FALSE(guards.MayStart(3, 3));
    guards.Ended(0, false, true);  // refused: one try used up for good
    EXPECT_FALSE(guards.MayStart(3, 2));
    guards.Ended(1, false, false);  // failed otherwise: its place is free again
    EXPECT_TRUE(guards.MayStart(3, 1));
    EXPECT_FALSE(guards.MayStart(4, 2));
    guards.Ended(2, false, true);
    guards.Ended(3, false, true);
    ASSERT_TRUE(guards.StoppedBy());
    EXPECT_EQ(*guards.StoppedBy(),
              "3 SMMs refused the user or password and none accepted them: no other SMM is started, so that no "
              "account gets locked; check the user and the password from the credentials file");
    EXPECT_FALSE(guards.MayStart(4, 0));
}

TEST(Guards, OneAcceptanceOpensTheRunForGood) {
    const auto targets = FleetTest::LabelledTargets(10);
    Guards guards(GuardLimits{3, 0, std::nullopt, "--bmc"}, targets);
    guards.Ended(0, false, true);
    guards.CredentialsAccepted();
    EXPECT_TRUE(guards.MayStart(1, 63));
    // Per-SMM passwords: some refusals are expected once one SMM took its own.
    for (size_t i = 1; i < 10; ++i) guards.Ended(i, false, true);
    EXPECT_FALSE(guards.StoppedBy());
}

TEST(Guards, CanariesRunAloneAndTheRestOnlyIfAllSucceeded) {
    const auto targets = FleetTest::LabelledTargets(6);
    Guards guards(GuardLimits{0, 2, std::nullopt, ""}, targets);
    EXPECT_TRUE(guards.MayStart(0, 0));
    EXPECT_TRUE(guards.MayStart(1, 1));
    EXPECT_FALSE(guards.MayStart(2, 0));
    guards.Ended(1, true, false);
    EXPECT_FALSE(guards.MayStart(2, 1));
    guards.Ended(0, true, false);
    EXPECT_TRUE(guards.MayStart(2, 0));
    EXPECT_FALSE(guards.StoppedBy());

    Guards failing(GuardLimits{0, 2, std::nullopt, ""}, targets);
    failing.Ended(0, false, false);
    EXPECT_FALSE(failing.StoppedBy());  // the other canary runs to its end
    failing.Ended(1, false, false);
    ASSERT_TRUE(failing.StoppedBy());
    EXPECT_EQ(*failing.StoppedBy(), "the canary did not succeed on t0, t1: no other SMM is started");
    EXPECT_FALSE(failing.MayStart(2, 0));
}

TEST(Guards, MoreCanariesThanTargetsAreAllOfThem) {
    const auto targets = FleetTest::LabelledTargets(2);
    Guards guards(GuardLimits{0, 5, std::nullopt, ""}, targets);
    guards.Ended(0, true, false);
    guards.Ended(1, false, false);
    ASSERT_TRUE(guards.StoppedBy());
    EXPECT_EQ(*guards.StoppedBy(), "the canary did not succeed on t1: no other SMM is started");
}

TEST(Guards, FailureBudgetStopsOnceExceeded) {
    const auto targets = FleetTest::LabelledTargets(20);
    Guards count(GuardLimits{0, 0, FailureBudget::Parse("2"), ""}, targets);
    count.Ended(0, false, false);
    count.Ended(1, true, false);
    count.Ended(2, false, false);
    EXPECT_FALSE(count.StoppedBy());
    count.Ended(3, false, false);
    ASSERT_TRUE(count.StoppedBy());
    EXPECT_EQ(*count.StoppedBy(), "3 SMMs failed, more than --max-failures 2 allows: no other SMM is started");

    Guards percent(GuardLimits{0, 0, FailureBudget::Parse("20%"), ""}, targets);
    for (size_t i = 0; i < 3; ++i) percent.Ended(i, false, false);
    EXPECT_FALSE(percent.StoppedBy());  // 3 of 3, but too few ended to judge
    for (size_t i = 3; i < 10; ++i) percent.Ended(i, true, false);
    ASSERT_TRUE(percent.StoppedBy());
    EXPECT_EQ(*percent.StoppedBy(),
              "3 of the 10 SMMs ended so far failed, more than --max-failures 20% allows: no other SMM is started");
}

}  // namespace
