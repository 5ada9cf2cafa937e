// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

// The outcome of a host call: a result code (kind << 16 | number) and a message.
// An empty message means "print the registered message of the code".
struct MorvelResult {
    int32_t code = 0;
    std::string message;

    MorvelResult() = default;
    explicit MorvelResult(int32_t resultCode, std::string resultMessage = std::string())
        : code(resultCode), message(std::move(resultMessage)) {}

    // The text this result prints as: its own message, else the registered one.
    std::string Message() const;
};

// Results compare on the low 16 bits only: the kind does not take part.
bool operator==(const MorvelResult& left, const MorvelResult& right);
bool operator!=(const MorvelResult& left, const MorvelResult& right);
bool operator==(const MorvelResult& left, int32_t code);
bool operator!=(const MorvelResult& left, int32_t code);

// Low 16 bits of the code in decimal, one blank, then Message().
std::ostream& operator<<(std::ostream& out, const MorvelResult& result);
