#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""The Debian packages built by scripts/package, checked, installed, used and purged.

    MORVEL_DEB_DIR=build-deb tests/package/test_installed_package.py

Run by scripts/package-check, not by CTest: it installs the packages on this
machine with dpkg and purges them at the end, so it refuses to run where
morvel is already installed. The tests run in the order of their numbers.
"""

import glob
import os
import sys
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.dont_write_bytecode = True
sys.path.insert(0, os.path.join(os.path.dirname(HERE), "e2e"))
from smmsim import E2ETestCase, run_command  # noqa: E402  (the end-to-end harness)

DEB_DIR = os.environ.get("MORVEL_DEB_DIR", "")
PACKAGES = ("morvel", "morvel-ansible")
# What each path prints for an SMM with its network on and IPMI over LAN off.
QUERY_OUTPUT = {
    "redfish": ("************Query Result************\n\n"
                "Query SMM network status succeeded\n"
                "    Status: SMM network over LAN enabled and IPMI over LAN disabled\n"
                "    SMM IP: 192.168.7.21\n"
                "\n************Query Result************\n"
                "\n0 Succeed.\n"),
    "ipmi": ("************Query Result************\n\n"
             "Query SMM network status succeeded\n"
             "    Status: Enabled\n"
             "    SMM IP: 192.168.7.21\n"
             "\n************Query Result************\n"
             "0 Succeed.\n"),
}


def installed(package):
    status = run_command(["dpkg-query", "-W", "-f=${db:Status-Status}", package])
    return status.returncode == 0 and status.stdout not in ("", "not-installed")


def debs():
    """The .deb files to install: every package but the debug symbols."""
    return sorted(path for path in glob.glob(os.path.join(DEB_DIR, "*.deb")) if "-dbgsym_" not in path)


class InstalledPackage(E2ETestCase):
    contents = []  # what dpkg -c lists, for the check after purge
    existed = set()  # of those, what was on the machine before the install

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        if not DEB_DIR or not debs():
            raise RuntimeError("no .deb in MORVEL_DEB_DIR=%r; build them with scripts/package" % DEB_DIR)
        for package in PACKAGES:
            if installed(package):
                raise RuntimeError("%s is installed on this machine; this check installs and purges its own build, "
                                   "so remove it first (dpkg --purge %s)" % (package, " ".join(PACKAGES)))
        for deb in debs():
            names = run_command(["dpkg-deb", "-c", deb], timeout=60)
            if names.returncode != 0:
                raise RuntimeError("cannot list %s:\n%s" % (deb, names.describe()))
            for line in names.stdout.splitlines():
                path = line.split(None, 5)[5].split(" -> ")[0].lstrip(".").rstrip("/") or "/"
                cls.contents.append(path)
        cls.existed = {path for path in cls.contents if os.path.lexists(path)}
        cls.addClassCleanup(cls._purge)

    @classmethod
    def _purge(cls):
        present = [package for package in PACKAGES if installed(package)]
        if present:
            run_command(["dpkg", "--purge"] + present, timeout=300)

    def test_1_lintian_finds_no_error_and_no_warning(self):
        result = run_command(["lintian", "--fail-on", "error,warning", "--tag-display-limit", "0"] + debs(),
                             env=self.env(), timeout=900)
        shown = [line for line in result.stdout.splitlines() if line[:2] in ("E:", "W:")]
        self.assertEqual((result.returncode, shown), (0, []), result.describe())

    def test_2_installs_with_its_dependencies_met(self):
        result = run_command(["dpkg", "-i"] + debs(), env=self.env(), timeout=300)
        self.assertEqual(result.returncode, 0, result.describe())
        self.assertTrue(all(installed(package) for package in PACKAGES))
        # Everything of the command in one private directory, found through the RUNPATH.
        runpath = run_command(["readelf", "-d", "/usr/bin/morvel"])
        multiarch = run_command(["dpkg-architecture", "-qDEB_HOST_MULTIARCH"]).stdout.strip()
        self.assertIn("Library runpath: [$ORIGIN/../lib/%s/morvel]\n" % multiarch, runpath.stdout)
        conffiles = run_command(["dpkg-query", "-W", "-f=${Conffiles}", "morvel"]).stdout
        self.assertEqual([line.split()[0] for line in conffiles.splitlines() if line.strip()],
                         ["/etc/morvel/morvel.conf"])

    def test_3_installed_command_queries_a_simulated_smm_on_both_paths(self):
        sim = self.start_sim(INITIAL_STATUS=1, SMM_IP="192.168.7.21")
        for protocol in ("redfish", "ipmi"):
            with self.subTest(protocol=protocol):
                # No MORVEL_MODULE_PATH: the installed command finds its own module.
                result = self.run_morvel(["smmlan", "query", "--bmc", sim.bmc(), "--protocol", protocol],
                                         config={"IPMI_WORKAROUND_FLAGS": "opensesspriv"},
                                         binary="/usr/bin/morvel", env={"MORVEL_MODULE_PATH": ""})
                self.assertEqual((result.returncode, result.stdout, result.stderr), (0, QUERY_OUTPUT[protocol], ""),
                                 result.describe())
        self.assertEqual(sim.ipmi_requests(), [("f1", "00"), ("c4", "000014932f76322f766f726e2f736d6d2f736d6d5f6970")])
        self.assertEqual([request[:2] for request in sim.redfish_requests()], [("GET", "/redfish/v1/Chassis/2")])

    def test_4_manual_pages_render_without_warnings(self):
        for page, title in (("morvel", "morvel(1)"), ("morvel-smmlan", "morvel-smmlan(1)"),
                            ("morvel-trust", "morvel-trust(1)"), ("morvel.conf", "morvel.conf(5)")):
            with self.subTest(page=page):
                result = run_command(["man", "--warnings", page], env=self.env({"MANWIDTH": "80"}), timeout=60)
                self.assertEqual((result.returncode, result.stderr), (0, ""), result.describe())
                first = result.stdout.splitlines()[0].split()
                self.assertEqual((first[0], first[-1]), (title, title))

    def test_5_bash_completion_offers_the_subcommands(self):
        script = ("source /usr/share/bash-completion/completions/morvel\n"
                  "complete -p morvel\n"
                  "COMP_WORDS=(morvel smmlan ''); COMP_CWORD=2; COMP_LINE='morvel smmlan '; COMP_POINT=14\n"
                  "_morvel morvel '' smmlan\n"
                  "printf '%s\\n' \"${COMPREPLY[@]}\"\n")
        result = run_command(["bash", "--norc", "--noprofile", "-c", script], env=self.env(), timeout=60)
        self.assertEqual((result.returncode, result.stderr), (0, ""), result.describe())
        self.assertEqual(result.stdout, "complete -F _morvel morvel\nenable\ndisable\nenableipmi\nquery\n")

    def test_6_the_ansible_collection_is_where_ansible_looks(self):
        result = run_command(["ansible-doc", "-t", "module", "morvel.smm.smmlan"], env=self.env(), timeout=120)
        self.assertEqual(result.returncode, 0, result.describe())
        self.assertIn("/usr/share/ansible/collections/ansible_collections/morvel/smm/plugins/modules/smmlan.py",
                      result.stdout)

    def test_7_purge_leaves_nothing_behind(self):
        result = run_command(["dpkg", "--purge"] + list(PACKAGES), env=self.env(), timeout=300)
        self.assertEqual(result.returncode, 0, result.describe())
        self.assertFalse(any(installed(package) for package in PACKAGES))
        left = sorted(path for path in self.contents if path not in self.existed and os.path.lexists(path))
        self.assertEqual(left, [])


if __name__ == "__main__":
    unittest.main(verbosity=2)
