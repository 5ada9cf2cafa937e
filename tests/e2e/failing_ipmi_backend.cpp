// SPDX-License-Identifier: GPL-3.0-or-later
// A libmorvel_ipmi.so whose FreeIPMI set-up fails, as it does when the crypto
// libraries under FreeIPMI cannot be initialised. It creates no context
// either, so a host that went on after the failed set-up would fail later
// with another record. test_ipmi_client loads the host library from the
// folder this is built into, so that the host finds this one beside it.
#include "host/IpmiBackend.h"

namespace {

int FailedSetUp() { return -1; }

ipmi_ctx_t NoContext() { return nullptr; }

const Plexum::IpmiBackend kBackend = {
    Plexum::IpmiBackend::kAbiVersion, &FailedSetUp, &NoContext, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
};

}  // namespace

extern "C" __attribute__((visibility("default"))) const Plexum::IpmiBackend* morvel_ipmi_backend() {
    return &kBackend;
}
