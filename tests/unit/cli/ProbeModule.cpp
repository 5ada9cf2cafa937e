// SPDX-License-Identifier: GPL-3.0-or-later
// A command module for the tests of the host: it reports what the host gave
// it and answers with the codes its options ask for.
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "host/CommandDeclaration.h"
#include "host/ConsoleReport.h"
#include "host/GlobalConfig.h"
#include "host/Log.h"
#include "host/basic_app.h"

namespace {

const char* const kSource = "tests/unit/cli/ProbeModule";

std::string Option(const UserContext& context, const std::string& name) {
    const auto found = context.options.find(name);
    return found == context.options.end() ? std::string() : found->second;
}

MorvelResult Answer(const UserContext& context, const std::string& prefix) {
    const std::string code = Option(context, prefix + "-code");
    if (code.empty()) return MorvelResult(0);
    return MorvelResult(static_cast<int32_t>(std::stol(code, nullptr, 0)), Option(context, prefix + "-message"));
}

std::string CommandLineOfThisProcess() {
    std::ifstream file("/proc/self/cmdline", std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    std::string text = content.str();
    for (char& c : text) {
        if (c == '\0') c = '|';
    }
    return text;
}

class Probe : public basic_app {
public:
    MorvelResult init(const UserContext& context) override {
        m_userContext = context;
        ConsoleReport(3, kSource, __LINE__).Stream() << "probe: init";
        return Answer(context, "init");
    }

    MorvelResult run() override {
        const UserContext& context = m_userContext;
        ConsoleReport(3, kSource, __LINE__).Stream() << "probe: run " << context.subCommand;
        for (const auto& option : context.options) {
            // The target carries the password; only the dump file shows it.
            if (option.first == "bmc") continue;
            ConsoleReport(3, kSource, __LINE__).Stream() << "probe: option " << option.first << "=" << option.second;
        }
        std::string value;
        if (Plexum::GlobalConfig::GetConfigItem("PROBE_KEY", value) == 0) {
            ConsoleReport(3, kSource, __LINE__).Stream() << "probe: config PROBE_KEY=" << value;
        }
        if (!Option(context, "complain").empty()) {
            ConsoleReport(1, kSource, __LINE__).Stream() << "probe: " << Option(context, "complain");
        }
        const std::string dump = Option(context, "dump");
        if (!dump.empty()) {
            std::ofstream out(dump);
            out << "program=" << context.program << "\n"
                << "command=" << context.command << "\n"
                << "modulePath=" << context.modulePath << "\n"
                << "subCommand=" << context.subCommand << "\n"
                << "logLevel=" << context.logLevel << "\n"
                << "minLogLevel=" << Plexum::Log::GetMinLogLevel() << "\n"
                << "processId=" << context.processId << (context.processId == ::getpid() ? " (own)" : " (other)") << "\n"
                << "startTimeSet=" << (context.startTimeMs > 0) << "\n";
            for (const std::string& argument : context.arguments) out << "argument=" << argument << "\n";
            for (const auto& option : context.options) out << "option " << option.first << "=" << option.second << "\n";
            out << "cmdline=" << CommandLineOfThisProcess() << "\n";
        }
        if (!Option(context, "throw").empty()) throw std::runtime_error(Option(context, "throw"));
        // In a run over many targets, one host can be made to fail alone.
        const std::string target = Option(context, "bmc");
        if (!Option(context, "fail-host").empty() && target.substr(target.rfind('@') + 1) == Option(context, "fail-host")) {
            return Answer(context, "fail");
        }
        return Answer(context, "run");
    }

    MorvelResult finish() override {
        ConsoleReport(3, kSource, __LINE__).Stream() << "probe: finish";
        return Answer(m_userContext, "finish");
    }
};

}  // namespace

extern "C" __attribute__((visibility("default"))) basic_app* create_instance() { return new Probe; }

namespace {

// Options of its own, each a way to steer the probe; it works on SMMs, so it
// takes the host's target options too, and it answers every subcommand.
const Plexum::OptionDeclaration kOptions[] = {
    {"init-code", "CODE", nullptr, false, false, nullptr, "init answers CODE"},
    {"init-message", "TEXT", nullptr, false, false, nullptr, "with this message"},
    {"run-code", "CODE", nullptr, false, false, nullptr, "run answers CODE"},
    {"run-message", "TEXT", nullptr, false, false, nullptr, "with this message"},
    {"finish-code", "CODE", nullptr, false, false, nullptr, "finish answers CODE"},
    {"finish-message", "TEXT", nullptr, false, false, nullptr, "with this message"},
    {"fail-host", "HOST", nullptr, false, false, nullptr, "the target that answers --fail-code"},
    {"fail-code", "CODE", nullptr, false, false, nullptr, "what it answers"},
    {"fail-message", "TEXT", nullptr, false, false, nullptr, "with this message"},
    {"complain", "TEXT", nullptr, false, false, nullptr, "a console line of level 1"},
    {"dump", "FILE", nullptr, false, false, nullptr, "write what the host gave into FILE"},
    {"throw", "TEXT", nullptr, false, false, nullptr, "run throws this"},
    {"method", "WORD", nullptr, false, false, nullptr, "passed through"},
    {"flag", nullptr, nullptr, false, false, nullptr, "a flag"},
};

}  // namespace

extern "C" __attribute__((visibility("default"))) const Plexum::CommandDeclaration* morvel_command_declaration() {
    static const Plexum::CommandDeclaration declaration = {
        Plexum::CommandDeclaration::kAbiVersion, "probe", "reports what the host gave it", nullptr, nullptr, 0,
        nullptr, kOptions, sizeof kOptions / sizeof kOptions[0], true};
    return &declaration;
}
