// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <optional>

#include "host/MorvelResult.h"

// The host's say over which protocol a run may use, from its run context:
// --protocol, and the trust settings of --tls-verify. The connection library
// asks before it hands out a connection list; a refusal is the result the
// module then returns.

// The code of a run stopped because the SMM's certificate failed the trust
// settings (exit status 70): such a run never falls back to IPMI.
extern const int RESULT_SMM_NOT_TRUSTED;

// Redfish is not to be tried (--protocol ipmi).
std::optional<MorvelResult> RedfishRefusal();

// IPMI is not to be tried after Redfish did not serve: the certificate failed
// the trust settings, or --protocol redfish (the result says what Redfish did).
std::optional<MorvelResult> IpmiRefusal();
