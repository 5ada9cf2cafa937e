// SPDX-License-Identifier: GPL-3.0-or-later
#include "fleet/FleetReport.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

using Fleet::FleetSummary;
using Fleet::JsonLinesReport;
using Fleet::Target;
using Fleet::TargetOutcome;
using Fleet::TableReport;
using Fleet::TextReport;

std::vector<Target> Targets(const std::vector<std::string>& values) {
    std::vector<Target> targets;
    for (const std::string& value : values) {
        Target target;
        std::string error;
        EXPECT_TRUE(Plexum::ParseBmcTarget(value, target.bmc, error)) << error;
        target.label = value.substr(value.rfind('@') + 1);
        targets.push_back(target);
    }
    return targets;
}

TargetOutcome Outcome(size_t index, int32_t code, std::vector<Plexum::ConsoleLine> console) {
    TargetOutcome outcome;
    outcome.index = index;
    outcome.result = MorvelResult(code);
    outcome.console = std::move(console);
    outcome.elapsedMs = 1234;
    return outcome;
}

const std::vector<Plexum::ConsoleLine> kQueryBlock = {
    {false, "************Query Result************\n"},
    {false, "Query SMM network status succeeded"},
    {false, "    Status: Enabled"},
    {false, "\n************Query Result************"},
};

TEST(OutputLines, EachLineEndSplitsAConsoleText) {
    const auto lines = Fleet::OutputLines({{false, "a\n"}, {true, "\nb\nc"}, {false, ""}});
    ASSERT_EQ(lines.size(), 6u);
    const std::vector<std::pair<bool, std::string>> expected = {{false, "a"}, {false, ""}, {true, ""},
                                                                {true, "b"},  {true, "c"}, {false, ""}};
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i].error, expected[i].first) << i;
        EXPECT_EQ(lines[i].text, expected[i].second) << i;
    }
}

TEST(TextReport, BlocksAreLabelledLineByLineOnTheirStreams) {
    const auto targets = Targets({"a:pw@smm01", "a:pw@[fd00::5]:8443"});
    std::ostringstream out;
    std::ostringstream err;
    TextReport report(out, err, targets, "smmlan query", true);
    report.TargetEnded(Outcome(1, 0, kQueryBlock));
    auto failed = Outcome(0, 13, {{false, "************Query Result************\n"},
                                  {true, "Execute command to enable smm network success but wait status change timeout"}});
    report.TargetEnded(failed);
    FleetSummary summary(2);
    summary.Add(Outcome(1, 0, {}));
    summary.Add(failed);
    report.Finish(summary, 0);
    EXPECT_EQ(out.str(),
              "[fd00::5]:8443: ************Query Result************\n"
              "[fd00::5]:8443: \n"
              "[fd00::5]:8443: Query SMM network status succeeded\n"
              "[fd00::5]:8443:     Status: Enabled\n"
              "[fd00::5]:8443: \n"
              "[fd00::5]:8443: ************Query Result************\n"
              "[fd00::5]:8443: 0 Succeed.\n"
              "smm01: ************Query Result************\n"
              "smm01: \n"
              "smmlan query: 2 SMMs, 1 succeeded, 1 failed\n"
              "  13 Connection failed.: smm01\n");
    EXPECT_EQ(err.str(),
              "smm01: Execute command to enable smm network success but wait status change timeout\n"
              "smm01: 13 Connection failed.\n");
}

TEST(TextReport, SummaryGroupsFailuresByCodeInTheOrderGiven) {
    const auto targets = Targets({"a@t0", "a@t1", "a@t2", "a@t3", "a@t4", "a@t5"});
    FleetSummary summary(targets.size());
    // Targets end in another order than given.
    summary.Add(Outcome(4, 2054, {}));
    summary.Add(Outcome(3, 13, {}));
    summary.Add(Outcome(5, 0, {}));
    summary.Add(Outcome(0, 13, {}));
    summary.Add(Outcome(2, 1, {}));
    summary.Add(Outcome(1, 2054, {}));
    std::ostringstream out;
    std::ostringstream err;
    TextReport(out, err, targets, "smmlan enable", true).Finish(summary, 0);
    EXPECT_EQ(out.str(),
              "smmlan enable: 6 SMMs, 1 succeeded, 5 failed\n"
              "  1 Generic Failure.: t2\n"
              "  13 Connection failed.: t0, t3\n"
              "  2054 Authentication failed. For instance, user name or password error.: t1, t4\n");
    EXPECT_EQ(err.str(), "");
}

TEST(TextReport, InterruptedAndUnstartedTargets) {
    const auto targets = Targets({"a@t0", "a@t1", "a@t2", "a@t3", "a@t4"});
    std::ostringstream out;
    std::ostringstream err;
    TextReport report(out, err, targets, "smmlan enable", true);
    auto sent = Outcome(2, 0, {{false, "[INFO]: Send enable command succeeded, wait for status take effect."}});
    sent.interrupted = true;
    sent.changeSent = true;
    auto before = Outcome(0, 0, {});
    before.interrupted = true;
    report.TargetEnded(sent);
    report.TargetEnded(before);
    FleetSummary summary(targets.size());
    summary.Add(sent);
    summary.Add(before);
    summary.Add(Outcome(1, 0, {}));
    summary.SetNotStarted({3, 4});
    report.Finish(summary, 0);
    EXPECT_EQ(out.str(),
              "t2: [INFO]: Send enable command succeeded, wait for status take effect.\n"
              "smmlan enable: 5 SMMs, 1 succeeded, 0 failed, 2 interrupted, 2 not started\n"
              "  interrupted after a change was sent; the SMM's state is unconfirmed: t2\n"
              "  interrupted before any change was sent: t0\n"
              "  not started: t3, t4\n");
    EXPECT_EQ(err.str(),
              "t2: interrupted after a change was sent; the SMM's state is unconfirmed\n"
              "t0: interrupted before any change was sent\n");
}

TEST(TextReport, NoSummaryForOneTarget) {
    const auto targets = Targets({"a@only"});
    std::ostringstream out;
    std::ostringstream err;
    TextReport report(out, err, targets, "smmlan query", false);
    report.TargetEnded(Outcome(0, 0, {{false, "x"}}));
    FleetSummary summary(1);
    report.Finish(summary, 0);
    EXPECT_EQ(out.str(), "only: x\nonly: 0 Succeed.\n");
}

TEST(TextReport, HostFailureShowsItsText) {
    const auto targets = Targets({"a@t0"});
    std::ostringstream out;
    std::ostringstream err;
    auto outcome = Outcome(0, 17, {});
    outcome.failure = "module smmlan failed: boom";
    TextReport(out, err, targets, "smmlan query", false).TargetEnded(outcome);
    EXPECT_EQ(err.str(), "t0: 17 module smmlan failed: boom\n");
}

TEST(TableReport, OneAlignedLinePerTargetInTheOrderGivenThenTheSummary) {
    const auto targets = Targets({"a@smm-redfish-01", "a@[fd00::5]:8443", "a@refused", "a@dead", "a@sent", "a@later"});
    std::ostringstream out;
    TableReport report(out, targets, "smmlan query", true);
    // They end in another order than given.
    auto dead = Outcome(3, 13, {});
    auto refused = Outcome(2, 2054, {});
    refused.protocol = Plexum::Protocol::Ipmi;
    auto overIpmi = Outcome(1, 0, kQueryBlock);
    overIpmi.protocol = Plexum::Protocol::Ipmi;
    overIpmi.state.network = Plexum::NetworkState::Disabled;
    overIpmi.state.ipmiOverLan = false;
    auto overRedfish = Outcome(0, 0, kQueryBlock);
    overRedfish.protocol = Plexum::Protocol::Redfish;
    overRedfish.state.network = Plexum::NetworkState::Enabled;
    overRedfish.state.ipmiOverLan = true;
    overRedfish.state.ipv4 = "192.0.2.100";
    auto sent = Outcome(4, 0, {});
    sent.interrupted = true;
    sent.changeSent = true;
    sent.protocol = Plexum::Protocol::Ipmi;
    sent.state.network = Plexum::NetworkState::Unknown;
    FleetSummary summary(targets.size());
    for (const TargetOutcome* outcome : {&dead, &refused, &overIpmi, &overRedfish, &sent}) {
        report.TargetEnded(*outcome);
        summary.Add(*outcome);
    }
    summary.SetNotStarted({5});
    // Nothing is written before the run ends: no line can come between the progress line's redraws.
    EXPECT_EQ(out.str(), "");
    report.Finish(summary, 0);
    EXPECT_EQ(out.str(),
              "TARGET          PROTOCOL  NETWORK   IPMI-OVER-LAN  IPV4         RESULT\n"
              "smm-redfish-01  redfish   enabled   enabled        192.0.2.100  0 Succeed.\n"
              "[fd00::5]:8443  ipmi      disabled  disabled       -            0 Succeed.\n"
              "refused         ipmi      -         -              -            2054 Authentication failed. For "
              "instance, user name or password error.\n"
              "dead            -         -         -              -            13 Connection failed.\n"
              "sent            ipmi      unknown   -              -            interrupted after a change was sent; "
              "the SMM's state is unconfirmed\n"
              "later           -         -         -              -            not started\n"
              "smmlan query: 6 SMMs, 2 succeeded, 2 failed, 1 interrupted, 1 not started\n"
              "  13 Connection failed.: dead\n"
              "  2054 Authentication failed. For instance, user name or password error.: refused\n"
              "  interrupted after a change was sent; the SMM's state is unconfirmed: sent\n"
              "  not started: later\n");
}

TEST(TableReport, OneTargetHasNoSummaryAndAHostFailureShowsItsText) {
    const auto targets = Targets({"a@t0"});
    std::ostringstream out;
    TableReport report(out, targets, "smmlan query", false);
    auto outcome = Outcome(0, 5, {});
    outcome.failure = "the password command exited with status 1";
    report.TargetEnded(outcome);
    FleetSummary summary(1);
    summary.Add(outcome);
    report.Finish(summary, 0);
    EXPECT_EQ(out.str(),
              "TARGET  PROTOCOL  NETWORK  IPMI-OVER-LAN  IPV4  RESULT\n"
              "t0      -         -        -              -     5 the password command exited with status 1\n");
}

TEST(JsonLinesReport, OneRecordPerTargetThenTheSummary) {
    const auto targets = Targets({"ops:pw@smm01", "ops:pw@[fd00::5]:8443", "ops:pw@t2"});
    std::ostringstream out;
    JsonLinesReport report(out, targets, "enable");
    auto ok = Outcome(1, 0, kQueryBlock);
    ok.protocol = Plexum::Protocol::Redfish;
    ok.changeSent = true;
    ok.state.network = Plexum::NetworkState::Enabled;
    ok.state.ipmiOverLan = false;
    ok.state.ipv4 = "192.0.2.7";
    report.TargetEnded(ok);
    auto refused = Outcome(0, 2054, {{true, "tab\there \"quoted\" \x1b[31m and \xff\xfe bad \xc3\xa9"}});
    refused.protocol = Plexum::Protocol::Ipmi;
    report.TargetEnded(refused);
    auto stopped = Outcome(2, 0, {});
    stopped.interrupted = true;
    stopped.changeSent = true;
    stopped.state.network = Plexum::NetworkState::Unknown;
    report.TargetEnded(stopped);
    FleetSummary summary(3);
    summary.Add(ok);
    summary.Add(refused);
    summary.Add(stopped);
    report.Finish(summary, 9876);
    EXPECT_EQ(out.str(),
              R"({"target":"[fd00::5]:8443","host":"fd00::5","port":8443,"user":"ops","subcommand":"enable",)"
              R"("protocol":"redfish","code":0,"message":"Succeed.","ok":true,"interrupted":false,"change_sent":true,"unreachable":null,)"
              R"("state":{"network":"enabled","ipmi_over_lan":false,"ipv4":"192.0.2.7"},"elapsed_ms":1234,)"
              R"("console":["************Query Result************","","Query SMM network status succeeded",)"
              R"("    Status: Enabled","","************Query Result************"]})"
              "\n"
              R"({"target":"smm01","host":"smm01","port":443,"user":"ops","subcommand":"enable","protocol":"ipmi",)"
              R"("code":2054,"message":"Authentication failed. For instance, user name or password error.",)"
              R"("ok":false,"interrupted":false,"change_sent":false,"unreachable":null,)"
              R"("state":{"network":null,"ipmi_over_lan":null,"ipv4":null},"elapsed_ms":1234,)"
              R"("console":["tab\there \"quoted\" \u001B[31m and )"
              "\xEF\xBF\xBD\xEF\xBF\xBD bad \xC3\xA9"
              R"("]})"
              "\n"
              R"({"target":"t2","host":"t2","port":443,"user":"ops","subcommand":"enable","protocol":null,)"
              R"("code":null,"message":"interrupted after a change was sent; the SMM's state is unconfirmed",)"
              R"("ok":false,"interrupted":true,"change_sent":true,"unreachable":null,)"
              R"("state":{"network":"unknown","ipmi_over_lan":null,"ipv4":null},"elapsed_ms":1234,"console":[]})"
              "\n"
              R"({"summary":{"subcommand":"enable","targets":3,"succeeded":1,"failed":1,"elapsed_ms":9876,)"
              R"("failed_by_code":{"2054":["smm01"]},"interrupted":["t2"],"not_started":[],)"
              R"("unreachable":[],"stopped_by":null}})"
              "\n");
    // No credential text in any record.
    EXPECT_EQ(out.str().find("pw"), std::string::npos);
}

TEST(JsonLinesReport, TheLogoutOfASessionWhenOneWasOpened) {
    const auto targets = Targets({"ops:pw@smm01", "ops:pw@smm02"});
    std::ostringstream out;
    JsonLinesReport report(out, targets, "query");
    auto closed = Outcome(0, 0, {});
    closed.logout = Plexum::SessionLogout{true, ""};
    report.TargetEnded(closed);
    auto left = Outcome(1, 0, {});
    left.logout = Plexum::SessionLogout{false, "DELETE https://smm02:443/redfish/v1/SessionService/Sessions/3 "
                                               "answered HTTP 500"};
    report.TargetEnded(left);
    EXPECT_EQ(out.str(),
              R"({"target":"smm01","host":"smm01","port":443,"user":"ops","subcommand":"query","protocol":null,)"
              R"("code":0,"message":"Succeed.","ok":true,"interrupted":false,"change_sent":false,)"
              R"("unreachable":null,"state":{"network":null,"ipmi_over_lan":null,"ipv4":null},"elapsed_ms":1234,"console":[],)"
              R"("session_logout":{"ok":true,"error":null}})"
              "\n"
              R"({"target":"smm02","host":"smm02","port":443,"user":"ops","subcommand":"query","protocol":null,)"
              R"("code":0,"message":"Succeed.","ok":true,"interrupted":false,"change_sent":false,)"
              R"("unreachable":null,"state":{"network":null,"ipmi_over_lan":null,"ipv4":null},"elapsed_ms":1234,"console":[],)"
              R"("session_logout":{"ok":false,)"
              R"("error":"DELETE https://smm02:443/redfish/v1/SessionService/Sessions/3 answered HTTP 500"}})"
              "\n");
}

}  // namespace
