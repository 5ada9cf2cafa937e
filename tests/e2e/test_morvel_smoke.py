# SPDX-License-Identifier: GPL-3.0-or-later
"""The installed-layout morvel binary against the simulated SMM: one run per path.

A starting point for the command's end-to-end suites: run_morvel() captures
standard output, standard error, the exit status and the log file exactly.
"""

import os
import unittest

from smmsim import BUILD_DIR, E2ETestCase, build_option, run_command

CONFIG = {"IPMI_WORKAROUND_FLAGS": "opensesspriv"}
SHIPPED_CONFIG = os.path.join(os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__)))),
                              "doc", "morvel.conf")


class MorvelSmoke(E2ETestCase):
    def test_query_over_ipmi_when_redfish_is_off(self):
        sim = self.start_sim(INITIAL_STATUS=1, REDFISH="off", SMM_IP="192.168.1.10", PASSWORD="s3cret:@x")
        result = self.run_morvel(["smmlan", "query", "--bmc", sim.bmc()], config=CONFIG, log_level=4)
        self.assertEqual(result.returncode, 0, result.describe())
        self.assertEqual(result.stdout,
                         "************Query Result************\n\n"
                         "Query SMM network status succeeded\n"
                         "    Status: Enabled\n"
                         "    SMM IP: 192.168.1.10\n"
                         "\n************Query Result************\n"
                         "0 Succeed.\n")
        self.assertEqual(result.stderr, "")
        self.assertEqual(sim.ipmi_requests(), [("f1", "00"), ("c4", "000014932f76322f766f726e2f736d6d2f736d6d5f6970")])
        self.assertNoSecret("s3cret:@x", result.stdout, result.stderr, result.files["log"])

    def test_installed_tree_finds_its_module(self):
        prefix = self._new_dir("prefix")
        install = run_command(["cmake", "--install", BUILD_DIR, "--prefix", prefix], env=self.env(), timeout=120)
        self.assertEqual(install.returncode, 0, install.describe())
        installed = sorted(os.path.relpath(os.path.join(top, name), prefix)
                           for top, _, names in os.walk(prefix) for name in names)
        expected = ["bin/morvel", "etc/morvel/morvel.conf", "lib/libmorvel_host.so.0", "lib/libmorvel_ipmi.so",
                    "lib/morvel/libmorvel_smmlan.so", "lib/morvel/libmorvel_trust.so",
                    "share/bash-completion/completions/morvel"]
        if build_option("MORVEL_BUILD_DOCS") == "ON":
            expected += ["share/man/man1/morvel-smmlan.1.gz", "share/man/man1/morvel-trust.1.gz",
                         "share/man/man1/morvel.1.gz", "share/man/man5/morvel.conf.5.gz"]
        self.assertEqual(installed, sorted(expected))
        with open(os.path.join(prefix, "etc", "morvel", "morvel.conf"), encoding="utf-8") as f, \
                open(SHIPPED_CONFIG, encoding="utf-8") as shipped:
            self.assertEqual(f.read(), shipped.read())

        sim = self.start_sim(INITIAL_STATUS=1, REDFISH="off", SMM_IP="192.168.1.11")
        # No MORVEL_MODULE_PATH: the module is found beside the installed binary.
        result = self.run_morvel(["smmlan", "query", "--bmc", sim.bmc()], config=CONFIG,
                                 binary=os.path.join(prefix, "bin", "morvel"), env={"MORVEL_MODULE_PATH": ""})
        self.assertEqual((result.returncode, result.stderr), (0, ""), result.describe())
        self.assertEqual(result.stdout,
                         "************Query Result************\n\n"
                         "Query SMM network status succeeded\n"
                         "    Status: Enabled\n"
                         "    SMM IP: 192.168.1.11\n"
                         "\n************Query Result************\n"
                         "0 Succeed.\n")
        self.assertIn(" module %s/lib/morvel/libmorvel_smmlan.so\n" % prefix, result.files["log"])

    def test_shipped_configuration_changes_nothing(self):
        # doc/morvel.conf (installed as /etc/morvel/morvel.conf) has every key
        # commented out: a run with it read before the test's own key is the
        # same run as with that key alone, on both paths.
        with open(SHIPPED_CONFIG, encoding="utf-8") as f:
            shipped = f.read()
        with_shipped = os.path.join(self._new_dir("conf"), "morvel.conf")
        with open(with_shipped, "w", encoding="utf-8") as f:
            f.write(shipped + "".join("%s=%s\n" % item for item in CONFIG.items()))
        for knobs in ({"INITIAL_STATUS": 1, "REDFISH": "off", "SMM_IP": "192.168.1.12"},
                      {"INITIAL_STATUS": 4, "SMM_IP": "192.168.1.13"}):
            with self.subTest(redfish=knobs.get("REDFISH", "on")):
                sim = self.start_sim(**knobs)
                alone = self.run_morvel(["smmlan", "query", "--bmc", sim.bmc()], config=CONFIG)
                both = self.run_morvel(["--config", with_shipped, "smmlan", "query", "--bmc", sim.bmc()])
                self.assertEqual((alone.returncode, alone.stderr), (0, ""), alone.describe())
                self.assertEqual((both.returncode, both.stdout, both.stderr),
                                 (alone.returncode, alone.stdout, alone.stderr))

    def test_installed_tree_without_its_ipmi_library(self):
        # FreeIPMI comes in through lib/libmorvel_ipmi.so, loaded on the first IPMI session only:
        # without it a run over Redfish is whole, and one over IPMI fails cleanly, saying why.
        prefix = self._new_dir("prefix")
        install = run_command(["cmake", "--install", BUILD_DIR, "--prefix", prefix], env=self.env(), timeout=120)
        self.assertEqual(install.returncode, 0, install.describe())
        library = os.path.join(prefix, "lib", "libmorvel_ipmi.so")
        os.remove(library)
        binary = os.path.join(prefix, "bin", "morvel")

        redfish = self.start_sim(INITIAL_STATUS=1, SMM_IP="192.168.1.12")
        result = self.run_morvel(["smmlan", "query", "--bmc", redfish.bmc()], config=CONFIG, binary=binary,
                                 env={"MORVEL_MODULE_PATH": ""})
        self.assertEqual((result.returncode, result.stderr), (0, ""), result.describe())
        self.assertEqual(result.stdout,
                         "************Query Result************\n\n"
                         "Query SMM network status succeeded\n"
                         "    Status: SMM network over LAN enabled and IPMI over LAN disabled\n"
                         "    SMM IP: 192.168.1.12\n"
                         "\n************Query Result************\n\n"
                         "0 Succeed.\n")
        self.assertNotIn("IPMI unavailable", result.files["log"])

        ipmi = self.start_sim(INITIAL_STATUS=1, REDFISH="off")
        result = self.run_morvel(["smmlan", "query", "--bmc", ipmi.bmc()], config=CONFIG, binary=binary,
                                 env={"MORVEL_MODULE_PATH": ""})
        self.assertEqual(result.returncode, 13, result.describe())
        self.assertEqual(result.stdout,
                         "************Query Result************\n\n"
                         "Query SMM network status failed.\n"
                         "    Error msg: Connection failed.\n"
                         "\n************Query Result************\n")
        self.assertEqual(result.stderr, "13 Connection failed.\n")
        failures = [line.split(" src/host/IpmiClient:", 1)[1].split(" ", 1)[1]
                    for line in result.files["log"].splitlines() if " ERROR src/host/IpmiClient:" in line]
        self.assertEqual(failures, ["IPMI unavailable: cannot load %s: cannot open shared object file: "
                                    "No such file or directory" % library])
        self.assertEqual(ipmi.ipmi_requests(), [])

    def test_enable_over_redfish(self):
        sim = self.start_sim(INITIAL_STATUS=2)
        result = self.run_morvel(["smmlan", "enable", "--bmc", sim.bmc()], config=CONFIG)
        self.assertEqual(result.returncode, 0, result.describe())
        self.assertEqual(result.stdout,
                         "************Enable Result************\n\n"
                         "Enable SMM LAN succeeded\n"
                         "\n************Enable Result************\n"
                         "0 Succeed.\n")
        self.assertEqual(sim.redfish_requests(), [
            ("GET", "/redfish/v1/Chassis/2", ""),
            ("PATCH", "/redfish/v1/Chassis/2", '{"Oem": {"Qarvon": { " LANEnabled" : true}}}')])
        self.assertEqual(sim.ipmi_requests(), [])
        self.assertEqual(sim.state()["STATUS"], 1)


if __name__ == "__main__":
    unittest.main()
