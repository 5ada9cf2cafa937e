# SPDX-License-Identifier: GPL-3.0-or-later
"""The smmlan command's Redfish-first stage, end to end against the simulated SMM.

When the chassis resource's vendor object carries a boolean "LANEnabled", the
Redfish path settles the command whatever the PATCH answers (and never touches
IPMI); every other probe answer (nothing listening, no TLS, an HTTP error, a
body that is not JSON, a vendor object that is missing or has the wrong shape,
a 503 that outlasts the start-up wait) hands the command to the IPMI path, whose
result is then the command's. Every test asserts the exact standard output,
standard error, exit status and what the simulator received.
"""

import base64
import os
import re
import socket
import ssl
import threading
import time
import unittest

from smmsim import E2ETestCase, Lease

CONFIG = {"IPMI_WORKAROUND_FLAGS": "opensesspriv", "SMM_NETWORK_CHECK_SLEEP_TIME": "1"}

CHASSIS = "/redfish/v1/Chassis/2"
GET = ("GET", CHASSIS, "")
ENABLE_BODY = '{"Oem": {"Qarvon": { " LANEnabled" : true}}}'
DISABLE_BODY = '{"Oem": {"Qarvon": { " LANEnabled" : false}}}'
ENABLE_IPMI_BODY = '{"Oem": {"Qarvon": { " IPMIEnabled" : true}}}'

# 0x3A/0xC4: the property read of the SMM's address.
C4_REQUEST = ("c4", "000014932f76322f766f726e2f736d6d2f736d6d5f6970")

BOTH_ON = "SMM network and IPMI over LAN enabled"
LAN_ONLY = "SMM network over LAN enabled and IPMI over LAN disabled"
BOTH_OFF = "SMM network and IPMI over LAN disabled"

SIM_503_BODY = ('{"error":{"code":"Base.1.0.ServiceTemporarilyUnavailable",'
                '"message":"The service is starting."}}')

PROBE_TRUE_LINE = ("TRACE", "Src/Misc/SmmLan/SmmLan", "44", "success to get Redfish connection parameter ")
PASSED_ON_LINE = ("TRACE", "Src/Misc/SmmLan/SmmLan", "63",
                  "Failed to get Redfish connection parameter with l_ret=0 Succeed.")

LOG_HEAD = re.compile(r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} (\w+) (\S+):(\d+) (.*)$")


def patch(body):
    return ("PATCH", CHASSIS, body)


def enable_block(feature, outcome, detail=None):
    """The Redfish result block: "Enable SMM <feature> succeeded" or "... failed." with its error line."""
    text = "************Enable Result************\n\nEnable SMM %s %s\n" % (feature, outcome)
    if detail is not None:
        text += "    Error msg: %s\n" % detail
    return text + "\n************Enable Result************\n"


def redfish_query_block(status_text, address):
    """The Redfish query block; address None stands for "Get SMM ip failed"."""
    address_line = "    SMM IP: %s\n" % address if address is not None else "Get SMM ip failed\n"
    return ("************Query Result************\n\n"
            "Query SMM network status succeeded\n"
            "    Status: %s\n"
            "%s\n"
            "************Query Result************\n\n" % (status_text, address_line))


def ipmi_query_block(status_text, address=None):
    text = ("************Query Result************\n\n"
            "Query SMM network status succeeded\n"
            "    Status: %s\n" % status_text)
    if address is not None:
        text += "    SMM IP: %s\n" % address
    return text + "\n************Query Result************\n"


IPMI_DISABLE_OK = ("[INFO]: Send disable command succeeded, wait for status take effect.\n"
                   "Check SMM network status attempt(0)\n"
                   "The SMM network status take effected.\n"
                   "************Disable Result************\n\n"
                   "Disable SMM network succeeded\n"
                   "\n************Disable Result************\n")
IPMI_DISABLE_REQUESTS = [("f1", "00"), ("f1", "02"), ("f1", "00")]


def log_records(text):
    """[(level, source, line, text)] of a morvel log; a record's text may span lines."""
    records = []
    for raw in text.split("\n"):
        match = LOG_HEAD.match(raw)
        if match:
            records.append(list(match.groups()))
        elif records:
            records[-1][3] += "\n" + raw
    # The file ends with a line end, which leaves an empty continuation on the last record.
    if records and records[-1][3].endswith("\n"):
        records[-1][3] = records[-1][3][:-1]
    return [tuple(r) for r in records]


# The lines of the records the code writes with __LINE__: not fixed, unlike
# those of SmmLan and the Redfish client, which are part of what the log says.
ANY_LINE = None

class FakeRedfishListener:
    """A TCP listener on ADDRESS:PORT standing in for an SMM's Redfish service.

    tls=True: a TLS server (the simulator's throw-away certificate) that notes
    what it received and answers the N-th request (one per connection) with the
    N-th of `answers`, (status, body), the last one repeating; None closes the
    connection without an answer.
    tls=False: a plain TCP service that answers the client's first bytes with
    text that is not TLS and closes.
    """

    def __init__(self, address, port, tls, certfile=None, keyfile=None, answers=(), user=None, password=None):
        self.requests = []
        self.connections = 0
        self._answers = list(answers)
        self._token = None
        if user is not None:
            self._token = "Basic " + base64.b64encode(("%s:%s" % (user, password)).encode()).decode()
        self._context = None
        if tls:
            self._context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            self._context.load_cert_chain(certfile, keyfile)
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._socket.bind((address, port))
        self._socket.listen(8)
        self._socket.settimeout(0.1)
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        while not self._stop.is_set():
            try:
                connection, _ = self._socket.accept()
            except socket.timeout:
                continue
            except OSError:
                return
            self.connections += 1
            connection.settimeout(5)
            try:
                if self._context is None:
                    connection.recv(4096)
                    connection.sendall(b"220 smm ready, no TLS here\r\n")
                else:
                    with self._context.wrap_socket(connection, server_side=True) as tls:
                        self._answer(tls)
            except (OSError, ssl.SSLError):
                pass
            finally:
                connection.close()

    def _answer(self, stream):
        data = b""
        while b"\r\n\r\n" not in data:
            chunk = stream.recv(4096)
            if not chunk:
                return
            data += chunk
        head, _, body = data.partition(b"\r\n\r\n")
        lines = head.decode("latin-1").split("\r\n")
        method, target, _ = lines[0].split(" ", 2)
        headers = {}
        for line in lines[1:]:
            name, _, value = line.partition(":")
            headers[name.strip().lower()] = value.strip()
        length = int(headers.get("content-length", "0"))
        while len(body) < length:
            chunk = stream.recv(4096)
            if not chunk:
                break
            body += chunk
        credentials = "missing"
        if "authorization" in headers:
            credentials = "ok" if headers["authorization"] == self._token else "bad"
        self.requests.append((method, target, body.decode("utf-8", "replace"), credentials))
        answer = self._answers[min(len(self.requests), len(self._answers)) - 1]
        if answer is None:
            return
        status, text = answer
        data = text.encode()
        reason = {200: "OK", 404: "Not Found"}.get(status, "Status")
        stream.sendall(("HTTP/1.1 %d %s\r\nContent-Type: application/json\r\nContent-Length: %d\r\n"
                        "Connection: close\r\n\r\n" % (status, reason, len(data))).encode() + data)

    def close(self):
        self._stop.set()
        self._thread.join()
        self._socket.close()


class RedfishStageCase(E2ETestCase):
    def smmlan(self, sim, subcommand, *extra, config=None, bmc=None, log_level=4):
        return self.run_morvel(["smmlan", subcommand, "--bmc", bmc or sim.bmc()] + list(extra),
                               config=dict(CONFIG, **(config or {})), log_level=log_level, timeout=120)

    def assertRun(self, result, returncode, stdout, stderr=""):
        self.assertEqual((result.returncode, result.stdout, result.stderr), (returncode, stdout, stderr),
                         result.describe())

    def assertLogHas(self, result, record):
        """`record` is (level, source, line, text); a line of ANY_LINE matches any line."""
        found = log_records(result.files["log"])
        if record[2] is ANY_LINE:
            found = [(level, source, ANY_LINE, text) for level, source, _, text in found]
        self.assertIn(record, found, result.files["log"])

    def assertLogLacks(self, result, record):
        self.assertNotIn(record, log_records(result.files["log"]), result.files["log"])

    def assertProbeTrue(self, result):
        self.assertLogHas(result, PROBE_TRUE_LINE)
        self.assertLogLacks(result, PASSED_ON_LINE)

    def assertPassedOn(self, result):
        self.assertLogHas(result, PROBE_TRUE_LINE)
        self.assertLogHas(result, PASSED_ON_LINE)

    def assertNoPassword(self, sim, result):
        token = base64.b64encode(("%s:%s" % (sim.user, sim.password)).encode()).decode()
        with open(os.path.join(sim.dir, "record.jsonl"), encoding="utf-8") as f:
            record = f.read()
        for text in (result.stdout, result.stderr, result.files["log"], record):
            self.assertNotIn(sim.password, text)
            self.assertNotIn(token, text)


class SettledOverRedfish(RedfishStageCase):
    """Probe true: one PATCH (or none for query) and the Redfish outcome stands; no IPMI traffic."""

    def test_enable_sends_one_patch_with_the_exact_body_and_headers(self):
        sim = self.start_sim(INITIAL_STATUS=2, PASSWORD="Rf:s3cr@t-9")
        result = self.smmlan(sim, "enable")
        self.assertRun(result, 0, enable_block("LAN", "succeeded") + "0 Succeed.\n")
        self.assertEqual(sim.redfish_requests(), [GET, patch(ENABLE_BODY)])
        rows = sim.records("redfish")
        self.assertEqual([(r["status"], r["auth"], r["user"]) for r in rows], [(200, "ok", "admin")] * 2)
        common = {"Accept": "*/*", "Content-Type": "application/json", "Host": sim.address, "If-None-Match": "0",
                  "User-Agent": "KVRA_MORVEL"}
        self.assertEqual(rows[0]["headers"], common)
        self.assertEqual(rows[1]["headers"], dict(common, **{"Content-Length": str(len(ENABLE_BODY))}))
        self.assertEqual(sim.ipmi_requests(), [])
        self.assertEqual(sim.state()["STATUS"], 1)
        self.assertProbeTrue(result)
        self.assertLogHas(result, ("INFO", "Src/Misc/SmmLan/SmmLanManagerrest", ANY_LINE,
                                   "url:https://%s:443/redfish/v1/Chassis/2" % sim.address))
        self.assertNoPassword(sim, result)

    def test_enable_is_sent_even_when_the_network_is_already_on(self):
        sim = self.start_sim(INITIAL_STATUS=1)
        result = self.smmlan(sim, "enable")
        self.assertRun(result, 0, enable_block("LAN", "succeeded") + "0 Succeed.\n")
        self.assertEqual(sim.redfish_requests(), [GET, patch(ENABLE_BODY)])
        self.assertEqual(sim.ipmi_requests(), [])
        self.assertEqual(sim.state()["STATUS"], 1)

    def test_disable_prints_the_enable_wording(self):
        sim = self.start_sim(INITIAL_STATUS=4)
        result = self.smmlan(sim, "disable")
        self.assertRun(result, 0, enable_block("LAN", "succeeded") + "0 Succeed.\n")
        self.assertEqual(sim.redfish_requests(), [GET, patch(DISABLE_BODY)])
        self.assertEqual(sim.ipmi_requests(), [])
        self.assertEqual(sim.state()["STATUS"], 2)
        self.assertProbeTrue(result)

    def test_disable_answered_204_without_body_succeeds(self):
        sim = self.start_sim(INITIAL_STATUS=1, PATCH_STATUS=204)
        result = self.smmlan(sim, "disable")
        self.assertRun(result, 0, enable_block("LAN", "succeeded") + "0 Succeed.\n")
        self.assertEqual(sim.redfish_requests(), [GET, patch(DISABLE_BODY)])
        self.assertEqual([r["status"] for r in sim.records("redfish")], [200, 204])
        self.assertEqual(sim.ipmi_requests(), [])
        self.assertEqual(sim.state()["STATUS"], 2)

    def test_enableipmi_with_the_network_on(self):
        sim = self.start_sim(INITIAL_STATUS=1)
        result = self.smmlan(sim, "enableipmi")
        self.assertRun(result, 0, enable_block("IPMI", "succeeded") + "0 Succeed.\n")
        self.assertEqual(sim.redfish_requests(), [GET, patch(ENABLE_IPMI_BODY)])
        self.assertEqual(sim.ipmi_requests(), [])
        self.assertEqual(sim.state()["STATUS"], 4)
        self.assertProbeTrue(result)

    def test_enableipmi_with_the_network_off_sends_nothing(self):
        sim = self.start_sim(INITIAL_STATUS=2)
        result = self.smmlan(sim, "enableipmi")
        self.assertRun(result, 1,
                       "Enable SMM IPMI failed.\n"
                       "    Error msg: the SMM LAN is disable, can not enable ipmi via SMM LAN \n\n",
                       "1 Generic Failure.\n")
        self.assertEqual(sim.redfish_requests(), [GET])
        self.assertEqual(sim.ipmi_requests(), [])
        self.assertEqual(sim.state()["STATUS"], 2)
        self.assertProbeTrue(result)
        self.assertLogHas(result, ("INFO", "Src/Misc/SmmLan/SmmLanManagerrest", ANY_LINE, "smmlan_status: 0"))

    def test_patch_refused_with_400_and_no_body_is_internal_error(self):
        sim = self.start_sim(INITIAL_STATUS=2, PATCH_STATUS=400)
        result = self.smmlan(sim, "enable")
        self.assertRun(result, 17, enable_block("LAN", "failed.", ""), "17 Internal error.\n")
        self.assertEqual(sim.redfish_requests(), [GET, patch(ENABLE_BODY)])
        self.assertEqual([(r["status"], r["response_body"]) for r in sim.records("redfish")][1], (400, ""))
        # A failed Redfish change is final: no second attempt over IPMI.
        self.assertEqual(sim.ipmi_requests(), [])
        self.assertEqual(sim.state()["STATUS"], 2)
        self.assertProbeTrue(result)
        self.assertLogHas(result, ("INFO", "Src/Misc/SmmLan/SmmLanManagerrest", ANY_LINE,
                                   "curl code:0 status code:400 return msg: "))

    def test_disable_refused_with_400_is_not_retried_over_ipmi(self):
        sim = self.start_sim(INITIAL_STATUS=1, PATCH_STATUS=400)
        result = self.smmlan(sim, "disable")
        self.assertRun(result, 17, enable_block("LAN", "failed.", ""), "17 Internal error.\n")
        self.assertEqual(sim.redfish_requests(), [GET, patch(DISABLE_BODY)])
        self.assertEqual(sim.ipmi_requests(), [])
        self.assertEqual(sim.state()["STATUS"], 1)

    def test_patch_refused_with_a_body_prints_the_body(self):
        body = '{"error":{"code":"Base.1.0.InternalError","message":"busy"}}'
        sim = self.start_sim(INITIAL_STATUS=1, PATCH_STATUS=500, PATCH_BODY=body)
        result = self.smmlan(sim, "enableipmi")
        self.assertRun(result, 17, enable_block("IPMI", "failed.", body), "17 Internal error.\n")
        self.assertEqual(sim.redfish_requests(), [GET, patch(ENABLE_IPMI_BODY)])
        self.assertEqual([r["status"] for r in sim.records("redfish")], [200, 500])
        self.assertEqual(sim.ipmi_requests(), [])
        self.assertEqual(sim.state()["STATUS"], 1)
        self.assertLogHas(result, ("ERROR", "Src/Misc/SmmLan/SmmLanManagerrest", ANY_LINE, "    Error msg: " + body))

    def test_patch_without_an_answer_is_a_generic_failure_and_not_retried_over_ipmi(self):
        sim = self.start_sim(INITIAL_STATUS=2, REDFISH="off")
        listener = FakeRedfishListener(sim.address, 443, True, os.path.join(sim.dir, "cert.pem"),
                                       os.path.join(sim.dir, "key.pem"),
                                       [(200, '{"Oem": {"Qarvon": {"LANEnabled": false}}}'), None],
                                       sim.user, sim.password)
        self.addCleanup(listener.close)
        result = self.smmlan(sim, "enable")
        # A failed transfer carries libcurl's error text as its body.
        self.assertRun(result, 1, enable_block("LAN", "failed.", "Empty reply from server"), "1 Generic Failure.\n")
        self.assertEqual(listener.requests, [("GET", CHASSIS, "", "ok"), ("PATCH", CHASSIS, ENABLE_BODY, "ok")])
        self.assertEqual(sim.ipmi_requests(), [])
        self.assertEqual(sim.state()["STATUS"], 2)
        self.assertProbeTrue(result)

    def test_patch_accepted_with_202_and_a_body(self):
        sim = self.start_sim(INITIAL_STATUS=1, PATCH_STATUS=202, PATCH_BODY='{"Accepted": true}')
        result = self.smmlan(sim, "disable")
        self.assertRun(result, 0, enable_block("LAN", "succeeded") + "0 Succeed.\n")
        self.assertEqual(sim.redfish_requests(), [GET, patch(DISABLE_BODY)])
        self.assertEqual([(r["status"], r["response_body"]) for r in sim.records("redfish")][1],
                         (202, '{"Accepted": true}'))
        self.assertEqual(sim.ipmi_requests(), [])
        self.assertEqual(sim.state()["STATUS"], 2)

    def test_enableipmi_refused_because_the_network_went_off_after_the_probe(self):
        # The network is switched off, but the next status read (the probe) still
        # shows it on: the PATCH goes out and the SMM refuses it.
        sim = self.start_sim(INITIAL_STATUS=1, STATUS_DELAY_READS=1)
        self.assertEqual(sim.chassis("PATCH", DISABLE_BODY)[0], 200)
        result = self.smmlan(sim, "enableipmi")
        body = ('{"error":{"code":"Base.1.0.ActionNotSupported",'
                '"message":"IPMI over LAN needs the SMM network on."}}')
        self.assertRun(result, 17, enable_block("IPMI", "failed.", body), "17 Internal error.\n")
        self.assertEqual(sim.redfish_requests(), [patch(DISABLE_BODY), GET, patch(ENABLE_IPMI_BODY)])
        self.assertEqual([r["status"] for r in sim.records("redfish")], [200, 200, 400])
        self.assertEqual(sim.ipmi_requests(), [])
        # The pending switch-off shows from the next status read on.
        self.assertEqual(sim.state(), {"STATUS": 1, "PENDING": 2, "READS_LEFT": 0, "METHOD": 0})

    def test_method_option_is_ignored(self):
        sim = self.start_sim(INITIAL_STATUS=2)
        result = self.smmlan(sim, "enable", "--method", "static")
        self.assertRun(result, 0, enable_block("LAN", "succeeded") + "0 Succeed.\n")
        self.assertEqual(sim.redfish_requests(), [GET, patch(ENABLE_BODY)])
        # No 0xF3 (IP obtain method), no IPMI at all.
        self.assertEqual(sim.ipmi_requests(), [])
        # METHOD 0: the IP obtain method was never set.
        self.assertEqual(sim.state(), {"STATUS": 1, "READS_LEFT": 0, "METHOD": 0})
        result = self.smmlan(sim, "enable", "--method", "no-such-method")
        self.assertRun(result, 0, enable_block("LAN", "succeeded") + "0 Succeed.\n")
        self.assertEqual(sim.redfish_requests(), [GET, patch(ENABLE_BODY)] * 2)
        self.assertEqual(sim.ipmi_requests(), [])

    def test_unknown_or_miscased_subcommand_is_invalid_command(self):
        sim = self.start_sim(INITIAL_STATUS=1)
        words = {"Enable": "enable", "frobnicate": None, "Query": "query", "ENABLEIPMI": "enableipmi", "enable ": None}
        for count, (word, meant) in enumerate(words.items(), 1):
            with self.subTest(word=word):
                result = self.smmlan(sim, word)
                note = "morvel: subcommands are case-sensitive: did you mean '%s'?\n" % meant if meant else ""
                self.assertRun(result, 4, "", note + "4 Invalid command.\n")
                self.assertEqual(sim.redfish_requests(), [GET] * count)
                self.assertEqual(sim.ipmi_requests(), [])
                self.assertProbeTrue(result)
        self.assertEqual(sim.state()["STATUS"], 1)


class QueryOverRedfish(RedfishStageCase):
    """The query reads the probe's reply: no request of its own, no IPMI."""

    def query(self, **knobs):
        sim = self.start_sim(**knobs)
        result = self.smmlan(sim, "query")
        self.assertEqual(sim.redfish_requests(), [GET])
        self.assertEqual(sim.ipmi_requests(), [])
        self.assertProbeTrue(result)
        return result

    def test_each_status(self):
        for status, text in ((1, LAN_ONLY), (2, BOTH_OFF), (4, BOTH_ON)):
            with self.subTest(status=status):
                result = self.query(INITIAL_STATUS=status)
                self.assertRun(result, 0, redfish_query_block(text, "192.0.2.100") + "0 Succeed.\n")

    def test_address_from_the_smm(self):
        result = self.query(INITIAL_STATUS=4, SMM_IP="198.51.100.23")
        self.assertRun(result, 0, redfish_query_block(BOTH_ON, "198.51.100.23") + "0 Succeed.\n")

    def test_address_missing_or_not_a_text(self):
        for knobs in ({"REDFISH_IPV4": ""}, {"REDFISH_IPV4_KIND": "number"}, {"REDFISH_IPV4_KIND": "absent"}):
            with self.subTest(**knobs):
                result = self.query(INITIAL_STATUS=1, **knobs)
                self.assertRun(result, 0, redfish_query_block(LAN_ONLY, None) + "0 Succeed.\n")

    def test_vendor_object_variants_that_still_count_as_supported(self):
        cases = [
            # Network off wins whatever IPMIEnabled says.
            ('{"Oem": {"Qarvon": {"LANEnabled": false, "IPMIEnabled": true, "IPv4": "198.51.100.7"}}}',
             redfish_query_block(BOTH_OFF, "198.51.100.7")),
            # IPMIEnabled missing reads as disabled; IPv4 missing is "Get SMM ip failed".
            ('{"Oem": {"Qarvon": {"LANEnabled": true}}}', redfish_query_block(LAN_ONLY, None)),
            # The first of two "Oem" members counts.
            ('{"Oem": {"Qarvon": {"LANEnabled": true, "IPMIEnabled": true, "IPv4": "198.51.100.8"}}, "Oem": 1}',
             redfish_query_block(BOTH_ON, "198.51.100.8")),
            # Leading white space before the document is skipped.
            (' \t{"Oem": {"Qarvon": {"LANEnabled": true, "IPMIEnabled": "yes", "IPv4": "198.51.100.9"}}}',
             redfish_query_block(LAN_ONLY, "198.51.100.9")),
        ]
        for body, stdout in cases:
            with self.subTest(body=body):
                result = self.query(REDFISH_GET_BODY=body)
                self.assertRun(result, 0, stdout + "0 Succeed.\n")

    def test_query_over_ipv6(self):
        port = self.lease_port("::1")
        sim = self.start_sim(INITIAL_STATUS=4, REDFISH_IPV6="on", REDFISH_PORT=port, SMM_IP="192.0.2.61")
        bmc = "admin:secret@[::1]:%d" % port
        result = self.smmlan(sim, "query", bmc=bmc)
        self.assertRun(result, 0, redfish_query_block(BOTH_ON, "192.0.2.61") + "0 Succeed.\n")
        rows = sim.records("redfish")
        self.assertEqual([(r["method"], r["path"], r["local_addr"], r["headers"]["Host"], r["status"])
                          for r in rows], [("GET", CHASSIS, "::1", "[::1]:%d" % port, 200)])
        self.assertEqual(sim.ipmi_requests(), [])
        self.assertProbeTrue(result)
        self.assertLogHas(result, ("INFO", "Src/Misc/SmmLan/SmmLanManagerrest", ANY_LINE,
                                   "url:https://[::1]:%d/redfish/v1/Chassis/2" % port))

        result = self.smmlan(sim, "disable", bmc=bmc)
        self.assertRun(result, 0, enable_block("LAN", "succeeded") + "0 Succeed.\n")
        self.assertEqual(sim.redfish_requests(), [GET, GET, patch(DISABLE_BODY)])
        self.assertEqual([r["local_addr"] for r in sim.records("redfish")], ["::1"] * 3)
        self.assertEqual(sim.ipmi_requests(), [])
        self.assertEqual(sim.state()["STATUS"], 2)
        self.assertNoPassword(sim, result)


class PassedOnToIpmi(RedfishStageCase):
    """Probe false: the command goes to IPMI and the IPMI path's result is the command's."""

    def assertIpmiQuery(self, sim, result, status_text, address):
        self.assertRun(result, 0, ipmi_query_block(status_text, address) + "0 Succeed.\n")
        self.assertEqual(sim.ipmi_requests(), [("f1", "00")] + ([C4_REQUEST] if address else []))
        self.assertPassedOn(result)

    def test_nothing_listening(self):
        sim = self.start_sim(INITIAL_STATUS=1, REDFISH="off", SMM_IP="192.0.2.41", PASSWORD="Ipmi:p@ss-7")
        result = self.smmlan(sim, "query")
        self.assertIpmiQuery(sim, result, "Enabled", "192.0.2.41")
        self.assertEqual(sim.redfish_requests(), [])
        # A transfer failure is not an HTTP error: nothing at level 1 from the probe.
        self.assertEqual([r for r in log_records(result.files["log"]) if r[0] == "ERROR"], [])
        self.assertNoPassword(sim, result)

    def test_nothing_listening_then_disable_over_ipmi(self):
        sim = self.start_sim(INITIAL_STATUS=1, REDFISH="off")
        result = self.smmlan(sim, "disable")
        self.assertRun(result, 0, IPMI_DISABLE_OK + "0 Succeed.\n")
        self.assertEqual(sim.ipmi_requests(), IPMI_DISABLE_REQUESTS)
        self.assertEqual(sim.redfish_requests(), [])
        self.assertEqual(sim.state()["STATUS"], 2)
        self.assertPassedOn(result)

    def test_nothing_listening_on_ipv6_then_query_over_ipmi_on_ipv6(self):
        # The module always talks IPMI to port 623: hold that port on ::1 for this test.
        self.hold_ipv6_ipmi_port()
        port = self.lease_port("::1")
        sim = self.start_sim(INITIAL_STATUS=4, REDFISH="off", IPMI_IPV6="on", IPMI_IPV6_PORT=623,
                             SMM_IP="192.0.2.66")
        result = self.smmlan(sim, "query", bmc="admin:secret@[::1]:%d" % port)
        self.assertIpmiQuery(sim, result, BOTH_ON, "192.0.2.66")
        self.assertEqual(sim.redfish_requests(), [])
        self.assertLogHas(result, ("INFO", "Src/Misc/SmmLan/SmmLanManagerrest", ANY_LINE,
                                   "url:https://[::1]:%d/redfish/v1/Chassis/2" % port))
        opened = [r[3].split(" user ")[0] for r in log_records(result.files["log"]) if r[1] == "src/host/IpmiClient"]
        self.assertEqual(opened, ["IPMI open [::1]:623"] * 2)

    def hold_ipv6_ipmi_port(self):
        deadline = time.monotonic() + 60
        while True:
            try:
                lease = Lease("port-623")
                break
            except OSError:
                if time.monotonic() > deadline:
                    self.fail("UDP port 623 on ::1 stayed leased by another test for 60 s")
                time.sleep(0.2)
        self.addCleanup(lease.release)

    def test_http_404(self):
        sim = self.start_sim(INITIAL_STATUS=2, REDFISH="off")
        body = '{"error":{"code":"Base.1.0.ResourceMissingAtURI"}}'
        listener = FakeRedfishListener(sim.address, 443, True, os.path.join(sim.dir, "cert.pem"),
                                       os.path.join(sim.dir, "key.pem"), [(404, body)], sim.user, sim.password)
        self.addCleanup(listener.close)
        result = self.smmlan(sim, "query")
        self.assertIpmiQuery(sim, result, "Disabled", None)
        self.assertEqual(listener.requests, [("GET", CHASSIS, "", "ok")])
        self.assertLogHas(result, ("ERROR", "Src/Misc/SmmLan/SmmLanManagerrest", ANY_LINE, "    Error msg: " + body))

    def test_credentials_refused_by_both_faces(self):
        sim = self.start_sim(INITIAL_STATUS=1)
        result = self.smmlan(sim, "query", bmc=sim.bmc(password="Wr0ng:p@ss"))
        self.assertRun(result, 255,
                       "************Query Result************\n\n"
                       "Query SMM network status failed.\n"
                       "    Error msg: Authentication failed. For instance, user name or password error.\n"
                       "\n************Query Result************\n",
                       "2054 Authentication failed. For instance, user name or password error.\n")
        self.assertEqual([(r["method"], r["path"], r["auth"], r["status"]) for r in sim.records("redfish")],
                         [("GET", CHASSIS, "bad", 401)])
        self.assertEqual(sim.ipmi_requests(), [])
        self.assertPassedOn(result)
        self.assertNotIn("Wr0ng:p@ss", result.stdout + result.stderr + result.files["log"])

    def test_no_tls_on_the_port(self):
        sim = self.start_sim(INITIAL_STATUS=1, REDFISH="off")
        listener = FakeRedfishListener(sim.address, 443, False)
        self.addCleanup(listener.close)
        result = self.smmlan(sim, "disable")
        self.assertRun(result, 0, IPMI_DISABLE_OK + "0 Succeed.\n")
        self.assertEqual(sim.ipmi_requests(), IPMI_DISABLE_REQUESTS)
        self.assertEqual(sim.state()["STATUS"], 2)
        self.assertEqual(listener.connections, 1)
        self.assertPassedOn(result)

    def test_bodies_that_do_not_count_as_supported(self):
        cases = [
            ({"REDFISH_VENDOR": "absent"}, 1),
            ({"REDFISH_VENDOR": "malformed"}, 4),
            ({"REDFISH_LAN_AS_STRING": "on"}, 1),
            ({"REDFISH_BODY": "nonjson"}, 2),
            ({"REDFISH_GET_BODY": "{}"}, 1),
            ({"REDFISH_GET_BODY": "[1, 2]"}, 1),
            ({"REDFISH_GET_BODY": '{"Oem": {"Qarvon": {"LANEnabled": "true"}}}'}, 1),
            ({"REDFISH_GET_BODY": '{"Oem": {"Qarvon": {" LANEnabled": true}}}'}, 1),
            ({"REDFISH_GET_BODY": '{"Oem": {"qarvon": {"LANEnabled": true}}}'}, 1),
            ({"REDFISH_GET_BODY": '{"Oem": {"Qarvon": {"LANEnabled": 1}}}'}, 1),
            ({"REDFISH_GET_BODY": '{"Oem": {"Qarvon": {"LANEnabled": null}}}'}, 1),
            ({"REDFISH_GET_BODY": '{"Oem": [{"Qarvon": {"LANEnabled": true}}]}'}, 1),
            ({"REDFISH_GET_BODY": '{"Oem": {"Qarvon": {"LANEnabled": true}}'}, 1),
            ({"REDFISH_GET_BODY": ""}, 1),
            # Deep nesting must be a parse failure, not a crash.
            ({"REDFISH_GET_BODY": "[" * 60000}, 1),
        ]
        texts = {1: ("Enabled", "192.0.2.100"), 2: ("Disabled", None), 4: (BOTH_ON, "192.0.2.100")}
        for knobs, status in cases:
            with self.subTest(knobs=knobs if len(str(knobs)) < 100 else "deep nesting"):
                sim = self.start_sim(INITIAL_STATUS=status, **knobs)
                result = self.smmlan(sim, "query")
                self.assertIpmiQuery(sim, result, *texts[status])
                self.assertEqual([(r["method"], r["path"], r["status"]) for r in sim.records("redfish")],
                                 [("GET", CHASSIS, 200)])

    def test_vendor_object_missing_then_disable_over_ipmi(self):
        sim = self.start_sim(INITIAL_STATUS=1, REDFISH_VENDOR="absent")
        result = self.smmlan(sim, "disable")
        self.assertRun(result, 0, IPMI_DISABLE_OK + "0 Succeed.\n")
        self.assertEqual(sim.redfish_requests(), [GET])
        self.assertEqual(sim.ipmi_requests(), IPMI_DISABLE_REQUESTS)
        self.assertEqual(sim.state()["STATUS"], 2)
        self.assertPassedOn(result)

    def test_unknown_subcommand_goes_to_ipmi_when_the_probe_fails(self):
        sim = self.start_sim(INITIAL_STATUS=1, REDFISH_LAN_AS_STRING="on")
        result = self.smmlan(sim, "Enable")
        self.assertRun(result, 4, "", "morvel: subcommands are case-sensitive: did you mean 'enable'?\n"
                                      "4 Invalid command.\n")
        self.assertEqual(sim.redfish_requests(), [GET])
        # The IPMI stage answers the word itself before any request.
        self.assertEqual(sim.ipmi_requests(), [])
        self.assertPassedOn(result)


class StartupWait(RedfishStageCase):
    """HTTP 503 is retried every 5 s within REDFISH_STARTUP_WAIT_TIME."""

    def test_two_503_then_the_resource(self):
        sim = self.start_sim(INITIAL_STATUS=1, REDFISH_503=2)
        result = self.smmlan(sim, "query")
        self.assertRun(result, 0, redfish_query_block(LAN_ONLY, "192.0.2.100") + "0 Succeed.\n")
        # Two 5-second pauses, well within the 180-second wait.
        self.assertGreaterEqual(result.elapsed, 9.0)
        self.assertEqual(sim.redfish_requests(), [GET] * 3)
        self.assertEqual([r["status"] for r in sim.records("redfish")], [503, 503, 200])
        self.assertEqual(sim.ipmi_requests(), [])
        self.assertProbeTrue(result)
        records = log_records(result.files["log"])
        retry = ("TRACE", "src/common/rest/RedfishClient", "33",
                 "curlCode: 0 | httpCode: 503 | body: " + SIM_503_BODY)
        self.assertEqual([r for r in records if r[1] == "src/common/rest/RedfishClient"], [
            ("TRACE", "src/common/rest/RedfishClient", "108",
             "Redfish GET action on URL: https://%s:443/redfish/v1/Chassis/2" % sim.address),
            retry, retry])

    def test_no_wait_configured_falls_back_after_one_attempt(self):
        for wait in ("0", "-1"):
            with self.subTest(REDFISH_STARTUP_WAIT_TIME=wait):
                sim = self.start_sim(INITIAL_STATUS=1, REDFISH_503=1)
                result = self.smmlan(sim, "query", config={"REDFISH_STARTUP_WAIT_TIME": wait})
                self.assertRun(result, 0, ipmi_query_block("Enabled", "192.0.2.100") + "0 Succeed.\n")
                self.assertEqual([(r["method"], r["status"]) for r in sim.records("redfish")], [("GET", 503)])
                self.assertEqual(sim.ipmi_requests(), [("f1", "00"), C4_REQUEST])
                self.assertPassedOn(result)
                self.assertLogHas(result, ("ERROR", "Src/Misc/SmmLan/SmmLanManagerrest", ANY_LINE,
                                           "    Error msg: " + SIM_503_BODY))


if __name__ == "__main__":
    unittest.main()
