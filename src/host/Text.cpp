// SPDX-License-Identifier: GPL-3.0-or-later
#include "host/Text.h"

#include <algorithm>

namespace Plexum {

std::string Trim(const std::string& text, const char* blanks) {
    const size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) return std::string();
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return text;
}

std::string Printable(const std::string& text) {
    std::string shown = text;
    for (char& c : shown) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (u < 0x20 || u == 0x7f) c = '?';
    }
    return shown;
}

}  // namespace Plexum
