# SPDX-License-Identifier: GPL-3.0-or-later
"""The preflight: a missing program or a port taken on every address is one clear line, before any suite runs."""

import os
import subprocess
import sys
import unittest

import preflight
from smmsim import E2ETestCase, run_command

PREFLIGHT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "preflight.py")

# Holds its sockets until its standard input closes; prints "ready" once they are bound.
HOLDER = """
import socket, sys
held = []
for listener in sys.argv[1:]:
    kind, address, port = listener.split(",")
    s = socket.socket(socket.AF_INET, socket.SOCK_STREAM if kind == "tcp" else socket.SOCK_DGRAM)
    s.bind((address, int(port)))
    if kind == "tcp":
        s.listen()
    held.append(s)
print("ready", flush=True)
sys.stdin.read()
"""


class Programs(E2ETestCase):
    def path_without(self, hidden):
        """A PATH directory holding every listed program but `hidden`."""
        directory = self._new_dir("path")
        for program, _ in preflight.required_programs():
            if program != hidden:
                os.symlink(preflight.shutil.which(program), os.path.join(directory, program))
        return directory

    def test_every_program_of_the_list_is_here(self):
        result = run_command([sys.executable, "-B", PREFLIGHT, "programs"], env=self.env())
        self.assertEqual((result.returncode, result.stdout, result.stderr), (0, "", ""))

    def test_a_hidden_ipmi_sim_is_named_with_its_package(self):
        result = run_command([sys.executable, "-B", PREFLIGHT], env=self.env({"PATH": self.path_without("ipmi_sim")}))
        self.assertEqual((result.returncode, result.stdout, result.stderr),
                         (1, "", "preflight: ipmi_sim not found on PATH; install the Debian package openipmi "
                                 "(scripts/setup does)\n"))

    def test_every_program_comes_from_a_package_setup_installs(self):
        setup = os.path.join(os.path.dirname(preflight.PACKAGE_LIST), "setup")
        listed = run_command([setup, "--list"], env=self.env())
        self.assertEqual((listed.returncode, listed.stderr), (0, ""))
        installed = listed.stdout.splitlines()
        self.assertIn("openipmi", installed)
        self.assertEqual([package for _, package in preflight.required_programs() if package not in installed], [])
        self.assertEqual(preflight.required_programs()[:3],
                         [("cmake", "cmake"), ("scdoc", "scdoc"), ("ipmi_sim", "openipmi")])

    def test_setup_installs_what_the_debian_package_builds_with(self):
        # dpkg-buildpackage checks debian/control's Build-Depends, and
        # build-essential besides, before it builds anything.
        setup = os.path.join(os.path.dirname(preflight.PACKAGE_LIST), "setup")
        listed = run_command([setup, "--list"], env=self.env())
        self.assertEqual((listed.returncode, listed.stderr), (0, ""))
        control = os.path.join(os.path.dirname(os.path.dirname(preflight.PACKAGE_LIST)), "debian", "control")
        with open(control, encoding="utf-8") as f:
            depends = f.read().split("Build-Depends:", 1)[1].split("\n\n", 1)[0].split("\nStandards-Version:")[0]
        needed = [word.split("(")[0].strip() for word in depends.split(",") if word.strip()]
        self.assertIn("rapidjson-dev", needed)
        # debhelper provides debhelper-compat.
        needed = ["debhelper" if name == "debhelper-compat" else name for name in needed] + ["build-essential"]
        self.assertEqual([name for name in needed if name not in listed.stdout.splitlines()], [])


class Ports(E2ETestCase):
    def hold(self, netns, *specs):
        """Starts a process in `netns` that binds each 'tcp|udp,ADDRESS,PORT'; returns it once bound."""
        holder = subprocess.Popen(netns.wrap([sys.executable, "-c", HOLDER] + list(specs)), stdin=subprocess.PIPE,
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE)

        def stop():
            holder.stdin.close()
            holder.wait(10)
            holder.stdout.close()
            holder.stderr.close()
        self.addCleanup(stop)
        self.assertEqual(holder.stdout.readline(), b"ready\n", holder.stderr.read(4096) if holder.poll() else b"")
        return holder

    def run_preflight(self, netns, *args):
        return run_command(netns.wrap([sys.executable, "-B", PREFLIGHT] + list(args)), env=self.env())

    def test_a_web_server_on_every_address_is_named(self):
        netns = self.netns()
        holder = self.hold(netns, "tcp,0.0.0.0,443", "udp,0.0.0.0,623")
        result = self.run_preflight(netns, "ports")
        self.assertEqual((result.returncode, result.stdout, result.stderr),
                         (1, "", "preflight: TCP port 443 is taken on all addresses by PID %d (python3); the tests "
                                 "need it free on 127.0.0.20\u2013250\n"
                                 "preflight: UDP port 623 is taken on all addresses by PID %d (python3); the tests "
                                 "need it free on 127.0.0.20\u2013250\n" % (holder.pid, holder.pid)))

    def test_the_lease_failure_names_the_listener(self):
        netns = self.netns()
        holder = self.hold(netns, "tcp,0.0.0.0,443")
        script = "import smmsim\ntry:\n    smmsim.lease_address()\nexcept RuntimeError as e:\n    print(e)\n"
        result = run_command(netns.wrap([sys.executable, "-B", "-c", script]), env=self.env(
            {"PYTHONPATH": os.path.dirname(PREFLIGHT), "MORVEL_E2E_LOCK_DIR": self._new_dir("locks")}))
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertEqual(result.stdout,
                         "no free loopback address in 127.0.0.20-250\n"
                         "TCP port 443 is taken on all addresses by PID %d (python3); the tests need it free on "
                         "127.0.0.20\u2013250\n" % holder.pid)

    def test_a_listener_on_one_address_is_no_clash(self):
        netns = self.netns()
        self.hold(netns, "tcp,127.0.0.20,443", "udp,127.0.0.21,623")
        self.assertEqual(self.run_preflight(netns, "ports").stderr, "")
        result = self.run_preflight(netns, "free-addresses", "2")
        self.assertEqual((result.returncode, result.stdout, result.stderr), (0, "127.0.0.22\n127.0.0.23\n", ""))


if __name__ == "__main__":
    unittest.main()
