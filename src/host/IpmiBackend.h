// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The FreeIPMI calls IpmiClient makes, as a table that libmorvel_ipmi.so hands
// out. FreeIPMI and the crypto libraries under it are large and costly to map
// and relocate; the host loads that library when the first IPMI session starts,
// so a run that never speaks IPMI (every run over Redfish) never pays for them.

#include <freeipmi/freeipmi.h>

#include <cstdint>
#include <string>

namespace Plexum {

struct IpmiBackend {
    // Changed whenever this table changes, so that a stale library is refused, not called.
    static constexpr uint32_t kAbiVersion = 2;
    static constexpr const char* kFileName = "libmorvel_ipmi.so";
    static constexpr const char* kEntryPoint = "morvel_ipmi_backend";

    uint32_t abiVersion;
    decltype(&::ipmi_rmcpplus_init) rmcpplusInit;
    decltype(&::ipmi_ctx_create) ctxCreate;
    decltype(&::ipmi_ctx_open_outofband_2_0) ctxOpenOutofband20;
    decltype(&::ipmi_ctx_errnum) ctxErrnum;
    decltype(&::ipmi_ctx_errormsg) ctxErrormsg;
    decltype(&::ipmi_ctx_close) ctxClose;
    decltype(&::ipmi_ctx_destroy) ctxDestroy;
    decltype(&::ipmi_cmd_raw) cmdRaw;
    // The RMCP presence ping and pong, which need no session.
    fiid_field_t* rmcpHeaderTemplate;
    fiid_field_t* pingTemplate;
    fiid_field_t* pongTemplate;
    decltype(&::fiid_obj_create) objCreate;
    decltype(&::fiid_obj_destroy) objDestroy;
    decltype(&::fiid_obj_get) objGet;
    decltype(&::fill_rmcp_hdr_asf) fillRmcpHeaderAsf;
    decltype(&::fill_cmd_asf_presence_ping) fillPresencePing;
    decltype(&::assemble_rmcp_pkt) assembleRmcp;
    decltype(&::unassemble_rmcp_pkt) unassembleRmcp;
};

struct IpmiBackendLoad {
    const IpmiBackend* backend = nullptr;  // null when FreeIPMI cannot be used
    std::string error;                     // without a backend: why, naming the file
};

// Loads libmorvel_ipmi.so from the directory the host library was loaded from,
// once per process, and in the same once sets up FreeIPMI's crypto libraries,
// which is not thread-safe; a library whose set-up failed is no backend. Any
// thread may call it; the answer never changes.
const IpmiBackendLoad& LoadIpmiBackend();

}  // namespace Plexum

// The one symbol libmorvel_ipmi.so exports.
extern "C" const Plexum::IpmiBackend* morvel_ipmi_backend();
