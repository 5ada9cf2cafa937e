# SPDX-License-Identifier: GPL-3.0-or-later
"""Fleets as they are: dead SMMs found in one bounded pass, a wrong password tried on few, a canary and a
failure budget that stop a change going wrong everywhere, and a retry file of what did not succeed.

Dead SMMs are addresses whose every packet is dropped (iptables in a network namespace of the test's own),
as a powered-off enclosure or a wrong VLAN behaves: no answer and no refusal.
"""

import json
import os
import signal
import stat
import subprocess
import sys
import threading
import time
import unittest

from smmsim import HANG_GUARD, MODULE_DIR, MORVEL, MORVEL_WRAPPER, E2ETestCase
from test_fleet import (AUTH, CONFIG, IPMI_QUERY, PASSWORD, REDFISH_QUERY, REFUSED_QUERY, VALIDATOR,
                        WAIT_FOR_THE_SIGNAL, blocks, records)

DEAD = ["127.9.0.%d" % n for n in range(1, 21)]
UNREACHABLE = "no answer on TCP port 443 (Redfish) or UDP port 623 (IPMI) within 5 s"
ENABLE_BANNER = "************Enable Result************"
REDFISH_DISABLED = [ENABLE_BANNER, "", "Enable SMM LAN succeeded", "", ENABLE_BANNER]
REDFISH_REFUSED = [ENABLE_BANNER, "", "Enable SMM LAN failed.", "    Error msg: busy", "", ENABLE_BANNER]


class LargeFleet(E2ETestCase):
    def morvel(self, args, password=PASSWORD, config=None, netns=None, env=None):
        result = self.run_morvel(["smmlan"] + list(args), config=dict(CONFIG, **(config or {})), log_level=3,
                                 env=dict({"MORVEL_BMC_PASSWORD": password}, **(env or {})), netns=netns)
        for text in (result.stdout, result.stderr, result.files["log"]):
            self.assertNotIn(PASSWORD, text)
            self.assertNotIn("wrong-pw", text)
        return result

    def retry_file(self):
        return os.path.join(self.tmp, "retry.txt")

    def assertRetryFile(self, labels, user="admin"):
        path = self.retry_file()
        self.assertEqual(stat.S_IMODE(os.stat(path).st_mode), 0o600)
        with open(path, encoding="utf-8") as f:
            self.assertEqual(f.read(), "".join("%s@%s\n" % (user, label) for label in labels))


class Detection(LargeFleet):
    def test_twenty_dead_cost_one_bound_and_the_live_run_as_alone(self):
        namespace = self.netns()
        live = self.start_sims([{"PASSWORD": PASSWORD}] * 3 + [{"PASSWORD": PASSWORD, "REDFISH": "off"}] * 3,
                               netns=namespace)
        namespace.blackhole("127.9.0.0/24")
        labels = [sim.address for sim in live] + DEAD
        began = time.monotonic()
        result = self.morvel(["query", "--bmc", "admin@" + ",".join(s.address for s in live) + ",127.9.0.[1-20]"],
                             netns=namespace)
        took = time.monotonic() - began
        self.assertEqual(result.returncode, 1, result.describe())
        summary = "smmlan query: 26 SMMs, 6 succeeded, 20 failed\n  13 Connection failed.: %s\n" % ", ".join(DEAD)
        self.assertTrue(result.stdout.endswith(summary), result.stdout)
        out = blocks(result.stdout[:-len(summary)])
        err = blocks(result.stderr)
        # The live ones exactly as each one alone; the dead ones say what went unanswered and for how long.
        alone = {}
        for sim in (live[0], live[3]):
            single = self.morvel(["query", "--bmc", "admin@" + sim.address], netns=namespace)
            self.assertEqual(single.returncode, 0, single.describe())
            alone[sim.address] = single.stdout.splitlines()
        self.assertEqual(alone[live[0].address], REDFISH_QUERY + ["0 Succeed."])
        self.assertEqual(alone[live[3].address], IPMI_QUERY + ["0 Succeed."])
        self.assertEqual(out, {sim.address: alone[live[0 if i < 3 else 3].address] for i, sim in enumerate(live)})
        self.assertEqual(err, {label: [UNREACHABLE, "13 Connection failed."] for label in DEAD})
        self.assertEqual(sorted(out) + sorted(err), sorted(labels[:6]) + sorted(DEAD))
        # A figure to read, not a bound: twenty dead SMMs are asked at once, so this is about one bound (5 s).
        sys.stderr.write("\n[large fleets] 6 live and 20 dead SMMs at the default fan-out: %.2f s\n" % took)

    def test_the_live_run_to_their_end_while_the_dead_are_still_asked(self):
        # The dead come first, at a fan-out of one, and are asked for an hour: only
        # if no dead SMM holds the fan-out place or the queue can the live ones end.
        namespace = self.netns()
        live = self.start_sims([{"PASSWORD": PASSWORD}] * 2 + [{"PASSWORD": PASSWORD, "REDFISH": "off"}],
                               netns=namespace)
        namespace.blackhole("127.9.0.0/24")
        argv = namespace.wrap(MORVEL_WRAPPER + [
            MORVEL, "--log-file", os.path.join(self.tmp, "log"), "--config", self.write_config(CONFIG), "smmlan",
            "query", "--output", "json", "--fanout", "1", "--detect-timeout", "3600",
            "--bmc", "admin@127.9.0.[1-20]," + ",".join(sim.address for sim in live)])
        process = subprocess.Popen(argv, env=self.env({"MORVEL_MODULE_PATH": MODULE_DIR,
                                                       "MORVEL_BMC_PASSWORD": PASSWORD}),
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        lines = []
        reader = threading.Thread(target=lambda: lines.extend(process.stdout), daemon=True)
        reader.start()
        self.wait_for(lambda: len(lines) >= 3 or process.poll() is not None, "the records of the live SMMs")
        self.assertIsNone(process.poll(), "".join(lines))
        process.send_signal(signal.SIGINT)
        self.assertEqual(process.wait(timeout=HANG_GUARD), 130)
        reader.join(timeout=HANG_GUARD)
        stderr = process.stderr.read()
        process.stderr.close()
        rows, summary = records("".join(lines))
        self.assertEqual(sorted((row["target"], row["ok"]) for row in rows),
                         sorted((sim.address, True) for sim in live))
        self.assertEqual((summary["not_started"], summary["unreachable"], summary["stopped_by"]),
                         (DEAD, [], "interrupted by SIGINT"), stderr)

    def test_json_records_of_dead_smms_say_why(self):
        namespace = self.netns()
        sim = self.start_sims([{"PASSWORD": PASSWORD}], netns=namespace)[0]
        namespace.blackhole("127.9.0.0/24")
        result = self.morvel(["query", "--output", "json", "--bmc", "admin@%s,127.9.0.7" % sim.address],
                             netns=namespace)
        self.assertEqual((result.returncode, result.stderr), (1, ""), result.describe())
        rows, summary = records(result.stdout)
        dead = [row for row in rows if row["target"] == "127.9.0.7"]
        self.assertEqual(dead, [{
            "target": "127.9.0.7", "host": "127.9.0.7", "port": 443, "user": "admin", "subcommand": "query",
            "protocol": None, "code": 13, "message": "Connection failed.", "ok": False, "interrupted": False,
            "change_sent": False, "unreachable": UNREACHABLE,
            "state": {"network": None, "ipmi_over_lan": None, "ipv4": None}, "elapsed_ms": 5000,
            "console": [UNREACHABLE]}])
        self.assertEqual((summary["failed_by_code"], summary["unreachable"], summary["stopped_by"]),
                         ({"13": ["127.9.0.7"]}, ["127.9.0.7"], None))

    def test_only_the_port_of_the_protocol_named_counts(self):
        namespace = self.netns()
        sim = self.start_sims([{"PASSWORD": PASSWORD}], netns=namespace)[0]
        namespace.blackhole("127.9.0.0/24")
        # The SMM answers over IPMI, but nothing comes back from its Redfish port.
        namespace._ip("netns", "exec", namespace.name, "iptables", "-A", "INPUT", "-p", "tcp", "-d", sim.address,
                      "--dport", "443", "-j", "DROP")
        result = self.morvel(["query", "--protocol", "redfish", "--detect-timeout", "2",
                              "--bmc", "admin@%s,127.9.0.9" % sim.address], netns=namespace)
        self.assertEqual(result.returncode, 1, result.describe())
        line = "no answer on TCP port 443 (Redfish) within 2 s"
        self.assertEqual(blocks(result.stderr), {sim.address: [line, "13 Connection failed."],
                                                 "127.9.0.9": [line, "13 Connection failed."]})
        self.assertEqual(sim.redfish_requests(), [])
        # Over IPMI only, its pong is what counts.
        result = self.morvel(["query", "--protocol", "ipmi", "--detect-timeout", "2",
                              "--bmc", "admin@%s,127.9.0.9" % sim.address], netns=namespace)
        self.assertEqual(blocks(result.stderr), {"127.9.0.9": ["no answer on UDP port 623 (IPMI) within 2 s",
                                                               "13 Connection failed."]})
        self.assertEqual(blocks(result.stdout[:result.stdout.index("smmlan query:")])[sim.address][-1], "0 Succeed.")

    def test_one_smm_is_asked_first_only_when_the_option_says_so(self):
        namespace = self.netns()
        namespace.blackhole("127.9.0.0/24")
        result = self.morvel(["query", "--detect-timeout", "1", "--bmc", "admin@127.9.0.3"], netns=namespace)
        self.assertEqual((result.returncode, result.stdout), (13, ""), result.describe())
        self.assertEqual(result.stderr, "no answer on TCP port 443 (Redfish) or UDP port 623 (IPMI) within 1 s\n"
                                        "13 Connection failed.\n")
        # The configuration key alone does not change a run over one SMM: it goes on over IPMI as it always did.
        config = {"SMM_DETECT_TIMEOUT": "1", "IPMI_SESSION_TIMEOUT_MS": "500"}
        result = self.morvel(["query", "--protocol", "ipmi", "--bmc", "admin@127.9.0.3"], config=config, netns=namespace)
        self.assertEqual((result.returncode, result.stdout, result.stderr),
                         (13, "************Query Result************\n\nQuery SMM network status failed.\n"
                              "    Error msg: Connection failed.\n\n************Query Result************\n",
                          "13 Connection failed.\n"), result.describe())


class LockOut(LargeFleet):
    def test_a_wrong_password_is_tried_on_three_smms_at_most(self):
        sims = self.start_sims([{"PASSWORD": PASSWORD}] * 10)
        labels = [sim.address for sim in sims]
        result = self.morvel(["query", "--retry-file", self.retry_file(), "--bmc", "admin@" + ",".join(labels)],
                             password="wrong-pw")
        self.assertEqual(result.returncode, 1, result.describe())
        tried = [sim.address for sim in sims if sim.redfish_requests()]
        self.assertEqual(len(tried), 3, result.describe())
        # Every one of them saw the password once over Redfish and was then refused over IPMI.
        for sim in sims:
            if sim.address in tried:
                self.assertEqual([r["auth"] for r in sim.records("redfish")], ["bad"])
        rest = [label for label in labels if label not in tried]
        stopped = ("3 SMMs refused the user or password and none accepted them: no other SMM is started, so that no "
                   "account gets locked; check the user and the password from MORVEL_BMC_PASSWORD")
        summary = ("smmlan query: 10 SMMs, 0 succeeded, 3 failed, 7 not started\n"
                   "  2054 %s: %s\n  not started: %s\n  stopped: %s\n"
                   % (AUTH, ", ".join(l for l in labels if l in tried), ", ".join(rest), stopped))
        self.assertTrue(result.stdout.endswith(summary), result.stdout)
        self.assertEqual(blocks(result.stdout[:-len(summary)]), {label: REFUSED_QUERY for label in tried})
        err = result.stderr.splitlines()
        self.assertIn("morvel: " + stopped, err)
        err.remove("morvel: " + stopped)
        self.assertEqual(blocks("\n".join(err)), {label: ["2054 " + AUTH] for label in tried})
        self.assertRetryFile(labels)

        # The same in JSON: the records of the three, the seven listed as not started, and why.
        result = self.morvel(["query", "--output", "json", "--bmc", "admin@" + ",".join(labels)], password="wrong-pw")
        rows, summary = records(result.stdout)
        self.assertEqual(len(rows), 3)
        self.assertEqual(len(summary["not_started"]), 7)
        self.assertEqual(summary["stopped_by"], stopped)
        self.assertEqual(result.stderr, "morvel: " + stopped + "\n")

        # Run again from the retry file, with the password that works: exactly those, every one.
        result = self.morvel(["query", "--output", "json", "--retry-file", self.retry_file(),
                              "--bmc-file", self.retry_file()])
        self.assertEqual(result.returncode, 0, result.describe())
        rows, summary = records(result.stdout)
        self.assertEqual(sorted(r["target"] for r in rows), sorted(labels))
        self.assertRetryFile([])

    def test_once_one_smm_accepted_refusals_no_longer_stop_the_run(self):
        sims = self.start_sims([{"PASSWORD": PASSWORD}] + [{"PASSWORD": "another-pw"}] * 5)
        result = self.morvel(["query", "--detect-timeout", "0", "--bmc", "admin@" + ",".join(s.address for s in sims)])
        self.assertEqual(result.returncode, 1, result.describe())
        self.assertTrue(result.stdout.endswith("smmlan query: 6 SMMs, 1 succeeded, 5 failed\n  2054 %s: %s\n"
                                               % (AUTH, ", ".join(s.address for s in sims[1:]))), result.stdout)


class Canary(LargeFleet):
    def test_a_failing_canary_contacts_no_other_smm(self):
        sims = self.start_sims([{"PASSWORD": PASSWORD, "PATCH_STATUS": 500, "PATCH_BODY": "busy"}] +
                               [{"PASSWORD": PASSWORD}] * 5)
        labels = [sim.address for sim in sims]
        result = self.morvel(["disable", "--canary", "2", "--retry-file", self.retry_file(),
                              "--bmc", "admin:%s@%s" % (PASSWORD, ",".join(labels))])
        self.assertEqual(result.returncode, 1, result.describe())
        stopped = "the canary did not succeed on %s: no other SMM is started" % labels[0]
        summary = ("smmlan disable: 6 SMMs, 1 succeeded, 1 failed, 4 not started\n  17 Internal error.: %s\n"
                   "  not started: %s\n  stopped: %s\n" % (labels[0], ", ".join(labels[2:]), stopped))
        self.assertTrue(result.stdout.endswith(summary), result.stdout)
        self.assertEqual(blocks(result.stdout[:-len(summary)]), {labels[0]: REDFISH_REFUSED,
                                                                  labels[1]: REDFISH_DISABLED + ["0 Succeed."]})
        self.assertEqual([s.redfish_requests() for s in sims[2:]], [[]] * 4)
        self.assertEqual([s.ipmi_requests() for s in sims[2:]], [[]] * 4)
        # The retry file names the failed canary and the unstarted, never the password given in --bmc.
        self.assertRetryFile([labels[0]] + labels[2:])

        # From the retry file: exactly those again, the canary that passed not touched.
        before = len(sims[1].redfish_requests())
        result = self.morvel(["disable", "--bmc-file", self.retry_file()])
        self.assertEqual(result.returncode, 1, result.describe())
        self.assertTrue(result.stdout.endswith("smmlan disable: 5 SMMs, 4 succeeded, 1 failed\n"
                                               "  17 Internal error.: %s\n" % labels[0]), result.stdout)
        self.assertEqual(len(sims[1].redfish_requests()), before)

    def test_sigint_during_a_canary_writes_what_did_not_succeed(self):
        sims = self.start_sims([{"PASSWORD": PASSWORD, "REDFISH": "off", "INITIAL_STATUS": 2,
                                 "STATUS_DELAY_READS": 1000}] + [{"PASSWORD": PASSWORD}] * 2)
        labels = [sim.address for sim in sims]
        config = self.write_config(WAIT_FOR_THE_SIGNAL)
        argv = MORVEL_WRAPPER + [MORVEL, "--log-file", os.path.join(self.tmp, "log"), "--config", config, "smmlan",
                                 "enable", "--canary", "1", "--retry-file", self.retry_file(),
                                 "--bmc", "admin@" + ",".join(labels)]
        process = subprocess.Popen(argv, env=self.env({"MORVEL_MODULE_PATH": MODULE_DIR, "MORVEL_BMC_PASSWORD": PASSWORD}),
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.wait_for(lambda: process.poll() is not None or ("f1", "01") in sims[0].ipmi_requests(),
                      "the canary's change")
        self.assertIsNone(process.poll())
        process.send_signal(signal.SIGINT)
        stdout, stderr = process.communicate(timeout=HANG_GUARD)
        self.assertEqual(process.returncode, 130, stderr)
        line = "interrupted after a change was sent; the SMM's state is unconfirmed"
        self.assertEqual(blocks(stderr.decode()), {labels[0]: [line]})
        self.assertTrue(stdout.decode().endswith(
            "smmlan enable: 3 SMMs, 0 succeeded, 0 failed, 1 interrupted, 2 not started\n"
            "  %s: %s\n  not started: %s\n" % (line, labels[0], ", ".join(labels[1:]))), stdout.decode())
        self.assertEqual([s.redfish_requests() for s in sims[1:]], [[], []])
        self.assertRetryFile(labels)


class FailureBudget(LargeFleet):
    def test_more_failures_than_allowed_start_no_other(self):
        sims = self.start_sims([{"PASSWORD": PASSWORD, "PATCH_STATUS": 500, "PATCH_BODY": "busy"}] * 3 +
                               [{"PASSWORD": PASSWORD}] * 3)
        labels = [sim.address for sim in sims]
        result = self.morvel(["disable", "--max-failures", "2", "--fanout", "1", "--detect-timeout", "0",
                              "--output", "json", "--retry-file", self.retry_file(), "--bmc", "admin@" + ",".join(labels)])
        self.assertEqual(result.returncode, 1, result.describe())
        rows, summary = records(result.stdout)
        self.assertEqual([(r["target"], r["code"]) for r in rows], [(label, 17) for label in labels[:3]])
        stopped = "3 SMMs failed, more than --max-failures 2 allows: no other SMM is started"
        self.assertEqual((summary["not_started"], summary["stopped_by"]), (labels[3:], stopped))
        self.assertEqual(result.stderr, "morvel: %s\n" % stopped)
        self.assertEqual([s.redfish_requests() for s in sims[3:]], [[]] * 3)
        self.assertRetryFile(labels)

    def test_a_budget_of_another_shape_is_refused_before_anything_runs(self):
        sim = self.start_sims([{"PASSWORD": PASSWORD}])[0]
        for value in ("2x", "-1", "150%", "1.234%"):
            with self.subTest(value=value):
                result = self.morvel(["query", "--max-failures", value, "--bmc", "admin@%s,%s" % (sim.address, "h2")])
                self.assertEqual((result.returncode, result.stdout), (5, ""))
                self.assertEqual(result.stderr, "morvel: --max-failures must be a number of SMMs (such as 3) or a "
                                                "percentage of those ended (such as 5%)\n")
        result = self.morvel(["query", "--retry-file", os.path.join(self.tmp, "no", "such", "dir", "f"),
                              "--bmc", "admin@" + sim.address])
        self.assertEqual((result.returncode, result.stderr),
                         (5, "morvel: cannot write retry file %s: No such file or directory\n"
                          % os.path.join(self.tmp, "no", "such", "dir", "f")))
        self.assertEqual(sim.redfish_requests(), [])


if __name__ == "__main__":
    unittest.main()
