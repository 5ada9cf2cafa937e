# SPDX-License-Identifier: GPL-3.0-or-later
"""Faults end to end: the morvel binary against a simulated SMM that reboots, a
lossy network, and HTTPS services that misbehave or answer hostile bodies.

Every case is bounded in count and time and asserts the exact standard output,
standard error and exit status of the documented outcome: the command's own
result when the SMM comes back, "13 Connection failed." (or another documented
result) when the network eats too much, and the IPMI fallback whenever the
Redfish support probe fails. ctest runs this module with the label `faults`.

MORVEL_E2E_TIME_SCALE (default 1) stretches the session time-outs that a
working session start must never meet, for runs under valgrind (scripts/valgrind).
"""

import atexit
import concurrent.futures
import ctypes
import os
import re
import select
import shutil
import socket
import ssl
import sys
import tempfile
import threading
import time
import unittest

from smmsim import HANG_GUARD, E2ETestCase, peak_rss_bound_kib, read_text, run_command, scaled

# ipmi_sim grants the administrator privilege to FreeIPMI only with this workaround.
CONFIG = {"IPMI_WORKAROUND_FLAGS": "opensesspriv", "SMM_NETWORK_CHECK_SLEEP_TIME": "1",
          "REDFISH_STARTUP_WAIT_TIME": "1"}
SMM_IP = "192.0.2.100"
CHASSIS = "/redfish/v1/Chassis/2"
STATUS_READ = ("f1", "00")
ADDRESS_READ = ("c4", "000014932f76322f766f726e2f736d6d2f736d6d5f6970")

AUTH_MESSAGE = "Authentication failed. For instance, user name or password error."
PASSED_ON = "Failed to get Redfish connection parameter with l_ret=0 Succeed."
LAN_ONLY = "SMM network over LAN enabled and IPMI over LAN disabled"
BOTH_OFF = "SMM network and IPMI over LAN disabled"

LOG_RECORD = re.compile(r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} (\w+) (\S+?):\d+ (.*)$", re.M)


def block(title, *lines):
    """An IPMI result block: banner, blank line, lines, blank line, banner."""
    return ("************%s Result************\n\n" % title + "".join(line + "\n" for line in lines) +
            "\n************%s Result************\n" % title)


def ipmi_query(status="Enabled", address=SMM_IP):
    """Standard output of a successful IPMI query; address None: the address read failed."""
    if address is None:
        return block("Query", "Get SMM ip failed", "Query SMM network status succeeded", "    Status: " + status)
    return block("Query", "Query SMM network status succeeded", "    Status: " + status, "    SMM IP: " + address)


def ipmi_query_failed(message):
    return block("Query", "Query SMM network status failed.", "    Error msg: " + message)


def redfish_query(status, address):
    """Standard output (bytes) of a successful Redfish query, result line included."""
    return (b"************Query Result************\n\nQuery SMM network status succeeded\n    Status: " +
            status.encode() + b"\n    SMM IP: " + address + b"\n\n************Query Result************\n\n"
            b"0 Succeed.\n")


IPMI_QUERY_OK = ipmi_query() + "0 Succeed.\n"


def vendor_body(lan="true", ipmi="false", ipv4=b'"192.0.2.7"'):
    return (b'{"Id":"2","Oem":{"Qarvon":{"LANEnabled":' + lan.encode() + b',"IPMIEnabled":' + ipmi.encode() +
            b',"IPv4":' + ipv4 + b'}}}')


def errors(log, source="src/host/IpmiClient"):
    return [text for level, src, text in LOG_RECORD.findall(log) if level == "ERROR" and src == source]


def traces(log, text):
    return [t for level, _, t in LOG_RECORD.findall(log) if t == text]


def bytes_of(text):
    """The exact bytes of captured output (run_command decodes with surrogateescape)."""
    return text.encode("utf-8", "surrogateescape")


# ---------------------------------------------------------------------------
# A throw-away certificate and an HTTPS server whose every connection runs a script.

class Certificate:
    _lock = threading.Lock()
    _paths = None

    @classmethod
    def paths(cls):
        """(certfile, keyfile) made once per process with openssl; failing to make them fails the test."""
        with cls._lock:
            if cls._paths is None:
                directory = tempfile.mkdtemp(prefix="morvel-e2e-cert-")
                atexit.register(shutil.rmtree, directory, True)
                cert, key = os.path.join(directory, "cert.pem"), os.path.join(directory, "key.pem")
                made = run_command(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                                    "ec_paramgen_curve:prime256v1", "-nodes", "-keyout", key, "-out", cert,
                                    "-days", "2", "-subj", "/CN=smm-fault"], env=dict(os.environ), timeout=60)
                if made.returncode != 0:
                    raise RuntimeError("openssl could not make a certificate:\n" + made.describe())
                cls._paths = (cert, key)
            return cls._paths


class FaultServer:
    """A TCP listener on ADDRESS:PORT; each accepted connection runs script(server, socket) in a thread.

    The script decides how much of TLS and HTTP happens. `requests` lists the
    (method, path) of every request read with read_request(); `sent` counts the
    body bytes that scripts report; `connections` the accepted connections.
    """

    def __init__(self, address, port, script):
        cert, key = Certificate.paths()
        self.context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        self.context.load_cert_chain(cert, key)
        self.script = script
        self.requests = []
        self.connections = 0
        self.sent = 0
        self.stopping = threading.Event()
        self._threads = []
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._socket.bind((address, port))
        self._socket.listen(16)
        self._socket.settimeout(0.1)
        self._accepting = threading.Thread(target=self._accept, daemon=True)
        self._accepting.start()

    def _accept(self):
        while not self.stopping.is_set():
            try:
                connection, _ = self._socket.accept()
            except socket.timeout:
                continue
            except OSError:
                return
            self.connections += 1
            connection.settimeout(10)
            thread = threading.Thread(target=self._serve, args=(connection,), daemon=True)
            self._threads.append(thread)
            thread.start()

    def _serve(self, connection):
        try:
            self.script(self, connection)
        except (OSError, ssl.SSLError, ValueError):
            pass  # the client hung up: that is what most scripts wait for
        finally:
            connection.close()

    def tls(self, connection):
        return self.context.wrap_socket(connection, server_side=True)

    def read_request(self, stream):
        """Reads one request head; (method, path), or None when the client closed first."""
        data = b""
        while b"\r\n\r\n" not in data:
            chunk = stream.recv(4096)
            if not chunk:
                return None
            data += chunk
        method, path = data.split(b"\r\n", 1)[0].decode("latin-1").split(" ")[:2]
        self.requests.append((method, path))
        return method, path

    def close(self):
        self.stopping.set()
        self._socket.close()
        self._accepting.join()
        for thread in self._threads:
            thread.join(15)


def reply(status, body, headers=()):
    head = "HTTP/1.1 %d %s\r\nContent-Type: application/json\r\nContent-Length: %d\r\n" % (
        status, {200: "OK", 503: "Service Unavailable"}.get(status, "Status"), len(body))
    return (head + "".join("%s: %s\r\n" % h for h in headers) + "\r\n").encode() + body


def serve(body, status=200):
    """Script: answer every request on the connection with status and body."""
    def script(server, connection):
        with server.tls(connection) as stream:
            while server.read_request(stream) is not None:
                stream.sendall(reply(status, body))
    return script


def reset_after_client_hello(server, connection):
    connection.recv(4096)
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\x01\x00\x00\x00\x00\x00\x00\x00")


def close_at_once(server, connection):
    pass


def answer_garbage(server, connection):
    connection.recv(4096)
    connection.sendall(bytes(range(256)) * 4)


def cut_handshake(server, connection):
    """Sends half of the server's first TLS flight, then closes."""
    incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
    tls = server.context.wrap_bio(incoming, outgoing, server_side=True)
    flight = b""
    while not flight:
        data = connection.recv(16384)
        if not data:
            return
        incoming.write(data)
        try:
            tls.do_handshake()
        except ssl.SSLWantReadError:
            pass
        flight = outgoing.read()
    connection.sendall(flight[:len(flight) // 2])


def short_reply(server, connection):
    """A whole, supported chassis resource, but 1000 bytes fewer than Content-Length announces."""
    with server.tls(connection) as stream:
        server.read_request(stream)
        body = vendor_body()
        stream.sendall(b"HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: %d\r\n\r\n"
                       % (len(body) + 1000) + body)


def drip(server, connection):
    """Headers, then one body byte a second: the body would take over an hour."""
    with server.tls(connection) as stream:
        server.read_request(stream)
        body = vendor_body() + b" " * 4000
        stream.sendall(b"HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: %d\r\n\r\n" % len(body))
        for i in range(len(body)):
            if server.stopping.wait(1):
                return
            stream.sendall(body[i:i + 1])
            server.sent += 1


def endless_chunks(server, connection):
    """A chunked body that never ends, as fast as the client takes it (at most 4 GiB or 60 s)."""
    with server.tls(connection) as stream:
        server.read_request(stream)
        stream.sendall(b"HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nTransfer-Encoding: chunked\r\n\r\n")
        opening = b'{"Oem":{"Qarvon":{"LANEnabled":true,"IPv4":"'
        stream.sendall(b"%x\r\n%s\r\n" % (len(opening), opening))
        chunk = b"A" * 65536
        framed = b"%x\r\n%s\r\n" % (len(chunk), chunk)
        deadline = time.monotonic() + 60
        while server.sent < (4 << 30) and time.monotonic() < deadline and not server.stopping.is_set():
            stream.sendall(framed)
            server.sent += len(chunk)


def always_503(server, connection):
    with server.tls(connection) as stream:
        while server.read_request(stream) is not None:
            stream.sendall(reply(503, b'{"error":"starting"}', [("Retry-After", "1")]))


# ---------------------------------------------------------------------------
# A relay that answers a repeated session-start request as the IPMI v2.0 retransmission rules expect.

_libc = ctypes.CDLL(None, use_errno=True)
CLONE_NEWNET = 0x40000000


def enter_netns(name):
    """Moves the calling thread into network namespace `name` (sockets made later live there)."""
    fd = os.open("/run/netns/" + name, os.O_RDONLY)
    try:
        if _libc.setns(fd, CLONE_NEWNET) != 0:
            error = ctypes.get_errno()
            raise OSError(error, "setns %s: %s" % (name, os.strerror(error)))
    finally:
        os.close(fd)


class SessionStartRelay:
    """UDP relay from ADDRESS:623 to the simulator's ADDRESS:UPSTREAM_PORT inside a namespace.

    ipmi_sim does not answer a repeated request of the RMCP+ session start the
    way the IPMI v2.0 retransmission rules expect: a repeated Open Session
    Request opens one more session (the first stays until ipmi_sim's own
    time-out, so lost answers fill its session table), and a repeated RAKP
    message 3 gets an authenticated, encrypted RAKP 4 that no client takes (a
    lost RAKP 4 costs the whole session start). The relay keeps the answer each
    Open Session Request and RAKP 3 got and gives it again, with the repeated
    request's message tag, when the same request comes again; everything else
    passes unchanged. It adds no loss of its own.
    """

    # Request payload type -> answer payload type (plain, neither authenticated nor encrypted).
    ANSWERS = {0x10: 0x11, 0x14: 0x15}

    def __init__(self, netns, address, upstream_port):
        self.repeated = 0
        self._address = address
        self._upstream = (address, upstream_port)
        self._stop = threading.Event()
        self._ready = threading.Event()
        self._failure = None
        self._thread = threading.Thread(target=self._run, args=(netns.name,), daemon=True)
        self._thread.start()
        self._ready.wait(10)
        if self._failure is not None or not self._ready.is_set():
            raise RuntimeError("session start relay did not start: %r" % (self._failure,))

    @staticmethod
    def _session_start(packet):
        """(payload type, session id) of an RMCP+ session-start packet, else None.

        RMCP header (4 bytes), authentication type 06, payload type, session id
        and sequence number (0 here), payload length, then the payload: message
        tag, status, reserved, and the session id the request is about.
        """
        if len(packet) >= 24 and packet[4] == 0x06 and packet[5] in (0x10, 0x11, 0x14, 0x15):
            return packet[5], packet[20:24]
        return None

    def _run(self, netns_name):
        try:
            enter_netns(netns_name)
            front = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            front.bind((self._address, 623))
        except OSError as error:
            self._failure = error
            self._ready.set()
            return
        self._ready.set()
        clients = {}  # client address -> upstream socket
        owners = {}   # upstream socket -> client address
        pending = {}  # client address -> key of its last session-start request
        answers = {}  # (client address, payload type, session id) -> answer packet
        try:
            while not self._stop.is_set():
                readable, _, _ = select.select([front] + list(owners), [], [], 0.1)
                for sock in readable:
                    if sock is front:
                        packet, client = front.recvfrom(65536)
                        start = self._session_start(packet)
                        if start is not None and start[0] in self.ANSWERS:
                            key = (client,) + start
                            if key in answers:
                                answer = answers[key]
                                front.sendto(answer[:16] + packet[16:17] + answer[17:], client)
                                self.repeated += 1
                                continue
                            pending[client] = key
                        upstream = clients.get(client)
                        if upstream is None:
                            upstream = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
                            upstream.connect(self._upstream)
                            clients[client], owners[upstream] = upstream, client
                        upstream.send(packet)
                    else:
                        try:
                            packet = sock.recv(65536)
                        except OSError:
                            continue
                        client = owners[sock]
                        key = pending.get(client)
                        if key is not None and len(packet) >= 17 and packet[4] == 0x06 and \
                                packet[5] == self.ANSWERS[key[1]]:
                            answers[key] = packet
                            del pending[client]
                        front.sendto(packet, client)
        finally:
            for sock in list(owners) + [front]:
                sock.close()

    def close(self):
        self._stop.set()
        self._thread.join(10)


# ---------------------------------------------------------------------------

class FaultCase(E2ETestCase):
    def query(self, sim, config=None, netns=None, bmc=None, log_level=4, timeout=300, measure_rss=False):
        return self.run_morvel(["smmlan", "query", "--bmc", bmc or sim.bmc()], config=dict(CONFIG, **(config or {})),
                               log_level=log_level, netns=netns, timeout=timeout, measure_rss=measure_rss)

    def assertRun(self, result, returncode, stdout, stderr=""):
        self.assertEqual((result.stdout, result.stderr, result.returncode), (stdout, stderr, returncode),
                         result.describe())

    def assertIpmiFallback(self, sim, result):
        """The probe failed, the command went to IPMI and the query succeeded there."""
        self.assertRun(result, 0, IPMI_QUERY_OK)
        self.assertEqual(sim.ipmi_requests(), [STATUS_READ, ADDRESS_READ])
        self.assertEqual(traces(result.files["log"], PASSED_ON), [PASSED_ON])


class SmmReboot(FaultCase):
    def test_enable_survives_a_reboot_during_the_status_polling(self):
        delay_reads = 6
        sim = self.start_sim(INITIAL_STATUS=2, REDFISH="off", STATUS_DELAY_READS=delay_reads)
        # Polls that fail while the SMM is off use up checks: enough of them that none runs out.
        config = {"IPMI_SESSION_TIMEOUT_MS": "1500", "SMM_NETWORK_CHECK_RETRY_COUNT": "1000"}
        log_file = os.path.join(self.tmp, "reboot.log")
        outcome = {}
        runner = threading.Thread(target=lambda: outcome.setdefault(
            "result", self.run_morvel(["smmlan", "enable", "--bmc", sim.bmc()], config=dict(CONFIG, **config),
                                      log_level=4, timeout=HANG_GUARD, log_file=log_file)))
        runner.start()
        try:
            # Power off after the second poll's read: the pre-read and the switch come first.
            self.wait_for(lambda: sim.ipmi_requests().count(STATUS_READ) >= 3, "the second poll")
            self.assertEqual(sim.ipmi_requests(), [STATUS_READ, ("f1", "01"), STATUS_READ, STATUS_READ])
            sim.kill()
            # Off until a poll has failed on it, however long that takes.
            self.wait_for(lambda: errors(read_text(log_file)), "a poll failing while the SMM is off")
            sim.restart()
        finally:
            runner.join(HANG_GUARD)
        self.assertFalse(runner.is_alive())
        result = outcome["result"]

        attempts = result.stdout.count("Check SMM network status attempt(")
        # Usually delay_reads + 1; fewer when a slow reply had a read retransmitted,
        # which the SMM counts as one more read though it is the same poll.
        requests = sim.ipmi_requests()
        polls_answered = requests[2:].count(STATUS_READ)
        self.assertLessEqual(polls_answered, delay_reads + 1)
        failed_polls = attempts - polls_answered
        expected = "[INFO]: Send enable command succeeded, wait for status take effect.\n"
        for attempt in range(attempts - 1):
            expected += ("Check SMM network status attempt(%d)\n"
                         "Status has been not take effected, wait for next check.\n" % attempt)
        expected += ("Check SMM network status attempt(%d)\nThe SMM network status take effected.\n" % (attempts - 1) +
                     block("Enable", "Enable SMM network succeeded", "Sleep 10 seconds more to let SMM network up",
                           "SMM IP: " + SMM_IP) + "0 Succeed.\n")
        self.assertRun(result, 0, expected)
        # Some polls met the SMM powered off: each failed to start a session, and only those.
        self.assertGreaterEqual(failed_polls, 1)
        self.assertEqual(errors(result.files["log"]),
                         ["IPMI session start failed (attempt 1 of 3): connection timeout"] * failed_polls)
        self.assertEqual(requests, [STATUS_READ, ("f1", "01")] + [STATUS_READ] * polls_answered + [ADDRESS_READ])
        self.assertEqual([r["event"] for r in sim.records("sim")], ["start", "start"])
        self.assertEqual(sim.state()["STATUS"], 1)
        sys.stderr.write("\n[faults] reboot: %d polls, %d failed while the SMM was off, %.1f s\n"
                         % (attempts, failed_polls, result.elapsed))


class PacketLoss(FaultCase):
    # Seven tries of every exchange within the session time-out (100, 100, 200, ... ms apart).
    LOSSY = {"IPMI_SESSION_TIMEOUT_MS": "2000", "IPMI_RETRANSMISSION_TIMEOUT_MS": "100"}

    def runs(self, count, sim, netns):
        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            return list(pool.map(lambda _: self.query(sim, config=self.LOSSY, netns=netns, log_level=3),
                                 range(count)))

    def test_a_lost_rakp4_costs_one_session_start(self):
        netns = self.netns()
        sim = self.start_sim(netns=netns, INITIAL_STATUS=1, REDFISH="off")
        # Every other plain RAKP message 4 (RMCP 06 00 ff 07, RMCP+ 06, payload type 15) is dropped.
        added = run_command(netns.wrap(["iptables", "-A", "INPUT", "-p", "udp", "--sport", "623", "-m", "string",
                                        "--algo", "bm", "--hex-string", "|0600ff070615|", "--from", "28", "--to",
                                        "34", "-m", "statistic", "--mode", "nth", "--every", "2", "--packet", "0",
                                        "-j", "DROP"]), env=dict(os.environ), timeout=30)
        self.assertEqual(added.returncode, 0, added.describe())
        # A lost RAKP 4 shows only as the session time-out; a session start that goes
        # through must never meet it, so it grows with the time scale (valgrind).
        result = self.query(sim, config={"IPMI_SESSION_TIMEOUT_MS": str(int(scaled(2) * 1000)),
                                         "IPMI_RETRANSMISSION_TIMEOUT_MS": "250"}, netns=netns)
        self.assertRun(result, 0, IPMI_QUERY_OK)
        # Both sessions lost their first RAKP 4 and started again.
        self.assertEqual(errors(result.files["log"]),
                         ["IPMI session start failed (attempt 1 of 3): session timeout"] * 2)
        self.assertEqual(sim.ipmi_requests(), [STATUS_READ, ADDRESS_READ])

    def test_20_percent_each_way_leaves_at_least_97_of_100_queries(self):
        netns = self.netns()
        sim = self.start_sim(netns=netns, INITIAL_STATUS=1, REDFISH="off", IPMI_PORT=1623)
        relay = SessionStartRelay(netns, sim.address, 1623)
        self.addCleanup(relay.close)
        netns.drop_udp(0.2, 623, "dport")
        netns.drop_udp(0.2, 623, "sport")
        started = time.monotonic()
        results = self.runs(100, sim, netns)
        wall = time.monotonic() - started
        ok = [r for r in results if r.returncode == 0]
        for result in results:
            # Success, or a documented failure; the address read may be lost on its own.
            self.assertIn((result.returncode, result.stdout, result.stderr), [
                (0, IPMI_QUERY_OK, ""), (0, ipmi_query(address=None) + "0 Succeed.\n", ""),
                (13, ipmi_query_failed("Connection failed."), "13 Connection failed.\n"),
                (1, ipmi_query_failed("Generic Failure."), "1 Generic Failure.\n")], result.describe())
        full = [r for r in ok if r.stdout == IPMI_QUERY_OK]
        for result in [r for r in results if r.stdout != IPMI_QUERY_OK][:3]:
            sys.stderr.write("\n[faults] a failed run: %s\n%s" % (result.describe(), "\n".join(
                errors(result.files["log"]) + errors(result.files["log"], "Src/Misc/SmmLan/SmmLanManager"))))
        sys.stderr.write("\n[faults] 20%% loss each way: %d/100 succeeded (%d with the address), %d session-start "
                         "answers repeated, longest %.1f s, wall %.0f s\n"
                         % (len(ok), len(full), relay.repeated, max(r.elapsed for r in results), wall))
        self.assertGreaterEqual(len(ok), 97)

    def test_60_percent_each_way_fails_cleanly_within_bounds(self):
        netns = self.netns()
        sim = self.start_sim(netns=netns, INITIAL_STATUS=1, REDFISH="off")
        netns.drop_udp(0.6, 623, "dport")
        netns.drop_udp(0.6, 623, "sport")
        results = self.runs(20, sim, netns)
        outcomes = {}
        for result in results:
            # Documented results only.
            self.assertIn((result.returncode, result.stdout, result.stderr), [
                (0, IPMI_QUERY_OK, ""), (0, ipmi_query(address=None) + "0 Succeed.\n", ""),
                (13, ipmi_query_failed("Connection failed."), "13 Connection failed.\n"),
                (1, ipmi_query_failed("Generic Failure."), "1 Generic Failure.\n"),
                (255, ipmi_query_failed(AUTH_MESSAGE), "2054 %s\n" % AUTH_MESSAGE)], result.describe())
            outcomes[result.returncode] = outcomes.get(result.returncode, 0) + 1
        self.assertTrue(sim.running())
        sys.stderr.write("\n[faults] 60%% loss each way: exit statuses %s, longest %.1f s\n"
                         % (sorted(outcomes.items()), max(r.elapsed for r in results)))


class RedfishFaults(FaultCase):
    """A misbehaving HTTPS service where the SMM's Redfish should be; IPMI (the simulator) still answers."""

    def start_pair(self, script, **knobs):
        sim = self.start_sim(INITIAL_STATUS=1, REDFISH="off", **knobs)
        server = FaultServer(sim.address, 443, script)
        self.addCleanup(server.close)
        return sim, server

    def test_connection_reset_during_the_probe(self):
        sim, server = self.start_pair(reset_after_client_hello)
        result = self.query(sim)
        self.assertIpmiFallback(sim, result)
        self.assertEqual((server.connections, server.requests), (1, []))

    def test_connection_closed_before_tls(self):
        sim, server = self.start_pair(close_at_once)
        self.assertIpmiFallback(sim, self.query(sim))
        self.assertEqual((server.connections, server.requests), (1, []))

    def test_garbage_instead_of_tls(self):
        sim, server = self.start_pair(answer_garbage)
        self.assertIpmiFallback(sim, self.query(sim))
        self.assertEqual(server.connections, 1)

    def test_tls_handshake_cut_off(self):
        sim, server = self.start_pair(cut_handshake)
        self.assertIpmiFallback(sim, self.query(sim))
        self.assertEqual((server.connections, server.requests), (1, []))

    def test_reply_shorter_than_announced(self):
        # The bytes that did come are a supported resource: taking them would settle on Redfish.
        sim, server = self.start_pair(short_reply)
        self.assertIpmiFallback(sim, self.query(sim))
        self.assertEqual(server.requests, [("GET", CHASSIS)])

    def test_one_byte_a_second_ends_at_the_60_second_request_limit(self):
        sim, server = self.start_pair(drip)
        result = self.query(sim)
        self.assertIpmiFallback(sim, result)
        # The drip would go on for over an hour: only the limit ended it, and not before 60 s.
        self.assertGreaterEqual(result.elapsed, 59)
        self.assertEqual(server.requests, [("GET", CHASSIS)])
        sys.stderr.write("\n[faults] 1 byte/s: ended after %.1f s, %d body bytes\n" % (result.elapsed, server.sent))

    def test_endless_body_ends_at_the_body_cap(self):
        sim, server = self.start_pair(endless_chunks)
        cap = 8 << 20
        result = self.query(sim, config={"REST_MAX_BODY_BYTES": str(cap)}, measure_rss=True)
        self.assertIpmiFallback(sim, result)
        peak_kib = result.peak_rss_kib
        # The client hung up once the cap was passed, not at the 60-second limit.
        self.assertGreaterEqual(server.sent, cap - 65536)
        self.assertLess(server.sent, 256 << 20)
        # Under valgrind or AddressSanitizer the figure includes their shadow memory.
        self.assertLess(peak_kib, peak_rss_bound_kib(64, 1024))
        sys.stderr.write("\n[faults] endless body, cap 8 MiB: %.1f MiB sent before the hang-up, peak RSS %.1f MiB, "
                         "%.1f s\n" % (server.sent / 1048576, peak_kib / 1024, result.elapsed))

    def test_503_forever_ends_after_the_startup_wait(self):
        sim, server = self.start_pair(always_503)
        result = self.query(sim, config={"REDFISH_STARTUP_WAIT_TIME": "9"})
        # Attempts at 0, 5 and 10 s; the one at 10 s is past the 9-second wait, which the
        # second attempt is well within (its check comes at 5 s and the time of two requests).
        self.assertIpmiFallback(sim, result)
        self.assertGreaterEqual(result.elapsed, 10)
        self.assertEqual(server.requests, [("GET", CHASSIS)] * 3)
        retries = [t for level, _, t in LOG_RECORD.findall(result.files["log"]) if t.startswith("curlCode: ")]
        self.assertEqual(retries, ['curlCode: 0 | httpCode: 503 | body: {"error":"starting"}'] * 3)


class HostileReplies(FaultCase):
    """Bodies no SMM should send: no crash, the documented result, IPv4 text printed as it came."""

    def query_body(self, body, measure_rss=False):
        sim = self.start_sim(INITIAL_STATUS=1, REDFISH="off")
        server = FaultServer(sim.address, 443, serve(body))
        self.addCleanup(server.close)
        result = self.query(sim, measure_rss=measure_rss)
        self.assertEqual(server.requests, [("GET", CHASSIS)])
        return sim, result

    def assertRedfishQuery(self, sim, result, status, address):
        self.assertEqual((bytes_of(result.stdout), result.stderr, result.returncode),
                         (redfish_query(status, address), "", 0), result.describe())
        self.assertEqual(sim.ipmi_requests(), [])

    def test_100000_deep_nesting_around_the_vendor_object(self):
        depth = 100000
        for name, deep in (("arrays", b"[" * depth + b"]" * depth),
                           ("objects", b'{"a":' * depth + b"1" + b"}" * depth)):
            with self.subTest(name):
                body = b'{"Deep":' + deep + b"," + vendor_body()[1:]
                sim, result = self.query_body(body)
                self.assertRedfishQuery(sim, result, LAN_ONLY, b"192.0.2.7")

    def test_100000_deep_nesting_never_closed_is_not_json(self):
        sim, result = self.query_body(b'{"Oem":{"Qarvon":{"LANEnabled":true,"X":' + b"[" * 100000)
        self.assertIpmiFallback(sim, result)

    def test_invalid_utf8_is_printed_as_it_came(self):
        address = b"10.\xff\xfe.0.1\xc3("
        sim, result = self.query_body(vendor_body(ipv4=b'"' + address + b'"'))
        self.assertRedfishQuery(sim, result, LAN_ONLY, address)

    def test_escaped_nul_ends_the_address_text(self):
        sim, result = self.query_body(vendor_body(ipv4=b'"192.0.2.9\\u0000\\u001b[31mEVIL"'))
        self.assertRedfishQuery(sim, result, LAN_ONLY, b"192.0.2.9")

    def test_raw_nul_inside_a_string_is_not_json(self):
        sim, result = self.query_body(vendor_body(ipv4=b'"192.0.2.9\x00"'))
        self.assertIpmiFallback(sim, result)

    def test_raw_nul_after_the_document_hides_the_rest(self):
        sim, result = self.query_body(vendor_body() + b"\x00 garbage that is never parsed {")
        self.assertRedfishQuery(sim, result, LAN_ONLY, b"192.0.2.7")

    def test_terminal_escape_sequences_are_printed_as_they_came(self):
        escaped = b'"\\u001b[2J\\u001b]0;owned\\u0007192.0.2.5\\r\\u001b[1A\\u009b1m"'
        sim, result = self.query_body(vendor_body(ipv4=escaped))
        self.assertRedfishQuery(sim, result, LAN_ONLY, b"\x1b[2J\x1b]0;owned\x07192.0.2.5\r\x1b[1A\xc2\x9b1m")

    def test_terminal_escape_sequences_from_the_simulator(self):
        text = "\x1b[31m192.0.2.66\x1b[0m\x07"
        sim = self.start_sim(INITIAL_STATUS=1, REDFISH_IPV4=text)
        result = self.query(sim)
        self.assertRedfishQuery(sim, result, LAN_ONLY, text.encode())

    def test_duplicate_members_take_the_first(self):
        body = (b'{"Oem":{"Qarvon":{"LANEnabled":false,"IPv4":"192.0.2.1","IPv4":"192.0.2.3"}},'
                b'"Oem":{"Qarvon":{"LANEnabled":true,"IPMIEnabled":true,"IPv4":"192.0.2.2"}}}')
        sim, result = self.query_body(body)
        self.assertRedfishQuery(sim, result, BOTH_OFF, b"192.0.2.1")

    def test_50_mib_body(self):
        body = b'{"Pad":"' + b"x" * (50 << 20) + b'",' + vendor_body()[1:]
        sim, result = self.query_body(body, measure_rss=True)
        self.assertRedfishQuery(sim, result, LAN_ONLY, b"192.0.2.7")
        peak_kib = result.peak_rss_kib
        # The body, the grown buffer it was read into and the parsed copy, not more.
        self.assertLess(peak_kib, peak_rss_bound_kib(256, 2048))
        sys.stderr.write("\n[faults] 50 MiB body: peak RSS %.1f MiB, %.1f s\n" % (peak_kib / 1024, result.elapsed))


if __name__ == "__main__":
    unittest.main()
