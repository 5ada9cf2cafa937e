# SPDX-License-Identifier: GPL-3.0-or-later
"""Passwords for a fleet: --credentials-file and --password-command, before the older sources.

Every simulated SMM has a password of its own; the run names none in --bmc.
The passwords appear in no output, record, log or argument vector.
"""

import json
import os
import sys
import unittest

from smmsim import E2ETestCase, peak_rss_bound_kib

CONFIG = {"IPMI_WORKAROUND_FLAGS": "opensesspriv", "IPMI_SESSION_TIMEOUT_MS": "2000"}
QUERY_OK = ["************Query Result************", "", "Query SMM network status succeeded",
            "    Status: SMM network over LAN enabled and IPMI over LAN disabled", "    SMM IP: 192.0.2.100", "",
            "************Query Result************", ""]
PASSWORDS = ["Cr3d-%d:x@y" % i for i in range(6)]

# The password command: answers by MORVEL_TARGET_HOST, as a script per line of `plan`.
COMMAND = r"""
import os, sys, time
plan = dict(line.split(" ", 1) for line in open(sys.argv[1]).read().splitlines())
action = plan[os.environ["MORVEL_TARGET_HOST"]]
if action.startswith("print "):
    print(action[6:]); sys.stdout.flush()
    if os.environ["MORVEL_TARGET_USER"] != "admin" or os.environ["MORVEL_TARGET_PORT"] != "443":
        sys.exit(9)
elif action.startswith("exit "):
    print("not-a-password " + action); sys.exit(int(action[5:]))
elif action == "hang":
    time.sleep(3600)
elif action.startswith("snapshot "):
    # The argument vector of morvel (this command's parent) while it waits for this answer.
    with open("/proc/%d/cmdline" % os.getppid(), "rb") as f:
        open(action[9:], "wb").write(f.read())
    print("unused-password")
elif action == "empty":
    print("")
elif action.startswith("flood "):
    sys.stdout.write(action[6:] + "\n" + "x" * (1 << 20)); sys.stdout.flush()
"""


def records(stdout):
    rows = [json.loads(line) for line in stdout.splitlines()]
    return {row["target"]: row for row in rows[:-1]}, rows[-1]["summary"]


class CredentialsCase(E2ETestCase):
    def sims(self, count):
        return self.start_sims([{"PASSWORD": PASSWORDS[i]} for i in range(count)])

    def fleet(self, sims, *extra, env=None):
        result = self.run_morvel(["smmlan", "query", "--output", "json", "--bmc",
                                  "admin@" + ",".join(s.address for s in sims)] + list(extra),
                                 config=CONFIG, log_level=4, env=env)
        with_records = [result.stdout, result.stderr, result.files["log"]] + [
            open(os.path.join(s.dir, "record.jsonl"), encoding="utf-8").read() for s in sims]
        for password in PASSWORDS:
            for text in with_records:
                self.assertNotIn(password, text)
        return result

    def file(self, text, mode=0o600):
        path = os.path.join(self.tmp, "credentials")
        with open(path, "w", encoding="utf-8") as f:
            f.write(text)
        os.chmod(path, mode)
        return path


class CredentialsFile(CredentialsCase):
    def test_the_first_matching_line_wins(self):
        sims = self.sims(3)
        a, b, c = (s.address for s in sims)
        prefix = a.rsplit(".", 1)[0]
        path = self.file("# site 1\n%s admin %s\n%s ops wrong-user\n%s.[1-254] admin %s\n* admin %s\n"
                         % (a, PASSWORDS[0], b, prefix, PASSWORDS[1], PASSWORDS[2]))
        result = self.fleet(sims, "--credentials-file", path)
        rows, summary = records(result.stdout)
        # a: its own line; b: the range line (its ops line is another user's); c: the range line too.
        self.assertEqual({k: (v["code"], v["protocol"]) for k, v in rows.items()},
                         {a: (0, "redfish"), b: (0, "redfish"), c: (2054, "ipmi")})
        self.assertEqual(summary["failed_by_code"], {"2054": [c]})
        self.assertEqual([r["auth"] for r in sims[0].records("redfish")], ["ok"])
        self.assertEqual([r["auth"] for r in sims[2].records("redfish")], ["bad"])

    def test_from_the_environment_and_before_morvel_bmc_password(self):
        sims = self.sims(1)
        path = self.file("* admin %s\n" % PASSWORDS[0])
        result = self.fleet(sims, env={"MORVEL_CREDENTIALS_FILE": path, "MORVEL_BMC_PASSWORD": "not-this-one"})
        rows, _ = records(result.stdout)
        self.assertEqual(rows[sims[0].address]["console"], QUERY_OK)

    def test_refusals(self):
        sims = self.sims(1)
        for text, mode, message in (
                ("* admin %s\n" % PASSWORDS[0], 0o640, "credentials file {} is readable by group or others; chmod 600 it"),
                ("# two\n%s admin\n" % sims[0].address, 0o600, "{}:2: expected HOST-PATTERN USER PASSWORD"),
                ("smm[3-1] admin %s\n" % PASSWORDS[0], 0o600, "{}:1: 'smm[3-1]': descending range 3-1")):
            with self.subTest(message=message):
                path = self.file(text, mode)
                result = self.fleet(sims, "--credentials-file", path)
                self.assertEqual((result.returncode, result.stdout, result.stderr),
                                 (5, "", "morvel: " + message.format(path) + "\n"))
        self.assertEqual(sims[0].redfish_requests(), [])

    def test_a_pattern_of_ten_million_hosts_is_refused_before_it_is_expanded(self):
        sims = self.sims(1)
        pattern = "smm[%s]" % ",".join(["0-99999"] * 100)
        path = self.file("%s admin %s\n" % (pattern, PASSWORDS[0]))
        result = self.run_morvel(["smmlan", "query", "--bmc", "admin@" + sims[0].address, "--credentials-file", path],
                                 config=CONFIG, measure_rss=True)
        self.assertEqual((result.returncode, result.stdout, result.stderr),
                         (5, "", "morvel: %s:1: '%s': more than 100000 targets after expansion\n" % (path, pattern)))
        # Under valgrind or AddressSanitizer the figure includes their own memory.
        self.assertLess(result.peak_rss_kib, peak_rss_bound_kib(20, 512))
        self.assertEqual(sims[0].redfish_requests(), [])


class PasswordCommand(CredentialsCase):
    def command(self, plan):
        script = os.path.join(self.tmp, "answer.py")
        with open(script, "w", encoding="utf-8") as f:
            f.write(COMMAND)
        plan_file = os.path.join(self.tmp, "plan")
        with open(plan_file, "w", encoding="utf-8") as f:
            f.write("".join("%s %s\n" % item for item in plan.items()))
        return "%s %s %s" % (sys.executable, script, plan_file)

    def test_each_answer_and_failure_of_one_smm_alone(self):
        sims = self.sims(6)
        good, failing, hanging, empty, flooding, other = sims
        command = self.command({good.address: "print " + PASSWORDS[0], failing.address: "exit 3",
                                hanging.address: "hang", empty.address: "empty",
                                flooding.address: "flood " + PASSWORDS[4], other.address: "print " + PASSWORDS[5]})
        result = self.fleet(sims, "--password-command", command, env={"MORVEL_BMC_PASSWORD": "not-this-one"})
        self.assertEqual((result.returncode, result.stderr), (1, ""), result.describe())
        rows, summary = records(result.stdout)
        got = {k: (v["code"], v["message"], v["console"] == QUERY_OK) for k, v in rows.items()}
        self.assertEqual(got, {
            good.address: (0, "Succeed.", True),
            failing.address: (5, "the password command exited with status 3", False),
            hanging.address: (5, "the password command did not end within 10 s", False),
            empty.address: (5, "the password command printed no password", False),
            flooding.address: (0, "Succeed.", True),
            other.address: (0, "Succeed.", True)})
        self.assertEqual(summary["failed_by_code"], {"5": [failing.address, hanging.address, empty.address]})
        # The hanging one would sleep an hour: its limit ended it, not before 10 s.
        self.assertGreaterEqual(rows[hanging.address]["elapsed_ms"], 9900)
        self.assertNotIn("not-a-password", result.stdout + result.files["log"])
        for sim in (failing, hanging, empty):
            self.assertEqual(sim.redfish_requests(), [])

    def test_one_smm_keeps_its_exit_status_and_says_why(self):
        sims = self.sims(1)
        command = self.command({sims[0].address: "exit 7"})
        result = self.run_morvel(["smmlan", "query", "--bmc", "admin@" + sims[0].address, "--password-command", command],
                                 config=CONFIG)
        self.assertEqual((result.returncode, result.stdout, result.stderr),
                         (5, "", "morvel: the password command exited with status 7\n"))

    def test_no_password_in_the_argument_vector_while_it_runs(self):
        # One at a time: the first SMM has its password and is done when the
        # second one's command reads morvel's argument vector, morvel waiting for it.
        sims = self.sims(2)
        snapshot = os.path.join(self.tmp, "cmdline")
        command = self.command({sims[0].address: "print " + PASSWORDS[0], sims[1].address: "snapshot " + snapshot})
        result = self.fleet(sims, "--fanout", "1", "--password-command", command)
        rows, _ = records(result.stdout)
        self.assertEqual((rows[sims[0].address]["code"], rows[sims[1].address]["code"]), (0, 2054), result.describe())
        with open(snapshot, "rb") as f:
            cmdline = f.read().decode(errors="replace").split("\0")
        self.assertIn("--password-command", cmdline)
        self.assertIn("admin@%s,%s" % (sims[0].address, sims[1].address), cmdline)
        self.assertNotIn(PASSWORDS[0], "\0".join(cmdline))


if __name__ == "__main__":
    unittest.main()
