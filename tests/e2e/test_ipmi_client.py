# SPDX-License-Identifier: GPL-3.0-or-later
"""Plexum::IpmiClient (FreeIPMI, LAN 2.0) against the simulated SMM over real UDP on loopback."""

import os
import sys
import unittest

from smmsim import FAILING_IPMI_DIR, E2ETestCase, UdpBlackhole

# ipmi_sim needs this FreeIPMI workaround to grant the administrator privilege.
WORKAROUND = {"IPMI_WORKAROUND_FLAGS": "opensesspriv"}
PROPERTY_READ = "000014932f76322f766f726e2f736d6d2f736d6d5f6970"


class OpenAndExchange(E2ETestCase):
    def test_open_and_status_read_round_trip(self):
        sim = self.start_sim(INITIAL_STATUS=4, REDFISH="off")
        result, rows = self.run_probe(sim.address, 623, ["open", "send", "3a", "f1", "00", "close"],
                                      config=WORKAROUND)
        self.assertEqual([r["op"] for r in rows], ["open", "send", "close"])
        self.assertEqual(rows[0]["rc"], 0)
        self.assertEqual((rows[1]["rc"], rows[1]["cc"], rows[1]["data"]), (0, "00", "04"))
        self.assertEqual(sim.ipmi_requests(), [("f1", "00")])
        self.assertNoSecret("secret", result.stdout, result.stderr)

    def test_set_read_and_address_bytes(self):
        sim = self.start_sim(INITIAL_STATUS=1, SMM_IP="192.168.1.10", REDFISH="off")
        _, rows = self.run_probe(sim.address, "623", [
            "open", "send", "3a", "f3", "02", "send", "3a", "f1", "02", "send", "3a", "f1", "00",
            "send", "3a", "c4", PROPERTY_READ, "send", "3a", "f1", "07", "send", "3a", "f1", "close"],
            config=WORKAROUND)
        sends = [(r["cmd"], r["request"], r["rc"], r["cc"], r["data"]) for r in rows if r["op"] == "send"]
        self.assertEqual(sends, [
            ("f3", "02", 0, "00", ""),
            ("f1", "02", 0, "00", ""),
            ("f1", "00", 0, "00", "02"),
            ("c4", PROPERTY_READ, 0, "00", "000000000a01a8c0"),
            ("f1", "07", 0, "cc", ""),
            ("f1", "", 0, "c7", ""),
        ])
        self.assertEqual(sim.state()["STATUS"], 2)
        self.assertEqual(sim.state()["METHOD"], 2)

    def test_each_open_uses_a_new_session(self):
        sim = self.start_sim(REDFISH="off")
        _, rows = self.run_probe(sim.address, 623, [
            "open", "send", "3a", "f1", "00", "close", "open", "send", "3a", "f1", "00", "close",
            "send", "3a", "f1", "00"], config=WORKAROUND)
        self.assertEqual([(r["op"], r.get("rc"), r.get("cc"), r.get("data")) for r in rows], [
            ("open", 0, None, None), ("send", 0, "00", "01"), ("close", None, None, None),
            ("open", 0, None, None), ("send", 0, "00", "01"), ("close", None, None, None),
            # After Close there is no session: no request leaves, the code says "no reply".
            ("send", -1, "ff", ""),
        ])
        self.assertEqual(sim.ipmi_requests(), [("f1", "00"), ("f1", "00")])

    def test_udp_port_text_is_used(self):
        port = self.lease_port("127.0.0.1")
        sim = self.start_sim(IPMI_PORT=port, REDFISH="off")
        _, rows = self.run_probe(sim.address, str(port), ["open", "send", "3a", "f1", "00"], config=WORKAROUND)
        self.assertEqual((rows[0]["rc"], rows[1]["cc"], rows[1]["data"]), (0, "00", "01"))

    def test_ipv6_literal(self):
        port = self.lease_port("::1")
        sim = self.start_sim(IPMI_IPV6="on", IPMI_IPV6_PORT=port, INITIAL_STATUS=2, REDFISH="off")
        for address in ("::1", "[::1]"):
            _, rows = self.run_probe(address, str(port), ["open", "send", "3a", "f1", "00", "close"],
                                     config=WORKAROUND)
            self.assertEqual((rows[0]["rc"], rows[1]["cc"], rows[1]["data"]), (0, "00", "02"), address)
        self.assertEqual(sim.ipmi_requests(), [("f1", "00"), ("f1", "00")])


class CredentialRefusals(E2ETestCase):
    def test_wrong_password_is_refused_with_2_once(self):
        sim = self.start_sim(PASSWORD="right-one", REDFISH="off")
        result, rows = self.run_probe(sim.address, 623, ["open"], password="wrong-one", count=3, config=WORKAROUND)
        self.assertEqual(rows[0]["rc"], 2)
        failures = [line for line in result.stderr.splitlines() if line.startswith("LOG1 ")]
        # Refused credentials are final: one attempt, not `count`.
        self.assertEqual(failures, ["LOG1 IPMI session start failed (attempt 1 of 3): password invalid"])
        self.assertNoSecret("wrong-one", result.stdout, result.stderr)
        self.assertNoSecret("right-one", result.stdout, result.stderr)
        self.assertEqual(sim.ipmi_requests(), [])

    def test_unknown_user_is_refused_with_2(self):
        sim = self.start_sim(REDFISH="off")
        result, rows = self.run_probe(sim.address, 623, ["open"], user="nobody", config=WORKAROUND)
        self.assertEqual(rows[0]["rc"], 2)
        self.assertIn("): username invalid", result.stderr)

    def test_privilege_level_is_requested_as_configured(self):
        # ipmi_sim lets only an administrator session use the OEM commands (D4 below that).
        sim = self.start_sim(REDFISH="off")
        answers = []
        for level in ("user", "operator", "admin", "Admin"):
            _, rows = self.run_probe(sim.address, 623, ["open", "send", "3a", "f1", "00"],
                                     config=dict(WORKAROUND, IPMI_PRIVILEGE_LEVEL=level))
            answers.append((rows[0]["rc"], rows[1]["cc"]))
        self.assertEqual(answers, [(0, "d4"), (0, "d4"), (0, "00"), (0, "00")])


class FreeIpmiSetUp(E2ETestCase):
    def test_a_failed_set_up_fails_every_open_with_a_record(self):
        # The host library loaded from a folder where libmorvel_ipmi.so's set-up fails.
        address = self.lease_address()
        result, rows = self.run_probe(address, 623, ["open", "send", "3a", "f1", "00", "close", "open"],
                                      config=WORKAROUND, env={"LD_LIBRARY_PATH": FAILING_IPMI_DIR})
        # Not 0 and not the refused-credentials value.
        self.assertEqual([(r["op"], r.get("rc"), r.get("cc")) for r in rows],
                         [("open", 1, None), ("send", -1, "ff"), ("close", None, None), ("open", 1, None)])
        backend = os.path.join(os.path.realpath(FAILING_IPMI_DIR), "libmorvel_ipmi.so")
        unavailable = "LOG1 IPMI unavailable: cannot set up FreeIPMI from %s: ipmi_rmcpplus_init returned -1" % backend
        self.assertEqual([line for line in result.stderr.splitlines() if line.startswith("LOG1 ")],
                         [unavailable, "LOG1 IPMI request 0x3a/0xf1 without an open session", unavailable])


class Unreachable(E2ETestCase):
    CONFIG = dict(WORKAROUND, IPMI_SESSION_TIMEOUT_MS="1500")

    def test_nothing_listening_fails_within_the_session_timeout(self):
        address = self.lease_address()
        result, rows = self.run_probe(address, 623, ["open"], count=5, config=self.CONFIG)
        self.assertEqual(rows[0]["rc"], 1)
        # A time-out is not retried, so `count` does not multiply it.
        self.assertGreaterEqual(rows[0]["ms"], 500)
        self.assertIn("(attempt 1 of 5): connection timeout", result.stderr)
        self.assertNotIn("attempt 2", result.stderr)
        sys.stderr.write("\n[ipmi] nothing listening, 1500 ms session time-out: failed after %d ms\n" % rows[0]["ms"])

    def test_blackholed_controller_fails_within_the_session_timeout(self):
        address = self.lease_address()
        with UdpBlackhole(address, 623) as hole:
            _, rows = self.run_probe(address, 623, ["open"], count=3, config=self.CONFIG)
        self.assertEqual(rows[0]["rc"], 1)
        self.assertGreaterEqual(hole.packets, 2)
        sys.stderr.write("\n[ipmi] blackholed, 1500 ms session time-out: failed after %d ms, %d packets\n"
                         % (rows[0]["ms"], hole.packets))

    def test_lost_requests_are_retransmitted(self):
        netns = self.netns()
        # Each exchange has five tries within 12 s: a 10 % loss fails it about once in 10^5.
        netns.drop_udp(0.1, 623, "dport")
        sim = self.start_sim(netns=netns, INITIAL_STATUS=4, REDFISH="off")
        _, rows = self.run_probe(sim.address, 623, ["open", "send", "3a", "f1", "00", "close"], netns=netns,
                                 config=dict(WORKAROUND, IPMI_SESSION_TIMEOUT_MS="12000"))
        self.assertEqual((rows[0]["rc"], rows[1]["rc"], rows[1]["cc"], rows[1]["data"]), (0, 0, "00", "04"))
        self.assertEqual(sim.ipmi_requests(), [("f1", "00")] * len(sim.ipmi_requests()))

    def test_default_session_timeout_is_waited_for_once(self):
        address = self.lease_address()
        result, rows = self.run_probe(address, 623, ["open"], count=2, config=WORKAROUND)
        self.assertEqual(rows[0]["rc"], 1)
        # The default is 20 s, cut to FreeIPMI's last retransmission within it.
        self.assertGreaterEqual(rows[0]["ms"], 10000)
        self.assertEqual(result.stderr.count("IPMI session start failed (attempt"), 1)
        sys.stderr.write("\n[ipmi] nothing listening, default session time-out: failed after %d ms\n" % rows[0]["ms"])


class InjectedFaults(E2ETestCase):
    def test_completion_code_injection_by_command_and_nth_request(self):
        sim = self.start_sim(CC="F1.00#2:C1,C4:D5", REDFISH="off")
        _, rows = self.run_probe(sim.address, 623, [
            "open", "send", "3a", "f1", "00", "send", "3a", "f1", "00", "send", "3a", "f1", "00",
            "send", "3a", "c4", PROPERTY_READ, "close"], config=WORKAROUND)
        sends = [(r["cmd"], r["rc"], r["cc"], r["data"]) for r in rows if r["op"] == "send"]
        self.assertEqual(sends, [("f1", 0, "00", "01"), ("f1", 0, "c1", ""), ("f1", 0, "00", "01"),
                                 ("c4", 0, "d5", "")])
        self.assertEqual([(r["cmd"], r["cc"]) for r in sim.records("ipmi")],
                         [("f1", "00"), ("f1", "c1"), ("f1", "00"), ("c4", "d5")])

    def test_property_status_and_response_override(self):
        sim = self.start_sim(C4_STATUS=3, RESPONSE="F1.00:0102", REDFISH="off")
        _, rows = self.run_probe(sim.address, 623, [
            "open", "send", "3a", "c4", PROPERTY_READ, "send", "3a", "f1", "00", "close"], config=WORKAROUND)
        sends = [(r["cmd"], r["cc"], r["data"]) for r in rows if r["op"] == "send"]
        self.assertEqual(sends, [("c4", "00", "0300000000000000"), ("f1", "00", "0102")])

    def test_a_retransmission_is_one_exchange(self):
        sim = self.start_sim(DROP="F1.00#1", REDFISH="off")
        _, rows = self.run_probe(sim.address, 623, ["open", "send", "3a", "f1", "00", "close",
                                                    "open", "send", "3a", "f1", "00", "close"],
                                 config=dict(WORKAROUND, IPMI_SESSION_TIMEOUT_MS="1500"))
        self.assertEqual([(r["op"], r.get("rc"), r.get("cc"), r.get("data")) for r in rows], [
            ("open", 0, None, None), ("send", 0, "00", "01"), ("close", None, None, None),
            ("open", 0, None, None), ("send", 0, "00", "01"), ("close", None, None, None)])
        first, again, second = sim.records("ipmi")
        # The lost first try came again in its session with the next sequence number.
        self.assertEqual((first["dropped"], again["dropped"], second["dropped"]), (True, False, False))
        self.assertEqual((again["session"], again["rq_seq"]), (first["session"], (first["rq_seq"] + 1) % 64))
        self.assertNotEqual(second["session"], again["session"])
        self.assertEqual(sim.ipmi_requests(), [("f1", "00"), ("f1", "00")])

    def test_no_reply_gives_ff_within_the_session_timeout(self):
        sim = self.start_sim(DROP="F1.00", REDFISH="off")
        result, rows = self.run_probe(sim.address, 623, [
            "open", "send", "3a", "f1", "00", "close", "open", "send", "3a", "f1", "02", "close"],
            config=dict(WORKAROUND, IPMI_SESSION_TIMEOUT_MS="1500"))
        self.assertEqual([(r["op"], r.get("rc"), r.get("cc"), r.get("data")) for r in rows], [
            ("open", 0, None, None), ("send", -1, "ff", ""), ("close", None, None, None),
            ("open", 0, None, None), ("send", 0, "00", ""), ("close", None, None, None)])
        # The dead session is not closed politely, which would wait once more (measured, not bounded).
        sys.stderr.write("\n[ipmi] no reply, 1500 ms session time-out: the request failed after %d ms, the close "
                         "took %d ms\n" % (rows[1]["ms"], rows[2]["ms"]))
        self.assertIn("LOG1 IPMI request 0x3a/0xf1 failed: session timeout", result.stderr)
        dropped = [r for r in sim.records("ipmi") if r["dropped"]]
        self.assertGreaterEqual(len(dropped), 2)  # FreeIPMI retransmits
        self.assertEqual(sim.ipmi_requests()[-1], ("f1", "02"))
        self.assertEqual(sim.state()["STATUS"], 2)


class Configuration(E2ETestCase):
    def test_unknown_workaround_name_is_logged_and_ignored(self):
        sim = self.start_sim(REDFISH="off")
        result, rows = self.run_probe(sim.address, 623, ["open", "send", "3a", "f1", "00"],
                                      config={"IPMI_WORKAROUND_FLAGS": "bogus, opensesspriv"})
        self.assertEqual((rows[0]["rc"], rows[1]["cc"]), (0, "00"))
        self.assertIn("LOG1 unknown IPMI workaround flag ignored: bogus", result.stderr.splitlines())

    def test_without_the_workaround_ipmi_sim_refuses_the_privilege(self):
        sim = self.start_sim(REDFISH="off")
        _, rows = self.run_probe(sim.address, 623, ["open"])
        self.assertEqual(rows[0]["rc"], 2)

    def test_unsupported_cipher_suite_fails_at_once(self):
        sim = self.start_sim(REDFISH="off")
        result, rows = self.run_probe(sim.address, 623, ["open"], count=3,
                                      config=dict(WORKAROUND, IPMI_CIPHER_SUITE_ID="5"))
        self.assertEqual(rows[0]["rc"], 1)
        # Not retried: a cipher suite the SMM lacks stays lacking.
        self.assertEqual(result.stderr.count("IPMI session start failed (attempt"), 1)

    def test_hostname_and_user_are_traced_only_at_level_4(self):
        sim = self.start_sim(USER="operator7", REDFISH="off")
        result_ok, _ = self.run_probe(sim.address, 623, ["open"], user="operator7", config=WORKAROUND)
        result_refused, rows = self.run_probe(sim.address, 623, ["open"], user="operator7", password="bad",
                                              config=WORKAROUND)
        self.assertEqual(rows[0]["rc"], 2)
        for result in (result_ok, result_refused):
            traced = [line for line in result.stderr.splitlines() if sim.address in line or "operator7" in line]
            self.assertTrue(traced)
            self.assertTrue(all(line.startswith("LOG4 ") for line in traced), traced)

if __name__ == "__main__":
    unittest.main()
