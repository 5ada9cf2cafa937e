// SPDX-License-Identifier: GPL-3.0-or-later
// SmmLan with the host's connection library replaced by scripted lists, for
// outcomes the real library never produces (empty lists with success, results
// with kind bits, messages of its own). These definitions take the place of
// the host library's in this test program.

#include <sstream>
#include <string>
#include <vector>

#include "common/result/ResultCodes.h"
#include "host/MorvelConnect.h"
#include "misc/smmlan/SmmLan.h"
#include "smmlan_rest/SmmLanRestFixture.h"

namespace {

using ConnectionList = std::vector<Plexum::PlexumConnection::ConnectionInfo>;

struct ScriptedList {
    MorvelResult result;
    ConnectionList list;
    int calls = 0;
};

ScriptedList g_rest;
ScriptedList g_ipmi;

MorvelResult Answer(ScriptedList& scripted, ConnectionList& list) {
    ++scripted.calls;
    list = scripted.list;
    return scripted.result;
}

}  // namespace

MorvelResult GetRESTConnectionList(const UserContext&, ConnectionList& list) { return Answer(g_rest, list); }
MorvelResult FetchIPMIConnectionList(const UserContext&, ConnectionList& list) { return Answer(g_ipmi, list); }

namespace SmmLanRestTest {
namespace {

using MorvelTest::RecordingHttpsServer;

struct FrontEntry {
    int line;
    std::string text;
    bool operator==(const FrontEntry& other) const { return line == other.line && text == other.text; }
};
std::ostream& operator<<(std::ostream& out, const FrontEntry& entry) {
    return out << "{" << entry.line << ", \"" << entry.text << "\"}";
}

const std::string kFetched = "success to get Redfish connection parameter ";
const std::string kPassedOn = "Failed to get Redfish connection parameter with l_ret=";

std::string Printed(const MorvelResult& result) {
    std::ostringstream text;
    text << result;
    return text.str();
}

class SmmLanScriptedListsTest : public Fixture {
protected:
    void SetUp() override {
        Fixture::SetUp();
        Plexum::GlobalConfig::SetItem("IPMI_SESSION_TIMEOUT_MS", "300");
        Plexum::GlobalConfig::SetItem("IPMI_RETRANSMISSION_TIMEOUT_MS", "100");
        g_rest = ScriptedList();
        g_ipmi = ScriptedList();
    }

    MorvelResult Run(const std::string& subCommand) {
        UserContext context;
        context.subCommand = subCommand;
        context.options["bmc"] = "scripted";
        SmmLan app;
        EXPECT_EQ(app.init(context).code, RESULT_SUCCEED);
        m_log.Clear();
        return app.run();
    }

    std::vector<FrontEntry> FrontEntries() const {
        std::vector<FrontEntry> entries;
        for (const auto& record : m_log.From(kFrontSource)) {
            EXPECT_EQ(record.level, 4u);
            entries.push_back({record.line, record.text});
        }
        return entries;
    }
    bool IpmiManagerUsed() const { return !m_log.From("Src/Misc/SmmLan/SmmLanManager").empty(); }

    Plexum::PlexumConnection::ConnectionInfo Unreachable() const {
        Plexum::PlexumConnection::ConnectionInfo record;
        record.address = "127.0.0.1";
        record.port = 1;  // nothing listens there
        record.username = kUser;
        record.password = kPassword;
        return record;
    }
};

TEST_F(SmmLanScriptedListsTest, EmptyListsWithSuccessAreFailuresNotIndexed) {
    g_rest.result = MorvelResult(RESULT_SUCCEED);
    g_ipmi.result = MorvelResult(RESULT_SUCCEED);

    const MorvelResult result = Run("enable");
    EXPECT_EQ(result.code, RESULT_CONNECTION_FAILED);
    EXPECT_EQ(result.message, "");
    EXPECT_EQ(g_rest.calls, 1);
    EXPECT_EQ(g_ipmi.calls, 1);
    EXPECT_EQ(FrontEntries(), (std::vector<FrontEntry>{{63, kPassedOn + "0 Succeed."}}));
    EXPECT_EQ(ManagerEntries(), std::vector<Entry>{});
    EXPECT_FALSE(IpmiManagerUsed());
    EXPECT_EQ(m_console.Out(), "");
}

TEST_F(SmmLanScriptedListsTest, ResultWithKindBitsButZeroLow16BitsCountsAsSuccess) {
    RecordingHttpsServer server;
    server.Script(kChassisPath, {Json(200, VendorBody("\"LANEnabled\": true"))});
    auto record = ConnectionTo(server);
    g_rest.result = MorvelResult(0x10000);
    g_rest.list = {record, Unreachable()};  // only the first is used

    const MorvelResult result = Run("nosuchword");
    EXPECT_EQ(result.code, RESULT_INVALID_COMMAND);
    EXPECT_EQ(server.RequestCount(), 1u);
    EXPECT_EQ(g_ipmi.calls, 0);
    EXPECT_EQ(FrontEntries(), (std::vector<FrontEntry>{{44, kFetched}}));
}

TEST_F(SmmLanScriptedListsTest, KindBitsResultIsPrintedByItsLow16BitsWhenPassingOn) {
    RecordingHttpsServer server;
    server.Script(kChassisPath, {Json(200, "{}")});
    g_rest.result = MorvelResult(0x10000);
    g_rest.list = {ConnectionTo(server)};
    g_ipmi.result = MorvelResult(0x20000);
    g_ipmi.list = {Unreachable()};

    const MorvelResult result = Run("Disable");
    EXPECT_EQ(result.code, RESULT_INVALID_COMMAND);  // IPMI list accepted on its low 16 bits
    EXPECT_EQ(g_ipmi.calls, 1);
    const std::string printed = Printed(MorvelResult(0x10000));
    EXPECT_EQ(printed.substr(0, 2), "0 ");
    EXPECT_EQ(FrontEntries(), (std::vector<FrontEntry>{{44, kFetched}, {63, kPassedOn + printed}}));
}

TEST_F(SmmLanScriptedListsTest, RestListFailureOnlyShowsInTheRecord) {
    for (const MorvelResult& failure :
         {MorvelResult(RESULT_CONNECTION_FAILED), MorvelResult(RESULT_INVALID_PARAMETER, "no --bmc here")}) {
        SCOPED_TRACE(Printed(failure));
        g_rest = ScriptedList();
        g_rest.result = failure;
        g_rest.list = {Unreachable()};  // a list that came with a failure is not used
        g_ipmi.result = MorvelResult(RESULT_SUCCEED);
        g_ipmi.list = {Unreachable()};

        const MorvelResult result = Run("other");
        EXPECT_EQ(result.code, RESULT_INVALID_COMMAND);
        EXPECT_EQ(result.message, "");
        EXPECT_EQ(FrontEntries(), (std::vector<FrontEntry>{{63, kPassedOn + Printed(failure)}}));
        EXPECT_EQ(ManagerEntries(), std::vector<Entry>{});
    }
    EXPECT_EQ(Printed(MorvelResult(RESULT_CONNECTION_FAILED)), "13 Connection failed.");
}

TEST_F(SmmLanScriptedListsTest, IpmiListFailureIsReturnedWithItsOwnCodeAndMessage) {
    g_rest.result = MorvelResult(RESULT_CONNECTION_FAILED);
    g_ipmi.result = MorvelResult((3 << 16) | 13, "the list's own words");
    g_ipmi.list = {Unreachable()};

    const MorvelResult result = Run("enable");
    EXPECT_EQ(result.code, (3 << 16) | 13);
    EXPECT_EQ(result.message, "the list's own words");
    EXPECT_FALSE(IpmiManagerUsed());
    EXPECT_EQ(m_console.Out(), "");
}

TEST_F(SmmLanScriptedListsTest, IpmiStageMatchesTheWordCaseSensitively) {
    g_rest.result = MorvelResult(RESULT_CONNECTION_FAILED);
    g_ipmi.result = MorvelResult(RESULT_SUCCEED);
    g_ipmi.list = {Unreachable()};
    for (const std::string word : {"Query", "ENABLE", "enableIpmi", "disable2"}) {
        SCOPED_TRACE(word);
        EXPECT_EQ(Run(word).code, RESULT_INVALID_COMMAND);
        EXPECT_FALSE(IpmiManagerUsed());
    }
    // A known word reaches the IPMI manager, which finds nothing on port 623.
    EXPECT_EQ(Run("query").code, RESULT_CONNECTION_FAILED);
    const auto records = m_log.From("Src/Misc/SmmLan/SmmLanManager");
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records.front().text, "Entering  SmmLanManager::Query");
}

}  // namespace
}  // namespace SmmLanRestTest
