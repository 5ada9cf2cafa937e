// SPDX-License-Identifier: GPL-3.0-or-later
// The Redfish reply handling of SmmLanManagerRest: the probe's verdict on a
// body, the status check, Query, and the IPMI pre-check of update, all on a
// stored reply planted from the input. No request leaves the process: the
// manager's URL has a scheme libcurl refuses before any connection.
//
// Input: flags (1 byte), curl code (1 byte: below 0x80 means 0, else the low
// 7 bits), HTTP status (4 bytes, least significant first), then the body.
// Flags: bit 0 the stored LAN state before, bit 1 run Query, bit 2 run update.

#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "common/result/ResultCodes.h"
#include "host/ConnectionInfo.h"
#include "misc/smmlan/SmmLanManagerRest.h"

namespace {

constexpr char kNoNetworkUrl[] = "morvel-fuzz://no-network/redfish/v1/Chassis/2";

// What CheckResponse answers for a stored reply.
int32_t ExpectedCheck(const Rest::Response& reply) {
    switch (reply.curlCode) {
        case CURLE_OK: break;
        case CURLE_OPERATION_TIMEDOUT: return RESULT_TIMEOUT;
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_INVALIDCERTSTATUS: return RESULT_CONNECTION_FAILED;
        default: return RESULT_GENERIC_FAILURE;
    }
    return reply.httpCode >= 200 && reply.httpCode <= 299 ? RESULT_SUCCEED : RESULT_INTERNAL_ERROR;
}

}  // namespace

// Befriended by SmmLanManagerRest for tests; this program brings its own.
class SmmLanManagerRestTestPeer {
public:
    static void Plant(SmmLanManagerRest& manager, Rest::Response reply, bool lanEnabled) {
        manager.m_response = std::move(reply);
        manager.m_lanEnabled = lanEnabled;
        manager.m_ipmiEnabled = false;
        manager.m_smmIp.clear();
        manager.m_url = kNoNetworkUrl;
    }
    static bool ReadProbeReply(const std::string& body, bool& lanEnabled) {
        return SmmLanManagerRest::ReadProbeReply(body, lanEnabled);
    }
};

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    morvel_fuzz::SilenceOutput();
    static Plexum::PlexumConnection::ConnectionInfo connection{"192.0.2.10", 443, "fuzz", "fuzz-password", 0};
    static SmmLanManagerRest manager(&connection);

    morvel_fuzz::FuzzInput input(data, size);
    const uint8_t flags = input.Byte();
    const uint8_t curlByte = input.Byte();
    Rest::Response reply(curlByte < 0x80 ? 0 : curlByte & 0x7F, 0, std::string());
    reply.httpCode = input.Int32();
    reply.body = input.Rest();
    const Rest::Response planted = reply;

    const bool lanBefore = (flags & 1) != 0;
    SmmLanManagerRestTestPeer::Plant(manager, reply, lanBefore);

    // The probe: the status check, then the verdict on the body.
    const int32_t checked = manager.CheckResponse(manager.LastResponse());
    FUZZ_CHECK(checked == ExpectedCheck(planted));
    bool probedLan = false;
    const bool found = SmmLanManagerRestTestPeer::ReadProbeReply(planted.body, probedLan);
    FUZZ_CHECK(found || !probedLan);
    // A reply that names the network state sets it; any other keeps what was known.
    const bool lanAfter = found ? probedLan : lanBefore;

    if ((flags & 2) != 0) {
        // Query sends nothing and always succeeds; it only reads the stored reply.
        FUZZ_CHECK(manager.Query() == RESULT_SUCCEED);
        FUZZ_CHECK(manager.LastResponse().body == planted.body);
        FUZZ_CHECK(manager.LanEnabled() == lanAfter);
        FUZZ_CHECK(manager.SmmIp().find('\0') == std::string::npos);
    }

    if ((flags & 4) != 0) {
        // The pre-check reads LANEnabled from the stored reply; only when the
        // network is on does a PATCH go out, which here fails before connecting.
        FUZZ_CHECK(manager.update("IPMIEnabled", "true") == RESULT_GENERIC_FAILURE);
        const Rest::Response& after = manager.LastResponse();
        if (lanAfter) {
            FUZZ_CHECK(after.curlCode == CURLE_UNSUPPORTED_PROTOCOL && after.httpCode == -1);
        } else {
            FUZZ_CHECK(after.curlCode == planted.curlCode && after.httpCode == planted.httpCode &&
                       after.body == planted.body);
        }
    }
    return 0;
}
