// SPDX-License-Identifier: GPL-3.0-or-later
#include "host/BmcTarget.h"

#include <gtest/gtest.h>

namespace {

using Plexum::BmcTarget;
using Plexum::ParseBmcTarget;

BmcTarget Parse(const std::string& text) {
    BmcTarget target;
    std::string error;
    EXPECT_TRUE(ParseBmcTarget(text, target, error)) << text << ": " << error;
    EXPECT_EQ(error, "");
    return target;
}

std::string ErrorOf(const std::string& text) {
    BmcTarget target;
    target.user = "untouched";
    std::string error;
    EXPECT_FALSE(ParseBmcTarget(text, target, error)) << text;
    EXPECT_EQ(target.user, "untouched") << "a failed parse leaves the target alone";
    return error;
}

TEST(BmcTarget, UserPasswordHost) {
    const BmcTarget target = Parse("admin:secret@10.0.0.5");
    EXPECT_EQ(target.user, "admin");
    EXPECT_EQ(target.password, "secret");
    EXPECT_TRUE(target.hasPassword);
    EXPECT_EQ(target.host, "10.0.0.5");
    EXPECT_FALSE(target.ipv6);
    EXPECT_EQ(target.port, 443);
}

TEST(BmcTarget, HostWithPort) {
    const BmcTarget target = Parse("admin:secret@smm1.example.net:8443");
    EXPECT_EQ(target.host, "smm1.example.net");
    EXPECT_EQ(target.port, 8443);
}

TEST(BmcTarget, PortBounds) {
    EXPECT_EQ(Parse("a:b@h:1").port, 1);
    EXPECT_EQ(Parse("a:b@h:65535").port, 65535);
    EXPECT_EQ(Parse("a:b@h:00443").port, 443);
}

TEST(BmcTarget, PasswordWithColonsAndAts) {
    const BmcTarget target = Parse("admin:p:a@s@s:w@host:444");
    EXPECT_EQ(target.user, "admin");
    EXPECT_EQ(target.password, "p:a@s@s:w");
    EXPECT_EQ(target.host, "host");
    EXPECT_EQ(target.port, 444);
}

TEST(BmcTarget, EmptyPasswordIsAPassword) {
    const BmcTarget target = Parse("admin:@host");
    EXPECT_TRUE(target.hasPassword);
    EXPECT_EQ(target.password, "");
}

TEST(BmcTarget, NoPassword) {
    const BmcTarget target = Parse("admin@host");
    EXPECT_EQ(target.user, "admin");
    EXPECT_FALSE(target.hasPassword);
    EXPECT_EQ(target.password, "");
    EXPECT_EQ(target.host, "host");
}

TEST(BmcTarget, UserWithAtAndNoPassword) {
    const BmcTarget target = Parse("ops@site@10.1.1.1:8443");
    EXPECT_EQ(target.user, "ops@site");
    EXPECT_FALSE(target.hasPassword);
    EXPECT_EQ(target.host, "10.1.1.1");
    EXPECT_EQ(target.port, 8443);
}

TEST(BmcTarget, BracketedIpv6) {
    const BmcTarget target = Parse("admin:pw@[2001:db8::10]");
    EXPECT_EQ(target.host, "2001:db8::10");
    EXPECT_TRUE(target.ipv6);
    EXPECT_EQ(target.port, 443);
}

TEST(BmcTarget, BracketedIpv6WithPort) {
    const BmcTarget target = Parse("admin:pw@[2001:db8::10]:8443");
    EXPECT_EQ(target.host, "2001:db8::10");
    EXPECT_TRUE(target.ipv6);
    EXPECT_EQ(target.port, 8443);
}

TEST(BmcTarget, BracketedIpv4MappedIpv6) {
    EXPECT_EQ(Parse("a:b@[::ffff:10.0.0.1]").host, "::ffff:10.0.0.1");
}

TEST(BmcTarget, ToConnectionInfo) {
    const auto info = Plexum::ToConnectionInfo(Parse("root:pa:ss@[fe80::1]:9443"));
    EXPECT_EQ(info.address, "fe80::1");
    EXPECT_EQ(info.port, 9443);
    EXPECT_EQ(info.username, "root");
    EXPECT_EQ(info.password, "pa:ss");
    EXPECT_EQ(info.addressType, Plexum::PlexumConnection::kAddressTypeIpv6);

    const auto plain = Plexum::ToConnectionInfo(Parse("root@smm"));
    EXPECT_EQ(plain.address, "smm");
    EXPECT_EQ(plain.port, 443);
    EXPECT_EQ(plain.password, "");
    EXPECT_EQ(plain.addressType, Plexum::PlexumConnection::kAddressTypeHostOrIpv4);
}

TEST(BmcTarget, Errors) {
    EXPECT_EQ(ErrorOf("admin:secret"), "no '@' before the host; expected USER[:PASSWORD]@HOST[:PORT]");
    EXPECT_EQ(ErrorOf(""), "no '@' before the host; expected USER[:PASSWORD]@HOST[:PORT]");
    EXPECT_EQ(ErrorOf(":secret@host"), "empty user name; expected USER[:PASSWORD]@HOST[:PORT]");
    EXPECT_EQ(ErrorOf("@host"), "empty user name; expected USER[:PASSWORD]@HOST[:PORT]");
    EXPECT_EQ(ErrorOf("admin:secret@"), "empty host; expected USER[:PASSWORD]@HOST[:PORT]");
    EXPECT_EQ(ErrorOf("admin:secret@:443"), "empty host; expected USER[:PASSWORD]@HOST[:PORT]");
    EXPECT_EQ(ErrorOf("admin:secret@[2001:db8::10"),
              "unclosed '[' in the host; write an IPv6 address as [ADDRESS] or [ADDRESS]:PORT");
    EXPECT_EQ(ErrorOf("admin:secret@[2001:db8::10]8443"),
              "unexpected text after ']' in the host; write an IPv6 address as [ADDRESS] or [ADDRESS]:PORT");
    EXPECT_EQ(ErrorOf("admin:secret@[]"), "empty IPv6 address between '[' and ']'");
    EXPECT_EQ(ErrorOf("admin:secret@[smm.example]"), "the host in brackets is not an IPv6 address");
    EXPECT_EQ(ErrorOf("admin:secret@[10.0.0.1]"), "the host in brackets is not an IPv6 address");
    EXPECT_EQ(ErrorOf("admin:secret@2001:db8::10"),
              "an IPv6 address must be written in brackets, e.g. [2001:db8::10] or [2001:db8::10]:443");
    EXPECT_EQ(ErrorOf("admin:secret@host:44:3"),
              "an IPv6 address must be written in brackets, e.g. [2001:db8::10] or [2001:db8::10]:443");
    EXPECT_EQ(ErrorOf("admin:secret@my host"), "blank or control character in the host");
    EXPECT_EQ(ErrorOf("admin:secret@host\t"), "blank or control character in the host");
    EXPECT_EQ(ErrorOf(std::string("admin:secret@ho\x7fst")), "blank or control character in the host");
    EXPECT_EQ(ErrorOf("admin:secret@host/path"), "invalid character in the host");
    EXPECT_EQ(ErrorOf("admin:secret@host]"), "invalid character in the host");
}

TEST(BmcTarget, BadPorts) {
    const std::string message = "invalid port; it must be a number from 1 to 65535";
    for (const char* text : {"a:b@h:", "a:b@h:0", "a:b@h:65536", "a:b@h:99999", "a:b@h:123456", "a:b@h:-1",
                             "a:b@h:+443", "a:b@h: 443", "a:b@h:443 ", "a:b@h:0x1bb", "a:b@h:https",
                             "a:b@[::1]:", "a:b@[::1]:0", "a:b@[::1]:70000"}) {
        EXPECT_EQ(ErrorOf(text), message) << text;
    }
}

TEST(BmcTarget, ErrorsNeverContainThePassword) {
    const std::string credentials = "admin:Zq9:x@Wv@";
    for (const std::string host : {"", "[", "[::1", "[::1]x", "[]", "[name]", "a:b:c", "h st", "h:0", "h:x"}) {
        BmcTarget target;
        std::string error;
        EXPECT_FALSE(ParseBmcTarget(credentials + host, target, error)) << host;
        EXPECT_EQ(error.find("Zq9"), std::string::npos) << error;
        EXPECT_EQ(error.find("Wv"), std::string::npos) << error;
    }
}

}  // namespace
