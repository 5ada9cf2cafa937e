// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <string>

namespace Plexum {

// The text without leading and trailing blanks (space, tab, CR, LF, FF, VT).
std::string Trim(const std::string& text);

// The text with ASCII letters in lower case.
std::string Lower(std::string text);

// The text with the bytes that would garble a terminal line (controls, DEL) as '?'.
std::string Printable(const std::string& text);

}  // namespace Plexum
