// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <string>

// Stores `message` under the code (kind << 16 | number) and returns the code.
// A code registered again has its message replaced.
int RegisterResult(int kind, int number, const char* message);

// The message registered under `code`, looked up in the general map and then
// in the map of `kind`; "Unknow error" when neither has it.
std::string LookupRegisteredMessage(int code, int kind);

// The message of any result code: registered codes (bits 8..15 clear) from
// the registry, all others from the fixed message table ("Unknown error"
// when that has no row).
std::string GetResultMessage(int code);
