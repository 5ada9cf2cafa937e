// SPDX-License-Identifier: GPL-3.0-or-later
// The scheduler with real worker threads: every wait here is on a condition the
// test sets itself, never on a clock.
#include "fleet/Scheduler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "LabelledTargets.h"

namespace {

using Fleet::GuardLimits;
using Fleet::Scheduler;
using Plexum::CredentialsVerdict;

// Workers that pause in their run until the test lets them go on.
class Pool {
public:
    Pool(size_t targets, Scheduler::Limits limits, GuardLimits guards = GuardLimits())
        : m_targets(FleetTest::LabelledTargets(targets)),
          m_scheduler(targets, limits, std::move(guards), m_targets, [this] { Spawn(); }, [this] { Done(); }) {}
    ~Pool() {
        Release();
        for (std::thread& thread : m_threads) thread.join();
    }

    Scheduler& Get() { return m_scheduler; }

    // Waits until `count` targets started (they then wait in a pause); the
    // ones started, sorted: threads report their starts in any order.
    std::vector<size_t> WaitForStarts(size_t count) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [&] { return m_started.size() >= count; });
        std::vector<size_t> started = m_started;
        std::sort(started.begin(), started.end());
        return started;
    }
    void Release() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_released = true;
        m_changed.notify_all();
    }
    void WaitUntilDone() {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [&] { return m_done; });
    }
    size_t Threads() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_threads.size();
    }
    bool failEven = false;  // targets at even places fail

private:
    // Called under the scheduler's lock.
    void Spawn() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_threads.emplace_back([this] { Work(); });
    }
    void Done() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_done = true;
        m_changed.notify_all();
    }
    void Work() {
        bool arriving = true;
        while (const std::optional<size_t> index = m_scheduler.Take(arriving)) {
            arriving = false;
            m_scheduler.Pausing();
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_started.push_back(*index);
                m_changed.notify_all();
                m_changed.wait(lock, [&] { return m_released; });
            }
            m_scheduler.Resuming();
            m_scheduler.Ended(*index, !(failEven && *index % 2 == 0), false, CredentialsVerdict::Accepted);
        }
    }

    std::vector<Fleet::Target> m_targets;
    Scheduler m_scheduler;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<std::thread> m_threads;
    std::vector<size_t> m_started;
    bool m_released = false;
    bool m_done = false;
};

TEST(Scheduler, APausedTargetGivesItsPlaceUp) {
    Pool pool(5, Scheduler::Limits{1, 16});
    pool.Get().AllReady();
    // With a fan-out of one, all five start while the others pause.
    EXPECT_EQ(pool.WaitForStarts(5), (std::vector<size_t>{0, 1, 2, 3, 4}));
    pool.Release();
    pool.WaitUntilDone();
    EXPECT_EQ(pool.Get().NotStarted(), std::vector<size_t>{});
    EXPECT_EQ(pool.Get().Now().done, 5u);
    EXPECT_LE(pool.Threads(), 5u);
}

TEST(Scheduler, InFlightIsBoundedPausedOnesIncluded) {
    Pool pool(5, Scheduler::Limits{1, 2});
    pool.Get().AllReady();
    EXPECT_EQ(pool.WaitForStarts(2), (std::vector<size_t>{0, 1}));
    EXPECT_EQ(pool.Get().Now().running, 2u);  // the other three wait for a place in flight
    pool.Release();
    pool.WaitUntilDone();
    EXPECT_EQ(pool.Get().Now().done, 5u);
    EXPECT_LE(pool.Threads(), 2u);
}

TEST(Scheduler, DetectionDecidesWhatStartsAndUnreachableOnesFail) {
    Pool pool(4, Scheduler::Limits{4, 16});
    pool.Get().Answered(2);
    EXPECT_EQ(pool.WaitForStarts(1), std::vector<size_t>{2});
    EXPECT_FALSE(pool.Get().Unreachable(0));
    pool.Get().Answered(3);
    pool.Get().Answered(1);
    EXPECT_EQ(pool.WaitForStarts(3), (std::vector<size_t>{1, 2, 3}));
    pool.Release();
    pool.WaitUntilDone();
    EXPECT_EQ(pool.Get().Now().done, 4u);
    EXPECT_EQ(pool.Get().Now().failed, 1u);
}

TEST(Scheduler, AStopLeavesTheRestUnstarted) {
    Pool pool(4, Scheduler::Limits{4, 16});
    pool.Get().Answered(0);
    EXPECT_EQ(pool.WaitForStarts(1), std::vector<size_t>{0});
    pool.Get().Stop();
    pool.Get().Answered(1);  // too late: nothing starts after a stop
    pool.Release();
    pool.WaitUntilDone();
    EXPECT_EQ(pool.Get().NotStarted(), (std::vector<size_t>{1, 2, 3}));
}

TEST(Scheduler, AFailedCanaryStopsTheRun) {
    Pool pool(6, Scheduler::Limits{6, 16}, GuardLimits{0, 2, std::nullopt, ""});
    pool.failEven = true;
    pool.Get().AllReady();
    // Only the two canaries start, whatever the fan-out.
    EXPECT_EQ(pool.WaitForStarts(2), (std::vector<size_t>{0, 1}));
    pool.Release();
    pool.WaitUntilDone();
    EXPECT_EQ(pool.Get().NotStarted(), (std::vector<size_t>{2, 3, 4, 5}));
    ASSERT_TRUE(pool.Get().StoppedBy());
    EXPECT_EQ(*pool.Get().StoppedBy(), "the canary did not succeed on t0: no other SMM is started");
}

TEST(Scheduler, NothingToRunIsDoneAtOnce) {
    Pool pool(2, Scheduler::Limits{4, 16});
    EXPECT_FALSE(pool.Get().Unreachable(0));
    EXPECT_FALSE(pool.Get().Unreachable(1));
    pool.WaitUntilDone();
    EXPECT_EQ(pool.Threads(), 0u);
    EXPECT_EQ(pool.Get().Now().failed, 2u);
}

}  // namespace
