// SPDX-License-Identifier: GPL-3.0-or-later
#include "host/RunPolicy.h"

#include <string>

#include "common/result/ResultCodes.h"
#include "host/Log.h"
#include "host/RunContext.h"

const int RESULT_SMM_NOT_TRUSTED = RegisterResult(0, 70, "The SMM's certificate is not trusted.");

namespace {

const char* const kSource = "src/host/RunPolicy";

// What a session login that opened no session says: the text, then its HTTP status, then the hint.
struct LoginRefusal {
    Plexum::LoginFailure failure;
    const int* code;
    const char* text;
    const char* hint;
};
const LoginRefusal kLoginRefusals[] = {
    {Plexum::LoginFailure::Refused, &RESULT_AUTHENTICATION_FAILED,
     "the SMM's Redfish service refused the session login for the user or password", ""},
    {Plexum::LoginFailure::NoSessionService, &RESULT_GENERIC_FAILURE,
     "the SMM's Redfish service offers no session login", "; --redfish-auth basic needs none"},
    {Plexum::LoginFailure::NoToken, &RESULT_GENERIC_FAILURE,
     "the SMM's Redfish service answered the session login without a session token",
     "; --redfish-auth basic needs none"},
    {Plexum::LoginFailure::NotOpened, &RESULT_GENERIC_FAILURE, "the SMM's Redfish service opened no session", ""},
};

// Why the Redfish service did not serve, from its last answer.
MorvelResult RedfishDidNotServe(const Plexum::RedfishOutcome& outcome) {
    const std::string only = "Redfish only (protocol redfish): ";
    if (!outcome.tried) return MorvelResult(RESULT_CONNECTION_FAILED, only + "no Redfish request was made.");
    if (outcome.curlCode != 0) {
        return MorvelResult(RESULT_CONNECTION_FAILED, only + "the SMM's Redfish service cannot be reached: " + outcome.error);
    }
    const std::string status = " (HTTP " + std::to_string(outcome.httpCode) + ")";
    for (const LoginRefusal& refusal : kLoginRefusals) {
        if (refusal.failure == outcome.login) return MorvelResult(*refusal.code, only + refusal.text + status + refusal.hint + ".");
    }
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
