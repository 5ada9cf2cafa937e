"""The installed-layout morvel binary against the simulated SMM: one run per path.

A starting point for the command's end-to-end suites: run_morvel() captures
standard output, standard error, the exit status and the log file exactly.
"""

import unittest

from smmsim import E2ETestCase

CONFIG = {"IPMI_WORKAROUND_FLAGS": "opensesspriv"}


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
