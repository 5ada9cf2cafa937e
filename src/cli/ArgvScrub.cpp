// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/ArgvScrub.h"

#include <cstring>

namespace MorvelCli {

bool ScrubBmcValue(char* value) {
    if (value == nullptr) return false;
    const size_t length = std::strlen(value);
    const char* const lastAt = std::strrchr(value, '@');
    const size_t end = lastAt != nullptr ? static_cast<size_t>(lastAt - value) : length;
    const void* const colon = std::memchr(value, ':', end);
    if (colon == nullptr) return false;
    const size_t start = static_cast<size_t>(static_cast<const char*>(colon) - value) + 1;
    if (start >= end) return false;
    value[start] = '*';
    std::memmove(value + start + 1, value + end, length - end);
    const size_t kept = start + 1 + (length - end);
    std::memset(value + kept, 0, length - kept);
    return true;
}

int ScrubBmcPasswords(int argc, char** argv) {
    static const char kOption[] = "--bmc";
    static const size_t kOptionLength = sizeof kOption - 1;
    int scrubbed = 0;
    for (int i = 1; i < argc; ++i) {
        if (argv[i] == nullptr || std::strncmp(argv[i], kOption, kOptionLength) != 0) continue;
        const char next = argv[i][kOptionLength];
        if (next == '=') {
            if (ScrubBmcValue(argv[i] + kOptionLength + 1)) ++scrubbed;
        } else if (next == '\0' && i + 1 < argc) {
            if (ScrubBmcValue(argv[i + 1])) ++scrubbed;
        }
    }
    return scrubbed;
}

}  // namespace MorvelCli
