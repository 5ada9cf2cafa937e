// SPDX-License-Identifier: GPL-3.0-or-later
#include "host/RunContext.h"

#include <gtest/gtest.h>

#include <chrono>
#include <iostream>
#include <sstream>
#include <thread>

#include "support/LogCapture.h"
#include "host/ConsoleReport.h"
#include "host/Log.h"

namespace {

using Plexum::RunContext;
using Plexum::RunInterrupted;
using Plexum::ScopedRunContext;
using Plexum::StopSignal;

// Standard output and error into strings for the test's duration.
class StandardStreams {
public:
    StandardStreams() : m_oldOut(std::cout.rdbuf(m_out.rdbuf())), m_oldErr(std::cerr.rdbuf(m_err.rdbuf())) {}
    ~StandardStreams() {
        std::cout.rdbuf(m_oldOut);
        std::cerr.rdbuf(m_oldErr);
    }
    StandardStreams(const StandardStreams&) = delete;
    StandardStreams& operator=(const StandardStreams&) = delete;
    std::string Out() const { return m_out.str(); }
    std::string Err() const { return m_err.str(); }

private:
    std::ostringstream m_out;
    std::ostringstream m_err;
    std::streambuf* m_oldOut;
    std::streambuf* m_oldErr;
};

double SecondsOf(const std::function<void()>& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

TEST(RunContext, WithoutOneInstalledLinesGoStraightToTheStreams) {
    StandardStreams streams;
    { ConsoleReport(3, "src/x", 1).Stream() << "out\n"; }
    { ConsoleReport(1, "src/x", 2).Stream() << "err"; }
    EXPECT_EQ(streams.Out(), "out\n\n");
    EXPECT_EQ(streams.Err(), "err\n");
    EXPECT_EQ(RunContext::Current().Label(), "");
}

TEST(RunContext, AnInstalledOneKeepsTheLinesAndLabelsTheRecords) {
    MorvelTest::LogCapture log(3);
    StandardStreams streams;
    RunContext run("smm07:8443", nullptr);
    {
        ScopedRunContext installed(run);
        { ConsoleReport(3, "src/x", 1).Stream() << "out\n"; }
        { ConsoleReport(1, "src/x", 2).Stream() << "err"; }
    }
    { ConsoleReport(3, "src/x", 3).Stream() << "after"; }
    EXPECT_EQ(streams.Out(), "after\n");
    EXPECT_EQ(streams.Err(), "");
    ASSERT_EQ(run.ConsoleLines().size(), 2u);
    EXPECT_EQ((std::vector<std::pair<bool, std::string>>{{run.ConsoleLines()[0].error, run.ConsoleLines()[0].text},
                                                         {run.ConsoleLines()[1].error, run.ConsoleLines()[1].text}}),
              (std::vector<std::pair<bool, std::string>>{{false, "out\n"}, {true, "err"}}));
    const auto records = log.Records();
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0].target, "smm07:8443");
    EXPECT_EQ(records[1].target, "smm07:8443");
    EXPECT_EQ(records[2].target, "");
}

TEST(RunContext, EachThreadHasItsOwn) {
    RunContext first("a", nullptr);
    RunContext second("b", nullptr);
    const auto write = [](RunContext& run, const char* text, int32_t seconds) {
        ScopedRunContext installed(run);
        for (int i = 0; i < 200; ++i) ConsoleReport(3, "src/x", i).Stream() << text << i;
        RunContext::Current().StartupWaitSeconds() = seconds;
    };
    std::thread one(write, std::ref(first), "a", 11);
    std::thread two(write, std::ref(second), "b", 22);
    one.join();
    two.join();
    ASSERT_EQ(first.ConsoleLines().size(), 200u);
    ASSERT_EQ(second.ConsoleLines().size(), 200u);
    for (int i = 0; i < 200; ++i) {
        EXPECT_EQ(first.ConsoleLines()[i].text, "a" + std::to_string(i));
        EXPECT_EQ(second.ConsoleLines()[i].text, "b" + std::to_string(i));
    }
    EXPECT_EQ(first.StartupWaitSeconds(), 11);
    EXPECT_EQ(second.StartupWaitSeconds(), 22);
}

TEST(RunContext, AStopEndsASleepAtOnce) {
    // A day's sleep: only the stop can end it (a sleep it did not end would run
    // into CTest's time-out), whether it comes before the sleep starts or during it.
    constexpr uint64_t kADay = 24ULL * 60 * 60 * 1000;
    StopSignal stop;
    RunContext run("t", &stop);
    std::thread stopper([&stop] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        stop.Request();
    });
    bool interrupted = false;
    try {
        run.Sleep(kADay);
    } catch (const RunInterrupted&) {
        interrupted = true;
    }
    stopper.join();
    EXPECT_TRUE(interrupted);
    // Once stopped, every later wait ends before it starts.
    EXPECT_THROW(run.Sleep(kADay), RunInterrupted);
    EXPECT_THROW(run.InterruptionPoint(), RunInterrupted);
}

TEST(RunContext, SleepsRunTheirLengthWithoutAStop) {
    StopSignal stop;
    RunContext stoppable("t", &stop);
    EXPECT_GE(SecondsOf([&] { stoppable.Sleep(50); }), 0.045);
    EXPECT_NO_THROW(stoppable.InterruptionPoint());
    RunContext direct;
    EXPECT_GE(SecondsOf([&] { direct.Sleep(50); }), 0.045);
    stop.Request();
    // The direct context has no stop: nothing ends it early.
    EXPECT_NO_THROW(direct.InterruptionPoint());
}

TEST(RunContext, WhatTheManagersNote) {
    RunContext run("t", nullptr);
    EXPECT_EQ(run.ServedBy(), Plexum::Protocol::None);
    EXPECT_EQ(run.State().network, Plexum::NetworkState::Unread);
    EXPECT_FALSE(run.State().ipmiOverLan.has_value());
    EXPECT_FALSE(run.State().ipv4.has_value());
    EXPECT_FALSE(run.ChangeSent());

    const std::pair<uint8_t, std::pair<Plexum::NetworkState, std::optional<bool>>> statuses[] = {
        {1, {Plexum::NetworkState::Enabled, false}},
        {2, {Plexum::NetworkState::Disabled, false}},
        {4, {Plexum::NetworkState::Enabled, true}},
        {0, {Plexum::NetworkState::Unknown, std::nullopt}},
        {3, {Plexum::NetworkState::Unknown, std::nullopt}},
    };
    for (const auto& status : statuses) {
        run.NoteLanStatus(status.first);
        EXPECT_EQ(run.State().network, status.second.first) << int(status.first);
        EXPECT_EQ(run.State().ipmiOverLan, status.second.second) << int(status.first);
    }
    run.NoteNetwork(true);
    run.NoteIpmiOverLan(true);
    run.NoteIpv4("192.0.2.9");
    run.NoteProtocol(Plexum::Protocol::Redfish);
    run.NoteChangeSent();
    EXPECT_EQ(run.State().network, Plexum::NetworkState::Enabled);
    EXPECT_EQ(run.State().ipmiOverLan, true);
    EXPECT_EQ(run.State().ipv4, "192.0.2.9");
    EXPECT_EQ(run.ServedBy(), Plexum::Protocol::Redfish);
    EXPECT_TRUE(run.ChangeSent());
}

}  // namespace
