// SPDX-License-Identifier: GPL-3.0-or-later
#include "host/RunPolicy.h"

#include <string>

#include "common/result/ResultCodes.h"
#include "host/Log.h"
#include "host/RunContext.h"

const int RESULT_SMM_NOT_TRUSTED = RegisterResult(0, 70, "The SMM's certificate is not trusted.");

namespace {

const char* const kSource = "src/host/RunPolicy";

// Why the Redfish service did not serve, from its last answer.
MorvelResult RedfishDidNotServe(const Plexum::RedfishOutcome& outcome) {
    const std::string only = "Redfish only (protocol redfish): ";
    if (!outcome.tried) return MorvelResult(RESULT_CONNECTION_FAILED, only + "no Redfish request was made.");
    if (outcome.curlCode != 0) {
        return MorvelResult(RESULT_CONNECTION_FAILED, only + "the SMM's Redfish service cannot be reached: " + outcome.error);
    }
    const std::string status = " (HTTP " + std::to_string(outcome.httpCode) + ").";
    if (outcome.httpCode == 401 || outcome.httpCode == 403) {
        return MorvelResult(RESULT_AUTHENTICATION_FAILED, only + "the SMM's Redfish service refused the user or password" + status);
    }
    return MorvelResult(RESULT_GENERIC_FAILURE, only + "the SMM's Redfish service offers no SMM network setting" + status);
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
