// SPDX-License-Identifier: GPL-3.0-or-later
#include "common/result/Result.h"

#include <map>

#include "common/result/FixedMessages.h"

namespace {

using MessageMap = std::map<int, std::string>;

// Both maps come into being on first use, which happens during static
// initialisation of whichever file registers first.
MessageMap& GeneralMap() {
    static MessageMap map;
    return map;
}
std::map<int, MessageMap>& KindMaps() {
    static std::map<int, MessageMap> maps;
    return maps;
}

const char* const kUnknowRegistered = "Unknow error";
const char* const kUnknownFixed = "Unknown error";

}  // namespace

int RegisterResult(int kind, int number, const char* message) {
    const int code = static_cast<int>(static_cast<unsigned>(kind) << 16) | number;
    if (kind < 1) {
        GeneralMap()[code] = message;
    } else {
        KindMaps()[kind][code] = message;
    }
    return code;
}

std::string LookupRegisteredMessage(int code, int kind) {
    const MessageMap& general = GeneralMap();
    const auto inGeneral = general.find(code);
    if (inGeneral != general.end()) return inGeneral->second;
    const auto& kinds = KindMaps();
    const auto inKinds = kinds.find(kind);
    if (inKinds != kinds.end()) {
        const auto found = inKinds->second.find(code);
        if (found != inKinds->second.end()) return found->second;
    }
    return kUnknowRegistered;
}

std::string GetResultMessage(int code) {
    if ((code & 0xFF00) == 0) return LookupRegisteredMessage(code, code >> 16);
    const auto& table = FixedMessageTable();
    const auto found = table.find(code);
    return found != table.end() ? found->second : kUnknownFixed;
}
