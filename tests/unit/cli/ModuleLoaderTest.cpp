// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/ModuleLoader.h"

#include <gtest/gtest.h>

#include "cli/Host.h"
#include "support/FakeUserLookup.h"
#include "support/TestFiles.h"

namespace {

using MorvelCli::ModuleLoader;

TEST(ModuleLoader, DirectoryFromTheEnvironment) {
    EXPECT_EQ(MorvelCli::ModuleDirectory("/opt/mods", "/usr/local/bin/morvel"), "/opt/mods");
}

TEST(ModuleLoader, DirectoryBesideTheInstallPrefix) {
    EXPECT_EQ(MorvelCli::ModuleDirectory(nullptr, "/usr/local/bin/morvel"), "/usr/local/lib/morvel");
    EXPECT_EQ(MorvelCli::ModuleDirectory("", "/opt/morvel/bin/morvel"), "/opt/morvel/lib/morvel");
    EXPECT_EQ(MorvelCli::ModuleDirectory(nullptr, "/bin/morvel"), "/lib/morvel");
    EXPECT_EQ(MorvelCli::ModuleDirectory(nullptr, ""), "");
}

TEST(ModuleLoader, ExecutablePathIsThisProgram) {
    const std::string path = MorvelCli::ExecutablePath();
    ASSERT_FALSE(path.empty());
    EXPECT_EQ(path.substr(path.rfind('/') + 1), "cli_unit_tests");
}

TEST(ModuleLoader, FileName) { EXPECT_EQ(MorvelCli::ModuleFileName("smmlan"), "libmorvel_smmlan.so"); }

TEST(ModuleLoader, CommandWords) {
    for (const char* good : {"smmlan", "a", "fw_update", "raid-config", "Cmd2"}) {
        EXPECT_TRUE(MorvelCli::IsValidCommandWord(good)) << good;
    }
    for (const char* bad : {"", "../smmlan", "a/b", "sm mlan", "x.so", "a\nb", "\xc3\xa9"}) {
        EXPECT_FALSE(MorvelCli::IsValidCommandWord(bad)) << bad;
    }
    EXPECT_TRUE(MorvelCli::IsValidCommandWord(std::string(64, 'a')));
    EXPECT_FALSE(MorvelCli::IsValidCommandWord(std::string(65, 'a')));
}

TEST(ModuleLoader, UnknownCommand) {
    ScratchDirectory dir;
    ModuleLoader loader;
    ModuleLoader::Failure failure;
    EXPECT_FALSE(loader.Load(dir.Path(), "nosuch", failure));
    EXPECT_EQ(failure.exitStatus, 4);
    EXPECT_EQ(failure.message, "unknown command 'nosuch'; no commands are installed in " + dir.Path());

    EXPECT_FALSE(loader.Load(dir.Path() + "/missing-dir", "nosuch", failure));
    EXPECT_EQ(failure.exitStatus, 4);
    EXPECT_EQ(failure.message, "unknown command 'nosuch'; no commands are installed in " + dir.Path() + "/missing-dir");

    dir.Write("libmorvel_zeta.so", "");
    dir.Write("libmorvel_alpha-1.so", "");
    dir.Write("libmorvel_not.valid.so", "");
    dir.Write("libmorvel_.so", "");
    dir.Write("notes.txt", "");
    EXPECT_EQ(MorvelCli::InstalledCommands(dir.Path()), (std::vector<std::string>{"alpha-1", "zeta"}));
    EXPECT_FALSE(loader.Load(dir.Path(), "nosuch", failure));
    EXPECT_EQ(failure.message, "unknown command 'nosuch'; installed commands: alpha-1, zeta");

    EXPECT_FALSE(loader.Load(dir.Path(), "../../etc/x", failure));
    EXPECT_EQ(failure.exitStatus, 4);
    EXPECT_EQ(failure.message, "unknown command '../../etc/x'; installed commands: alpha-1, zeta");

    EXPECT_FALSE(loader.Load(dir.Path(), "a\x1b" "b", failure));
    EXPECT_EQ(failure.message, "unknown command 'a?b'; installed commands: alpha-1, zeta");

    EXPECT_FALSE(loader.Load(dir.Path(), "u:Pq3x@h", failure));
    EXPECT_EQ(failure.message, "unknown command 'u:*@h'; installed commands: alpha-1, zeta");

    EXPECT_TRUE(MorvelCli::HasModule(dir.Path(), "zeta"));
    EXPECT_FALSE(MorvelCli::HasModule(dir.Path(), "nosuch"));
    EXPECT_FALSE(MorvelCli::HasModule(dir.Path(), "../x"));
    EXPECT_FALSE(MorvelCli::HasModule("", "zeta"));
}

TEST(ModuleLoader, NoDirectory) {
    ModuleLoader loader;
    ModuleLoader::Failure failure;
    EXPECT_FALSE(loader.Load("", "smmlan", failure));
    EXPECT_EQ(failure.exitStatus, 17);
    EXPECT_EQ(failure.message, "cannot tell where the command modules are; set MORVEL_MODULE_PATH");
}

TEST(ModuleLoader, FileThatIsNoLibrary) {
    ScratchDirectory dir;
    const std::string path = dir.Write("libmorvel_junk.so", std::string(4096, 'j'));
    ModuleLoader loader;
    ModuleLoader::Failure failure;
    EXPECT_FALSE(loader.Load(dir.Path(), "junk", failure));
    EXPECT_EQ(failure.exitStatus, 17);
    EXPECT_EQ(failure.message, "cannot load module " + path + ": invalid ELF header");
    EXPECT_EQ(loader.CreateInstance(), nullptr);
}

TEST(ModuleLoader, LoadsACommandModule) {
    ModuleLoader loader;
    ModuleLoader::Failure failure;
    ASSERT_TRUE(loader.Load(TEST_MODULE_DIR, "probe", failure)) << failure.message;
    EXPECT_EQ(loader.Path(), std::string(TEST_MODULE_DIR) + "/libmorvel_probe.so");
    std::unique_ptr<basic_app> app(loader.CreateInstance());
    ASSERT_NE(app, nullptr);
    UserContext context;
    context.options["init-code"] = "7";
    EXPECT_EQ(app->init(context).code, 7);
}

TEST(ModuleLoader, ModuleWithoutCreateInstance) {
    ModuleLoader loader;
    ModuleLoader::Failure failure;
    EXPECT_FALSE(loader.Load(TEST_MODULE_DIR, "nocreate", failure));
    EXPECT_EQ(failure.exitStatus, 17);
    EXPECT_EQ(failure.message,
              "module " + std::string(TEST_MODULE_DIR) + "/libmorvel_nocreate.so does not export create_instance");
}

TEST(ModuleLoader, ModuleMustDeclareItsCommandLine) {
    const std::pair<const char*, const char*> cases[] = {
        {"nodeclare", "does not export morvel_command_declaration"},
        {"misnamed", "declares another command"},
        {"oldabi", "declares its command line in another version"},
        {"nohelp", "declares an incomplete command line"},
    };
    for (const auto& c : cases) {
        ModuleLoader loader;
        ModuleLoader::Failure failure;
        EXPECT_FALSE(loader.Load(TEST_MODULE_DIR, c.first, failure)) << c.first;
        EXPECT_EQ(failure.exitStatus, 17) << c.first;
        EXPECT_EQ(failure.message, "module " + std::string(TEST_MODULE_DIR) + "/libmorvel_" + c.first + ".so " + c.second);
    }
    ModuleLoader loader;
    ModuleLoader::Failure failure;
    ASSERT_TRUE(loader.Load(TEST_MODULE_DIR, "probe", failure)) << failure.message;
    EXPECT_STREQ(loader.Declaration().name, "probe");
    EXPECT_TRUE(loader.Declaration().smmTargets);
}

TEST(HostHelpers, DefaultLogFilePath) {
    using MorvelCli::DefaultLogFilePath;
    EXPECT_EQ(DefaultLogFilePath(FakeUserLookup({{"XDG_STATE_HOME", "/var/state"}, {"HOME", "/home/u"}})),
              "/var/state/morvel/morvel.log");
    EXPECT_EQ(DefaultLogFilePath(FakeUserLookup({{"HOME", "/home/u"}})), "/home/u/.local/state/morvel/morvel.log");
    EXPECT_EQ(DefaultLogFilePath(FakeUserLookup({{"XDG_STATE_HOME", ""}, {"HOME", "/home/u"}})),
              "/home/u/.local/state/morvel/morvel.log");
    EXPECT_EQ(DefaultLogFilePath(FakeUserLookup({{"XDG_STATE_HOME", "relative/state"}, {"HOME", "/home/u"}})),
              "/home/u/.local/state/morvel/morvel.log");
    EXPECT_EQ(DefaultLogFilePath(FakeUserLookup({}, "/db/home")), "/db/home/.local/state/morvel/morvel.log");
    EXPECT_EQ(DefaultLogFilePath(FakeUserLookup({})), "");
}

}  // namespace
