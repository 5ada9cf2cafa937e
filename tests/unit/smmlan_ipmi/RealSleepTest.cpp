// SPDX-License-Identifier: GPL-3.0-or-later
#include <chrono>

#include "ManagerTest.h"
#include "host/GlobalConfig.h"
#include "host/RunContext.h"

namespace smmlan_test {
namespace {

using RealSleepTest = ManagerTest;

// Without a sleep function the manager really pauses the calling thread for
// the configured interval.
TEST_F(RealSleepTest, DefaultSleepPausesForTheConfiguredSeconds) {
    Plexum::GlobalConfig::SetItem("SMM_NETWORK_CHECK_RETRY_COUNT", "1");
    Plexum::GlobalConfig::SetItem("SMM_NETWORK_CHECK_SLEEP_TIME", "1");
    SmmLanManager sleeping(&fake);
    fake.QueueStatus(2);
    fake.QueueReply(0, {});
    fake.QueueStatus(2);

    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(sleeping.SetLanStatus(SMM_LAN_ENABLED), 1);
    const auto elapsed = std::chrono::steady_clock::now() - start;

    EXPECT_GE(elapsed, std::chrono::milliseconds(1000));
    EXPECT_TRUE(sleeps.empty());
    EXPECT_EQ(Err(), "Execute command to enable smm network success but wait status change timeout\n");
}

// A pause of zero seconds is a zero-millisecond sleep (WaitConfigTest), which
// the run's sleep does not pause for.
TEST_F(RealSleepTest, TheDefaultSleepIsTheRunsOwnThatAStopEnds) {
    // A day between checks: only the run's stop can end that pause.
    Plexum::GlobalConfig::SetItem("SMM_NETWORK_CHECK_RETRY_COUNT", "3");
    Plexum::GlobalConfig::SetItem("SMM_NETWORK_CHECK_SLEEP_TIME", "86400");
    Plexum::StopSignal stop;
    Plexum::RunContext run("smm1", &stop);
    Plexum::ScopedRunContext installed(run);
    SmmLanManager sleeping(&fake);
    fake.QueueStatus(2);
    fake.QueueReply(0, {});
    fake.QueueStatus(2);
    stop.Request();
    EXPECT_THROW(sleeping.SetLanStatus(SMM_LAN_ENABLED), Plexum::RunInterrupted);
    EXPECT_TRUE(sleeps.empty());
}

}  // namespace
}  // namespace smmlan_test
