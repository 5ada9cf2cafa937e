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
constexpr char kMethodOption[] = "method";
// IPMI-over-LAN always uses the standard RMCP port, whatever the Redfish port is.
constexpr char kIpmiPort[] = "623";
constexpr uint64_t kIpmiSessionCount = 3;

using ConnectionList = std::vector<Plexum::PlexumConnection::ConnectionInfo>;

// What a change accepted over Redfish made of the SMM, for the run's record.
void NoteEstablishedState(const std::string& subCommand) {
    Plexum::RunContext& run = Plexum::RunContext::Current();
    if (subCommand == "enable") run.NoteNetwork(true);
    if (subCommand == "disable") run.NoteNetwork(false);
    if (subCommand == "enableipmi") run.NoteIpmiOverLan(true);
}

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
            const std::string subCommand = m_userContext.subCommand;
            if (subCommand == "enable") {
                result = manager.Enable("LANEnabled", "true");
            } else if (subCommand == "disable") {
                result = manager.Disable("LANEnabled", "false");
            } else if (subCommand == "enableipmi") {
                result = manager.Enable("IPMIEnabled", "true");
            } else if (subCommand == "query") {
                result = manager.Query();
            } else {
                result = RESULT_INVALID_COMMAND;
            }
            if (result == RESULT_SUCCEED) NoteEstablishedState(subCommand);
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

    int32_t result = RESULT_INVALID_COMMAND;  // unless the word is one of these
    const std::string subCommand = m_userContext.subCommand;
    if (subCommand == "enable") {
        const auto method = m_userContext.options.find(kMethodOption);
        const std::string methodText = method != m_userContext.options.end() ? method->second : std::string();
        result = manager.Enable(SmmLanManager::ParseIpObtainMethod(methodText));
    } else if (subCommand == "disable") {
        result = manager.Disable();
    } else if (subCommand == "query") {
        result = manager.Query();
    } else if (subCommand == "enableipmi") {
        result = manager.EnableIpmi();
    }
    return MorvelResult(result);
}
