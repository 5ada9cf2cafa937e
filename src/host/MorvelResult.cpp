// SPDX-License-Identifier: GPL-3.0-or-later
#include "host/MorvelResult.h"

#include "common/result/Result.h"
#include "host/ExitStatus.h"

namespace {
int32_t Low16(int32_t code) { return code & 0xFFFF; }
}  // namespace

std::string MorvelResult::Message() const {
    return message.empty() ? GetResultMessage(code) : message;
}

bool operator==(const MorvelResult& left, const MorvelResult& right) {
    return Low16(left.code) == Low16(right.code);
}
bool operator!=(const MorvelResult& left, const MorvelResult& right) { return !(left == right); }
bool operator==(const MorvelResult& left, int32_t code) { return Low16(left.code) == Low16(code); }
bool operator!=(const MorvelResult& left, int32_t code) { return !(left == code); }

std::ostream& operator<<(std::ostream& out, const MorvelResult& result) {
    return out << static_cast<uint32_t>(Low16(result.code)) << ' ' << result.Message();
}

namespace Plexum {

int ExitStatusForCode(int32_t code) {
    const int low = static_cast<int>(static_cast<uint32_t>(code) & 0xFFFFu);
    return low < 256 ? low : 255;
}

}  // namespace Plexum
