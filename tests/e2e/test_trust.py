# SPDX-License-Identifier: GPL-3.0-or-later
"""Trust in the SMM's Redfish service: --tls-verify ca, pin and tofu, morvel trust, --protocol.

Real TLS on loopback with certificates made here by openssl. A refused
certificate ends the run with 70 and never falls back to IPMI: the simulated
SMM's record shows neither an IPMI request nor any HTTPS request, so no
credentials went anywhere after the TLS failure.
"""

import json
import os
import re
import socket
import ssl
import subprocess
import threading
import unittest
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

from certs import TestCa, dates_of, pin_of, self_signed
from smmsim import MODULE_DIR, MORVEL, MORVEL_WRAPPER, E2ETestCase, UdpBlackhole

PASSWORD = "Tru5t:pw@1"
CONFIG = {"IPMI_WORKAROUND_FLAGS": "opensesspriv", "IPMI_SESSION_TIMEOUT_MS": "2000"}
QUERY_OK = ("************Query Result************\n\nQuery SMM network status succeeded\n"
            "    Status: SMM network over LAN enabled and IPMI over LAN disabled\n    SMM IP: 192.0.2.100\n\n"
            "************Query Result************\n\n0 Succeed.\n")
KNOWN_LINE = re.compile(r"^(\S+) (sha256//[A-Za-z0-9+/]{43}=) (\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)$")


class TrustCase(E2ETestCase):
    def setUp(self):
        super().setUp()
        self.known = os.path.join(self.tmp, "pins", "known_smms")

    def morvel(self, args, **kw):
        result = self.run_morvel(args, config=dict(CONFIG, **kw.pop("config", {})), log_level=4,
                                 env=dict({"MORVEL_BMC_PASSWORD": PASSWORD}, **kw.pop("env", {})), **kw)
        for text in (result.stdout, result.stderr, result.files["log"]):
            self.assertNotIn(PASSWORD, text)
        return result

    def query(self, sim, *extra, **kw):
        return self.morvel(["smmlan", "query", "--bmc", "admin@" + sim.address, "--known-smms", self.known]
                           + list(extra), **kw)

    def sim(self, certificate=None, address=None, **knobs):
        return self.start_sim(address=address, certificate=certificate, PASSWORD=PASSWORD, **knobs)

    def known_lines(self):
        with open(self.known, encoding="ascii") as f:
            return [KNOWN_LINE.match(line.rstrip("\n")).groups() for line in f]

    def assertRefused(self, sim, result, message):
        self.assertEqual((result.returncode, result.stdout, result.stderr), (70, "", "70 " + message + "\n"),
                         result.describe())
        # No fallback to IPMI, and nothing reached the HTTPS face either: no credentials went out.
        self.assertEqual(sim.ipmi_requests(), [])
        self.assertEqual(sim.redfish_requests(), [])


class Ca(TrustCase):
    def setUp(self):
        super().setUp()
        self.ca = TestCa(os.path.join(self.tmp, "ca"))

    def test_a_good_chain_and_name(self):
        address = self.lease_address()
        sim = self.sim(self.ca.issue(address), address=address)
        result = self.query(sim, "--tls-verify", "ca", "--cacert", self.ca.cert)
        self.assertEqual((result.returncode, result.stdout, result.stderr), (0, QUERY_OK, ""), result.describe())
        self.assertEqual([r[:2] for r in sim.redfish_requests()], [("GET", "/redfish/v1/Chassis/2")])

    def test_the_same_by_configuration_keys(self):
        address = self.lease_address()
        sim = self.sim(self.ca.issue(address), address=address)
        result = self.query(sim, config={"REDFISH_TLS_VERIFY": "ca", "REDFISH_CA_FILE": self.ca.cert})
        self.assertEqual((result.returncode, result.stdout), (0, QUERY_OK), result.describe())

    def test_an_unknown_ca(self):
        address = self.lease_address()
        sim = self.sim(self.ca.issue(address), address=address)
        other = TestCa(os.path.join(self.tmp, "other-ca"), "another-ca")
        result = self.query(sim, "--tls-verify", "ca", "--cacert", other.cert)
        self.assertRefused(sim, result, "the certificate of %s failed verification against %s: SSL certificate "
                                        "problem: unable to get local issuer certificate" % (address, other.cert))

    def test_a_wrong_host_name(self):
        address = self.lease_address()
        sim = self.sim(self.ca.issue("127.0.0.1"), address=address)
        result = self.query(sim, "--tls-verify", "ca", "--cacert", self.ca.cert)
        self.assertRefused(sim, result, "the certificate of %s failed verification against %s: SSL: no alternative "
                                        "certificate subject name matches target host name '%s'"
                                        % (address, self.ca.cert, address))

    def test_an_expired_certificate(self):
        address = self.lease_address()
        sim = self.sim(self.ca.issue(address, expired=True), address=address)
        result = self.query(sim, "--tls-verify", "ca", "--cacert", self.ca.cert)
        self.assertRefused(sim, result, "the certificate of %s failed verification against %s: SSL certificate "
                                        "problem: certificate has expired" % (address, self.ca.cert))

    def test_an_unreadable_ca_file_is_refused_before_any_traffic(self):
        sim = self.sim()
        missing = os.path.join(self.tmp, "missing.pem")
        result = self.query(sim, "--tls-verify", "ca", "--cacert", missing)
        self.assertEqual((result.returncode, result.stderr),
                         (5, "morvel: cannot read the CA certificates of --cacert: %s\n" % missing))
        self.assertEqual(sim.redfish_requests(), [])


class Pins(TrustCase):
    def test_tofu_records_then_holds_and_refuses_a_replaced_key(self):
        address = self.lease_address()
        first = self_signed(os.path.join(self.tmp, "first"), "smm-first", address)
        sim = self.sim(first, address=address)
        result = self.query(sim, "--tls-verify", "tofu")
        self.assertEqual((result.returncode, result.stdout, result.stderr), (0, QUERY_OK, ""), result.describe())
        lines = self.known_lines()
        self.assertEqual([(key, pin) for key, pin, _ in lines], [(address, pin_of(first[0]))])
        self.assertEqual(os.stat(self.known).st_mode & 0o777, 0o600)

        again = self.query(sim, "--tls-verify", "tofu")
        self.assertEqual((again.returncode, again.stdout), (0, QUERY_OK))
        self.assertEqual(self.known_lines(), lines)
        self.assertEqual(len(sim.redfish_requests()), 2)

        # The SMM comes back with another key: refused in tofu and pin alike.
        second = self_signed(os.path.join(self.tmp, "second"), "smm-second", address)
        sim.stop()
        sim.use_certificate(*second)
        sim.restart()
        before = (sim.ipmi_requests(), sim.redfish_requests())
        for mode in ("tofu", "pin"):
            with self.subTest(mode=mode):
                refused = self.query(sim, "--tls-verify", mode)
                message = ("%s presented a key that does not match its pin, and nothing was sent to it: recorded %s "
                           "(first seen %s), presented %s; if its certificate was replaced on purpose, run 'morvel "
                           "trust remove %s' and then 'morvel trust add %s'"
                           % (address, lines[0][1], lines[0][2], pin_of(second[0]), address, address))
                self.assertEqual((refused.returncode, refused.stdout, refused.stderr), (70, "", "70 " + message + "\n"))
                self.assertEqual((sim.ipmi_requests(), sim.redfish_requests()), before)
        self.assertEqual(self.known_lines(), lines)

    def test_pin_needs_a_recorded_pin_and_trust_records_it(self):
        sim = self.sim()
        refused = self.query(sim, "--tls-verify", "pin")
        self.assertRefused(sim, refused, "no pin is recorded for %s in %s; check the SMM's key with 'morvel trust show "
                                         "%s' and record it with 'morvel trust add %s'"
                           % (sim.address, self.known, sim.address, sim.address))

        cert = os.path.join(sim.dir, "cert.pem")
        pin = pin_of(cert)
        start, end = dates_of(cert)
        shown = self.morvel(["trust", "show", sim.address, "--known-smms", self.known])
        self.assertEqual((shown.returncode, shown.stderr), (0, ""), shown.describe())
        self.assertEqual(shown.stdout, "%s\n    pin:      %s\n    subject:  CN = smm-sim\n    issuer:   CN = smm-sim\n"
                                       "    valid:    %s to %s\n    recorded: no pin in %s\n0 Succeed.\n"
                         % (sim.address, pin, start, end, self.known))
        self.assertFalse(os.path.exists(self.known))

        # No terminal to ask on, no --yes: nothing is recorded.
        asked = self.morvel(["trust", "add", sim.address, "--known-smms", self.known])
        self.assertEqual(asked.returncode, 5)
        self.assertEqual(asked.stderr, "trust: no terminal to ask on; give --yes to record the pin without asking\n"
                                       "5 Invalid parameter.\n")
        self.assertFalse(os.path.exists(self.known))

        added = self.morvel(["trust", "add", sim.address, "--yes", "--known-smms", self.known])
        self.assertEqual((added.returncode, added.stderr), (0, ""), added.describe())
        self.assertTrue(added.stdout.endswith("    recorded: no pin in %s\nrecorded %s %s in %s\n0 Succeed.\n"
                                              % (self.known, sim.address, pin, self.known)), added.stdout)
        self.assertEqual([(k, p) for k, p, _ in self.known_lines()], [(sim.address, pin)])

        passed = self.query(sim, "--tls-verify", "pin")
        self.assertEqual((passed.returncode, passed.stdout), (0, QUERY_OK), passed.describe())

        removed = self.morvel(["trust", "remove", sim.address, "--known-smms", self.known])
        self.assertEqual((removed.returncode, removed.stdout), (0, "removed %s %s from %s\n0 Succeed.\n"
                                                                % (sim.address, pin, self.known)))
        self.assertEqual(self.known_lines(), [])
        gone = self.morvel(["trust", "remove", sim.address, "--known-smms", self.known])
        self.assertEqual((gone.returncode, gone.stderr),
                         (1, "trust: no pin is recorded for %s in %s\n1 Generic Failure.\n" % (sim.address, self.known)))

    def test_fifty_smms_pinned_by_one_fleet_run(self):
        sims = self.start_sims([{"PASSWORD": PASSWORD}] * 50)
        result = self.morvel(["smmlan", "query", "--output", "json", "--tls-verify", "tofu", "--known-smms", self.known,
                              "--bmc", "admin@" + ",".join(s.address for s in sims)])
        self.assertEqual((result.returncode, result.stderr), (0, ""), result.describe())
        self.assertEqual(json.loads(result.stdout.splitlines()[-1])["summary"]["succeeded"], 50)
        lines = self.known_lines()
        self.assertEqual(sorted((key, pin) for key, pin, _ in lines),
                         sorted((s.address, pin_of(os.path.join(s.dir, "cert.pem"))) for s in sims))

    def tofu_runs_at_once(self, groups, *extra):
        """One `query --tls-verify tofu` run per group of SMMs, all at once; [(status, stdout, stderr)]."""
        env = self.env({"MORVEL_MODULE_PATH": MODULE_DIR, "MORVEL_BMC_PASSWORD": PASSWORD})
        config = self.write_config(CONFIG)
        runs = []
        for group in groups:
            argv = MORVEL_WRAPPER + [MORVEL, "--config", config, "--log-file", os.path.join(self.tmp, "log"),
                                     "smmlan", "query", "--tls-verify", "tofu", "--known-smms", self.known,
                                     "--bmc", "admin@" + ",".join(s.address for s in group)] + list(extra)
            runs.append(subprocess.Popen(argv, env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True))
        ended = []
        for run in runs:
            out, err = run.communicate(timeout=600)
            ended.append((run.returncode, out, err))
        return ended

    def test_two_runs_pinning_at_once_lose_nothing(self):
        sims = self.start_sims([{"PASSWORD": PASSWORD}] * 12)
        for returncode, _, err in self.tofu_runs_at_once((sims[:6], sims[6:])):
            self.assertEqual((returncode, err), (0, ""))
        self.assertEqual(sorted(key for key, _, _ in self.known_lines()), sorted(s.address for s in sims))

    def test_ten_thousand_pins_are_read_once_for_a_run_over_many_smms(self):
        sims = self.start_sims([{"PASSWORD": PASSWORD}] * 10)
        os.makedirs(os.path.dirname(self.known))
        with open(self.known, "w", encoding="ascii") as f:
            for i in range(9990):
                f.write("10.%d.%d.%d sha256//%s= 2026-11-24T08:00:00Z\n"
                        % (i >> 16, (i >> 8) & 255, i & 255, ("%043d" % i).replace("0", "A")))
            for sim in sims:
                f.write("%s %s 2026-11-24T08:00:00Z\n" % (sim.address, pin_of(os.path.join(sim.dir, "cert.pem"))))
        result = self.morvel(["smmlan", "query", "--output", "json", "--tls-verify", "pin", "--known-smms", self.known,
                              "--bmc", "admin@" + ",".join(s.address for s in sims)])
        self.assertEqual((result.returncode, result.stderr), (0, ""), result.describe())
        self.assertEqual(json.loads(result.stdout.splitlines()[-1])["summary"]["succeeded"], 10)
        # One read of the file, whatever the number of SMMs and transfers.
        reads = re.findall(r"^\S+ \S+ TRACE (?:\[\S+\] )?src/trust/KnownSmms:1 (.*)$", result.files["log"], re.M)
        self.assertEqual(reads, ["read 10000 pins from " + self.known])

    def test_two_tofu_runs_of_fifty_smms_at_once_keep_every_pin(self):
        # 75 SMMs: the first run takes 0-49, the second 25-74, so 25 are pinned by both at once.
        sims = self.start_sims([{"PASSWORD": PASSWORD}] * 75)
        for returncode, out, err in self.tofu_runs_at_once((sims[:50], sims[25:]), "--output", "json"):
            self.assertEqual((returncode, err), (0, ""), out[-2000:])
            self.assertEqual(json.loads(out.splitlines()[-1])["summary"]["succeeded"], 50)
        lines = self.known_lines()
        self.assertEqual(sorted((key, pin) for key, pin, _ in lines),
                         sorted((s.address, pin_of(os.path.join(s.dir, "cert.pem"))) for s in sims))
        self.assertEqual(os.stat(self.known).st_mode & 0o777, 0o600)


class RedirectRecorder(BaseHTTPRequestHandler):
    """Answers every GET with a redirect (server.location) or records its headers and answers 404."""

    def do_GET(self):  # noqa: N802 (the name http.server calls)
        if self.server.location:
            self.send_response(302)
            self.send_header("Location", self.server.location)
        else:
            self.server.seen.append(dict(self.headers))
            self.send_response(404)
        self.send_header("Content-Length", "0")
        self.end_headers()

    def log_message(self, *args):
        pass


class Redirect(TrustCase):
    def https_server(self, address, certificate, location):
        server = ThreadingHTTPServer((address, 443), RedirectRecorder)
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(*certificate)
        server.socket = context.wrap_socket(server.socket, server_side=True)
        server.location = location
        server.seen = []
        thread = threading.Thread(target=server.serve_forever, daemon=True)
        thread.start()
        # Run last to first: stop serving, close, then wait for the thread.
        self.addCleanup(thread.join)
        self.addCleanup(server.server_close)
        self.addCleanup(server.shutdown)
        return server

    def test_credentials_never_follow_a_redirect_to_another_host(self):
        first, other = self.lease_address(), self.lease_address()
        # One key on both hosts, so the pin of the first lets the redirected request through.
        certificate = self_signed(os.path.join(self.tmp, "cert"), "smm", first)
        self.https_server(first, certificate, "https://%s/redfish/v1/Chassis/2" % other)
        elsewhere = self.https_server(other, certificate, None)
        os.makedirs(os.path.dirname(self.known))
        with open(self.known, "w", encoding="ascii") as f:
            f.write("%s %s 2026-11-23T00:00:00Z\n" % (first, pin_of(certificate[0])))
        for mode, carried in (("none", True), ("pin", False), ("tofu", False)):
            with self.subTest(mode=mode):
                elsewhere.seen.clear()
                self.morvel(["smmlan", "query", "--protocol", "redfish", "--tls-verify", mode, "--known-smms",
                             self.known, "--bmc", "admin@" + first])
                self.assertEqual(len(elsewhere.seen), 1)
                self.assertEqual("Authorization" in elsewhere.seen[0], carried, elsewhere.seen[0])


class Protocol(TrustCase):
    def connections_during(self, address, run):
        """Runs run() with a listener on address:443 that closes every connection; returns (run's result, how
        many connections came). A connection a run made is accepted or still queued once the run has ended."""
        listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.addCleanup(listener.close)
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listener.bind((address, 443))
        listener.listen(16)
        listener.settimeout(0.2)
        accepted = []
        stop = threading.Event()

        def count():
            while True:
                try:
                    connection, _ = listener.accept()
                except socket.timeout:
                    if stop.is_set():
                        return
                    continue
                accepted.append(1)
                connection.close()
        counter = threading.Thread(target=count)
        counter.start()
        try:
            result = run()
        finally:
            stop.set()
            counter.join()
        listener.setblocking(False)
        while True:
            try:
                listener.accept()[0].close()
            except BlockingIOError:
                break
            accepted.append(1)
        listener.close()
        return result, len(accepted)

    def test_ipmi_makes_no_connection_to_the_https_port(self):
        sim = self.sim(REDFISH="off")
        result, connections = self.connections_during(sim.address, lambda: self.query(sim, "--protocol", "ipmi"))
        self.assertEqual(result.returncode, 0, result.describe())
        self.assertEqual([cmd for cmd, _ in sim.ipmi_requests()], ["f1", "c4"])
        self.assertEqual(connections, 0)
        self.assertIn(" TRACE Src/Misc/SmmLan/SmmLan:63 Failed to get Redfish connection parameter with l_ret=1 "
                      "Redfish is not tried (protocol ipmi).\n", result.files["log"])
        # The same run without it knocks on the HTTPS port first.
        result, connections = self.connections_during(sim.address,
                                                      lambda: self.query(sim, config={"SMM_PROTOCOL": "auto"}))
        self.assertEqual(result.returncode, 0, result.describe())
        self.assertEqual(connections, 1)

    def test_redfish_sends_no_ipmi_packet(self):
        address = self.lease_address()
        with UdpBlackhole(address) as hole:
            result = self.morvel(["smmlan", "enable", "--protocol", "redfish", "--bmc", "admin@" + address])
            self.assertEqual((result.returncode, result.stdout), (13, ""))
            self.assertRegex(result.stderr, r"^13 Redfish only \(protocol redfish\): the SMM's Redfish service cannot be "
                                            r"reached: Failed to connect to %s port 443 after \d+ ms: Couldn't connect "
                                            r"to server\n$" % re.escape(address))
            self.assertEqual(hole.packets, 0)

    def test_redfish_says_what_the_service_did(self):
        cases = [({"REDFISH_VENDOR": "absent"}, PASSWORD,
                  "1 Redfish only (protocol redfish): the SMM's Redfish service offers no SMM network setting (HTTP 200).\n"),
                 ({}, "wrong",
                  "2054 Redfish only (protocol redfish): the SMM's Redfish service refused the user or password (HTTP 401).\n")]
        for knobs, password, stderr in cases:
            with self.subTest(stderr=stderr):
                sim = self.sim(**knobs)
                result = self.morvel(["smmlan", "query", "--bmc", "admin:%s@%s" % (password, sim.address)],
                                     config={"SMM_PROTOCOL": "redfish"})
                self.assertEqual((result.stdout, result.stderr), ("", stderr))
                self.assertEqual(sim.ipmi_requests(), [])

    def test_bad_choices_are_refused(self):
        sim = self.sim()
        for args, config, message in (
                (["--protocol", "https"], {}, "--protocol must be auto, redfish or ipmi"),
                ([], {"SMM_PROTOCOL": "both"}, "configuration key SMM_PROTOCOL must be auto, redfish or ipmi"),
                (["--tls-verify", "strict"], {}, "--tls-verify must be none, ca, pin or tofu"),
                ([], {"REDFISH_TLS_VERIFY": "yes"}, "configuration key REDFISH_TLS_VERIFY must be none, ca, pin or tofu")):
            with self.subTest(args=args, config=config):
                result = self.query(sim, *args, config=config)
                self.assertEqual((result.returncode, result.stdout, result.stderr), (5, "", "morvel: " + message + "\n"))
        self.assertEqual(sim.redfish_requests(), [])


if __name__ == "__main__":
    unittest.main()
