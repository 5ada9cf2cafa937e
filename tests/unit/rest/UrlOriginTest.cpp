// SPDX-License-Identifier: GPL-3.0-or-later
// Origins of URLs and references resolved against a base: what decides
// whether a session's secret may go somewhere.
#include "common/rest/UrlOrigin.h"

#include <gtest/gtest.h>

namespace {

using Rest::Origin;
using Rest::OriginOf;
using Rest::ResolveReference;

TEST(UrlOrigin, SchemeHostAndPortWithTheDefaultFilledIn) {
    EXPECT_EQ(OriginOf("https://192.0.2.10/redfish/v1"), (Origin{"https", "192.0.2.10", 443}));
    EXPECT_EQ(OriginOf("HTTPS://SMM07.Example:8443/x?y#z"), (Origin{"https", "smm07.example", 8443}));
    EXPECT_EQ(OriginOf("https://[2001:DB8::10]:443/"), (Origin{"https", "[2001:db8::10]", 443}));
    EXPECT_EQ(OriginOf("http://smm/"), (Origin{"http", "smm", 80}));
    EXPECT_EQ(OriginOf("/redfish/v1/SessionService/Sessions/1"), std::nullopt);
    EXPECT_EQ(OriginOf("https://smm:0/"), std::nullopt);
    EXPECT_EQ(OriginOf(""), std::nullopt);
    EXPECT_NE(OriginOf("https://smm/"), OriginOf("https://smm:8443/"));
    EXPECT_NE(OriginOf("https://smm/"), OriginOf("http://smm:443/"));
}

TEST(UrlOrigin, ReferencesResolvedAgainstTheBase) {
    const std::string base = "https://192.0.2.10:8443/redfish/v1/SessionService/Sessions";
    EXPECT_EQ(ResolveReference(base, "/redfish/v1/SessionService/Sessions/7"),
              "https://192.0.2.10:8443/redfish/v1/SessionService/Sessions/7");
    EXPECT_EQ(ResolveReference(base, "Sessions/8"), "https://192.0.2.10:8443/redfish/v1/SessionService/Sessions/8");
    EXPECT_EQ(ResolveReference(base, "https://other:443/s/1"), "https://other:443/s/1");
    EXPECT_EQ(ResolveReference(base, "//elsewhere/s/2"), "https://elsewhere/s/2");
    EXPECT_EQ(ResolveReference("not a url", "/s/1"), "");
}

}  // namespace
