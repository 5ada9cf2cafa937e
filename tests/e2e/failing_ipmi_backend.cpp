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

// Every entry it does not name stays null: nothing past the set-up may be called.
Plexum::IpmiBackend FailingBackend() {
    Plexum::IpmiBackend backend{};
    backend.abiVersion = Plexum::IpmiBackend::kAbiVersion;
    backend.rmcpplusInit = &FailedSetUp;
    backend.ctxCreate = &NoContext;
    return backend;
}

const Plexum::IpmiBackend kBackend = FailingBackend();

}  // namespace

extern "C" __attribute__((visibility("default"))) const Plexum::IpmiBackend* morvel_ipmi_backend() {
    return &kBackend;
}
