# SPDX-License-Identifier: GPL-3.0-or-later
"""The Ansible collection morvel.smm: Debian's ansible-playbook against ten simulated SMMs on loopback.

The collection is installed from the artifact the build made, the way a site
would install it. Every SMM is an inventory host with ansible_connection=local
(forks 10); the play recap and the simulators' records prove what was sent.
"""

import json
import os
import re
import textwrap

from smmsim import MODULE_DIR, MORVEL, E2ETestCase, run_command

PASSWORD = "Ans1ble:sm@rt"
ARTIFACT = os.environ.get("MORVEL_COLLECTION_ARTIFACT") or ""
# A change that never shows is polled for far longer than any run here lasts:
# only a task's timeout ends such a run.
CONFIG = {"IPMI_WORKAROUND_FLAGS": "opensesspriv", "SMM_NETWORK_CHECK_SLEEP_TIME": "1",
          "SMM_NETWORK_CHECK_RETRY_COUNT": "1000000"}
# A task's timeout that the change is always sent well within, however busy the machine.
TASK_TIMEOUT = 20
RECAP_LINE = re.compile(r"^(\S+)\s+: ok=(\d+)\s+changed=(\d+)\s+unreachable=(\d+)\s+failed=(\d+)\s+skipped=(\d+)")
# What only reads an SMM: the network status (0xF1 with 0x00) and the address (0xC4) over IPMI, GET over Redfish.
IPMI_READS = {("f1", "00")}

CALLBACK = '''
import json
from ansible.plugins.callback import CallbackBase


class CallbackModule(CallbackBase):
    """Writes every task result, whole, to the file named by DUMP_RESULTS_TO."""
    CALLBACK_VERSION = 2.0
    CALLBACK_TYPE = "aggregate"
    CALLBACK_NAME = "dump_results"
    CALLBACK_NEEDS_ENABLED = True

    def _dump(self, event, result):
        import os
        with open(os.environ["DUMP_RESULTS_TO"], "a") as f:
            row = {"event": event, "host": result._host.get_name(), "result": result._result}
            f.write(json.dumps(row, default=str) + "\\n")

    def v2_runner_on_ok(self, result):
        self._dump("ok", result)

    def v2_runner_on_failed(self, result, ignore_errors=False):
        self._dump("failed", result)

    def v2_runner_on_skipped(self, result):
        self._dump("skipped", result)
'''


def changes(sim):
    """Every request that could change the SMM."""
    sent = [r for r in sim.redfish_requests() if r[0] != "GET"]
    sent += [r for r in sim.ipmi_requests() if r[0] != "c4" and r not in IPMI_READS]
    return sent


def recap(stdout):
    """{host: (ok, changed, unreachable, failed, skipped)} of the PLAY RECAP."""
    found = {}
    for line in stdout[stdout.rindex("PLAY RECAP"):].splitlines()[1:]:
        match = RECAP_LINE.match(line)
        if match:
            found[match.group(1)] = tuple(int(n) for n in match.groups()[1:])
    return found


class AnsibleCase(E2ETestCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        if not os.path.isfile(ARTIFACT):
            raise AssertionError("the collection artifact %r was not built (cmake --build <dir>)" % ARTIFACT)

    def setUp(self):
        super().setUp()
        self.collections = os.path.join(self.tmp, "collections")
        result = run_command(["ansible-galaxy", "collection", "install", "--offline", "-p", self.collections, ARTIFACT],
                             env=self.env())
        self.assertEqual(result.returncode, 0, result.describe())
        self.config = self.write_config(CONFIG)
        self.dump = os.path.join(self.tmp, "results.jsonl")
        callbacks = os.path.join(self.tmp, "callback_plugins")
        os.makedirs(callbacks)
        with open(os.path.join(callbacks, "dump_results.py"), "w", encoding="utf-8") as f:
            f.write(CALLBACK)
        self.ansible_cfg = os.path.join(self.tmp, "ansible.cfg")
        with open(self.ansible_cfg, "w", encoding="utf-8") as f:
            f.write(textwrap.dedent("""\
                [defaults]
                forks = 10
                nocolor = True
                retry_files_enabled = False
                interpreter_python = /usr/bin/python3
                callback_plugins = %s
                callbacks_enabled = dump_results
                local_tmp = %s
                remote_tmp = %s
                """ % (callbacks, os.path.join(self.tmp, "ansible-local"), os.path.join(self.tmp, "ansible-remote"))))

    def smms(self, knob_list):
        """Started simulated SMMs and an inventory naming each as smmNN, grouped in two sites."""
        sims = self.start_sims(knob_list)
        return sims, [sim.address for sim in sims]

    def inventory(self, addresses):
        hosts = ["smm%02d" % i for i in range(len(addresses))]
        half = (len(hosts) + 1) // 2
        lines = ["[site_a]"] + ["%s smm_address=%s" % (h, a) for h, a in zip(hosts[:half], addresses[:half])]
        lines += ["", "[site_b]"] + ["%s smm_address=%s" % (h, a) for h, a in zip(hosts[half:], addresses[half:])]
        lines += ["", "[smms:children]", "site_a", "site_b", "", "[smms:vars]", "ansible_connection=local",
                  "smm_user=admin", "smm_password=%s" % PASSWORD, "morvel=%s" % MORVEL, "morvel_config=%s" % self.config]
        path = os.path.join(self.tmp, "inventory.ini")
        with open(path, "w", encoding="utf-8") as f:
            f.write("\n".join(lines) + "\n")
        return path, hosts

    def playbook(self, tasks):
        path = os.path.join(self._new_dir("play"), "play.yml")
        with open(path, "w", encoding="utf-8") as f:
            f.write("- hosts: smms\n  gather_facts: false\n  tasks:\n" + textwrap.indent(textwrap.dedent(tasks), "    "))
        return path

    def play(self, inventory, playbook, *extra):
        env = self.env({"MORVEL_MODULE_PATH": MODULE_DIR, "ANSIBLE_CONFIG": self.ansible_cfg,
                        "ANSIBLE_COLLECTIONS_PATH": self.collections, "DUMP_RESULTS_TO": self.dump})
        result = run_command(["ansible-playbook", "-i", inventory, playbook] + list(extra), env=env, timeout=500)
        self.assertNotIn(PASSWORD, result.stdout + result.stderr)
        return result

    def morvel_log(self):
        path = os.path.join(self.home, ".local", "state", "morvel", "morvel.log")
        with open(path, encoding="utf-8", errors="replace") as f:
            return f.read()


SMMLAN = """\
- name: SMM network on
  morvel.smm.smmlan:
    bmc: "{{ smm_address }}"
    username: "{{ smm_user }}"
    password: "{{ smm_password }}"
    config: "{{ morvel_config }}"
    morvel_path: "{{ morvel }}"
    network: enabled
"""


class Idempotence(AnsibleCase):
    def ten(self):
        """Three Redfish SMMs off, two on; three IPMI-only off, two on."""
        off, on = {"PASSWORD": PASSWORD, "INITIAL_STATUS": 2}, {"PASSWORD": PASSWORD}
        knobs = [off] * 3 + [on] * 2 + [dict(off, REDFISH="off")] * 3 + [dict(on, REDFISH="off")] * 2
        sims, addresses = self.smms(knobs)
        inventory, hosts = self.inventory(addresses)
        was_off = {hosts[i] for i in (0, 1, 2, 5, 6, 7)}
        return sims, inventory, hosts, was_off

    def test_enable_changes_exactly_the_smms_that_were_off_and_then_nothing(self):
        sims, inventory, hosts, was_off = self.ten()
        playbook = self.playbook(SMMLAN)
        first = self.play(inventory, playbook)
        self.assertEqual(first.returncode, 0, first.describe())
        self.assertEqual(recap(first.stdout), {h: (1, int(h in was_off), 0, 0, 0) for h in hosts})
        for host, sim in zip(hosts, sims):
            with self.subTest(host=host):
                self.assertEqual(sim.state()["STATUS"], 1)
                self.assertEqual(bool(changes(sim)), host in was_off)
        sent = [changes(sim) for sim in sims]

        second = self.play(inventory, playbook)
        self.assertEqual(second.returncode, 0, second.describe())
        self.assertEqual(recap(second.stdout), {h: (1, 0, 0, 0, 0) for h in hosts})
        self.assertEqual([changes(sim) for sim in sims], sent)
        self.assertNotIn(PASSWORD, self.morvel_log())

    def test_check_mode_sends_nothing_and_says_what_would_change(self):
        sims, inventory, hosts, was_off = self.ten()
        result = self.play(inventory, self.playbook(SMMLAN), "--check")
        self.assertEqual(result.returncode, 0, result.describe())
        self.assertEqual(recap(result.stdout), {h: (1, int(h in was_off), 0, 0, 0) for h in hosts})
        self.assertEqual([changes(sim) for sim in sims], [[]] * 10)
        self.assertEqual([sim.state()["STATUS"] for sim in sims], [2, 2, 2, 1, 1, 2, 2, 2, 1, 1])

    def test_diff_mode_shows_the_state_before_and_after(self):
        sims, inventory, hosts, was_off = self.ten()
        result = self.play(inventory, self.playbook(SMMLAN), "--diff", "--limit", "smm00,smm03,smm05")
        self.assertEqual(result.returncode, 0, result.describe())
        self.assertEqual(recap(result.stdout), {"smm00": (1, 1, 0, 0, 0), "smm03": (1, 0, 0, 0, 0),
                                                "smm05": (1, 1, 0, 0, 0)})
        # Over Redfish the probe read the address of the switched-off SMM; over IPMI it is read once the network is on.
        redfish = ('--- before\n+++ after\n@@ -1,5 +1,5 @@\n {\n     "ipmi_over_lan": false,\n     "ipv4": '
                   '"192.0.2.100",\n-    "network": "disabled"\n+    "network": "enabled"\n }\n\nchanged: [smm00]\n')
        ipmi = ('--- before\n+++ after\n@@ -1,5 +1,5 @@\n {\n     "ipmi_over_lan": false,\n-    "ipv4": null,\n-    '
                '"network": "disabled"\n+    "ipv4": "192.0.2.100",\n+    "network": "enabled"\n }\n\nchanged: [smm05]\n')
        self.assertIn(redfish, result.stdout)
        self.assertIn(ipmi, result.stdout)
        # None for the SMM that was already on.
        self.assertEqual(result.stdout.count("--- before"), 2, result.stdout)


class Failures(AnsibleCase):
    def test_a_wrong_password_and_a_dead_address_fail_those_hosts_alone(self):
        knobs = [{"PASSWORD": PASSWORD, "INITIAL_STATUS": 2}] * 4 + [{"PASSWORD": PASSWORD, "REDFISH": "off"}] * 4 + \
                [{"PASSWORD": "not-this-one", "REDFISH": "off"}]
        sims, addresses = self.smms(knobs)
        dead = self.lease_address()
        inventory, hosts = self.inventory(addresses + [dead])
        result = self.play(inventory, self.playbook(SMMLAN))
        self.assertEqual(result.returncode, 2, result.describe())
        expected = {h: (1, int(i < 4), 0, 0, 0) for i, h in enumerate(hosts[:8])}
        expected.update({"smm08": (0, 0, 0, 1, 0), "smm09": (0, 0, 0, 1, 0)})
        self.assertEqual(recap(result.stdout), expected)
        failures = {}
        for line in open(self.dump, encoding="utf-8"):
            row = json.loads(line)
            if row["event"] == "failed":
                failures[row["host"]] = (row["result"]["msg"], row["result"]["code"], row["result"]["changed"])
        self.assertEqual(failures, {
            "smm08": ("2054 Authentication failed. For instance, user name or password error.", 2054, False),
            "smm09": ("13 Connection failed.", 13, False)})
        self.assertIn('fatal: [smm08]: FAILED! => {"ansible_facts": {"smmlan": {"code": 2054, ', result.stdout)
        self.assertEqual([sim.state()["STATUS"] for sim in sims], [1] * 9)


class Secrets(AnsibleCase):
    def test_the_password_is_nowhere_with_vvv_and_a_callback_that_dumps_every_result(self):
        sims, addresses = self.smms([{"PASSWORD": PASSWORD, "INITIAL_STATUS": 2},
                                     {"PASSWORD": PASSWORD, "INITIAL_STATUS": 2, "REDFISH": "off"},
                                     {"PASSWORD": "wrong-one"}])
        inventory, _ = self.inventory(addresses)
        result = self.play(inventory, self.playbook(SMMLAN), "-vvv")
        self.assertEqual(result.returncode, 2, result.describe())
        # The run was verbose and every result was dumped: the places the password could leak hold the runs' output.
        self.assertIn("<smm00> EXEC /bin/sh -c '/usr/bin/python3 ", result.stdout)
        with open(self.dump, encoding="utf-8") as f:
            dumped = f.read()
        self.assertEqual(len(dumped.splitlines()), 3)
        self.assertIn('"code": 2054', dumped)
        self.assertIn('"change_sent": true', dumped)
        self.assertNotIn(PASSWORD, dumped)
        log = self.morvel_log()
        self.assertIn("command smmlan, subcommand enable", log)
        self.assertNotIn(PASSWORD, log)
        self.assertNotIn(PASSWORD, result.stdout + result.stderr)


class Facts(AnsibleCase):
    def test_a_query_only_task_gives_facts_that_a_later_when_uses(self):
        knobs = [{"PASSWORD": PASSWORD, "INITIAL_STATUS": 2}, {"PASSWORD": PASSWORD},
                 {"PASSWORD": PASSWORD, "INITIAL_STATUS": 2, "REDFISH": "off"}, {"PASSWORD": PASSWORD, "REDFISH": "off"}]
        sims, addresses = self.smms(knobs)
        inventory, hosts = self.inventory(addresses)
        tasks = """\
            - name: Read the SMM
              morvel.smm.smmlan:
                bmc: "{{ smm_address }}"
                username: "{{ smm_user }}"
                password: "{{ smm_password }}"
                config: "{{ morvel_config }}"
                morvel_path: "{{ morvel }}"
            - name: Report the SMMs that are off
              ansible.builtin.debug:
                msg: "{{ inventory_hostname }} off, read over {{ smmlan.protocol }}, code {{ smmlan.code }}"
              when: smmlan.state.network == 'disabled'
            """
        result = self.play(inventory, self.playbook(tasks))
        self.assertEqual(result.returncode, 0, result.describe())
        self.assertEqual(recap(result.stdout), {"smm00": (2, 0, 0, 0, 0), "smm01": (1, 0, 0, 0, 1),
                                                "smm02": (2, 0, 0, 0, 0), "smm03": (1, 0, 0, 0, 1)})
        self.assertIn('ok: [smm00] => {\n    "msg": "smm00 off, read over redfish, code 0"\n}', result.stdout)
        self.assertIn('ok: [smm02] => {\n    "msg": "smm02 off, read over ipmi, code 0"\n}', result.stdout)
        self.assertEqual([changes(sim) for sim in sims], [[]] * 4)


class Options(AnsibleCase):
    def test_protocol_is_passed_on_and_a_run_past_its_timeout_fails_its_host(self):
        sims, addresses = self.smms([{"PASSWORD": PASSWORD, "INITIAL_STATUS": 2},
                                     {"PASSWORD": PASSWORD, "INITIAL_STATUS": 2, "REDFISH": "off",
                                      "STATUS_DELAY_READS": 1000}])
        inventory, hosts = self.inventory(addresses)
        host_vars = os.path.join(os.path.dirname(inventory), "host_vars")
        os.makedirs(host_vars)
        with open(os.path.join(host_vars, "smm00.yml"), "w", encoding="utf-8") as f:
            f.write("smm_protocol: ipmi\n")
        with open(os.path.join(host_vars, "smm01.yml"), "w", encoding="utf-8") as f:
            f.write("smm_timeout: %d\n" % TASK_TIMEOUT)
        tasks = SMMLAN + '''\
    protocol: "{{ smm_protocol | default(omit) }}"
    timeout: "{{ smm_timeout | default(omit) }}"
'''
        result = self.play(inventory, self.playbook(tasks))
        self.assertEqual(result.returncode, 2, result.describe())
        # The recap counts no change of a failed task; its result says changed (below).
        self.assertEqual(recap(result.stdout), {"smm00": (1, 1, 0, 0, 0), "smm01": (0, 0, 0, 1, 0)})
        # Over IPMI only: the HTTPS face of the first SMM saw nothing.
        self.assertEqual(sims[0].redfish_requests(), [])
        self.assertIn(("f1", "01"), sims[0].ipmi_requests())
        rows = {row["host"]: row for row in map(json.loads, open(self.dump, encoding="utf-8"))}
        self.assertEqual((rows["smm00"]["result"]["protocol"], rows["smm00"]["result"]["commands"]), ("ipmi", ["enable"]))
        # The second SMM got its change, never showed it; morvel was stopped at the limit and said what it had done.
        failed = rows["smm01"]["result"]
        self.assertEqual((failed["msg"], failed["changed"]),
                         ("morvel smmlan enable did not end within %d s" % TASK_TIMEOUT, True))
        self.assertEqual((failed["record"]["interrupted"], failed["record"]["change_sent"]), (True, True))
        self.assertIn(("f1", "01"), sims[1].ipmi_requests())


    def test_redfish_auth_session_logs_in_and_out_of_smms_that_refuse_basic(self):
        sims, addresses = self.smms([{"PASSWORD": PASSWORD, "INITIAL_STATUS": 2, "REDFISH_BASIC": "off"},
                                     {"PASSWORD": PASSWORD, "INITIAL_STATUS": 1, "REDFISH_BASIC": "off"}])
        inventory, _ = self.inventory(addresses)
        result = self.play(inventory, self.playbook(SMMLAN + "    redfish_auth: session\n"))
        self.assertEqual(result.returncode, 0, result.describe())
        self.assertEqual(recap(result.stdout), {"smm00": (1, 1, 0, 0, 0), "smm01": (1, 0, 0, 0, 0)})
        sessions = "/redfish/v1/SessionService/Sessions"
        # The query and the change each over a session of their own, each logged out.
        self.assertEqual([(method, path) for method, path, _ in sims[0].redfish_requests()],
                         [("POST", sessions), ("GET", "/redfish/v1/Chassis/2"), ("DELETE", sessions + "/1"),
                          ("POST", sessions), ("GET", "/redfish/v1/Chassis/2"), ("PATCH", "/redfish/v1/Chassis/2"),
                          ("DELETE", sessions + "/2")])
        self.assertEqual([r[0] for r in sims[1].redfish_requests()], ["POST", "GET", "DELETE"])
        self.assertEqual([sim.sessions_open() for sim in sims], [0, 0])
        self.assertEqual([sim.ipmi_requests() for sim in sims], [[], []])
        rows = {row["host"]: row for row in map(json.loads, open(self.dump, encoding="utf-8"))}
        self.assertEqual(rows["smm00"]["result"]["record"]["session_logout"], {"ok": True, "error": None})


class Documentation(AnsibleCase):
    def test_ansible_doc_renders_every_option_return_value_and_example(self):
        env = self.env({"ANSIBLE_CONFIG": self.ansible_cfg, "ANSIBLE_COLLECTIONS_PATH": self.collections})
        shown = run_command(["ansible-doc", "morvel.smm.smmlan"], env=env)
        self.assertEqual((shown.returncode, shown.stderr), (0, ""), shown.describe())
        described = run_command(["ansible-doc", "--json", "morvel.smm.smmlan"], env=env)
        self.assertEqual(described.returncode, 0, described.describe())
        doc = json.loads(described.stdout)["morvel.smm.smmlan"]
        options = {"bmc", "username", "password", "network", "ipmi_over_lan", "method", "protocol", "redfish_auth",
                   "tls_verify", "cacert", "known_smms", "config", "timeout", "morvel_path"}
        self.assertEqual(set(doc["doc"]["options"]), options)
        for name in sorted(options):
            self.assertIn("\n= %s\n" % name if doc["doc"]["options"][name].get("required") else "\n- %s\n" % name,
                          shown.stdout)
        self.assertEqual(set(doc["return"]), {"state", "protocol", "code", "message", "change_sent", "commands",
                                              "record", "ansible_facts"})
        # Every example is a task of this module with documented options only.
        import yaml
        examples = yaml.safe_load(doc["examples"])
        self.assertEqual(len(examples), 5)
        for task in examples:
            self.assertLessEqual(set(task["morvel.smm.smmlan"]), options, task)
