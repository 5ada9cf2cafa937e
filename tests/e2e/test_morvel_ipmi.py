# SPDX-License-Identifier: GPL-3.0-or-later
"""`morvel smmlan` over IPMI: the built binary against the simulated SMM with its HTTPS face off.

Every run goes to the simulator over real UDP on a loopback address: the
Redfish stage finds nothing listening and passes the command on, and the IPMI
stage talks RMCP+ to ipmi_sim. Each test checks the exact standard output,
standard error, exit status and the 0x3A requests that the simulator recorded.

The 10-second settle after a successful enable or enableipmi is part of the
behaviour and cannot be configured away; only four runs here pay for it.
"""

import re
import unittest

from smmsim import E2ETestCase, UdpBlackhole

# ipmi_sim grants the administrator privilege to FreeIPMI only with this workaround.
CONFIG = {"IPMI_WORKAROUND_FLAGS": "opensesspriv", "SMM_NETWORK_CHECK_SLEEP_TIME": "1"}
# ':' and '@' in the password: the --bmc split takes the user up to the first ':'
# and the host after the last '@'.
PASSWORD = "pw:E2e@ipmi"

STATUS_READ = ("f1", "00")
ADDRESS_READ = ("c4", "000014932f76322f766f726e2f736d6d2f736d6d5f6970")  # 00 00 14 93 "/v2/vorn/smm/smm_ip"

SUCCEED = "0 Succeed.\n"
GENERIC_FAILURE = "1 Generic Failure.\n"
AUTH_MESSAGE = "Authentication failed. For instance, user name or password error."
IPMI_FAILED_MESSAGE = "Failed to enable SMM IPMI over LAN, please confirm whether the target system supports."

SENT_ENABLE = "[INFO]: Send enable command succeeded, wait for status take effect.\n"
SENT_DISABLE = "[INFO]: Send disable command succeeded, wait for status take effect.\n"
MISS = "Status has been not take effected, wait for next check.\n"
LAN_HIT = "The SMM network status take effected.\n"
IPMI_HIT = "The SMM IPMI over LAN status take effected.\n"
ENABLE_TIMEOUT = "Execute command to enable smm network success but wait status change timeout\n"
DISABLE_TIMEOUT = "Execute command to disable smm network success but wait status change timeout\n"
IPMI_TIMEOUT = "Execute command to enable SMM IPMI over LAN success but wait status change timeout\n"
METHOD_FAILED = ("Failed to configure SMM IP address obtained method, continue to enable SMM network with default "
                 "address obtained method\n")

# The settle after a successful enable, in seconds.
SETTLE = 10
# Sessions to an unreachable SMM give up after this many milliseconds.
SESSION_TIMEOUT_MS = 2000

# "2026-01-02 03:04:05.678 LEVEL source:line text" (text may run over several lines).
LOG_RECORD = re.compile(r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} (\w+) (\S+?):\d+ (.*?)(?=\n\d{4}-\d\d-\d\d |\n?\Z)",
                        re.M | re.S)
MANAGER = "Src/Misc/SmmLan/SmmLanManager"
CLIENT = "src/host/IpmiClient"


def block(title, *lines):
    """A result block as the managers print it: banner, blank line, lines, blank line, banner."""
    return ("************%s Result************\n\n" % title + "".join(line + "\n" for line in lines) +
            "\n************%s Result************\n" % title)


def checks(prefix, misses, hit):
    """The poll lines: `misses` missed checks, then (when hit is not None) the one that saw the status."""
    text = ""
    for attempt in range(misses):
        text += "%s%d)\n" % (prefix, attempt) + MISS
    if hit is not None:
        text += "%s%d)\n" % (prefix, misses) + hit
    return text


def lan_checks(misses, hit=True):
    return checks("Check SMM network status attempt(", misses, LAN_HIT if hit else None)


def ipmi_checks(misses, hit=True):
    return checks("Check SMM IPMI over LAN status attempt(", misses, IPMI_HIT if hit else None)


def log_records(text, level=None, source=None):
    """[(level, source, message)] of a morvel log, line numbers left out."""
    return [r for r in LOG_RECORD.findall(text)
            if (level is None or r[0] == level) and (source is None or r[1] == source)]


def errors(text, source):
    """The messages of the failure records (level 1) that `source` wrote."""
    return [message for _, _, message in log_records(text, "ERROR", source)]


class SmmLanOverIpmi(E2ETestCase):
    """Helpers shared by the tests below."""

    def start(self, **knobs):
        knobs.setdefault("REDFISH", "off")
        knobs.setdefault("PASSWORD", PASSWORD)
        return self.start_sim(**knobs)

    def smmlan(self, sim, *args, config=None, bmc=None):
        """`morvel smmlan ARGS --bmc ...` at log level 4; the password never shows anywhere."""
        result = self.run_morvel(["smmlan"] + list(args) + ["--bmc", bmc or sim.bmc()],
                                 config=dict(CONFIG, **(config or {})), log_level=4)
        self.assertNoSecret(PASSWORD, result.stdout, result.stderr, result.files["log"])
        return result

    def assertResult(self, result, returncode, stdout, stderr):
        self.assertEqual(result.stdout, stdout, result.describe())
        self.assertEqual(result.stderr, stderr, result.describe())
        self.assertEqual(result.returncode, returncode, result.describe())

    def assertIpmiOnly(self, sim, result, requests):
        """The simulator saw exactly these 0x3A requests and no HTTPS at all; Redfish was tried and passed on."""
        self.assertEqual(sim.ipmi_requests(), requests)
        self.assertEqual(sim.redfish_requests(), [])
        self.assertIn(("TRACE", "Src/Misc/SmmLan/SmmLan",
                       "Failed to get Redfish connection parameter with l_ret=0 Succeed."),
                      log_records(result.files["log"]))


class Query(SmmLanOverIpmi):
    def test_enabled_prints_status_and_address(self):
        sim = self.start(INITIAL_STATUS=1, SMM_IP="10.1.168.192")
        result = self.smmlan(sim, "query")
        self.assertResult(result, 0, block("Query", "Query SMM network status succeeded", "    Status: Enabled",
                                           "    SMM IP: 10.1.168.192") + SUCCEED, "")
        self.assertIpmiOnly(sim, result, [STATUS_READ, ADDRESS_READ])
        # The raw status goes to the log only.
        self.assertIn(("INFO", MANAGER, "    Status code: 1"), log_records(result.files["log"]))
        self.assertEqual(errors(result.files["log"], MANAGER), [])

    def test_network_and_ipmi_enabled_prints_status_and_address(self):
        sim = self.start(INITIAL_STATUS=4, SMM_IP="172.16.254.3")
        result = self.smmlan(sim, "query")
        self.assertResult(result, 0, block("Query", "Query SMM network status succeeded",
                                           "    Status: SMM network and IPMI over LAN enabled",
                                           "    SMM IP: 172.16.254.3") + SUCCEED, "")
        self.assertIpmiOnly(sim, result, [STATUS_READ, ADDRESS_READ])
        self.assertIn(("INFO", MANAGER, "    Status code: 4"), log_records(result.files["log"]))

    def test_disabled_reads_no_address(self):
        sim = self.start(INITIAL_STATUS=2)
        result = self.smmlan(sim, "query")
        self.assertResult(result, 0, block("Query", "Query SMM network status succeeded", "    Status: Disabled") +
                          SUCCEED, "")
        self.assertIpmiOnly(sim, result, [STATUS_READ])

    def test_unlisted_status_byte_is_unknow_and_succeeds(self):
        sim = self.start(INITIAL_STATUS=3)
        result = self.smmlan(sim, "query")
        self.assertResult(result, 0, block("Query", "Query SMM network status succeeded", "    Status: Unknow") +
                          SUCCEED, "")
        self.assertIpmiOnly(sim, result, [STATUS_READ])
        self.assertEqual(errors(result.files["log"], MANAGER), ["SMM lan status is unknow, the value got is:3"])
        self.assertIn(("INFO", MANAGER, "    Status code: 0"), log_records(result.files["log"]))

    def test_failed_address_read_is_reported_before_the_status(self):
        sim = self.start(INITIAL_STATUS=1, C4_STATUS=3)
        result = self.smmlan(sim, "query")
        self.assertResult(result, 0, block("Query", "Get SMM ip failed", "Query SMM network status succeeded",
                                           "    Status: Enabled") + SUCCEED, "")
        self.assertIpmiOnly(sim, result, [STATUS_READ, ADDRESS_READ])
        self.assertEqual(errors(result.files["log"], MANAGER),
                         ["Get SMM ip failed with error : property doesn't exist"])

    def test_status_read_with_completion_code_fails(self):
        sim = self.start(INITIAL_STATUS=1, CC="F1.00:C1")
        result = self.smmlan(sim, "query")
        self.assertResult(result, 1, block("Query", "Query SMM network status failed.",
                                           "    Error msg: Generic Failure."), GENERIC_FAILURE)
        self.assertIpmiOnly(sim, result, [STATUS_READ])
        self.assertEqual([r["cc"] for r in sim.ipmi_exchanges()], ["c1"])

    def test_status_reply_of_two_bytes_fails(self):
        sim = self.start(INITIAL_STATUS=1, RESPONSE="F1.00:0101")
        result = self.smmlan(sim, "query")
        self.assertResult(result, 1, block("Query", "Query SMM network status failed.",
                                           "    Error msg: Generic Failure."), GENERIC_FAILURE)
        self.assertIpmiOnly(sim, result, [STATUS_READ])


class Enable(SmmLanOverIpmi):
    # --- runs that succeed and pay the 10-second settle

    def test_static_method_and_status_taking_effect_after_two_reads(self):
        sim = self.start(INITIAL_STATUS=2, STATUS_DELAY_READS=2, SMM_IP="40.30.20.10")
        result = self.smmlan(sim, "enable", "--method", "static")
        self.assertResult(result, 0, SENT_ENABLE + lan_checks(2) +
                          block("Enable", "Enable SMM network succeeded", "Sleep 10 seconds more to let SMM network up",
                                "SMM IP: 40.30.20.10") + SUCCEED, "")
        self.assertIpmiOnly(sim, result, [("f3", "01"), STATUS_READ, ("f1", "01"), STATUS_READ, STATUS_READ,
                                          STATUS_READ, ADDRESS_READ])
        self.assertEqual((sim.state()["STATUS"], sim.state()["METHOD"]), (1, 1))
        # Two one-second pauses after the misses, then the settle.
        self.assertGreaterEqual(result.elapsed, SETTLE + 2)

    def test_already_enabled_sends_no_switch_but_settles_and_reads_the_address(self):
        sim = self.start(INITIAL_STATUS=1, SMM_IP="192.0.2.77")
        result = self.smmlan(sim, "enable", "--method", "dhcp")
        self.assertResult(result, 0, block("Enable", "Enable SMM network succeeded",
                                           "Sleep 10 seconds more to let SMM network up", "SMM IP: 192.0.2.77") +
                          SUCCEED, "")
        self.assertIpmiOnly(sim, result, [("f3", "02"), STATUS_READ, ADDRESS_READ])
        self.assertEqual((sim.state()["STATUS"], sim.state()["METHOD"]), (1, 2))
        self.assertIn(("INFO", MANAGER, "The status to set is same as current status"),
                      log_records(result.files["log"]))
        self.assertGreaterEqual(result.elapsed, SETTLE)

    def test_from_network_and_ipmi_enabled_switches_to_network_only(self):
        # Status 4 is not the wanted 1: the switch is sent and the wait expects 1.
        sim = self.start(INITIAL_STATUS=4)
        result = self.smmlan(sim, "enable")
        self.assertResult(result, 0, SENT_ENABLE + lan_checks(0) +
                          block("Enable", "Enable SMM network succeeded", "Sleep 10 seconds more to let SMM network up",
                                "SMM IP: 192.0.2.100") + SUCCEED, "")
        self.assertIpmiOnly(sim, result, [STATUS_READ, ("f1", "01"), STATUS_READ, ADDRESS_READ])
        self.assertEqual(sim.state()["STATUS"], 1)
        self.assertIn(("INFO", MANAGER, "Do not change ip obtained method."), log_records(result.files["log"]))
        self.assertGreaterEqual(result.elapsed, SETTLE)

    # --- runs that fail before the settle

    def test_no_method_and_no_checks_allowed_times_out(self):
        sim = self.start(INITIAL_STATUS=2)
        result = self.smmlan(sim, "enable", config={"SMM_NETWORK_CHECK_RETRY_COUNT": "0"})
        self.assertResult(result, 1, SENT_ENABLE + block("Enable", "Enable SMM network failed.",
                                                         "    Error msg: Generic Failure."),
                          ENABLE_TIMEOUT + GENERIC_FAILURE)
        # No method command, and no check at all after the switch.
        self.assertIpmiOnly(sim, result, [STATUS_READ, ("f1", "01")])
        # The SMM did switch; the command still reports the time-out.
        self.assertEqual((sim.state()["STATUS"], sim.state()["METHOD"]), (1, 0))

    def test_mixed_case_dhcp_failover_and_a_status_that_never_changes(self):
        # Every status read answers "disabled", whatever the SMM does.
        sim = self.start(INITIAL_STATUS=2, RESPONSE="F1.00:02")
        result = self.smmlan(sim, "enable", "--method", "DHCP-Failover",
                             config={"SMM_NETWORK_CHECK_RETRY_COUNT": "2"})
        self.assertResult(result, 1, SENT_ENABLE + lan_checks(2, hit=False) +
                          block("Enable", "Enable SMM network failed.", "    Error msg: Generic Failure."),
                          ENABLE_TIMEOUT + GENERIC_FAILURE)
        self.assertIpmiOnly(sim, result, [("f3", "04"), STATUS_READ, ("f1", "01"), STATUS_READ, STATUS_READ])
        self.assertEqual(sim.state()["METHOD"], 4)
        self.assertIn(("INFO", MANAGER, "SMM lan ip obtained method:DHCP-Failover"),
                      log_records(result.files["log"]))
        # The pause follows the last miss too.
        self.assertGreaterEqual(result.elapsed, 2)

    def test_unknown_method_text_and_a_refused_switch(self):
        sim = self.start(INITIAL_STATUS=2, CC="F1.01:C1")
        result = self.smmlan(sim, "enable", "--method", "bogus")
        self.assertResult(result, 1, block("Enable", "Enable SMM network failed.", "    Error msg: Generic Failure."),
                          GENERIC_FAILURE)
        self.assertIpmiOnly(sim, result, [STATUS_READ, ("f1", "01")])
        self.assertEqual([r["cc"] for r in sim.ipmi_exchanges()], ["00", "c1"])
        self.assertEqual((sim.state()["STATUS"], sim.state()["METHOD"]), (2, 0))
        self.assertEqual(errors(result.files["log"], MANAGER),
                         ["Execute ipmi command to set smm network status to 1 failed"])

    def test_refused_method_is_only_logged(self):
        sim = self.start(INITIAL_STATUS=2, CC="F3:C1")
        result = self.smmlan(sim, "enable", "--method", "dhcp", config={"SMM_NETWORK_CHECK_RETRY_COUNT": "0"})
        # No console line about the method: the run goes on to the switch.
        self.assertResult(result, 1, SENT_ENABLE + block("Enable", "Enable SMM network failed.",
                                                         "    Error msg: Generic Failure."),
                          ENABLE_TIMEOUT + GENERIC_FAILURE)
        self.assertIpmiOnly(sim, result, [("f3", "02"), STATUS_READ, ("f1", "01")])
        self.assertEqual((sim.state()["STATUS"], sim.state()["METHOD"]), (1, 0))
        records = [m for _, s, m in log_records(result.files["log"]) if s == MANAGER and "method" in m]
        self.assertEqual(records, ["SMM lan ip obtained method:dhcp", "Start to set ip obtained method.",
                                   "Failed to set smm lan method", "set ip obtained method succeed."])


class Disable(SmmLanOverIpmi):
    def test_switches_off_and_polls(self):
        sim = self.start(INITIAL_STATUS=4, STATUS_DELAY_READS=1)
        result = self.smmlan(sim, "disable")
        self.assertResult(result, 0, SENT_DISABLE + lan_checks(1) +
                          block("Disable", "Disable SMM network succeeded") + SUCCEED, "")
        self.assertIpmiOnly(sim, result, [STATUS_READ, ("f1", "02"), STATUS_READ, STATUS_READ])
        self.assertEqual(sim.state()["STATUS"], 2)
        # One pause after the miss; no settle after a disable (its line is not in the output above).
        self.assertGreaterEqual(result.elapsed, 1)

    def test_already_disabled_sends_only_the_read(self):
        sim = self.start(INITIAL_STATUS=2)
        result = self.smmlan(sim, "disable")
        self.assertResult(result, 0, block("Disable", "Disable SMM network succeeded") + SUCCEED, "")
        self.assertIpmiOnly(sim, result, [STATUS_READ])
        self.assertEqual(sim.state()["STATUS"], 2)

    def test_no_checks_allowed_times_out(self):
        sim = self.start(INITIAL_STATUS=1)
        result = self.smmlan(sim, "disable", config={"SMM_NETWORK_CHECK_RETRY_COUNT": "0"})
        self.assertResult(result, 1, SENT_DISABLE + block("Disable", "Disable SMM network failed.",
                                                          "    Error msg: Generic Failure."),
                          DISABLE_TIMEOUT + GENERIC_FAILURE)
        self.assertIpmiOnly(sim, result, [STATUS_READ, ("f1", "02")])
        self.assertEqual(sim.state()["STATUS"], 2)


class EnableIpmi(SmmLanOverIpmi):
    def test_switches_on_waits_for_status_4_and_settles(self):
        sim = self.start(INITIAL_STATUS=1, STATUS_DELAY_READS=1)
        result = self.smmlan(sim, "enableipmi")
        self.assertResult(result, 0, SENT_ENABLE + ipmi_checks(1) +
                          block("Enable", "Enable SMM IPMI over LAN succeeded",
                                "Sleep 10 seconds more to let SMM IPMI over LAN up") + SUCCEED, "")
        # No address is read after enableipmi.
        self.assertIpmiOnly(sim, result, [STATUS_READ, ("f1", "04"), STATUS_READ, STATUS_READ])
        self.assertEqual(sim.state()["STATUS"], 4)
        self.assertGreaterEqual(result.elapsed, SETTLE + 1)

    def test_refused_switch_gives_64(self):
        sim = self.start(INITIAL_STATUS=1, CC="F1.04:C1")
        result = self.smmlan(sim, "enableipmi")
        self.assertResult(result, 64, block("Enable", "Enable SMM IPMI over LAN failed.",
                                            "    Error msg: " + IPMI_FAILED_MESSAGE),
                          "64 " + IPMI_FAILED_MESSAGE + "\n")
        self.assertIpmiOnly(sim, result, [STATUS_READ, ("f1", "04")])
        self.assertEqual([r["cc"] for r in sim.ipmi_exchanges()], ["00", "c1"])
        self.assertEqual(sim.state()["STATUS"], 1)
        self.assertEqual(errors(result.files["log"], MANAGER),
                         ["Execute ipmi command to set smm ipmi over lan status to 4 failed"])

    def test_no_checks_allowed_times_out(self):
        sim = self.start(INITIAL_STATUS=1)
        result = self.smmlan(sim, "enableipmi", config={"SMM_NETWORK_CHECK_RETRY_COUNT": "0"})
        self.assertResult(result, 1, SENT_ENABLE + block("Enable", "Enable SMM IPMI over LAN failed.",
                                                         "    Error msg: Generic Failure."),
                          IPMI_TIMEOUT + GENERIC_FAILURE)
        self.assertIpmiOnly(sim, result, [STATUS_READ, ("f1", "04")])
        self.assertEqual(sim.state()["STATUS"], 4)


class Credentials(SmmLanOverIpmi):
    def test_wrong_password_is_2054(self):
        sim = self.start(INITIAL_STATUS=1)
        wrong = "Wr0ng:pa@ss"
        result = self.smmlan(sim, "query", bmc=sim.bmc(password=wrong))
        self.assertResult(result, 255, block("Query", "Query SMM network status failed.", "    Error msg: " + AUTH_MESSAGE),
                          "2054 " + AUTH_MESSAGE + "\n")
        self.assertIpmiOnly(sim, result, [])
        self.assertEqual(errors(result.files["log"], CLIENT),
                         ["IPMI session start failed (attempt 1 of 3): password invalid"])
        self.assertNoSecret(wrong, result.stdout, result.stderr, result.files["log"])

    def test_unknown_user_is_2054_for_every_exchange_of_an_enable(self):
        sim = self.start(INITIAL_STATUS=2)
        result = self.smmlan(sim, "enable", "--method", "static", bmc=sim.bmc(user="nobody"))
        # The method command fails to open (reported, enabling goes on), so does the
        # status read (not an error there), and the switch's own open ends the run.
        self.assertResult(result, 255, METHOD_FAILED + block("Enable", "Enable SMM network failed.",
                                                             "    Error msg: " + AUTH_MESSAGE),
                          "2054 " + AUTH_MESSAGE + "\n")
        self.assertIpmiOnly(sim, result, [])
        self.assertEqual(errors(result.files["log"], CLIENT),
                         ["IPMI session start failed (attempt 1 of 3): username invalid"] * 3)
        self.assertEqual(sim.state()["STATUS"], 2)


class Unreachable(SmmLanOverIpmi):
    CONFIG = {"IPMI_SESSION_TIMEOUT_MS": str(SESSION_TIMEOUT_MS)}

    def test_nothing_listening(self):
        address = self.lease_address()
        result = self.run_morvel(["smmlan", "query", "--bmc", "admin:%s@%s" % (PASSWORD, address)],
                                 config=dict(CONFIG, **self.CONFIG), log_level=4)
        self.assertResult(result, 13, block("Query", "Query SMM network status failed.",
                                            "    Error msg: Connection failed."), "13 Connection failed.\n")
        # One session attempt: a time-out is not retried.
        self.assertEqual(errors(result.files["log"], CLIENT),
                         ["IPMI session start failed (attempt 1 of 3): connection timeout"])
        # It waited for the session time-out (FreeIPMI's, cut to the last retransmission), once.
        self.assertGreaterEqual(result.elapsed, 0.5)
        self.assertNoSecret(PASSWORD, result.stdout, result.stderr, result.files["log"])

    def test_blackholed_controller(self):
        address = self.lease_address()
        with UdpBlackhole(address, 623) as hole:
            result = self.run_morvel(["smmlan", "disable", "--bmc", "admin:%s@%s" % (PASSWORD, address)],
                                     config=dict(CONFIG, **self.CONFIG), log_level=4)
        # The status read fails (not an error before a switch), then the switch's own open.
        self.assertResult(result, 13, block("Disable", "Disable SMM network failed.",
                                            "    Error msg: Connection failed."), "13 Connection failed.\n")
        self.assertEqual(errors(result.files["log"], CLIENT),
                         ["IPMI session start failed (attempt 1 of 3): connection timeout"] * 2)
        self.assertGreaterEqual(hole.packets, 2)
        self.assertGreaterEqual(result.elapsed, 2 * 0.5)
        self.assertNoSecret(PASSWORD, result.stdout, result.stderr, result.files["log"])


class CommandLine(SmmLanOverIpmi):
    def test_unknown_or_capitalised_subcommand_is_4_without_traffic(self):
        sim = self.start(INITIAL_STATUS=1)
        notes = {"bogus": "", "Query": "morvel: subcommands are case-sensitive: did you mean 'query'?\n"}
        for word, note in notes.items():
            with self.subTest(word=word):
                result = self.smmlan(sim, word)
                self.assertResult(result, 4, "", note + "4 Invalid command.\n")
                self.assertIpmiOnly(sim, result, [])
                records = log_records(result.files["log"])
                # The IPMI stage got its connection and built its client, but never opened it.
                self.assertIn(("TRACE", "src/host/MorvelConnect", "IPMI connection to %s port 443 as admin" % sim.address),
                              records)
                self.assertEqual([r for r in records if r[1] == CLIENT], [])

    def test_unknown_subcommand_without_a_password_is_4_without_asking(self):
        sim = self.start(INITIAL_STATUS=1)
        lines = {"Query": "morvel: subcommands are case-sensitive: did you mean 'query'?\n",
                 "bogus": "morvel: unknown subcommand 'bogus' of smmlan; the subcommands are enable, disable, "
                          "enableipmi and query\n"}
        for word, line in lines.items():
            with self.subTest(word=word):
                # No password anywhere and no terminal: a known word would end with "no password", exit 5.
                result = self.run_morvel(["smmlan", word, "--bmc", "admin@" + sim.address], config=CONFIG, log_level=4)
                self.assertResult(result, 4, "", line + "4 Invalid command.\n")
                self.assertEqual((sim.ipmi_requests(), sim.redfish_requests()), ([], []))
                self.assertIn(("ERROR", "src/cli/Host", line[len("morvel: "):-1] + " (exit status 4)"),
                              log_records(result.files["log"]))
        known = self.run_morvel(["smmlan", "query", "--bmc", "admin@" + sim.address], config=CONFIG)
        self.assertEqual((known.returncode, known.stdout), (5, ""))
        self.assertIn("morvel: no password: ", known.stderr)

    def test_missing_bmc_is_5_without_traffic(self):
        sim = self.start(INITIAL_STATUS=1)
        # The option name is matched exactly: --BMC is not --bmc, and is refused as no option of smmlan.
        for args, stderr in ((["smmlan", "query"], "morvel: --bmc USER[:PASSWORD]@HOST[:PORT] is required\n"
                                                   "5 Invalid parameter.\n"),
                             (["smmlan", "query", "--method", "static", "--BMC", sim.bmc()],
                              "morvel: unknown option '--BMC' for smmlan; did you mean '--bmc'?\n")):
            with self.subTest(args=args[2:3]):
                result = self.run_morvel(args, config=CONFIG, log_level=4)
                self.assertResult(result, 5, "", stderr)
                self.assertEqual(sim.ipmi_requests(), [])
                self.assertEqual(sim.redfish_requests(), [])
                self.assertEqual([r for r in log_records(result.files["log"]) if r[1] == "src/host/MorvelConnect"], [])
                self.assertNoSecret(PASSWORD, result.stdout, result.stderr, result.files["log"])


if __name__ == "__main__":
    unittest.main()
