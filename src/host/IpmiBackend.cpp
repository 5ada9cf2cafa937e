// SPDX-License-Identifier: GPL-3.0-or-later
// libmorvel_ipmi.so: FreeIPMI behind one table, loaded by the host on first use.
#include "host/IpmiBackend.h"

namespace {

constexpr Plexum::IpmiBackend kBackend = {
    Plexum::IpmiBackend::kAbiVersion,
    &::ipmi_rmcpplus_init,
    &::ipmi_ctx_create,
    &::ipmi_ctx_open_outofband_2_0,
    &::ipmi_ctx_errnum,
    &::ipmi_ctx_errormsg,
    &::ipmi_ctx_close,
    &::ipmi_ctx_destroy,
    &::ipmi_cmd_raw,
    ::tmpl_rmcp_hdr,
    ::tmpl_cmd_asf_presence_ping,
    ::tmpl_cmd_asf_presence_pong,
    &::fiid_obj_create,
    &::fiid_obj_destroy,
    &::fiid_obj_get,
    &::fill_rmcp_hdr_asf,
    &::fill_cmd_asf_presence_ping,
    &::assemble_rmcp_pkt,
    &::unassemble_rmcp_pkt,
};

}  // namespace

extern "C" __attribute__((visibility("default"))) const Plexum::IpmiBackend* morvel_ipmi_backend() {
    return &kBackend;
}
