// SPDX-License-Identifier: GPL-3.0-or-later
#include "host/MorvelConnect.h"

#include "common/result/ResultCodes.h"
#include "host/BmcTarget.h"
#include "host/Log.h"
#include "host/RunPolicy.h"

namespace {

const char* const kSource = "src/host/MorvelConnect";

// Both lists come from the one --bmc target (the IPMI user ignores its HTTPS port).
MorvelResult BuildList(const UserContext& context, const char* purpose,
                       std::vector<Plexum::PlexumConnection::ConnectionInfo>& list) {
    list.clear();
    const auto found = context.options.find("bmc");
    if (found == context.options.end()) {
        PLEXUM_LOG(1, kSource, __LINE__) << purpose << " connection: option --bmc is missing";
        return MorvelResult(RESULT_INVALID_PARAMETER, "Invalid parameter: option --bmc is missing.");
    }
    Plexum::BmcTarget target;
    std::string error;
    if (!Plexum::ParseBmcTarget(found->second, target, error)) {
        PLEXUM_LOG(1, kSource, __LINE__) << purpose << " connection: --bmc: " << error;
        return MorvelResult(RESULT_INVALID_PARAMETER, "Invalid parameter: --bmc: " + error + ".");
    }
    list.push_back(Plexum::ToConnectionInfo(target));
    PLEXUM_LOG(4, kSource, __LINE__) << purpose << " connection to " << target.host << " port " << target.port
                                     << " as " << target.user;
    return MorvelResult(RESULT_SUCCEED);
}

}  // namespace

MorvelResult GetRESTConnectionList(const UserContext& context,
                                   std::vector<Plexum::PlexumConnection::ConnectionInfo>& list) {
    if (auto refused = RedfishRefusal()) {
        list.clear();
        return *refused;
    }
    return BuildList(context, "REST", list);
}

MorvelResult FetchIPMIConnectionList(const UserContext& context,
                                     std::vector<Plexum::PlexumConnection::ConnectionInfo>& list) {
    if (auto refused = IpmiRefusal()) {
        list.clear();
        return *refused;
    }
    return BuildList(context, "IPMI", list);
}
