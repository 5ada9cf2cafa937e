// SPDX-License-Identifier: GPL-3.0-or-later
#include "misc/smmlan/SmmLan.h"

#include <string>
#include <vector>

#include "common/result/ResultCodes.h"
#include "host/ConnectionInfo.h"
#include "host/IpmiClient.h"
#include "host/Log.h"
#include "host/MorvelConnect.h"
#include "host/RunContext.h"
#include "misc/smmlan/SmmLanCommand.h"
#include "misc/smmlan/SmmLanManager.h"
#include "misc/smmlan/SmmLanManagerRest.h"

namespace {

// The source text and fixed line numbers that this object's log records carry.
constexpr char kLogSource[] = "Src/Misc/SmmLan/SmmLan";
constexpr int kConstructorEnterLine = 14;
constexpr int kConstructorExitLine = 15;
constexpr int kRestListFetchedLine = 44;
constexpr int kRestPassedOnLine = 63;

constexpr char kBmcOption[] = "bmc";
// IPMI-over-LAN always uses the standard RMCP port, whatever the Redfish port is.
constexpr char kIpmiPort[] = "623";
constexpr uint64_t kIpmiSessionCount = 3;

using ConnectionList = std::vector<Plexum::PlexumConnection::ConnectionInfo>;

}  // namespace

SmmLan::SmmLan() {
    PLEXUM_LOG(4, kLogSource, kConstructorEnterLine) << "Entering  " << "SmmLan::SmmLan";
    PLEXUM_LOG(4, kLogSource, kConstructorExitLine) << "Exiting  " << "SmmLan::SmmLan";
}

SmmLan::~SmmLan() = default;

MorvelResult SmmLan::init(const UserContext& context) {
    if (context.options.find(kBmcOption) == context.options.end()) {
        return MorvelResult(RESULT_INVALID_PARAMETER);
    }
    m_userContext = context;
    return MorvelResult(RESULT_SUCCEED);
}

MorvelResult SmmLan::run() {
    int32_t result = RESULT_SUCCEED;
    if (RunRedfishStage(result)) return MorvelResult(result);
    return RunIpmiStage();
}

MorvelResult SmmLan::finish() { return MorvelResult(RESULT_SUCCEED); }

bool SmmLan::RunRedfishStage(int32_t& result) const {
    ConnectionList restList;
    const MorvelResult listed = GetRESTConnectionList(m_userContext, restList);
    bool supported = false;

    // A success without a record is a host fault; it is treated like a failed
    // fetch (IPMI gets its chance) rather than indexing an empty list.
    if (listed == RESULT_SUCCEED && !restList.empty()) {
        PLEXUM_LOG(4, kLogSource, kRestListFetchedLine) << "success to get Redfish connection parameter ";
        SmmLanManagerRest manager(&restList.front());
        supported = manager.CheckIsSupportByRest();
        if (supported) {
            // The words differ, so looking them up in the table matches them as testing each in turn would.
            const SmmLanSubcommand* subcommand = FindSmmLanSubcommand(m_userContext.subCommand);
            result = subcommand != nullptr ? subcommand->overRedfish(manager) : RESULT_INVALID_COMMAND;
            if (subcommand != nullptr && result == RESULT_SUCCEED) subcommand->noteEstablished();
        }
    }

    // Once the probe said yes the Redfish outcome stands, failure included.
    if (listed == RESULT_SUCCEED && supported) {
        Plexum::RunContext::Current().NoteProtocol(Plexum::Protocol::Redfish);
        return true;
    }

    PLEXUM_LOG(4, kLogSource, kRestPassedOnLine) << "Failed to get Redfish connection parameter with l_ret=" << listed;
    return false;
}

MorvelResult SmmLan::RunIpmiStage() const {
    ConnectionList ipmiList;
    MorvelResult fetched = FetchIPMIConnectionList(m_userContext, ipmiList);
    if (fetched != RESULT_SUCCEED) return fetched;
    // A success without a record leaves nothing to talk to: report it as the
    // connection failure the user would otherwise see for an unreachable SMM,
    // instead of indexing an empty list.
    if (ipmiList.empty()) return MorvelResult(RESULT_CONNECTION_FAILED);

    const Plexum::PlexumConnection::ConnectionInfo& record = ipmiList.front();
    Plexum::IpmiClient client(record.address, record.username, record.password, kIpmiPort, kIpmiSessionCount);
    SmmLanManager manager(&client);

    const SmmLanSubcommand* subcommand = FindSmmLanSubcommand(m_userContext.subCommand);
    return MorvelResult(subcommand != nullptr ? subcommand->overIpmi(manager, m_userContext) : RESULT_INVALID_COMMAND);
}
