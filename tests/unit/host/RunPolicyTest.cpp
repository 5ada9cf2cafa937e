// SPDX-License-Identifier: GPL-3.0-or-later
// The host's word on IPMI after Redfish did not serve (--protocol redfish):
// what each last Redfish answer, a session login's among them, is reported as.
#include "host/RunPolicy.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/RunContext.h"

namespace {

using Plexum::LoginFailure;
using Plexum::RedfishOutcome;

struct Case {
    RedfishOutcome outcome;
    int code;
    std::string message;
};

MorvelResult RefusalAfter(const RedfishOutcome& outcome, Plexum::ProtocolChoice protocols) {
    Plexum::RunContext run("smm", nullptr);
    Plexum::ScopedRunContext installed(run);
    run.ChooseProtocols(protocols);
    run.NoteRedfishOutcome(outcome);
    const std::optional<MorvelResult> refused = IpmiRefusal();
    return refused ? *refused : MorvelResult(-1, "IPMI allowed");
}

TEST(RunPolicy, ProtocolRedfishSaysWhyRedfishDidNotServe) {
    const std::string only = "Redfish only (protocol redfish): ";
    const std::vector<Case> cases = {
        {RedfishOutcome{}, 13, only + "no Redfish request was made."},
        {RedfishOutcome{true, 7, -1, "Failed to connect", LoginFailure::None}, 13,
         only + "the SMM's Redfish service cannot be reached: Failed to connect"},
        {RedfishOutcome{true, 0, 401, "", LoginFailure::None}, 2054,
         only + "the SMM's Redfish service refused the user or password (HTTP 401)."},
        {RedfishOutcome{true, 0, 404, "", LoginFailure::None}, 1,
         only + "the SMM's Redfish service offers no SMM network setting (HTTP 404)."},
        // The answers of a session login.
        {RedfishOutcome{true, 0, 401, "", LoginFailure::Refused}, 2054,
         only + "the SMM's Redfish service refused the session login for the user or password (HTTP 401)."},
        {RedfishOutcome{true, 0, 403, "", LoginFailure::Refused}, 2054,
         only + "the SMM's Redfish service refused the session login for the user or password (HTTP 403)."},
        {RedfishOutcome{true, 0, 405, "", LoginFailure::NoSessionService}, 1,
         only + "the SMM's Redfish service offers no session login (HTTP 405); --redfish-auth basic needs none."},
        {RedfishOutcome{true, 0, 201, "", LoginFailure::NoToken}, 1,
         only + "the SMM's Redfish service answered the session login without a session token (HTTP 201); "
                "--redfish-auth basic needs none."},
        {RedfishOutcome{true, 0, 503, "", LoginFailure::NotOpened}, 1,
         only + "the SMM's Redfish service opened no session (HTTP 503)."},
        // A login whose transfer failed is an unreachable service like any other.
        {RedfishOutcome{true, 28, -1, "Operation timed out", LoginFailure::NotOpened}, 13,
         only + "the SMM's Redfish service cannot be reached: Operation timed out"},
    };
    for (const Case& c : cases) {
        const MorvelResult refused = RefusalAfter(c.outcome, Plexum::ProtocolChoice::Redfish);
        EXPECT_EQ(refused.code, c.code) << c.message;
        EXPECT_EQ(refused.message, c.message);
    }
}

TEST(RunPolicy, AutoGoesOnOverIpmiAfterARefusedLogin) {
    const MorvelResult allowed =
        RefusalAfter(RedfishOutcome{true, 0, 401, "", LoginFailure::Refused}, Plexum::ProtocolChoice::Auto);
    EXPECT_EQ(allowed.code, -1);
    EXPECT_EQ(allowed.message, "IPMI allowed");
}

}  // namespace
