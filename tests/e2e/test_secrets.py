# SPDX-License-Identifier: GPL-3.0-or-later
"""The BMC password stays out of sight: not in the log, not on the console, not
in /proc/PID/cmdline, whichever way it is given, and neither is the
base64("user:password") of Basic authentication.

Each source (MORVEL_BMC_PASSWORD, --password-file, the no-echo prompt on a
pseudo-terminal, --bmc USER:PASSWORD@HOST) drives a slow IPMI disable (status
polling) and a Redfish enable (Basic authentication), both at log level 4,
while /proc/PID/cmdline is sampled. One sample is taken at a point the test
holds morvel at: its configuration file is a named pipe, and morvel, past
its start, waits in its read until the test has sampled and written it.
"""

import base64
import errno
import fcntl
import os
import select
import subprocess
import termios
import time
import unittest

from smmsim import HANG_GUARD, MODULE_DIR, MORVEL, MORVEL_WRAPPER, E2ETestCase

USER = "admin"
# ':' and '@' inside: --bmc takes the user up to the first ':' and the host after the last '@'.
PASSWORD = "Sx9:pw@e2e-Secret"
TOKEN = base64.b64encode(("%s:%s" % (USER, PASSWORD)).encode()).decode()
CONFIG = {"IPMI_WORKAROUND_FLAGS": "opensesspriv", "SMM_NETWORK_CHECK_SLEEP_TIME": "1"}
DELAY_READS = 3

DISABLE_OVER_IPMI = ("[INFO]: Send disable command succeeded, wait for status take effect.\n" +
                     "".join("Check SMM network status attempt(%d)\n"
                             "Status has been not take effected, wait for next check.\n" % i
                             for i in range(DELAY_READS)) +
                     "Check SMM network status attempt(%d)\nThe SMM network status take effected.\n" % DELAY_READS +
                     "************Disable Result************\n\nDisable SMM network succeeded\n"
                     "\n************Disable Result************\n0 Succeed.\n")
ENABLE_OVER_REDFISH = ("************Enable Result************\n\nEnable SMM LAN succeeded\n"
                       "\n************Enable Result************\n0 Succeed.\n")


def take_terminal():
    """In the child, after setsid: standard input (a pseudo-terminal) becomes the controlling terminal."""
    fcntl.ioctl(0, termios.TIOCSCTTY, 0)


class Run:
    """One morvel process: its exit status, output, log text and the /proc/PID/cmdline samples taken."""

    def __init__(self, process, log_file, started, config_pipe, config_text):
        self.process = process
        self.log_file = log_file
        self.started = started
        self.config_pipe = config_pipe
        self.config_text = config_text
        self.samples = []  # (seconds since start, cmdline bytes)
        self.held = None  # the sample taken while morvel waited for its configuration
        self.terminal_output = b""

    def sample(self):
        try:
            with open("/proc/%d/cmdline" % self.process.pid, "rb") as f:
                data = f.read()
        except OSError:
            return None
        if not data:  # empty once the process has ended
            return None
        self.samples.append((time.monotonic() - self.started, data))
        return self.samples[-1]

    def hand_over_the_configuration(self):
        """Once morvel reads its configuration pipe: samples its command line, then writes the configuration.

        False while morvel has not opened the pipe yet."""
        try:
            fd = os.open(self.config_pipe, os.O_WRONLY | os.O_NONBLOCK)
        except OSError as error:
            if error.errno == errno.ENXIO:  # no reader yet
                return False
            raise
        try:
            # Morvel is blocked in its read until the text below arrives: alive, and long past its start.
            self.held = self.sample()
            os.set_blocking(fd, True)
            os.write(fd, self.config_text.encode())
        finally:
            os.close(fd)
        return True

    def finish(self, timeout):
        stdout, stderr = self.process.communicate(timeout=timeout)
        self.returncode = self.process.returncode
        self.elapsed = time.monotonic() - self.started
        self.stdout = stdout.decode("utf-8", "surrogateescape")
        self.stderr = stderr.decode("utf-8", "surrogateescape")
        try:
            with open(self.log_file, encoding="utf-8", errors="surrogateescape") as f:
                self.log = f.read()
        except OSError:
            self.log = ""

    def describe(self):
        return "exit %s (%.2f s)\n--- stdout ---\n%s--- stderr ---\n%s--- log tail ---\n%s" % (
            self.returncode, self.elapsed, self.stdout, self.stderr, self.log[-3000:])


class SecretsCase(E2ETestCase):
    def setUp(self):
        super().setUp()
        self.ipmi_sim = self.start_sim(INITIAL_STATUS=1, STATUS_DELAY_READS=DELAY_READS, REDFISH="off",
                                       PASSWORD=PASSWORD)
        self.redfish_sim = self.start_sim(INITIAL_STATUS=2, PASSWORD=PASSWORD)

    def launch(self, args, env=None, terminal=None):
        log_file = os.path.join(self._new_dir("log"), "morvel.log")
        config_pipe = os.path.join(self._new_dir("config"), "morvel.conf")
        os.mkfifo(config_pipe, 0o600)
        argv = MORVEL_WRAPPER + [MORVEL, "--log-file", log_file, "--log-level", "4",
                                 "--config", config_pipe] + list(args)
        environment = self.env(dict({"MORVEL_MODULE_PATH": MODULE_DIR}, **(env or {})))
        options = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "env": environment}
        if terminal is None:
            options["stdin"] = subprocess.DEVNULL
        else:
            options.update(stdin=terminal, start_new_session=True, preexec_fn=take_terminal)
        started = time.monotonic()
        config_text = "".join("%s=%s\n" % item for item in CONFIG.items())
        return Run(subprocess.Popen(argv, **options), log_file, started, config_pipe, config_text)

    def watch(self, run, master=None, answer=None):
        """Samples /proc/PID/cmdline every 10 ms until the process ends; hands over its configuration when it
        reads it; types `answer` at the prompt."""
        deadline = time.monotonic() + HANG_GUARD
        typed = answer is None
        handed = False
        while run.process.poll() is None and time.monotonic() < deadline:
            run.sample()
            if not handed:
                handed = run.hand_over_the_configuration()
            if master is not None:
                readable, _, _ = select.select([master], [], [], 0.01)
                if readable:
                    try:
                        run.terminal_output += os.read(master, 4096)
                    except OSError:
                        pass
                if not typed and run.terminal_output.endswith(b"Password: "):
                    os.write(master, answer.encode() + b"\n")
                    typed = True
            else:
                time.sleep(0.01)
        run.finish(max(1, deadline - time.monotonic()))
        if master is not None:
            while select.select([master], [], [], 0.2)[0]:
                try:
                    data = os.read(master, 4096)
                except OSError:
                    break
                if not data:
                    break
                run.terminal_output += data
        return run

    def run_both(self, bmc_user_part, env=None, extra=(), terminal_answer=None):
        """The slow IPMI disable (cmdline sampled) and the Redfish enable with the same password source."""
        runs = []
        for sim, subcommand in ((self.ipmi_sim, "disable"), (self.redfish_sim, "enable")):
            args = ["smmlan", subcommand, "--bmc", "%s@%s" % (bmc_user_part, sim.address)] + list(extra)
            if terminal_answer is None:
                runs.append(self.watch(self.launch(args, env=env)))
                runs[-1].sim = sim
                continue
            master, slave = os.openpty()
            try:
                run = self.launch(args, env=env, terminal=slave)
            finally:
                os.close(slave)
            try:
                self.watch(run, master=master, answer=terminal_answer)
                # Echo is back on once the password was read.
                self.assertTrue(termios.tcgetattr(master)[3] & termios.ECHO)
            finally:
                os.close(master)
            run.sim = sim
            runs.append(run)
        return runs

    def assertCommandsWorked(self, disable, enable):
        self.assertEqual((disable.returncode, disable.stdout, disable.stderr), (0, DISABLE_OVER_IPMI, ""),
                         disable.describe())
        self.assertEqual((enable.returncode, enable.stdout, enable.stderr), (0, ENABLE_OVER_REDFISH, ""),
                         enable.describe())
        self.assertEqual([r["auth"] for r in self.redfish_sim.records("redfish")], ["ok", "ok"])
        self.assertEqual(self.ipmi_sim.state()["STATUS"], 2)

    def assertNowhere(self, *runs):
        for run in runs:
            texts = [run.stdout, run.stderr, run.log, run.terminal_output.decode("utf-8", "surrogateescape")]
            texts += [data.decode("utf-8", "surrogateescape") for _, data in run.samples]
            for text in texts:
                self.assertNotIn(PASSWORD, text)
                self.assertNotIn(TOKEN, text)
                self.assertNotIn(PASSWORD.encode().hex(), text)

    def assertSampledOnceStarted(self, *runs):
        # Sampled while morvel waited for its configuration, past its start (besides whatever else was caught).
        for run in runs:
            self.assertIsNotNone(run.held, run.describe())
            self.assertIn(run.held, run.samples)


class PasswordSources(SecretsCase):
    def test_environment_variable(self):
        disable, enable = self.run_both(USER, env={"MORVEL_BMC_PASSWORD": PASSWORD})
        self.assertCommandsWorked(disable, enable)
        self.assertNowhere(disable, enable)
        self.assertSampledOnceStarted(disable, enable)
        self.assertIn("password from MORVEL_BMC_PASSWORD", disable.log)

    def test_password_file_0600(self):
        path = os.path.join(self.tmp, "bmc-password")
        with open(path, "w", encoding="utf-8") as f:
            f.write(PASSWORD + "\n")
        os.chmod(path, 0o600)
        disable, enable = self.run_both(USER, extra=["--password-file", path])
        self.assertCommandsWorked(disable, enable)  # no warning: standard error is empty
        self.assertNowhere(disable, enable)
        self.assertSampledOnceStarted(disable, enable)
        self.assertIn("password from the password file", disable.log)

    def test_password_file_0644_warns(self):
        path = os.path.join(self.tmp, "bmc-password")
        with open(path, "w", encoding="utf-8") as f:
            f.write(PASSWORD + "\n")
        os.chmod(path, 0o644)
        run = self.watch(self.launch(["smmlan", "enable", "--password-file", path, "--bmc",
                                      "%s@%s" % (USER, self.redfish_sim.address)]))
        self.assertEqual((run.returncode, run.stdout, run.stderr),
                         (0, ENABLE_OVER_REDFISH,
                          "morvel: warning: password file %s is readable by group or others (chmod 600 it)\n" % path),
                         run.describe())
        self.assertNowhere(run)

    def test_prompt_on_the_terminal_without_echo(self):
        disable, enable = self.run_both(USER, terminal_answer=PASSWORD)
        self.assertCommandsWorked(disable, enable)
        # The prompt, then the line end morvel writes itself: the typed password was not echoed.
        self.assertEqual(disable.terminal_output, b"Password: \r\n")
        self.assertEqual(enable.terminal_output, b"Password: \r\n")
        self.assertNowhere(disable, enable)
        self.assertSampledOnceStarted(disable, enable)
        self.assertIn("password from the terminal", disable.log)


class CommandLineScrub(SecretsCase):
    def test_bmc_password_leaves_the_command_line_at_once(self):
        disable, enable = self.run_both("%s:%s" % (USER, PASSWORD))
        self.assertCommandsWorked(disable, enable)
        for run in (disable, enable):
            for text in (run.stdout, run.stderr, run.log):
                self.assertNotIn(PASSWORD, text)
                self.assertNotIn(TOKEN, text)
            self.assertSampledOnceStarted(run)
            # Only samples from before the held one may show it (taken before main() scrubs argv); none after.
            shown = [t for t, data in run.samples if PASSWORD.encode() in data]
            self.assertTrue(all(t < run.held[0] for t in shown), run.describe())
            # What is left in the --bmc word: the user, one '*' and the target.
            address = run.sim.address.encode()
            for _, data in [run.held, run.samples[-1]]:
                self.assertEqual([a for a in data.split(b"\0") if a.endswith(address)],
                                 [b"%s:*@%s" % (USER.encode(), address)])


if __name__ == "__main__":
    unittest.main()
