#!/usr/bin/python
# -*- coding: utf-8 -*-
# SPDX-License-Identifier: GPL-3.0-or-later

from __future__ import absolute_import, division, print_function

__metaclass__ = type

DOCUMENTATION = r"""
module: smmlan
short_description: Switch and read the network of an enclosure's System Management Module (SMM)
version_added: "0.1.0"
description:
  - Reads the SMM's network state with C(morvel smmlan query) and, only when it differs from what the task asks
    for, switches it with C(morvel smmlan enable), C(disable) or C(enableipmi), then reports what the SMM shows.
  - Runs the C(morvel) executable on the machine the task runs on (the controller with C(ansible_connection=local),
    or a site's jump host with C(delegate_to)), one run per step, with C(--output json); the facts returned are that
    run's JSON record.
  - Each C(morvel) run tries Redfish over HTTPS first and goes on over IPMI-over-LAN, unless C(protocol) says
    otherwise, and waits until the SMM shows the new state.
  - The password reaches C(morvel) only through the environment of the C(morvel) process (C(MORVEL_BMC_PASSWORD));
    it is never on a command line, and the other password sources of C(morvel) are switched off for the run.
  - With none of C(network) and C(ipmi_over_lan), the task only reads the state.
author:
  - morvel developers
requirements:
  - C(morvel) with its C(smmlan) command on the machine the task runs on
options:
  bmc:
    description:
      - The SMM, C(HOST) or C(HOST:PORT); an IPv6 address in brackets (C([2001:db8::10]) or C([2001:db8::10]:8443)).
      - C(PORT) is the Redfish HTTPS port (default 443); IPMI always uses UDP port 623.
      - One SMM per task; for many, use one inventory host per SMM.
    type: str
    required: true
  username:
    description: The SMM user.
    type: str
    required: true
  password:
    description: The SMM user's password.
    type: str
    required: true
  network:
    description:
      - C(enabled) switches the SMM network on when it is off; C(disabled) switches it off when it is on.
      - Left as it is when omitted.
    type: str
    choices: [enabled, disabled]
  ipmi_over_lan:
    description:
      - C(enabled) switches the SMM's IPMI over LAN on when it is off (over Redfish only while its network is on).
      - Cannot go with C(network=disabled).
    type: str
    choices: [enabled]
  method:
    description:
      - How the SMM obtains its address, set when the network is switched on over IPMI.
      - The SMM does not report its method, so an SMM whose network is already on is left as it is.
    type: str
    choices: [static, dhcp, dhcp-failover]
  protocol:
    description:
      - C(auto) tries Redfish first and then IPMI; C(redfish) never uses IPMI; C(ipmi) never connects to the HTTPS
        port.
      - When omitted, the configuration's C(SMM_PROTOCOL) holds, else C(auto).
    type: str
    choices: [auto, redfish, ipmi]
  redfish_auth:
    description:
      - How the Redfish requests authenticate; C(basic) sends the password with each request, C(session) logs in once
        with it (a POST to the SMM's session service), sends the session's token instead and logs out after the
        SMM's last request, on every path (two requests more per SMM).
      - C(session) is for SMMs whose Redfish service refuses Basic authentication.
      - When omitted, the configuration's C(REDFISH_AUTH) holds, else C(basic).
    type: str
    choices: [basic, session]
  tls_verify:
    description:
      - How the SMM's certificate is trusted; C(none) accepts any, C(ca) verifies it against C(cacert) or the system's
        CA certificates, C(pin) and C(tofu) compare its key with the known-SMMs file of the user C(morvel) runs as
        (or C(known_smms)).
      - A certificate that fails verification fails the host; C(morvel) then never goes on over IPMI.
      - When omitted, the configuration's C(REDFISH_TLS_VERIFY) holds, else C(none).
    type: str
    choices: [none, ca, pin, tofu]
  cacert:
    description: The CA certificates for C(tls_verify=ca) (default the system's).
    type: path
  known_smms:
    description: The known-SMMs file for C(tls_verify=pin) and C(tls_verify=tofu).
    type: path
  config:
    description: A C(morvel) configuration file (C(KEY=VALUE) lines), on the machine the task runs on.
    type: path
  timeout:
    description:
      - Seconds each C(morvel) run may take; past it the run is stopped (what it had done is still reported) and the
        host fails.
      - An C(enable) over IPMI waits up to 24 x 5 s for the new state and 10 s more with the defaults.
    type: int
    default: 600
  morvel_path:
    description: The C(morvel) executable, a name looked up on C(PATH) or a path.
    type: str
    default: morvel
notes:
  - Check mode reads the state and reports what would change; it sends no change.
  - Diff mode shows the state before and after (in check mode, the state that would follow).
  - Every SMM is its own host in the inventory; C(forks) bounds how many are worked on at once.
"""

EXAMPLES = r"""
- name: Every SMM of row 7 has its network on
  morvel.smm.smmlan:
    bmc: "{{ smm_address }}"
    username: "{{ smm_user }}"
    password: "{{ smm_password }}"
    network: enabled
    method: dhcp
  delegate_to: "{{ site_jump_host }}"

- name: Network on, IPMI over LAN on, over IPMI only, verifying nothing over HTTPS
  morvel.smm.smmlan:
    bmc: "[2001:db8::10]"
    username: admin
    password: "{{ vault_smm_password }}"
    network: enabled
    ipmi_over_lan: enabled
    protocol: ipmi

- name: Network on, over a Redfish session (the SMM refuses Basic authentication)
  morvel.smm.smmlan:
    bmc: smm07.row7.example.net
    username: admin
    password: "{{ vault_smm_password }}"
    network: enabled
    redfish_auth: session

- name: Only read the state, with the SMM's pinned key
  morvel.smm.smmlan:
    bmc: smm07.row7.example.net
    username: admin
    password: "{{ vault_smm_password }}"
    tls_verify: pin
  register: smm

- name: Switch off the SMMs whose network is on
  morvel.smm.smmlan:
    bmc: smm07.row7.example.net
    username: admin
    password: "{{ vault_smm_password }}"
    network: disabled
  when: smm.state.network == 'enabled'
"""

RETURN = r"""
state:
  description:
    - What the SMM shows after the task (in check mode, what it would show); C(null) where it was not read.
  returned: always
  type: dict
  contains:
    network:
      description: C(enabled), C(disabled) or C(unknown).
      type: str
      sample: enabled
    ipmi_over_lan:
      description: Whether IPMI over LAN is on.
      type: bool
      sample: false
    ipv4:
      description: The SMM's IPv4 address.
      type: str
      sample: 192.0.2.100
protocol:
  description: The path of the last C(morvel) run, C(redfish) or C(ipmi); C(null) when none served.
  returned: always
  type: str
  sample: redfish
code:
  description: The result code of the last C(morvel) run (0 for success).
  returned: always
  type: int
  sample: 0
message:
  description: The result message of the last C(morvel) run.
  returned: always
  type: str
  sample: Succeed.
change_sent:
  description: Whether a change was sent to the SMM (false in check mode).
  returned: always
  type: bool
  sample: true
commands:
  description: The C(smmlan) subcommands that change the SMM, in order; run, or in check mode that would run.
  returned: always
  type: list
  elements: str
  sample: [enable]
record:
  description: The JSON record of the last C(morvel) run, as C(morvel smmlan --output json) writes it.
  returned: always
  type: dict
ansible_facts:
  description: The same as C(smmlan), for later tasks of the host.
  returned: always
  type: dict
  contains:
    smmlan:
      description: C(state), C(protocol), C(code) and C(message) as above.
      type: dict
"""

import json
import os
import re
import signal
import subprocess

from ansible.module_utils.basic import AnsibleModule

# Password sources morvel would prefer to the one this module gives it.
OTHER_PASSWORD_SOURCES = ("MORVEL_CREDENTIALS_FILE", "MORVEL_PASSWORD_COMMAND")
# After SIGTERM, morvel writes what it did and ends; this long is waited for that.
STOP_GRACE_SECONDS = 15


class MorvelRun(object):
    """One `morvel smmlan SUBCOMMAND --output json` over the task's SMM."""

    def __init__(self, module, executable):
        self.module = module
        self.executable = executable

    def argv(self, subcommand):
        p = self.module.params
        argv = [self.executable]
        if p["config"]:
            argv += ["--config", p["config"]]
        argv += ["smmlan", subcommand, "--bmc", "%s@%s" % (p["username"], p["bmc"]), "--output", "json"]
        for option in ("protocol", "redfish_auth", "tls_verify", "cacert", "known_smms"):
            if p[option]:
                argv += ["--" + option.replace("_", "-"), p[option]]
        if subcommand == "enable" and p["method"]:
            argv += ["--method", p["method"]]
        return argv

    def environment(self):
        env = dict(os.environ)
        for name in OTHER_PASSWORD_SOURCES:
            env.pop(name, None)
        env["MORVEL_BMC_PASSWORD"] = self.module.params["password"]
        return env

    def __call__(self, subcommand):
        """The run's record; fails the task when morvel wrote none."""
        timeout = self.module.params["timeout"]
        try:
            process = subprocess.Popen(self.argv(subcommand), env=self.environment(), stdin=subprocess.DEVNULL,
                                       stdout=subprocess.PIPE, stderr=subprocess.PIPE, start_new_session=True)
        except OSError as error:
            self.module.fail_json(msg="cannot run %s: %s" % (self.executable, error.strerror))
        timed_out = False
        try:
            stdout, stderr = process.communicate(timeout=timeout)
        except subprocess.TimeoutExpired:
            timed_out = True
            stdout, stderr = self.stop(process)
        stdout = stdout.decode("utf-8", "replace")
        stderr = stderr.decode("utf-8", "replace")
        record = self.record(stdout)
        if timed_out:
            self.module.fail_json(msg="morvel smmlan %s did not end within %d s" % (subcommand, timeout),
                                  changed=bool(record and record.get("change_sent")), record=record, stderr=stderr)
        if record is None:
            why = [line for line in stderr.splitlines() if line.strip()]
            self.module.fail_json(msg=" ".join(why) or "morvel smmlan %s wrote no record" % subcommand,
                                  rc=process.returncode, stdout=stdout, stderr=stderr)
        return record

    @staticmethod
    def stop(process):
        os.killpg(process.pid, signal.SIGTERM)
        try:
            return process.communicate(timeout=STOP_GRACE_SECONDS)
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGKILL)
            return process.communicate()

    @staticmethod
    def record(stdout):
        """The SMM's record among the JSON Lines, or None."""
        for line in stdout.splitlines():
            try:
                row = json.loads(line)
            except ValueError:
                continue
            if isinstance(row, dict) and "target" in row and "state" in row:
                return row
        return None


def changes_for(params, state):
    """The subcommands that bring the SMM from `state` to what the task asks for."""
    steps = []
    if params["network"] == "enabled" and state.get("network") != "enabled":
        steps.append("enable")
    if params["network"] == "disabled" and state.get("network") != "disabled":
        steps.append("disable")
    if params["ipmi_over_lan"] == "enabled" and state.get("ipmi_over_lan") is not True:
        steps.append("enableipmi")
    return steps


def predicted(state, steps):
    """The state the steps would leave."""
    after = dict(state)
    for step in steps:
        if step == "enable":
            after["network"] = "enabled"
        elif step == "disable":
            after["network"] = "disabled"
        elif step == "enableipmi":
            after["network"] = "enabled"
            after["ipmi_over_lan"] = True
    return after


def merged(state, record):
    """`state` with what a change's record read or established."""
    after = dict(state)
    after.update({key: value for key, value in record["state"].items() if value is not None})
    return after


def resolve_executable(module):
    path = module.params["morvel_path"]
    if os.sep in path:
        if not os.access(path, os.X_OK):
            module.fail_json(msg="morvel_path %s is not an executable file" % path)
        return path
    found = module.get_bin_path(path)
    if not found:
        module.fail_json(msg="%s is not on PATH; install morvel or give morvel_path" % path)
    return found


def main():
    module = AnsibleModule(
        argument_spec=dict(
            bmc=dict(type="str", required=True),
            username=dict(type="str", required=True),
            password=dict(type="str", required=True, no_log=True),
            network=dict(type="str", choices=["enabled", "disabled"]),
            ipmi_over_lan=dict(type="str", choices=["enabled"]),
            method=dict(type="str", choices=["static", "dhcp", "dhcp-failover"]),
            protocol=dict(type="str", choices=["auto", "redfish", "ipmi"]),
            redfish_auth=dict(type="str", choices=["basic", "session"]),
            tls_verify=dict(type="str", choices=["none", "ca", "pin", "tofu"]),
            cacert=dict(type="path"),
            known_smms=dict(type="path"),
            config=dict(type="path"),
            timeout=dict(type="int", default=600),
            morvel_path=dict(type="str", default="morvel"),
        ),
        supports_check_mode=True,
    )
    p = module.params
    if p["network"] == "disabled" and p["ipmi_over_lan"] == "enabled":
        module.fail_json(msg="ipmi_over_lan=enabled needs the network on; it cannot go with network=disabled")
    if ":" in p["username"]:
        module.fail_json(msg="username must not hold ':' (morvel ends the user at the first ':')")
    if not p["bmc"] or "@" in p["bmc"] or "," in p["bmc"] or re.search(r"\[[^]:]*\]", p["bmc"]):
        module.fail_json(msg="bmc names one SMM: HOST, HOST:PORT, [IPV6] or [IPV6]:PORT")
    if p["timeout"] < 1:
        module.fail_json(msg="timeout must be at least 1 second")

    run = MorvelRun(module, resolve_executable(module))
    queried = run("query")
    before = queried["state"]
    if not queried["ok"]:
        finish(module, queried, before, before, [], failed=True)
    steps = changes_for(p, before)
    if module.check_mode or not steps:
        finish(module, queried, before, predicted(before, steps), steps)
    after, record, sent = before, queried, False
    for step in steps:
        record = run(step)
        sent = sent or record["change_sent"]
        if not record["ok"]:
            finish(module, record, before, merged(after, record), steps, failed=True, sent=sent)
        after = merged(after, record)
    finish(module, record, before, after, steps, sent=sent)


def finish(module, record, before, after, steps, failed=False, sent=False):
    facts = {"state": after, "protocol": record["protocol"], "code": record["code"], "message": record["message"]}
    # A change that was sent counts even when its effect was not confirmed: the SMM may have taken it.
    # In check mode nothing is sent, and changed says what would change.
    changed = bool(steps) if module.check_mode else sent
    result = dict(facts, changed=changed, change_sent=sent, commands=steps,
                  record=record, ansible_facts={"smmlan": facts})
    if module._diff:
        result["diff"] = {"before": before, "after": after}
    if failed:
        module.fail_json(msg="%d %s" % (record["code"], record["message"]), **result)
    module.exit_json(**result)


if __name__ == "__main__":
    main()
