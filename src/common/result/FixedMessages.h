// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <map>
#include <string>

// The fixed numeric message table (codes 1537 to 3086), filled on first use.
const std::map<int, std::string>& FixedMessageTable();
