# SPDX-License-Identifier: GPL-3.0-or-later
"""`morvel smmlan` over many SMMs in one run: blocks, summary, JSON Lines, ranges, fan-out, interrupt, progress.

The simulated SMMs mix Redfish and IPMI-only ones; a dead address (nothing
listens) and an SMM that refuses the password fail on their own. Every block
of the text form and every record of the JSON form is checked whole; the order
in which targets end is not fixed, so blocks are matched by their label.
"""

import json
import os
import pty
import re
import signal
import subprocess
import sys
import threading
import time
import unittest

import jsonschema

from smmsim import HANG_GUARD, MODULE_DIR, MORVEL, MORVEL_WRAPPER, SOURCE_DIR, E2ETestCase, peak_rss_bound_kib, scaled

PASSWORD = "Fl33t:pw@1"
# Twenty SMMs at once under valgrind answer slowly: the session time-out grows with the time scale.
CONFIG = {"IPMI_WORKAROUND_FLAGS": "opensesspriv", "SMM_NETWORK_CHECK_SLEEP_TIME": "1",
          "IPMI_SESSION_TIMEOUT_MS": str(int(scaled(2) * 1000))}
# Runs that a signal ends: no dead SMM to time out, and a change that never
# shows is waited for a day (status checks a day apart, a million of them),
# so nothing but the signal can end the waits, however slow the machine.
WAIT_FOR_THE_SIGNAL = dict(CONFIG, IPMI_SESSION_TIMEOUT_MS="600000", SMM_NETWORK_CHECK_SLEEP_TIME="86400",
                           SMM_NETWORK_CHECK_RETRY_COUNT="1000000")
SCHEMA_PATH = os.path.join(SOURCE_DIR, "doc", "smmlan-records.schema.json")
with open(SCHEMA_PATH, encoding="utf-8") as schema_file:
    VALIDATOR = jsonschema.Draft202012Validator(json.load(schema_file))

AUTH = "Authentication failed. For instance, user name or password error."
QUERY_BANNER = "************Query Result************"
ENABLE_BANNER = "************Enable Result************"
# The console lines of each kind of target, without the result line.
REDFISH_QUERY = [QUERY_BANNER, "", "Query SMM network status succeeded",
                 "    Status: SMM network over LAN enabled and IPMI over LAN disabled", "    SMM IP: 192.0.2.100", "",
                 QUERY_BANNER, ""]
IPMI_QUERY = [QUERY_BANNER, "", "Query SMM network status succeeded", "    Status: Enabled", "    SMM IP: 192.0.2.100",
              "", QUERY_BANNER]
DEAD_QUERY = [QUERY_BANNER, "", "Query SMM network status failed.", "    Error msg: Connection failed.", "",
              QUERY_BANNER]
REFUSED_QUERY = [QUERY_BANNER, "", "Query SMM network status failed.", "    Error msg: " + AUTH, "", QUERY_BANNER]
STATE_ON = {"network": "enabled", "ipmi_over_lan": False, "ipv4": "192.0.2.100"}
NOTHING_READ = {"network": None, "ipmi_over_lan": None, "ipv4": None}


def blocks(text):
    """{label: [lines]} of one stream, failing unless every label's lines are one unbroken run."""
    found = {}
    order = []
    for line in text.splitlines():
        label, _, rest = line.partition(": ")
        if not order or order[-1] != label:
            if label in found:
                raise AssertionError("lines of %s are split by another target's:\n%s" % (label, text))
            order.append(label)
            found[label] = []
        found[label].append(rest)
    return found


def records(stdout):
    """The JSON Lines of stdout, each checked against the schema: (target records, summary)."""
    rows = [json.loads(line) for line in stdout.splitlines()]
    for row in rows:
        VALIDATOR.validate(row)
    assert rows and "summary" in rows[-1], stdout
    return rows[:-1], rows[-1]["summary"]


def comparable(record):
    """A record without what differs from run to run."""
    return {k: v for k, v in record.items() if k != "elapsed_ms"}


class FleetCase(E2ETestCase):
    def fleet(self, args, stdin=None, env=None, config=None, timeout=300, measure_rss=False):
        result = self.run_morvel(["smmlan"] + list(args), config=dict(CONFIG, **(config or {})), log_level=4,
                                 env=dict({"MORVEL_BMC_PASSWORD": PASSWORD}, **(env or {})), stdin=stdin,
                                 timeout=timeout, measure_rss=measure_rss)
        for text in (result.stdout, result.stderr, result.files["log"]):
            self.assertNotIn(PASSWORD, text)
            self.assertNotIn("Fl33t", text)
        return result

    def mixed(self):
        """20 targets: 9 over Redfish, 9 IPMI-only, one refusing the password, one dead address."""
        knobs = [{"PASSWORD": PASSWORD}] * 9 + [{"PASSWORD": PASSWORD, "REDFISH": "off"}] * 9 + \
                [{"PASSWORD": "other-pw"}]
        sims = self.start_sims(knobs)
        dead = self.lease_address()
        return sims[:9], sims[9:18], sims[18], dead

    def expected_query_outcomes(self, redfish, ipmi, refused, dead):
        """{label: (console lines, result line, ok)}."""
        expected = {sim.address: (REDFISH_QUERY, "0 Succeed.", True) for sim in redfish}
        expected.update({sim.address: (IPMI_QUERY, "0 Succeed.", True) for sim in ipmi})
        expected[refused.address] = (REFUSED_QUERY, "2054 " + AUTH, False)
        expected[dead] = (DEAD_QUERY, "13 Connection failed.", False)
        return expected


class TextOutput(FleetCase):
    def test_twenty_smms_mixed_blocks_summary_and_status(self):
        redfish, ipmi, refused, dead = self.mixed()
        targets = [sim.address for sim in redfish + ipmi] + [refused.address, dead]
        result = self.fleet(["query", "--bmc", "admin@" + ",".join(targets)])
        self.assertEqual(result.returncode, 1, result.describe())
        summary = ("smmlan query: 20 SMMs, 18 succeeded, 2 failed\n"
                   "  13 Connection failed.: %s\n"
                   "  2054 %s: %s\n" % (dead, AUTH, refused.address))
        self.assertTrue(result.stdout.endswith(summary), result.stdout)
        out = blocks(result.stdout[:-len(summary)])
        err = blocks(result.stderr)
        expected = self.expected_query_outcomes(redfish, ipmi, refused, dead)
        self.assertEqual(sorted(out), sorted(expected))
        for label, (console, result_line, ok) in expected.items():
            with self.subTest(target=label):
                self.assertEqual(out[label], console + ([result_line] if ok else []))
                self.assertEqual(err.get(label), None if ok else [result_line])
        # Redfish SMMs were read once over HTTPS and never over IPMI; IPMI-only ones twice over IPMI.
        for sim in redfish:
            self.assertEqual([r[:2] for r in sim.redfish_requests()], [("GET", "/redfish/v1/Chassis/2")])
            self.assertEqual(sim.ipmi_requests(), [])
        for sim in ipmi:
            self.assertEqual([cmd for cmd, _ in sim.ipmi_requests()], ["f1", "c4"])
        # Every log record of a target names it.
        for label in targets:
            self.assertIn(" [%s] Src/Misc/SmmLan/SmmLan:14 Entering  SmmLan::SmmLan\n" % label, result.files["log"])

    def test_a_range_over_consecutive_addresses(self):
        addresses = self.lease_block(4)
        self.start_sims([{"PASSWORD": PASSWORD, "REDFISH": "off"}] * 4, addresses=addresses)
        first, last = addresses[0].rsplit(".", 1)[1], addresses[-1].rsplit(".", 1)[1]
        result = self.fleet(["query", "--bmc", "admin@127.0.0.[%s-%s]" % (first, last)])
        self.assertEqual((result.returncode, result.stderr), (0, ""), result.describe())
        out = blocks(result.stdout[:-len("smmlan query: 4 SMMs, 4 succeeded, 0 failed\n")])
        self.assertEqual(out, {address: IPMI_QUERY + ["0 Succeed."] for address in addresses})
        self.assertTrue(result.stdout.endswith("smmlan query: 4 SMMs, 4 succeeded, 0 failed\n"))

    def test_always_prefix_on_one_target_keeps_its_status_and_adds_no_summary(self):
        sim = self.start_sims([{"PASSWORD": "other-pw", "REDFISH": "off"}])[0]
        result = self.fleet(["query", "--always-prefix", "--bmc", "admin@" + sim.address])
        label = sim.address + ": "
        self.assertEqual(result.returncode, 255, result.describe())
        self.assertEqual(result.stdout, "".join(label + line + "\n" for line in REFUSED_QUERY))
        self.assertEqual(result.stderr, label + "2054 " + AUTH + "\n")

    def test_repeated_target_runs_once_with_a_warning(self):
        sim = self.start_sims([{"PASSWORD": PASSWORD}])[0]
        result = self.fleet(["query", "--bmc", "admin@%s,%s:443" % (sim.address, sim.address)])
        self.assertEqual(result.returncode, 0, result.describe())
        self.assertEqual(result.stderr, "morvel: warning: %s:443 is given more than once; it runs once\n" % sim.address)
        self.assertEqual(result.stdout, "".join(line + "\n" for line in REDFISH_QUERY) + "0 Succeed.\n")
        self.assertEqual(len(sim.redfish_requests()), 1)

    def test_bad_targets_end_the_run_before_any_smm_is_contacted(self):
        sim = self.start_sims([{"PASSWORD": PASSWORD}])[0]
        cases = [
            (["--bmc", "admin@%s,smm[9-1]" % sim.address], "morvel: --bmc: 'smm[9-1]': descending range 9-1"),
            (["--bmc", "admin@%s" % sim.address, "--bmc", "admin@rack[1-3"],
             "morvel: --bmc: 'rack[1-3': unbalanced brackets"),
            (["--bmc", "admin@%s,x:0" % sim.address], "morvel: --bmc: 'x:0': invalid port; it must be a number from 1 to 65535"),
            (["--bmc", "admin@n[1-400]-m[1-400]"], "morvel: --bmc: 'n[1-400]-m[1-400]': more than 100000 targets after expansion"),
            (["--bmc-file", os.path.join(self.tmp, "missing")],
             "morvel: --bmc-file: cannot read target file %s: No such file or directory" % os.path.join(self.tmp, "missing")),
            (["--bmc", "admin@%s" % sim.address, "--fanout", "0"], "morvel: --fanout must be a number from 1 to 1024"),
        ]
        for args, message in cases:
            with self.subTest(args=args):
                result = self.fleet(["query"] + args)
                self.assertEqual((result.returncode, result.stdout, result.stderr), (5, "", message + "\n"))
        self.assertEqual((sim.redfish_requests(), sim.ipmi_requests()), ([], []))

    def test_ten_million_hosts_in_one_range_are_refused_before_they_are_expanded(self):
        # A hundred spans of 100000 in one group: counted, never written out (that took 534 MB).
        item = "h[%s]" % ",".join(["0-99999"] * 100)
        result = self.fleet(["query", "--bmc", "admin@" + item], measure_rss=True)
        self.assertEqual((result.returncode, result.stdout, result.stderr),
                         (5, "", "morvel: --bmc: '%s': more than 100000 targets after expansion\n" % item))
        # Under valgrind or AddressSanitizer the figure includes their own memory.
        self.assertLess(result.peak_rss_kib, peak_rss_bound_kib(20, 512))
        sys.stderr.write("\n[fleet] 10,000,000 hosts in one range refused: peak RSS %.1f MiB\n"
                         % (result.peak_rss_kib / 1024))

    def test_unknown_subcommand_of_a_fleet_is_refused_at_once(self):
        sims = self.start_sims([{"PASSWORD": PASSWORD}] * 2)
        result = self.fleet(["Query", "--bmc", "admin@%s,%s" % (sims[0].address, sims[1].address)])
        self.assertEqual((result.returncode, result.stdout), (4, ""))
        self.assertEqual(result.stderr, "morvel: subcommands are case-sensitive: did you mean 'query'?\n"
                                        "4 Invalid command.\n")
        self.assertEqual([s.redfish_requests() for s in sims], [[], []])

    def test_a_target_file_from_standard_input(self):
        sims = self.start_sims([{"PASSWORD": PASSWORD}, {"PASSWORD": PASSWORD, "REDFISH": "off"}])
        text = "# row 7\n\nadmin@%s\n  admin@%s  \n" % (sims[0].address, sims[1].address)
        result = self.fleet(["query", "--bmc-file", "-"], stdin=text)
        self.assertEqual((result.returncode, result.stderr), (0, ""), result.describe())
        out = blocks(result.stdout[:-len("smmlan query: 2 SMMs, 2 succeeded, 0 failed\n")])
        self.assertEqual(out, {sims[0].address: REDFISH_QUERY + ["0 Succeed."],
                               sims[1].address: IPMI_QUERY + ["0 Succeed."]})

    def test_a_target_file_open_to_others_with_passwords_is_warned_of(self):
        sim = self.start_sims([{"PASSWORD": PASSWORD}])[0]
        path = os.path.join(self.tmp, "targets")
        with open(path, "w", encoding="utf-8") as f:
            f.write("admin:%s@%s\n" % (PASSWORD, sim.address))
        os.chmod(path, 0o644)
        result = self.fleet(["query", "--bmc-file", path])
        self.assertEqual(result.returncode, 0, result.describe())
        self.assertEqual(result.stderr, "morvel: warning: target file %s holds passwords and is readable by group or "
                                        "others (chmod 600 it)\n" % path)


class JsonOutput(FleetCase):
    def test_twenty_smms_mixed_records_and_summary(self):
        redfish, ipmi, refused, dead = self.mixed()
        targets = [sim.address for sim in redfish + ipmi] + [refused.address, dead]
        result = self.fleet(["query", "--output", "json", "--bmc", "admin@" + ",".join(targets)])
        self.assertEqual((result.returncode, result.stderr), (1, ""), result.describe())
        rows, summary = records(result.stdout)
        expected = self.expected_query_outcomes(redfish, ipmi, refused, dead)
        self.assertEqual(sorted(row["target"] for row in rows), sorted(expected))
        for row in rows:
            label = row["target"]
            console, result_line, ok = expected[label]
            code, message = result_line.split(" ", 1)
            protocol = "redfish" if label in [s.address for s in redfish] else None if label == dead else "ipmi"
            state = NOTHING_READ if not ok else STATE_ON
            with self.subTest(target=label):
                self.assertGreaterEqual(row["elapsed_ms"], 0)
                self.assertEqual(comparable(row), {
                    "target": label, "host": label, "port": 443, "user": "admin", "subcommand": "query",
                    "protocol": protocol, "code": int(code), "message": message, "ok": ok, "interrupted": False,
                    "change_sent": False, "unreachable": None, "state": state, "console": console})
        self.assertGreaterEqual(summary.pop("elapsed_ms"), 0)
        self.assertEqual(summary, {"subcommand": "query", "targets": 20, "succeeded": 18, "failed": 2,
                                   "failed_by_code": {"13": [dead], "2054": [refused.address]},
                                   "interrupted": [], "not_started": [], "unreachable": [], "stopped_by": None})

    def test_fanout_one_gives_the_results_of_fanout_sixty_four(self):
        redfish, ipmi, refused, dead = self.mixed()
        bmc = "admin@" + ",".join([sim.address for sim in redfish[:3] + ipmi[:3]] + [refused.address, dead])
        wide = self.fleet(["query", "--output", "json", "--bmc", bmc])
        # Without detection, one at a time is strictly the order given (with it, an SMM that has not
        # answered yet is passed over until it does).
        narrow = self.fleet(["query", "--output", "json", "--fanout", "1", "--detect-timeout", "0", "--bmc", bmc])
        self.assertEqual((wide.returncode, narrow.returncode), (1, 1))
        wide_rows, wide_summary = records(wide.stdout)
        narrow_rows, narrow_summary = records(narrow.stdout)
        by_target = lambda rows: sorted((comparable(r) for r in rows), key=lambda r: r["target"])  # noqa: E731
        self.assertEqual(by_target(narrow_rows), by_target(wide_rows))
        # One at a time: the records come in the order given.
        self.assertEqual([r["target"] for r in narrow_rows], bmc.split("@", 1)[1].split(","))
        for summary in (wide_summary, narrow_summary):
            summary.pop("elapsed_ms")
        self.assertEqual(narrow_summary, wide_summary)

    def test_one_target_in_json_keeps_its_exit_status(self):
        sim = self.start_sims([{"PASSWORD": "other-pw", "REDFISH": "off"}])[0]
        result = self.fleet(["query", "--output=json", "--bmc", "admin@" + sim.address])
        self.assertEqual((result.returncode, result.stderr), (255, ""), result.describe())
        rows, summary = records(result.stdout)
        self.assertEqual([(r["code"], r["protocol"], r["console"]) for r in rows], [(2054, "ipmi", REFUSED_QUERY)])
        self.assertEqual(summary["failed_by_code"], {"2054": [sim.address]})

    def test_enable_records_the_state_it_established(self):
        sims = self.start_sims([{"PASSWORD": PASSWORD, "INITIAL_STATUS": 2},
                                {"PASSWORD": PASSWORD, "INITIAL_STATUS": 2, "REDFISH": "off"}])
        result = self.fleet(["enable", "--output", "json", "--bmc", "admin@%s,%s" % (sims[0].address, sims[1].address)])
        self.assertEqual((result.returncode, result.stderr), (0, ""), result.describe())
        rows, summary = records(result.stdout)
        got = {r["target"]: (r["protocol"], r["change_sent"], r["state"]) for r in rows}
        self.assertEqual(got, {
            # Over Redfish the probe read the address and the network off; the PATCH switched it on.
            sims[0].address: ("redfish", True, {"network": "enabled", "ipmi_over_lan": False, "ipv4": "192.0.2.100"}),
            sims[1].address: ("ipmi", True, STATE_ON)})
        self.assertEqual([s.state()["STATUS"] for s in sims], [1, 1])
        self.assertEqual((summary["succeeded"], summary["failed"]), (2, 0))

    def test_a_change_the_smm_refuses_was_still_sent(self):
        # One refuses the address method and the network switch, the other the address method (its network is on).
        sims = self.start_sims([{"PASSWORD": PASSWORD, "INITIAL_STATUS": 2, "REDFISH": "off", "CC": "F3:C1,F1.01:C1"},
                                {"PASSWORD": PASSWORD, "INITIAL_STATUS": 1, "REDFISH": "off", "CC": "F3:C1"}])
        result = self.fleet(["enable", "--method", "dhcp", "--output", "json",
                             "--bmc", "admin@%s,%s" % (sims[0].address, sims[1].address)])
        self.assertEqual((result.returncode, result.stderr), (1, ""), result.describe())
        rows, summary = records(result.stdout)
        got = {r["target"]: (r["code"], r["ok"], r["change_sent"], r["state"]["network"], r["console"]) for r in rows}
        self.assertEqual(got, {
            sims[0].address: (1, False, True, "disabled",
                              [ENABLE_BANNER, "", "Enable SMM network failed.", "    Error msg: Generic Failure.", "",
                               ENABLE_BANNER]),
            sims[1].address: (0, True, True, "enabled",
                              [ENABLE_BANNER, "", "Enable SMM network succeeded",
                               "Sleep 10 seconds more to let SMM network up", "SMM IP: 192.0.2.100", "",
                               ENABLE_BANNER])})
        self.assertEqual(summary["failed_by_code"], {"1": [sims[0].address]})
        # Every change request went out and was refused: nothing changed.
        self.assertEqual(self.changes(sims[0]), [("f3", "02", "c1"), ("f1", "01", "c1")])
        self.assertEqual(self.changes(sims[1]), [("f3", "02", "c1")])
        self.assertEqual([s.state()["STATUS"] for s in sims], [2, 1])

    def changes(self, sim):
        """(cmd, data, completion code) of every request that is no status or address read."""
        return [(r["cmd"], r["data"], r["cc"]) for r in sim.records("ipmi")
                if (r["cmd"], r["data"]) != ("f1", "00") and r["cmd"] != "c4"]


class TableOutput(FleetCase):
    def test_a_mixed_fleet_at_a_glance_in_the_order_given(self):
        redfish, ipmi, refused, dead = self.mixed()
        targets = [sim.address for sim in redfish + ipmi] + [refused.address, dead]
        result = self.fleet(["query", "--output", "table", "--bmc", "admin@" + ",".join(targets)])
        self.assertEqual((result.returncode, result.stderr), (1, ""), result.describe())
        width = max(len(label) for label in targets)
        rows = [("TARGET", "PROTOCOL", "NETWORK", "IPMI-OVER-LAN", "IPV4", "RESULT")]
        rows += [(sim.address, "redfish", "enabled", "disabled", "192.0.2.100", "0 Succeed.") for sim in redfish]
        rows += [(sim.address, "ipmi", "enabled", "disabled", "192.0.2.100", "0 Succeed.") for sim in ipmi]
        rows.append((refused.address, "ipmi", "-", "-", "-", "2054 " + AUTH))
        rows.append((dead, "-", "-", "-", "-", "13 Connection failed."))
        # Columns two blanks apart, each as wide as its widest cell: 8 PROTOCOL, 7 NETWORK, 13, 11 for 192.0.2.100.
        table = "".join("%-*s  %-8s  %-7s  %-13s  %-11s  %s\n" % ((width,) + row) for row in rows)
        summary = ("smmlan query: 20 SMMs, 18 succeeded, 2 failed\n"
                   "  13 Connection failed.: %s\n"
                   "  2054 %s: %s\n" % (dead, AUTH, refused.address))
        self.assertEqual(result.stdout, table + summary)

    def test_one_smm_keeps_its_own_exit_status(self):
        sim = self.start_sims([{"PASSWORD": "other-pw", "REDFISH": "off"}])[0]
        result = self.fleet(["query", "--output", "table", "--bmc", "admin@" + sim.address])
        self.assertEqual((result.returncode, result.stderr), (255, ""), result.describe())
        width = max(len(sim.address), len("TARGET"))
        self.assertEqual(result.stdout,
                         "%-*s  PROTOCOL  NETWORK  IPMI-OVER-LAN  IPV4  RESULT\n"
                         "%-*s  ipmi      -        -              -     2054 %s\n" % (width, "TARGET", width, sim.address,
                                                                                     AUTH))


class Interrupt(FleetCase):
    def start_polling_enable(self, count, sig):
        """An enable of `count` IPMI-only SMMs whose change never shows; returns (sims, result) after `sig`."""
        sims = self.start_sims([{"PASSWORD": PASSWORD, "REDFISH": "off", "INITIAL_STATUS": 2,
                                 "STATUS_DELAY_READS": 1000}] * count)
        log = os.path.join(self.tmp, "interrupt.log")
        config = self.write_config(WAIT_FOR_THE_SIGNAL)
        argv = MORVEL_WRAPPER + [MORVEL, "--log-file", log, "--log-level", "4", "--config", config, "smmlan", "enable",
                                 "--bmc", "admin@" + ",".join(s.address for s in sims)]
        process = subprocess.Popen(argv, env=self.env({"MORVEL_MODULE_PATH": MODULE_DIR, "MORVEL_BMC_PASSWORD": PASSWORD}),
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        # Every SMM got its change: from then on it polls, a day apart, until the signal.
        self.wait_for(lambda: process.poll() is not None or all(("f1", "01") in s.ipmi_requests() for s in sims),
                      "every SMM to get its change")
        self.assertIsNone(process.poll())
        sent = time.monotonic()
        process.send_signal(sig)
        # A day's sleep that the signal did not wake would run into this guard.
        stdout, stderr = process.communicate(timeout=HANG_GUARD)
        return sims, process.returncode, stdout.decode(), stderr.decode(), time.monotonic() - sent

    def test_sigint_during_the_polling_of_ten_smms(self):
        sims, status, stdout, stderr, took = self.start_polling_enable(10, signal.SIGINT)
        self.assertEqual(status, 130, stderr)
        # Polls and their day-long sleeps woke at the signal; a session start under way may finish first.
        sys.stderr.write("\n[fleet] SIGINT to ten polling SMMs: ended %.2f s after the signal\n" % took)
        labels = [s.address for s in sims]
        line = "interrupted after a change was sent; the SMM's state is unconfirmed"
        self.assertEqual(blocks(stderr), {label: [line] for label in labels})
        summary = "smmlan enable: 10 SMMs, 0 succeeded, 0 failed, 10 interrupted\n  %s: %s\n" % (line, ", ".join(labels))
        self.assertTrue(stdout.endswith(summary), stdout)
        out = blocks(stdout[:-len(summary)])
        for label in labels:
            self.assertEqual(out[label][0], "[INFO]: Send enable command succeeded, wait for status take effect.")
            self.assertEqual(out[label][1], "Check SMM network status attempt(0)")

    def test_sigterm_during_a_canary_ends_with_143_and_json_records(self):
        sims = self.start_sims([{"PASSWORD": PASSWORD, "REDFISH": "off", "INITIAL_STATUS": 2,
                                 "STATUS_DELAY_READS": 1000}] * 3)
        config = self.write_config(WAIT_FOR_THE_SIGNAL)
        argv = MORVEL_WRAPPER + [MORVEL, "--log-file", os.path.join(self.tmp, "log"), "--config", config, "smmlan",
                                 "enable", "--output", "json", "--canary", "1",
                                 "--bmc", "admin@" + ",".join(s.address for s in sims)]
        process = subprocess.Popen(argv, env=self.env({"MORVEL_MODULE_PATH": MODULE_DIR, "MORVEL_BMC_PASSWORD": PASSWORD}),
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.wait_for(lambda: process.poll() is not None or ("f1", "01") in sims[0].ipmi_requests(),
                      "the first SMM to get its change")
        self.assertIsNone(process.poll())
        process.send_signal(signal.SIGTERM)
        stdout, stderr = process.communicate(timeout=HANG_GUARD)
        self.assertEqual((process.returncode, stderr), (143, b""))
        rows, summary = records(stdout.decode())
        self.assertEqual([(r["target"], r["interrupted"], r["change_sent"], r["code"]) for r in rows],
                         [(sims[0].address, True, True, None)])
        self.assertEqual((summary["interrupted"], summary["not_started"], summary["stopped_by"]),
                         ([sims[0].address], [sims[1].address, sims[2].address], "interrupted by SIGTERM"))
        self.assertEqual((sims[1].ipmi_requests(), sims[2].ipmi_requests()), ([], []))


class Progress(FleetCase):
    BOTH_RUNNING = "smmlan disable: 0/2 done, 0 failed, 2 running"

    def disable_on_a_terminal(self, *extra, stdout_too=False):
        """`disable` over two SMMs whose PATCHes are held until the progress line has shown both running.

        Standard error goes to a terminal (and standard output too with stdout_too): gives (all the terminal
        showed, standard output when it is no terminal, the SMMs). Nothing here waits on a clock: the changes are
        released only once the line was drawn.
        """
        release = os.path.join(self.tmp, "release")
        sims = self.start_sims([{"PASSWORD": PASSWORD, "INITIAL_STATUS": 1, "PATCH_HOLD": release}] * 2)
        argv = MORVEL_WRAPPER + [MORVEL, "--log-file", os.path.join(self.tmp, "log"), "--config",
                                 self.write_config(CONFIG), "smmlan", "disable"] + list(extra) + [
                                     "--bmc", "admin@" + ",".join(s.address for s in sims)]
        main, other = pty.openpty()
        process = subprocess.Popen(argv, env=self.env({"MORVEL_MODULE_PATH": MODULE_DIR, "MORVEL_BMC_PASSWORD": PASSWORD}),
                                   stdout=other if stdout_too else subprocess.PIPE, stderr=other)
        os.close(other)
        chunks = []
        reader = threading.Thread(target=self.read_terminal, args=(main, chunks), daemon=True)
        reader.start()
        self.wait_for(lambda: self.BOTH_RUNNING.encode() in b"".join(chunks) or not reader.is_alive(),
                      "the progress line with both SMMs running")
        with open(release, "w", encoding="utf-8"):
            pass
        stdout = "" if stdout_too else process.stdout.read().decode()
        if not stdout_too:
            process.stdout.close()
        self.assertEqual(process.wait(HANG_GUARD), 0)
        reader.join(HANG_GUARD)
        self.assertFalse(reader.is_alive(), "the terminal was not closed")
        return b"".join(chunks).decode(), stdout, sims

    @staticmethod
    def read_terminal(main, chunks):
        """Adds to `chunks` all a run writes to the terminal whose controlling end is `main`, until it closes its end."""
        while True:
            try:
                chunk = os.read(main, 4096)
            except OSError:  # the process closed its end
                break
            if not chunk:
                break
            chunks.append(chunk)
        os.close(main)

    def test_progress_line_on_a_terminal_only(self):
        text, stdout, _ = self.disable_on_a_terminal()
        drawn = re.findall(r"\r\x1b\[K(smmlan disable: \d/2 done, \d failed, \d running), (\d+:\d\d) elapsed", text)
        counts = [count for count, _ in drawn]
        self.assertIn(self.BOTH_RUNNING, counts)
        self.assertTrue(set(counts) <= {"smmlan disable: %d/2 done, 0 failed, %d running" % (d, r)
                                        for d in range(3) for r in range(3 - d)}, counts)
        # The clock only goes forward (how far depends on the machine).
        seconds = [int(m) * 60 + int(s) for m, s in (clock.split(":") for _, clock in drawn)]
        self.assertEqual(seconds, sorted(seconds))
        # Removed at the end: the terminal is left with an empty line.
        self.assertTrue(text.endswith("\r\x1b[K"), repr(text[-80:]))
        self.assertTrue(stdout.endswith("smmlan disable: 2 SMMs, 2 succeeded, 0 failed\n"), stdout)
        self.assertNotIn("\x1b", stdout)

    def test_the_table_comes_whole_after_the_last_progress_line(self):
        # Standard output and error on one terminal, as an administrator sees them.
        text, _, sims = self.disable_on_a_terminal("--output", "table", stdout_too=True)
        text = text.replace("\r\n", "\n")
        self.assertIn(self.BOTH_RUNNING, text)
        # The last progress line is wiped, then the table and the summary follow with no control byte in them.
        table = text[text.rindex("\r\x1b[K") + len("\r\x1b[K"):]
        width = max(len(s.address) for s in sims)
        # A disable over Redfish reads the whole state back.
        self.assertEqual(table, "".join("%-*s  %-8s  %-8s  %-13s  %-11s  %s\n" % ((width,) + row) for row in
                                        [("TARGET", "PROTOCOL", "NETWORK", "IPMI-OVER-LAN", "IPV4", "RESULT")] +
                                        [(s.address, "redfish", "disabled", "disabled", "192.0.2.100", "0 Succeed.")
                                         for s in sims]) +
                         "smmlan disable: 2 SMMs, 2 succeeded, 0 failed\n")

    def test_no_progress_when_standard_error_is_no_terminal(self):
        sims = self.start_sims([{"PASSWORD": PASSWORD}] * 2)
        result = self.fleet(["query", "--bmc", "admin@%s,%s" % (sims[0].address, sims[1].address)])
        self.assertEqual((result.returncode, result.stderr), (0, ""))


if __name__ == "__main__":
    unittest.main()
