// SPDX-License-Identifier: GPL-3.0-or-later
#include "host/RunPolicy.h"

#include <optional>
#include <string>

#include "common/result/ResultCodes.h"
#include "host/Log.h"
#include "host/RunContext.h"

const int RESULT_SMM_NOT_TRUSTED = RegisterResult(0, 70, "The SMM's certificate is not trusted.");

namespace {

const char* const kSource = "src/host/RunPolicy";

// What --protocol redfish says of a session login that opened no session;
// nothing when the last answer was no login's. `status` is " (HTTP N)".
std::optional<MorvelResult> LoginRefused(Plexum::LoginFailure failure, const std::string& only, const std::string& status) {
    const std::string service = only + "the SMM's Redfish service ";
    const std::string basicNeedsNone = "; --redfish-auth basic needs none.";
    switch (failure) {
        case Plexum::LoginFailure::Refused:
            return MorvelResult(RESULT_AUTHENTICATION_FAILED,
                                service + "refused the session login for the user or password" + status + ".");
        case Plexum::LoginFailure::NoSessionService:
            return MorvelResult(RESULT_GENERIC_FAILURE, service + "offers no session login" + status + basicNeedsNone);
        case Plexum::LoginFailure::NoToken:
            return MorvelResult(RESULT_GENERIC_FAILURE,
                                service + "answered the session login without a session token" + status + basicNeedsNone);
        case Plexum::LoginFailure::NotOpened:
            return MorvelResult(RESULT_GENERIC_FAILURE, service + "opened no session" + status + ".");
        case Plexum::LoginFailure::None:
            break;
    }
    return std::nullopt;
}

// Why the Redfish service did not serve, from its last answer.
MorvelResult RedfishDidNotServe(const Plexum::RedfishOutcome& outcome) {
    const std::string only = "Redfish only (protocol redfish): ";
    if (!outcome.tried) return MorvelResult(RESULT_CONNECTION_FAILED, only + "no Redfish request was made.");
    if (outcome.curlCode != 0) {
        return MorvelResult(RESULT_CONNECTION_FAILED, only + "the SMM's Redfish service cannot be reached: " + outcome.error);
    }
    const std::string status = " (HTTP " + std::to_string(outcome.httpCode) + ")";
    if (std::optional<MorvelResult> refused = LoginRefused(outcome.login, only, status)) return *refused;
    if (outcome.httpCode == 401 || outcome.httpCode == 403) {
        return MorvelResult(RESULT_AUTHENTICATION_FAILED, only + "the SMM's Redfish service refused the user or password" + status + ".");
    }
    return MorvelResult(RESULT_GENERIC_FAILURE, only + "the SMM's Redfish service offers no SMM network setting" + status + ".");
}

}  // namespace

std::optional<MorvelResult> RedfishRefusal() {
    if (Plexum::RunContext::Current().Protocols() != Plexum::ProtocolChoice::Ipmi) return std::nullopt;
    PLEXUM_LOG(3, kSource, __LINE__) << "Redfish is not tried: protocol ipmi";
    return MorvelResult(RESULT_GENERIC_FAILURE, "Redfish is not tried (protocol ipmi).");
}

std::optional<MorvelResult> IpmiRefusal() {
    const Plexum::RunContext& run = Plexum::RunContext::Current();
    if (!run.TrustFailure().empty()) {
        PLEXUM_LOG(1, kSource, __LINE__) << "not going on over IPMI: " << run.TrustFailure();
        return MorvelResult(RESULT_SMM_NOT_TRUSTED, run.TrustFailure());
    }
    if (run.Protocols() != Plexum::ProtocolChoice::Redfish) return std::nullopt;
    MorvelResult refused = RedfishDidNotServe(run.LastRedfishOutcome());
    PLEXUM_LOG(1, kSource, __LINE__) << "not going on over IPMI: " << refused.message;
    return refused;
}
