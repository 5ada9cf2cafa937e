// SPDX-License-Identifier: GPL-3.0-or-later
#include "fleet/TargetList.h"

#include <gtest/gtest.h>

#include <sstream>

#include "support/TestFiles.h"

namespace {

using Fleet::Target;
using Fleet::TargetList;

std::vector<std::string> Labels(const TargetList& list) {
    std::vector<std::string> labels;
    for (const Target& target : list.Targets()) labels.push_back(target.label);
    return labels;
}

TargetList Expand(const std::string& value) {
    TargetList list;
    const auto error = list.AddValue(value, "--bmc");
    EXPECT_FALSE(error) << value << ": " << (error ? error->message : "");
    return list;
}

std::string ErrorOf(const std::string& value) {
    TargetList list;
    const auto error = list.AddValue(value, "--bmc");
    EXPECT_TRUE(error) << value;
    EXPECT_TRUE(list.Targets().empty()) << value;
    return error ? error->message : "";
}

TEST(TargetList, OneHostIsOneTarget) {
    const TargetList list = Expand("admin:pw@smm1.example:8443");
    ASSERT_EQ(list.Targets().size(), 1u);
    const Target& target = list.Targets()[0];
    EXPECT_EQ(target.label, "smm1.example:8443");
    EXPECT_EQ(target.bmc.host, "smm1.example");
    EXPECT_EQ(target.bmc.port, 8443);
    EXPECT_EQ(target.bmc.user, "admin");
    EXPECT_EQ(target.bmc.password, "pw");
    EXPECT_EQ(target.BmcText(), "admin:pw@smm1.example:8443");
}

TEST(TargetList, TheModuleGetsTheValueAsWritten) {
    for (const char* value : {"admin:pw@10.0.0.5", "admin:@h", "a@b:c:d@h:444", "ab@h", "admin:p,w[1-2]@[fd00::5]:8443",
                              "admin@[2001:db8::10]"}) {
        const TargetList list = Expand(value);
        ASSERT_EQ(list.Targets().size(), 1u) << value;
        EXPECT_EQ(list.Targets()[0].BmcText(), value);
    }
}

TEST(TargetList, CommaSeparatedHostsShareTheCredentials) {
    const TargetList list = Expand("root:s,e@cret@a,b:444,[::1]:8443,10.0.0.1");
    EXPECT_EQ(Labels(list), (std::vector<std::string>{"a", "b:444", "[::1]:8443", "10.0.0.1"}));
    for (const Target& target : list.Targets()) {
        EXPECT_EQ(target.bmc.user, "root");
        EXPECT_EQ(target.bmc.password, "s,e@cret");
    }
    EXPECT_EQ(list.Targets()[2].bmc.host, "::1");
    EXPECT_TRUE(list.Targets()[2].bmc.ipv6);
    EXPECT_EQ(list.Targets()[3].bmc.port, 443);
}

TEST(TargetList, RangesKeepTheLowerBoundsPadding) {
    EXPECT_EQ(Labels(Expand("a@smm[08-11]")), (std::vector<std::string>{"smm08", "smm09", "smm10", "smm11"}));
    EXPECT_EQ(Labels(Expand("a@smm[8-11]")), (std::vector<std::string>{"smm8", "smm9", "smm10", "smm11"}));
    EXPECT_EQ(Labels(Expand("a@n[0-2]")), (std::vector<std::string>{"n0", "n1", "n2"}));
    EXPECT_EQ(Labels(Expand("a@n[007-008]")), (std::vector<std::string>{"n007", "n008"}));
    EXPECT_EQ(Labels(Expand("a@10.1.2.[10-12,25]")),
              (std::vector<std::string>{"10.1.2.10", "10.1.2.11", "10.1.2.12", "10.1.2.25"}));
    EXPECT_EQ(Labels(Expand("a@h[5]")), (std::vector<std::string>{"h5"}));
}

TEST(TargetList, SeveralGroupsExpandLeftGroupSlowest) {
    EXPECT_EQ(Labels(Expand("a@rack[1-2]-smm[1-3]:8443")),
              (std::vector<std::string>{"rack1-smm1:8443", "rack1-smm2:8443", "rack1-smm3:8443", "rack2-smm1:8443",
                                        "rack2-smm2:8443", "rack2-smm3:8443"}));
}

TEST(TargetList, RangesAndListsTogetherInGivenOrder) {
    TargetList list;
    ASSERT_FALSE(list.AddValue("a:x@z1,y[2-3]", "--bmc"));
    std::istringstream file("# rack 7\n\n  b:y@w[1-2]  \r\n# end\n");
    ASSERT_FALSE(list.AddText(file, "racks.txt", false));
    ASSERT_FALSE(list.AddValue("c@v", "--bmc"));
    EXPECT_EQ(Labels(list), (std::vector<std::string>{"z1", "y2", "y3", "w1", "w2", "v"}));
    EXPECT_EQ(list.Targets()[3].bmc.user, "b");
    EXPECT_FALSE(list.Targets()[5].bmc.hasPassword);
    EXPECT_TRUE(list.Warnings().empty());
}

TEST(TargetList, BracketsWithAColonAreAnIpv6Literal) {
    const TargetList list = Expand("a@[2001:db8::1],[fd00::1]:623");
    EXPECT_EQ(Labels(list), (std::vector<std::string>{"[2001:db8::1]", "[fd00::1]:623"}));
    EXPECT_EQ(list.Targets()[0].bmc.host, "2001:db8::1");
}

TEST(TargetList, BadRanges) {
    EXPECT_EQ(ErrorOf("a:Xy9@smm[]"), "--bmc: 'smm[]': empty range []");
    EXPECT_EQ(ErrorOf("a:Xy9@smm[1,,3]"), "--bmc: 'smm[1,,3]': empty range in [1,,3]");
    EXPECT_EQ(ErrorOf("a:Xy9@smm[9-1]"), "--bmc: 'smm[9-1]': descending range 9-1");
    EXPECT_EQ(ErrorOf("a:Xy9@smm[a-c]"), "--bmc: 'smm[a-c]': range [a-c] is not numbers");
    EXPECT_EQ(ErrorOf("a:Xy9@smm[1-]"), "--bmc: 'smm[1-]': range [1-] is not numbers");
    EXPECT_EQ(ErrorOf("a:Xy9@smm[-1]"), "--bmc: 'smm[-1]': range [-1] is not numbers");
    EXPECT_EQ(ErrorOf("a:Xy9@smm[1 -2]"), "--bmc: 'smm[1 -2]': range [1 -2] is not numbers");
    EXPECT_EQ(ErrorOf("a:Xy9@smm[1234567890]"), "--bmc: 'smm[1234567890]': range [1234567890] is not numbers");
    EXPECT_EQ(ErrorOf("a:Xy9@smm[1-3"), "--bmc: 'smm[1-3': unbalanced brackets");
    EXPECT_EQ(ErrorOf("a:Xy9@smm1-3]"), "--bmc: 'smm1-3]': unbalanced brackets");
    EXPECT_EQ(ErrorOf("a:Xy9@smm[[1-3]]"), "--bmc: 'smm[[1-3]]': unbalanced brackets");
    EXPECT_EQ(ErrorOf("a:Xy9@ok,smm[2-1]"), "--bmc: 'smm[2-1]': descending range 2-1");
}

TEST(TargetList, BadHostsOfAListAreNamed) {
    EXPECT_EQ(ErrorOf("a:Xy9@h1,h2:0"), "--bmc: 'h2:0': invalid port; it must be a number from 1 to 65535");
    EXPECT_EQ(ErrorOf("a:Xy9@smm[1-2]:70000"),
              "--bmc: 'smm1:70000': invalid port; it must be a number from 1 to 65535");
    EXPECT_EQ(ErrorOf("a:Xy9@h1,,h2"), "--bmc: '': empty host; expected USER[:PASSWORD]@HOST[:PORT]");
    // A single host keeps the message it always had.
    EXPECT_EQ(ErrorOf("a:Xy9@h:0"), "--bmc: invalid port; it must be a number from 1 to 65535");
    EXPECT_EQ(ErrorOf("a:Xy9@[fe80::1"),
              "--bmc: unclosed '[' in the host; write an IPv6 address as [ADDRESS] or [ADDRESS]:PORT");
    EXPECT_EQ(ErrorOf("a:Xy9"), "--bmc: no '@' before the host; expected USER[:PASSWORD]@HOST[:PORT]");
    EXPECT_EQ(ErrorOf(":Xy9@h1,h2"), "--bmc: empty user name; expected USER[:PASSWORD]@HOST[:PORT]");
}

TEST(TargetList, NoErrorQuotesThePassword) {
    for (const char* value : {"a:Xy9@smm[]", "a:Xy9@h[9-1]", "a:Xy9@x,h:0", "a:Xy9", "a:Xy9@[", ":Xy9@h"}) {
        EXPECT_EQ(ErrorOf(value).find("Xy9"), std::string::npos) << value;
    }
}

TEST(TargetList, AtMostOneHundredThousandTargets) {
    TargetList list;
    EXPECT_FALSE(list.AddValue("a:b@h[1-50000]", "--bmc"));
    EXPECT_FALSE(list.AddValue("a:b@g[000001-050000]", "--bmc"));
    EXPECT_EQ(list.Targets().size(), 100000u);
    EXPECT_EQ(list.Targets().back().label, "g050000");
    const auto error = list.AddValue("a:b@one", "--bmc");
    ASSERT_TRUE(error);
    EXPECT_EQ(error->message, "--bmc: 'one': more than 100000 targets after expansion");
    // A product that large is refused before anything is expanded.
    EXPECT_EQ(ErrorOf("a:b@r[1-99999]-n[1-99999]"), "--bmc: 'r[1-99999]-n[1-99999]': more than 100000 targets after expansion");
    EXPECT_EQ(ErrorOf("a:b@r[1-999999999]"), "--bmc: 'r[1-999999999]': more than 100000 targets after expansion");
}

TEST(TargetList, ManySpansOfOneGroupAreCountedBeforeTheyAreExpanded) {
    std::string group;
    for (int i = 0; i < 100; ++i) group += (i == 0 ? "" : ",") + std::string("0-99999");
    EXPECT_EQ(ErrorOf("a:b@h[" + group + "]"), "--bmc: 'h[" + group + "]': more than 100000 targets after expansion");
    // Past the limit every span is still read: a bad one is named, not the count.
    EXPECT_EQ(ErrorOf("a:b@h[0-99999,0-99999,9-1]"), "--bmc: 'h[0-99999,0-99999,9-1]': descending range 9-1");
    EXPECT_EQ(ErrorOf("a:b@h[0-99999,0-99999,x]"), "--bmc: 'h[0-99999,0-99999,x]': range [0-99999,0-99999,x] is not numbers");
    EXPECT_EQ(Labels(Expand("a@n[1-2,08-09,5]-[7,1-2]")),
              (std::vector<std::string>{"n1-7", "n1-1", "n1-2", "n2-7", "n2-1", "n2-2", "n08-7", "n08-1", "n08-2",
                                        "n09-7", "n09-1", "n09-2", "n5-7", "n5-1", "n5-2"}));
}

TEST(TargetList, TheRoomLeftBoundsEveryLaterValue) {
    TargetList list;
    ASSERT_FALSE(list.AddValue("a:b@h[1-99999]", "--bmc"));
    const auto error = list.AddValue("a:b@g[1-2]", "--bmc");
    ASSERT_TRUE(error);
    EXPECT_EQ(error->message, "--bmc: 'g[1-2]': more than 100000 targets after expansion");
    ASSERT_FALSE(list.AddValue("a:b@g[7]", "--bmc"));
    EXPECT_EQ(list.Targets().size(), 100000u);
    EXPECT_EQ(list.Targets().back().label, "g7");
    // Within one value too: the items before the one at fault use up the room.
    TargetList other;
    ASSERT_FALSE(other.AddValue("a:b@h[1-99998]", "--bmc"));
    EXPECT_EQ(other.AddValue("a:b@x,y,z[1-2]", "--bmc")->message,
              "--bmc: 'z[1-2]': more than 100000 targets after expansion");
    EXPECT_EQ(other.Targets().size(), 99998u);
}

TEST(TargetList, RepeatsRunOnceWithOneWarningEach) {
    TargetList list;
    ASSERT_FALSE(list.AddValue("a:b@SMM1,smm2,smm1:443,[::1]:8443,[0:0::1]:8443,smm1:444,smm1", "--bmc"));
    list.RemoveRepeats();
    EXPECT_EQ(Labels(list), (std::vector<std::string>{"SMM1", "smm2", "[::1]:8443", "smm1:444"}));
    EXPECT_EQ(list.Warnings(), (std::vector<std::string>{"smm1:443 is given more than once; it runs once",
                                                         "[0:0::1]:8443 is given more than once; it runs once"}));
}

TEST(TargetList, TargetFileErrorsNameTheLine) {
    TargetList list;
    std::istringstream file("a:b@ok\n\n# fine\na:Xy9@bad[3-1]\n");
    const auto error = list.AddText(file, "racks.txt", false);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->message, "racks.txt:4: 'bad[3-1]': descending range 3-1");
    std::istringstream endless(std::string(TargetList::kMaxLineBytes + 1, 'x'));
    EXPECT_EQ(list.AddText(endless, "(standard input)", false)->message,
              "(standard input):1: line longer than 65536 bytes");
}

TEST(TargetList, PasswordsInAnOpenFileAreWarnedOf) {
    TargetList list;
    std::istringstream withPassword("a:pw@h1\n");
    ASSERT_FALSE(list.AddText(withPassword, "open.txt", true));
    std::istringstream without("a@h2\n");
    ASSERT_FALSE(list.AddText(without, "open-no-password.txt", true));
    std::istringstream closed("a:pw@h3\n");
    ASSERT_FALSE(list.AddText(closed, "closed.txt", false));
    EXPECT_EQ(list.Warnings(),
              (std::vector<std::string>{"target file open.txt holds passwords and is readable by group or others "
                                        "(chmod 600 it)"}));
}

TEST(TargetList, Files) {
    ScratchDirectory scratch;
    const std::string open = scratch.Write("open.txt", "a:pw@h[1-2]\n", 0644);
    const std::string closed = scratch.Write("closed.txt", "a:pw@h3\n", 0600);
    TargetList list;
    ASSERT_FALSE(list.AddFile(open));
    ASSERT_FALSE(list.AddFile(closed));
    EXPECT_EQ(Labels(list), (std::vector<std::string>{"h1", "h2", "h3"}));
    EXPECT_EQ(list.Warnings(), (std::vector<std::string>{"target file " + open +
                                                         " holds passwords and is readable by group or others "
                                                         "(chmod 600 it)"}));
    EXPECT_EQ(list.AddFile(scratch.Path() + "/missing.txt")->message,
              "cannot read target file " + scratch.Path() + "/missing.txt: No such file or directory");
    EXPECT_EQ(list.AddFile(scratch.Path())->message, "cannot read target file " + scratch.Path() + ": Is a directory");
}

}  // namespace
