// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <string>

namespace Plexum {

// What Trim takes off by default: space, tab, CR, LF, FF and VT.
constexpr const char* kWhiteSpace = " \t\r\n\f\v";
// Blanks and line ends only: space, tab, CR and LF.
constexpr const char* kBlanksAndLineEnds = " \t\r\n";

// The text without leading and trailing characters of `blanks`.
std::string Trim(const std::string& text, const char* blanks = kWhiteSpace);

// The text with ASCII letters in lower case.
std::string Lower(std::string text);

// The text with the bytes that would garble a terminal line (controls, DEL) as '?'.
std::string Printable(const std::string& text);

}  // namespace Plexum
