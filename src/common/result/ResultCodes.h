// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "common/result/Result.h"

// The result codes of the smmlan command. Every source file that includes this
// list registers it during static initialisation, so messages are known before
// any code runs; registering the same row again is harmless.
static const int RESULT_SUCCEED = RegisterResult(0, 0, "Succeed.");
static const int RESULT_GENERIC_FAILURE = RegisterResult(0, 1, "Generic Failure.");
static const int RESULT_INVALID_COMMAND = RegisterResult(0, 4, "Invalid command.");
static const int RESULT_INVALID_PARAMETER = RegisterResult(0, 5, "Invalid parameter.");
static const int RESULT_CONNECTION_FAILED = RegisterResult(0, 13, "Connection failed.");
static const int RESULT_INTERNAL_ERROR = RegisterResult(0, 17, "Internal error.");
static const int RESULT_TIMEOUT = RegisterResult(0, 18, "Timeout.");
static const int RESULT_ENABLE_IPMI_FAILED = RegisterResult(
    0, 64, "Failed to enable SMM IPMI over LAN, please confirm whether the target system supports.");

// A fixed-table code, not a registered one: the controller refused the credentials.
constexpr int RESULT_AUTHENTICATION_FAILED = 2054;
