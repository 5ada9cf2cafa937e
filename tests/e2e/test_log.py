# SPDX-License-Identifier: GPL-3.0-or-later
"""The log stays bounded: rotation past LOG_MAX_BYTES, LOG_KEEP files kept, runs that share the file.

A run that finds its log past the size rotates it and goes on in a new file;
what it prints is the same as without rotation. Two runs over many SMMs that
write to one log at once, the file rotated many times under them, keep every
record, whole, in the files kept: the same records as the same two runs
without rotation.
"""

import collections
import os
import re
import subprocess
import unittest

from smmsim import MODULE_DIR, MORVEL, MORVEL_WRAPPER, E2ETestCase
# The same configuration and the same healthy query over Redfish as there.
from test_trust import CONFIG, QUERY_OK

PASSWORD = "L0g:pw@1"
# "YYYY-MM-DD HH:MM:SS.mmm LEVEL [LABEL] source:line text": level, label, source:line.
RECORD = re.compile(r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} (FATAL|ERROR|WARN|INFO|TRACE) (?:\[([^\]]+)\] )?(\S+:\d+) (.*)$")


def records_of(text):
    """[(level, label, source:line, text)] of a log's text; fails unless it is whole records.

    A record's text may hold line ends (console lines end in one): a line
    without a time stamp goes on the record before it.
    """
    found = []
    assert text == "" or text.endswith("\n"), "the last record is cut: %r" % text[-200:]
    for line in text.splitlines():
        match = RECORD.match(line)
        if match:
            found.append(list(match.groups()))
        else:
            assert found, "the file starts inside a record: %r" % line
            found[-1][3] += "\n" + line
    return [tuple(record) for record in found]


def read(path):
    with open(path, encoding="utf-8") as f:
        return f.read()


class LogCase(E2ETestCase):
    def setUp(self):
        super().setUp()
        self.log = os.path.join(self.tmp, "logs", "morvel.log")

    def run_at(self, args, config, log_level=3):
        """Starts `morvel` with its log at self.log (a run_morvel log is a file of its own)."""
        argv = MORVEL_WRAPPER + [MORVEL, "--config", self.write_config(dict(CONFIG, **config)), "--log-file", self.log,
                                 "--log-level", str(log_level)] + list(args)
        env = self.env({"MORVEL_MODULE_PATH": MODULE_DIR, "MORVEL_BMC_PASSWORD": PASSWORD})
        return subprocess.Popen(argv, env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

    def finish(self, run):
        out, err = run.communicate(timeout=600)
        return run.returncode, out, err

    def write_log(self, text):
        os.makedirs(os.path.dirname(self.log), exist_ok=True)
        with open(self.log, "w", encoding="utf-8") as f:
            f.write(text)
        os.chmod(self.log, 0o600)

    def generations(self):
        """The rotated files there are, FILE.1 upward, without a gap."""
        found = []
        while os.path.exists("%s.%d" % (self.log, len(found) + 1)):
            found.append("%s.%d" % (self.log, len(found) + 1))
        return found


class Rotation(LogCase):
    def test_a_run_rotates_a_log_past_the_size_and_prints_the_same(self):
        sim = self.start_sim(PASSWORD=PASSWORD)
        old = "".join("2026-11-24 08:00:00.000 INFO src/cli/Host:251 an earlier run, line %03d\n" % i
                      for i in range(100))
        self.write_log(old)
        run = self.run_at(["smmlan", "query", "--bmc", "admin@" + sim.address],
                          {"LOG_MAX_BYTES": str(len(old) - 1), "LOG_KEEP": "2"})
        self.assertEqual(self.finish(run), (0, QUERY_OK, ""))
        # The records up to the configuration's are written before it is read; the
        # first one after takes the file past the size, and the rest go to a new file.
        rotated = read(self.log + ".1")
        self.assertTrue(rotated.startswith(old))
        self.assertEqual([(level, source, text.split(" ")[0]) for level, _, source, text in records_of(rotated[len(old):])],
                         [("INFO", "src/cli/Host:251", "morvel"), ("INFO", "src/cli/Host:79", "configuration"),
                          ("INFO", "src/cli/Host:262", "module")])
        now = records_of(read(self.log))
        self.assertEqual(now[0][2:], ("src/cli/Host:115", "target %s port 443 user admin, password from "
                                                          "MORVEL_BMC_PASSWORD" % sim.address))
        self.assertEqual(now[-1][2:], ("src/cli/Host:186", "result: 0 Succeed. (exit status 0)"))
        self.assertEqual(self.generations(), [self.log + ".1"])
        for path in (self.log, self.log + ".1", self.log + ".lock"):
            self.assertEqual(os.stat(path).st_mode & 0o777, 0o600, path)

    def test_by_default_past_16_mib_and_three_kept(self):
        sim = self.start_sim(PASSWORD=PASSWORD)
        line = "2026-11-24 08:00:00.000 INFO src/cli/Host:251 %s\n" % ("x" * 200)
        big = line * ((16 << 20) // len(line) + 1)
        self.write_log(big)
        for path, text in (("%s.%d" % (self.log, n), "older %d\n" % n) for n in (1, 2, 3)):
            with open(path, "w", encoding="utf-8") as f:
                f.write(text)
        self.assertEqual(self.finish(self.run_at(["smmlan", "query", "--bmc", "admin@" + sim.address], {})),
                         (0, QUERY_OK, ""))
        self.assertTrue(read(self.log + ".1").startswith(big))
        self.assertEqual([read(self.log + ".2"), read(self.log + ".3")], ["older 1\n", "older 2\n"])
        self.assertFalse(os.path.exists(self.log + ".4"))
        self.assertEqual(records_of(read(self.log))[-1][3], "result: 0 Succeed. (exit status 0)")

    def test_zero_never_rotates(self):
        sim = self.start_sim(PASSWORD=PASSWORD)
        self.write_log("old\n" * 1000)
        self.assertEqual(self.finish(self.run_at(["smmlan", "query", "--bmc", "admin@" + sim.address],
                                                 {"LOG_MAX_BYTES": "0"})), (0, QUERY_OK, ""))
        self.assertTrue(read(self.log).startswith("old\n" * 1000))
        self.assertEqual(self.generations(), [])
        self.assertFalse(os.path.exists(self.log + ".lock"))


class SharedLog(LogCase):
    def two_runs(self, groups, config):
        """Both fleet runs at once, at log level 4; each must succeed."""
        runs = [self.run_at(["smmlan", "query", "--output", "json", "--bmc",
                             "admin@" + ",".join(sim.address for sim in group)], config, log_level=4)
                for group in groups]
        for run in runs:
            returncode, out, err = self.finish(run)
            self.assertEqual((returncode, err), (0, ""), out[-2000:])

    def kept_records(self):
        records = []
        for path in [self.log] + self.generations():
            records += records_of(read(path))
        return records

    def test_two_runs_sharing_a_rotating_log_keep_every_record_whole(self):
        sims = self.start_sims([{"PASSWORD": PASSWORD}] * 20)
        groups = [sims[:10], sims[10:]]
        self.two_runs(groups, {"LOG_MAX_BYTES": "0"})
        unrotated = self.kept_records()
        os.unlink(self.log)

        self.two_runs(groups, {"LOG_MAX_BYTES": "4096", "LOG_KEEP": "1000"})
        rotated = self.kept_records()
        self.assertGreater(len(self.generations()), 5)
        self.assertFalse(os.path.exists("%s.%d" % (self.log, len(self.generations()) + 1)))
        # The same records (what they say aside: times and ports differ), each once.
        kinds = collections.Counter((level, label, source) for level, label, source, _ in rotated)
        self.assertEqual(kinds, collections.Counter((level, label, source) for level, label, source, _ in unrotated))
        self.assertEqual(sum(1 for record in rotated if record[3].startswith("morvel ")), 2)
        for sim in sims:
            self.assertEqual(kinds[("INFO", sim.address, "src/cli/Host:186")], 1, sim.address)


if __name__ == "__main__":
    unittest.main()
