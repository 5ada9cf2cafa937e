// SPDX-License-Identifier: GPL-3.0-or-later
#include <dlfcn.h>

#include <algorithm>
#include <string>
#include <vector>

#include "common/result/ResultCodes.h"
#include "host/CommandDeclaration.h"
#include "host/MorvelConnect.h"
#include "host/basic_app.h"
#include "misc/smmlan/SmmLan.h"
#include "misc/smmlan/SmmLanCommand.h"
#include "smmlan_rest/SmmLanRestFixture.h"

namespace SmmLanRestTest {
namespace {

using MorvelTest::RecordingHttpsServer;

constexpr char kIpmiManagerSource[] = "Src/Misc/SmmLan/SmmLanManager";
constexpr char kConnectSource[] = "src/host/MorvelConnect";
const std::string kPassedOnPrefix = "Failed to get Redfish connection parameter with l_ret=";
const std::string kFetched = "success to get Redfish connection parameter ";

// Exposes the context that SmmLan keeps.
class InspectableSmmLan : public SmmLan {
public:
    const UserContext& Context() const { return m_userContext; }
};

struct FrontRecord {
    unsigned level;
    int line;
    std::string text;
    bool operator==(const FrontRecord& other) const {
        return level == other.level && line == other.line && text == other.text;
    }
};

std::ostream& operator<<(std::ostream& out, const FrontRecord& record) {
    return out << "{" << record.level << ", " << record.line << ", \"" << record.text << "\"}";
}

class SmmLanTest : public Fixture {
protected:
    void SetUp() override {
        Fixture::SetUp();
        // Nothing answers IPMI on loopback in these tests: fail fast.
        Plexum::GlobalConfig::SetItem("IPMI_SESSION_TIMEOUT_MS", "300");
        Plexum::GlobalConfig::SetItem("IPMI_RETRANSMISSION_TIMEOUT_MS", "100");
    }

    static UserContext ContextFor(const std::string& subCommand, const std::string& bmc) {
        UserContext context;
        context.program = "morvel";
        context.command = "smmlan";
        context.subCommand = subCommand;
        context.arguments = {subCommand, "--bmc", bmc};
        context.options["bmc"] = bmc;
        return context;
    }
    static std::string BmcFor(const RecordingHttpsServer& server) {
        return std::string(kUser) + ":" + kPassword + "@" + server.Host() + ":" + std::to_string(server.Port());
    }

    // Records of the front end (source "Src/Misc/SmmLan/SmmLan"), with their lines.
    std::vector<FrontRecord> FrontRecords() const {
        std::vector<FrontRecord> records;
        for (const auto& record : m_log.From(kFrontSource)) records.push_back({record.level, record.line, record.text});
        return records;
    }
    bool IpmiListFetched() const {
        const auto records = m_log.From(kConnectSource);
        return std::any_of(records.begin(), records.end(),
                           [](const Plexum::LogRecord& record) { return record.text.rfind("IPMI", 0) == 0; });
    }
    bool IpmiManagerUsed() const { return !m_log.From(kIpmiManagerSource).empty(); }

    MorvelResult Run(const UserContext& context) {
        SmmLan app;
        EXPECT_EQ(app.init(context), RESULT_SUCCEED);
        m_log.Clear();
        return app.run();
    }
};

// ---------------------------------------------------------------- object life

TEST_F(SmmLanTest, ConstructorWritesItsTwoTraceRecords) {
    m_log.Clear();
    { SmmLan app; }
    EXPECT_EQ(FrontRecords(), (std::vector<FrontRecord>{{4, 14, "Entering  SmmLan::SmmLan"},
                                                        {4, 15, "Exiting  SmmLan::SmmLan"}}));

    Plexum::Log::SetMinLogLevel(3);
    m_log.Clear();
    { SmmLan app; }
    EXPECT_EQ(FrontRecords(), std::vector<FrontRecord>{});
    EXPECT_EQ(m_console.Out(), "");
}

TEST_F(SmmLanTest, InitWithoutBmcIsAnInvalidParameterAndKeepsTheEmptyContext) {
    InspectableSmmLan app;
    UserContext context = ContextFor("query", "x");
    context.options.erase("bmc");
    context.options["BMC"] = "admin:pw@192.0.2.1";
    context.options["method"] = "dhcp";

    const MorvelResult result = app.init(context);
    EXPECT_EQ(result.code, RESULT_INVALID_PARAMETER);
    EXPECT_EQ(result.message, "");
    EXPECT_EQ(app.Context().subCommand, "");
    EXPECT_TRUE(app.Context().options.empty());
    EXPECT_TRUE(app.Context().arguments.empty());
}

TEST_F(SmmLanTest, InitKeepsACopyOfTheWholeContext) {
    InspectableSmmLan app;
    UserContext context = ContextFor("enable", "");  // the value is not examined
    context.modulePath = "/opt/lib/morvel/libmorvel_smmlan.so";
    context.logLevel = 4;
    context.reserved = 7;
    context.startTimeMs = 1234567890123;
    context.processId = 4242;
    context.options["method"] = "static";

    const MorvelResult result = app.init(context);
    EXPECT_EQ(result.code, RESULT_SUCCEED);
    EXPECT_EQ(result.message, "");
    context.subCommand = "changed afterwards";  // a copy, not a reference

    const UserContext& kept = app.Context();
    EXPECT_EQ(kept.program, "morvel");
    EXPECT_EQ(kept.command, "smmlan");
    EXPECT_EQ(kept.modulePath, "/opt/lib/morvel/libmorvel_smmlan.so");
    EXPECT_EQ(kept.subCommand, "enable");
    EXPECT_EQ(kept.logLevel, 4);
    EXPECT_EQ(kept.reserved, 7);
    EXPECT_EQ(kept.startTimeMs, 1234567890123);
    EXPECT_EQ(kept.processId, 4242);
    EXPECT_EQ(kept.arguments, (std::vector<std::string>{"enable", "--bmc", ""}));
    EXPECT_EQ(kept.options, (std::map<std::string, std::string>{{"bmc", ""}, {"method", "static"}}));

    // A later successful init replaces it; a refused one leaves it.
    UserContext other = ContextFor("query", "admin:pw@192.0.2.9");
    EXPECT_EQ(app.init(other).code, RESULT_SUCCEED);
    EXPECT_EQ(app.Context().subCommand, "query");
    EXPECT_EQ(app.Context().options, (std::map<std::string, std::string>{{"bmc", "admin:pw@192.0.2.9"}}));
    other.options.clear();
    other.subCommand = "disable";
    EXPECT_EQ(app.init(other).code, RESULT_INVALID_PARAMETER);
    EXPECT_EQ(app.Context().subCommand, "query");
}

TEST_F(SmmLanTest, FinishAlwaysSucceeds) {
    SmmLan app;
    MorvelResult result = app.finish();
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.message, "");

    ASSERT_EQ(app.init(ContextFor("query", "no target here")).code, RESULT_SUCCEED);
    EXPECT_EQ(app.run().code, RESULT_INVALID_PARAMETER);
    result = app.finish();
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.message, "");
}

TEST_F(SmmLanTest, DestroyedThroughTheBase) {
    static int destroyed = 0;
    struct Counted : SmmLan {
        ~Counted() override { ++destroyed; }
    };
    destroyed = 0;
    basic_app* app = new Counted();
    ASSERT_EQ(app->init(ContextFor("query", "admin:pw@192.0.2.1")).code, RESULT_SUCCEED);
    delete app;
    EXPECT_EQ(destroyed, 1);
}

// ---------------------------------------------------------------- the module

class ModuleHandle {
public:
    ModuleHandle() : m_handle(dlopen(MORVEL_SMMLAN_MODULE, RTLD_NOW | RTLD_LOCAL)) {}
    ~ModuleHandle() {
        if (m_handle != nullptr) dlclose(m_handle);
    }
    ModuleHandle(const ModuleHandle&) = delete;
    ModuleHandle& operator=(const ModuleHandle&) = delete;
    void* Get() const { return m_handle; }

private:
    void* m_handle;
};

TEST_F(SmmLanTest, ModuleExportsCreateInstanceAndNothingOfItsClasses) {
    ModuleHandle module;
    ASSERT_NE(module.Get(), nullptr) << dlerror();
    auto create = reinterpret_cast<CreateInstanceFunction>(dlsym(module.Get(), "create_instance"));
    ASSERT_NE(create, nullptr) << dlerror();
    // Mangled names of the module's own code stay hidden.
    EXPECT_EQ(dlsym(module.Get(), "_ZN6SmmLanC1Ev"), nullptr);
    EXPECT_EQ(dlsym(module.Get(), "_ZN17SmmLanManagerRest5QueryEv"), nullptr);
    EXPECT_EQ(dlsym(module.Get(), "_ZN4Rest13RedfishClient3GetERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE"),
              nullptr);

    RecordingHttpsServer server;
    server.Script(kChassisPath, {Json(200, VendorBody("\"LANEnabled\": true, \"IPv4\": \"192.0.2.44\""))}, "GET");
    m_log.Clear();
    basic_app* app = create();
    ASSERT_NE(app, nullptr);
    EXPECT_EQ(FrontRecords(), (std::vector<FrontRecord>{{4, 14, "Entering  SmmLan::SmmLan"},
                                                        {4, 15, "Exiting  SmmLan::SmmLan"}}));
    EXPECT_EQ(app->init(UserContext()).code, RESULT_INVALID_PARAMETER);
    EXPECT_EQ(app->init(ContextFor("query", BmcFor(server))).code, RESULT_SUCCEED);
    const MorvelResult result = app->run();
    EXPECT_EQ(result.code, RESULT_SUCCEED);
    EXPECT_EQ(result.message, "");
    EXPECT_EQ(app->finish().code, RESULT_SUCCEED);
    delete app;

    EXPECT_EQ(server.RequestCount(), 1u);
    EXPECT_EQ(m_console.Out(), std::string(kQueryBanner) +
                                   "\nQuery SMM network status succeeded\n"
                                   "    Status: SMM network over LAN enabled and IPMI over LAN disabled\n"
                                   "    SMM IP: 192.0.2.44\n\n" +
                                   kQueryBanner + "\n");
}

TEST_F(SmmLanTest, ModuleDeclaresItsCommandLine) {
    ModuleHandle module;
    ASSERT_NE(module.Get(), nullptr) << dlerror();
    auto declare = reinterpret_cast<CommandDeclarationFunction>(dlsym(module.Get(), kCommandDeclarationSymbol));
    ASSERT_NE(declare, nullptr) << dlerror();
    const Plexum::CommandDeclaration* declaration = declare();
    ASSERT_NE(declaration, nullptr);
    EXPECT_EQ(declaration->abiVersion, Plexum::CommandDeclaration::kAbiVersion);
    EXPECT_STREQ(declaration->name, "smmlan");
    EXPECT_TRUE(declaration->smmTargets);
    EXPECT_EQ(declaration->operand, nullptr);
    std::vector<std::string> subcommands;
    for (size_t i = 0; i < declaration->subcommandCount; ++i) subcommands.emplace_back(declaration->subcommands[i].name);
    EXPECT_EQ(subcommands, (std::vector<std::string>{"enable", "disable", "enableipmi", "query"}));
    // Its own option; the targets, fan-out, trust and password options are the host's.
    ASSERT_EQ(declaration->optionCount, 1u);
    EXPECT_STREQ(declaration->options[0].name, "method");
    EXPECT_STREQ(declaration->options[0].value, "static|dhcp|dhcp-failover");
    EXPECT_FALSE(declaration->options[0].choicesOnly);  // any other text leaves the method unchanged
}

TEST_F(SmmLanTest, EveryDeclaredSubcommandHasItsWayOnBothPaths) {
    const Plexum::CommandDeclaration& declaration = SmmLanDeclaration();
    for (size_t i = 0; i < declaration.subcommandCount; ++i) {
        const SmmLanSubcommand* subcommand = FindSmmLanSubcommand(declaration.subcommands[i].name);
        ASSERT_NE(subcommand, nullptr) << declaration.subcommands[i].name;
        EXPECT_NE(subcommand->overRedfish, nullptr);
        EXPECT_NE(subcommand->overIpmi, nullptr);
        EXPECT_NE(subcommand->noteEstablished, nullptr);
    }
    EXPECT_EQ(FindSmmLanSubcommand("Query"), nullptr);
    EXPECT_EQ(FindSmmLanSubcommand(""), nullptr);
}

// ---------------------------------------------------------------- Redfish stage

TEST_F(SmmLanTest, SupportedRedfishSettlesEverySubcommandWithoutIpmi) {
    struct Case {
        std::string subCommand;
        std::string getBody;
        std::string patchBody;  // empty: no PATCH
        std::string console;
    };
    auto enableConsole = [&](const std::string& line) {
        return std::string(kEnableBanner) + "\n" + line + "\n\n************Enable Result************\n";
    };
    const std::vector<Case> cases = {
        {"enable", VendorBody("\"LANEnabled\": false"), R"({"Oem": {"Qarvon": { " LANEnabled" : true}}})",
         enableConsole("Enable SMM LAN succeeded")},
        {"disable", VendorBody("\"LANEnabled\": true"), R"({"Oem": {"Qarvon": { " LANEnabled" : false}}})",
         enableConsole("Enable SMM LAN succeeded")},
        {"enableipmi", VendorBody("\"LANEnabled\": true"), R"({"Oem": {"Qarvon": { " IPMIEnabled" : true}}})",
         enableConsole("Enable SMM IPMI succeeded")},
        {"query", VendorBody("\"LANEnabled\": true, \"IPMIEnabled\": true, \"IPv4\": \"192.0.2.100\""), "",
         std::string(kQueryBanner) +
             "\nQuery SMM network status succeeded\n    Status: SMM network and IPMI over LAN enabled\n"
             "    SMM IP: 192.0.2.100\n\n" +
             kQueryBanner + "\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.subCommand);
        RecordingHttpsServer server;
        server.Script(kChassisPath, {Json(200, c.getBody)}, "GET");
        server.Script(kChassisPath, {Json(204, "")}, "PATCH");
        UserContext context = ContextFor(c.subCommand, BmcFor(server));
        context.options["method"] = "dhcp";  // not consulted by this stage
        ConsoleCapture console;

        const MorvelResult result = Run(context);
        EXPECT_EQ(result.code, RESULT_SUCCEED);
        EXPECT_EQ(result.message, "");

        const auto requests = server.Requests();
        ASSERT_EQ(requests.size(), c.patchBody.empty() ? 1u : 2u);
        EXPECT_EQ(requests[0].method, "GET");
        EXPECT_EQ(requests[0].Header("Authorization"), kBasicAuth);
        if (!c.patchBody.empty()) {
            EXPECT_EQ(requests[1].method, "PATCH");
            EXPECT_EQ(requests[1].body, c.patchBody);
        }
        EXPECT_EQ(console.Out(), c.console);
        EXPECT_EQ(console.Err(), "");
        EXPECT_EQ(FrontRecords(), (std::vector<FrontRecord>{{4, 44, kFetched}}));
        EXPECT_FALSE(IpmiListFetched());
        EXPECT_FALSE(IpmiManagerUsed());
    }
}

TEST_F(SmmLanTest, UnknownOrMiscasedSubcommandIsSettledAsInvalidCommand) {
    RecordingHttpsServer server;
    server.Script(kChassisPath, {Json(200, VendorBody("\"LANEnabled\": true"))});
    for (const std::string word : {"Enable", "bogus", "QUERY", "enable ", ""}) {
        SCOPED_TRACE("'" + word + "'");
        server.ClearRequests();
        const MorvelResult result = Run(ContextFor(word, BmcFor(server)));
        EXPECT_EQ(result.code, RESULT_INVALID_COMMAND);
        EXPECT_EQ(result.message, "");
        ASSERT_EQ(server.RequestCount(), 1u);
        EXPECT_EQ(server.Requests()[0].method, "GET");
        EXPECT_EQ(FrontRecords(), (std::vector<FrontRecord>{{4, 44, kFetched}}));
        EXPECT_FALSE(IpmiListFetched());
        EXPECT_FALSE(IpmiManagerUsed());
    }
    EXPECT_EQ(m_console.Out(), "");
}

TEST_F(SmmLanTest, FailedRedfishChangeIsReturnedAsItIs) {
    RecordingHttpsServer server;
    server.Script(kChassisPath, {Json(200, VendorBody("\"LANEnabled\": true"))}, "GET");
    server.Script(kChassisPath, {Json(500, "broken")}, "PATCH");

    const MorvelResult result = Run(ContextFor("disable", BmcFor(server)));
    EXPECT_EQ(result.code, RESULT_INTERNAL_ERROR);
    EXPECT_EQ(result.message, "");
    EXPECT_EQ(server.RequestCount(), 2u);
    EXPECT_EQ(FrontRecords(), (std::vector<FrontRecord>{{4, 44, kFetched}}));
    EXPECT_FALSE(IpmiListFetched());
    EXPECT_EQ(m_console.Out(), std::string(kEnableBanner) +
                                   "\nEnable SMM LAN failed.\n    Error msg: broken\n\n************Enable Result************\n");
}

TEST_F(SmmLanTest, EnableIpmiRefusedOverRedfishIsNotRetriedOverIpmi) {
    RecordingHttpsServer server;
    server.Script(kChassisPath, {Json(200, VendorBody("\"LANEnabled\": false"))});

    const MorvelResult result = Run(ContextFor("enableipmi", BmcFor(server)));
    EXPECT_EQ(result.code, RESULT_GENERIC_FAILURE);
    EXPECT_EQ(server.RequestCount(), 1u);
    EXPECT_FALSE(IpmiListFetched());
    EXPECT_EQ(m_console.Out(),
              "Enable SMM IPMI failed.\n"
              "    Error msg: the SMM LAN is disable, can not enable ipmi via SMM LAN \n\n");
}

TEST_F(SmmLanTest, Ipv6TargetIsReachedInBrackets) {
    RecordingHttpsServer::Options options;
    options.ipv6 = true;
    RecordingHttpsServer server(options);
    server.Script(kChassisPath, {Json(200, VendorBody("\"LANEnabled\": false"))});

    const MorvelResult result = Run(ContextFor("query", BmcFor(server)));
    EXPECT_EQ(result.code, RESULT_SUCCEED);
    ASSERT_EQ(server.RequestCount(), 1u);
    EXPECT_EQ(server.Requests()[0].remoteAddr, "::1");
    const auto manager = ManagerEntries();
    EXPECT_NE(std::find(manager.begin(), manager.end(), Entry{3, "url:" + server.Url(kChassisPath)}), manager.end());
    EXPECT_EQ(server.Url(kChassisPath), "https://[::1]:" + std::to_string(server.Port()) + "/redfish/v1/Chassis/2");
}

TEST_F(SmmLanTest, RunRepeatsTheWholeDecision) {
    RecordingHttpsServer server;
    server.Script(kChassisPath, {Json(200, VendorBody("\"LANEnabled\": true"))}, "GET");
    server.Script(kChassisPath, {Json(200, "")}, "PATCH");
    SmmLan app;
    ASSERT_EQ(app.init(ContextFor("enable", BmcFor(server))).code, RESULT_SUCCEED);
    EXPECT_EQ(app.run().code, RESULT_SUCCEED);
    EXPECT_EQ(app.run().code, RESULT_SUCCEED);
    const auto requests = server.Requests();
    ASSERT_EQ(requests.size(), 4u);
    EXPECT_EQ(requests[0].method, "GET");
    EXPECT_EQ(requests[1].method, "PATCH");
    EXPECT_EQ(requests[2].method, "GET");
    EXPECT_EQ(requests[3].method, "PATCH");
}

// ---------------------------------------------------------------- passing on to IPMI

TEST_F(SmmLanTest, UnsupportedRedfishPassesOnWithSucceedInTheRecord) {
    RecordingHttpsServer server;
    server.Script(kChassisPath, {Json(200, "{}")});
    for (const std::string word : {"bogus", "Query"}) {
        SCOPED_TRACE(word);
        server.ClearRequests();
        const MorvelResult result = Run(ContextFor(word, BmcFor(server)));
        // The IPMI stage answers the unknown word itself, before any IPMI traffic.
        EXPECT_EQ(result.code, RESULT_INVALID_COMMAND);
        EXPECT_EQ(result.message, "");
        EXPECT_EQ(server.RequestCount(), 1u);
        EXPECT_EQ(FrontRecords(),
                  (std::vector<FrontRecord>{{4, 44, kFetched}, {4, 63, kPassedOnPrefix + "0 Succeed."}}));
        EXPECT_TRUE(IpmiListFetched());
        EXPECT_FALSE(IpmiManagerUsed());
    }
    EXPECT_EQ(m_console.Out(), "");
}

TEST_F(SmmLanTest, UnreachableRedfishPassesOn) {
    int port = 0;
    { RecordingHttpsServer gone; port = gone.Port(); }
    const std::string bmc = std::string(kUser) + ":" + kPassword + "@127.0.0.1:" + std::to_string(port);

    const MorvelResult result = Run(ContextFor("nosuchword", bmc));
    EXPECT_EQ(result.code, RESULT_INVALID_COMMAND);
    EXPECT_EQ(FrontRecords(), (std::vector<FrontRecord>{{4, 44, kFetched}, {4, 63, kPassedOnPrefix + "0 Succeed."}}));
    EXPECT_TRUE(IpmiListFetched());
}

TEST_F(SmmLanTest, ServiceUnavailableWithoutStartupWaitPassesOn) {
    RecordingHttpsServer server;
    server.Script(kChassisPath, {Json(503, "starting")});
    const MorvelResult result = Run(ContextFor("x", BmcFor(server)));
    EXPECT_EQ(result.code, RESULT_INVALID_COMMAND);
    EXPECT_EQ(server.RequestCount(), 1u);
    EXPECT_EQ(FrontRecords(), (std::vector<FrontRecord>{{4, 44, kFetched}, {4, 63, kPassedOnPrefix + "0 Succeed."}}));
}

TEST_F(SmmLanTest, UnsupportedRedfishThenNoIpmiAnswerIsAConnectionFailure) {
    RecordingHttpsServer server;
    server.Script(kChassisPath, {Json(200, VendorBody("\"LANEnabled\": \"true\""))});

    const MorvelResult result = Run(ContextFor("disable", BmcFor(server)));

    EXPECT_EQ(result.code, RESULT_CONNECTION_FAILED);
    EXPECT_EQ(result.message, "");
    ASSERT_EQ(server.RequestCount(), 1u);  // the probe only: nothing is patched
    EXPECT_EQ(server.Requests()[0].method, "GET");
    EXPECT_EQ(FrontRecords(), (std::vector<FrontRecord>{{4, 44, kFetched}, {4, 63, kPassedOnPrefix + "0 Succeed."}}));
    const auto ipmi = m_log.From(kIpmiManagerSource);
    ASSERT_FALSE(ipmi.empty());
    EXPECT_EQ(ipmi.front().text, "Entering  SmmLanManager::Disable");
}

TEST_F(SmmLanTest, FailedListsReachTheHostUnchanged) {
    const UserContext context = ContextFor("enable", "not a target");
    std::vector<Plexum::PlexumConnection::ConnectionInfo> list;
    const MorvelResult restResult = GetRESTConnectionList(context, list);
    const MorvelResult ipmiResult = FetchIPMIConnectionList(context, list);
    ASSERT_NE(restResult, RESULT_SUCCEED);
    ASSERT_NE(ipmiResult, RESULT_SUCCEED);
    std::ostringstream restText;
    restText << restResult;

    const MorvelResult result = Run(context);
    EXPECT_EQ(result.code, ipmiResult.code);
    EXPECT_EQ(result.message, ipmiResult.message);
    EXPECT_EQ(FrontRecords(), (std::vector<FrontRecord>{{4, 63, kPassedOnPrefix + restText.str()}}));
    EXPECT_FALSE(IpmiManagerUsed());
    EXPECT_EQ(m_console.Out(), "");
}

}  // namespace
}  // namespace SmmLanRestTest
