// SPDX-License-Identifier: GPL-3.0-or-later
#include "host/Text.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace {

using Plexum::Trim;

TEST(Text, TrimTakesWhiteSpaceByDefault) {
    const std::pair<std::string, std::string> cases[] = {
        {" \t\r\n\f\vSMM 1\f\v\r\n\t ", "SMM 1"}, {" \t\r\n\f\v", ""}, {"", ""}, {"x", "x"}};
    for (const auto& c : cases) EXPECT_EQ(Trim(c.first), c.second) << c.first;
}

TEST(Text, TrimTakesOnlyTheBlanksItIsGiven) {
    // Blanks and line ends: a form feed or vertical tab stays part of the text.
    EXPECT_EQ(Trim(" admin\f\r\n", Plexum::kBlanksAndLineEnds), "admin\f");
    EXPECT_EQ(Trim("\v623 \t", Plexum::kBlanksAndLineEnds), "\v623");
    EXPECT_EQ(Trim("  admin@smm1\t\r", " \t\r"), "admin@smm1");
    EXPECT_EQ(Trim("\nadmin@smm1", " \t\r"), "\nadmin@smm1");
}

TEST(Text, LowerTouchesAsciiLettersOnly) {
    EXPECT_EQ(Plexum::Lower("OpenSessPriv-\xC3\x84Z"), "opensesspriv-\xC3\x84z");
}

}  // namespace
