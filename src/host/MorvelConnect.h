// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <vector>

#include "host/ConnectionInfo.h"
#include "host/MorvelResult.h"
#include "host/UserContext.h"

// The host's connection library: builds connection records from the "bmc"
// option of the context. Code 0 comes with at least one record.
MorvelResult GetRESTConnectionList(const UserContext& context,
                                   std::vector<Plexum::PlexumConnection::ConnectionInfo>& list);
MorvelResult FetchIPMIConnectionList(const UserContext& context,
                                     std::vector<Plexum::PlexumConnection::ConnectionInfo>& list);
