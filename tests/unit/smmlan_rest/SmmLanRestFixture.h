// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <gtest/gtest.h>

#include <iostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "common/rest/RedfishClient.h"
#include "host/ConnectionInfo.h"
#include "host/GlobalConfig.h"
#include "host/Log.h"
#include "misc/smmlan/SmmLanManagerRest.h"
#include "support/LogCapture.h"
#include "support/RecordingHttpsServer.h"

// Plants a stored reply in a manager, for statuses no real exchange can leave there.
class SmmLanManagerRestTestPeer {
public:
    static void SetStoredResponse(SmmLanManagerRest& manager, Rest::Response response) {
        manager.m_response = std::move(response);
    }
};

namespace SmmLanRestTest {

constexpr char kManagerSource[] = "Src/Misc/SmmLan/SmmLanManagerrest";
constexpr char kFrontSource[] = "Src/Misc/SmmLan/SmmLan";
constexpr char kChassisPath[] = "/redfish/v1/Chassis/2";
constexpr char kUser[] = "admin";
constexpr char kPassword[] = "Pa:ss@word";
// base64("admin:Pa:ss@word")
constexpr char kBasicAuth[] = "Basic YWRtaW46UGE6c3NAd29yZA==";

constexpr char kEnableBanner[] = "************Enable Result************\n";
constexpr char kQueryBanner[] = "************Query Result************\n";
constexpr char kSupportedText[] = "The system is support enable ipmi or lan over rest";

using Entry = std::pair<unsigned, std::string>;  // level, text

// Swaps the standard streams' buffers for string buffers for the object's lifetime.
class ConsoleCapture {
public:
    ConsoleCapture() : m_out(std::cout.rdbuf(m_outText.rdbuf())), m_err(std::cerr.rdbuf(m_errText.rdbuf())) {}
    ~ConsoleCapture() {
        std::cout.rdbuf(m_out);
        std::cerr.rdbuf(m_err);
    }
    ConsoleCapture(const ConsoleCapture&) = delete;
    ConsoleCapture& operator=(const ConsoleCapture&) = delete;

    std::string Out() const { return m_outText.str(); }
    std::string Err() const { return m_errText.str(); }

private:
    std::ostringstream m_outText;
    std::ostringstream m_errText;
    std::streambuf* m_out;
    std::streambuf* m_err;
};

// The vendor object with the given members (already JSON text, comma-separated).
inline std::string VendorBody(const std::string& members) {
    return "{\"Id\": \"2\", \"Oem\": {\"Qarvon\": {" + members + "}}}";
}

inline MorvelTest::Reply Json(int status, std::string body) {
    return MorvelTest::Reply::Text(status, std::move(body), "application/json");
}

// Each test starts with a capturing logger at level 4, a single-attempt
// Redfish start-up wait (no 503 retries unless a test asks), and the console
// captured.
class Fixture : public ::testing::Test {
protected:
    void SetUp() override {
        Plexum::GlobalConfig::Clear();
        Plexum::GlobalConfig::SetItem("REDFISH_STARTUP_WAIT_TIME", "0");
        Rest::RedfishClient::ResetStartupWaitCache();
    }
    void TearDown() override {
        Plexum::GlobalConfig::Clear();
        Rest::RedfishClient::ResetStartupWaitCache();
    }

    Plexum::PlexumConnection::ConnectionInfo ConnectionTo(const MorvelTest::RecordingHttpsServer& server) const {
        Plexum::PlexumConnection::ConnectionInfo connection;
        connection.address = "127.0.0.1";
        connection.port = server.Port();
        connection.username = kUser;
        connection.password = kPassword;
        connection.addressType = Plexum::PlexumConnection::kAddressTypeHostOrIpv4;
        return connection;
    }

    // (level, text) of the captured records of one source, in order.
    std::vector<Entry> EntriesFrom(const std::string& source) const {
        std::vector<Entry> entries;
        for (const auto& record : m_log.From(source)) entries.emplace_back(record.level, record.text);
        return entries;
    }
    std::vector<Entry> ManagerEntries() const { return EntriesFrom(kManagerSource); }

    std::string Url(const MorvelTest::RecordingHttpsServer& server) const { return server.Url(kChassisPath); }

    MorvelTest::LogCapture m_log{4};
    ConsoleCapture m_console;
};

}  // namespace SmmLanRestTest
