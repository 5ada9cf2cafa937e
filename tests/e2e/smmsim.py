# SPDX-License-Identifier: GPL-3.0-or-later
"""End-to-end test harness: simulated SMMs on loopback and exact command runs.

Used by the unittest modules beside it (run by CTest with MORVEL_BUILD_DIR set).

    from smmsim import E2ETestCase

    class MyTest(E2ETestCase):
        def test_x(self):
            sim = self.start_sim(INITIAL_STATUS=2, REDFISH="off")
            result = self.run_morvel(["smmlan", "query", "--bmc", sim.bmc()],
                                     config={"SMM_NETWORK_CHECK_SLEEP_TIME": "0"})
            self.assertEqual(result.returncode, 0)
            self.assertEqual(sim.ipmi_requests(), [("f1", "00")])

Every simulator gets its own 127.0.0.N, taken under a lock file so that tests
in parallel processes never share one; ports on ::1 are leased the same way.
A simulator that cannot start raises, which fails the test.
"""

import base64
import concurrent.futures
import fcntl
import http.client
import json
import os
import random
import shlex
import shutil
import signal
import socket
import ssl
import subprocess
import tempfile
import threading
import time
import unittest
from dataclasses import dataclass, field

import preflight

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE_DIR = os.path.dirname(os.path.dirname(HERE))
BUILD_DIR = os.environ.get("MORVEL_BUILD_DIR") or os.path.join(SOURCE_DIR, "build")
SMM_SIM = os.environ.get("SMM_SIM_LAUNCHER") or os.path.join(BUILD_DIR, "bin", "smm-sim")
MORVEL = os.environ.get("MORVEL_BINARY") or os.path.join(BUILD_DIR, "bin", "morvel")
MODULE_DIR = os.environ.get("MORVEL_MODULE_DIR") or os.path.join(BUILD_DIR, "lib", "morvel")
IPMI_CLIENT_PROBE = os.environ.get("IPMI_CLIENT_PROBE") or os.path.join(BUILD_DIR, "bin", "ipmi_client_probe")
# The system-wide configuration file the build compiled in; the harness keeps
# a real one on this machine out of the tests' runs.
SYSTEM_CONFIG = os.environ.get("MORVEL_SYSTEM_CONFIG") or "/etc/morvel/morvel.conf"
PEAK_RSS = os.environ.get("PEAK_RSS") or os.path.join(BUILD_DIR, "bin", "peak_rss")
# The host library beside a libmorvel_ipmi.so whose FreeIPMI set-up fails (tests/e2e/CMakeLists.txt).
FAILING_IPMI_DIR = os.environ.get("FAILING_IPMI_DIR") or os.path.join(BUILD_DIR, "tests", "e2e", "failing-ipmi")


def build_option(name):
    """A cache value of the build under test, whoever started the suite (CTest or scripts/valgrind)."""
    with open(os.path.join(BUILD_DIR, "CMakeCache.txt"), encoding="utf-8") as cache:
        for line in cache:
            key, _, value = line.rstrip("\n").partition("=")
            if key.split(":")[0] == name:
                return value
    raise KeyError("%s is not in %s/CMakeCache.txt" % (name, BUILD_DIR))


LOCK_DIR = os.environ.get("MORVEL_E2E_LOCK_DIR") or os.path.join(tempfile.gettempdir(), "morvel-e2e-locks")
KEEP = os.environ.get("MORVEL_E2E_KEEP") == "1"
# Words put before the morvel binary in run_morvel (scripts/valgrind runs it under valgrind this way).
MORVEL_WRAPPER = shlex.split(os.environ.get("MORVEL_WRAPPER", ""))
# Stretches the time-outs a working SMM must never meet, for runs under valgrind (scripts/valgrind sets 10).
TIME_SCALE = float(os.environ.get("MORVEL_E2E_TIME_SCALE") or "1")
# Set by an AddressSanitizer build: its shadow memory and quarantine multiply a process's RSS.
SANITIZED = os.environ.get("MORVEL_SANITIZED") == "1"


def scaled(seconds):
    """A time-out in seconds that a working SMM must never meet, stretched by MORVEL_E2E_TIME_SCALE."""
    return seconds * TIME_SCALE


# How long a test waits for something that must happen before it gives up: a
# guard against a hang, far beyond any machine's speed, never a bound on it.
HANG_GUARD = 600

# A test process started with SIGINT ignored (a background job of a shell without job control) would hand that
# on to every morvel it starts, and morvel keeps an ignored SIGINT ignored: the interrupt tests need SIGINT as a
# terminal delivers it. A handled signal is back to its default in the programs started.
signal.signal(signal.SIGINT, signal.default_int_handler)


def peak_rss_bound_kib(plain_mib, instrumented_mib):
    """The largest peak RSS a morvel run may reach: plain, or under valgrind or AddressSanitizer."""
    return (instrumented_mib if MORVEL_WRAPPER or SANITIZED else plain_mib) * 1024

# 127.0.0.1 stays free for everything else on the machine.
ADDRESS_RANGE = range(preflight.FIRST_ADDRESS, preflight.LAST_ADDRESS + 1)


class Lease:
    """A lock file held open; the resource is ours until release()."""

    def __init__(self, name):
        os.makedirs(LOCK_DIR, exist_ok=True)
        self.name = name
        self._fd = os.open(os.path.join(LOCK_DIR, name + ".lock"), os.O_RDWR | os.O_CREAT, 0o666)
        try:
            fcntl.flock(self._fd, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except OSError:
            os.close(self._fd)
            self._fd = None
            raise

    def release(self):
        if self._fd is not None:
            os.close(self._fd)
            self._fd = None


def _bindable(family, kind, host, port):
    with socket.socket(family, kind) as s:
        if kind == socket.SOCK_STREAM:
            s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        try:
            s.bind((host, port))
        except OSError:
            return False
    return True


def lease_address(udp_port=623, tcp_port=443):
    """A free 127.0.0.N (UDP udp_port and TCP tcp_port unused on it) and its lease."""
    candidates = list(ADDRESS_RANGE)
    random.shuffle(candidates)
    for n in candidates:
        address = "127.0.0.%d" % n
        try:
            lease = Lease("addr-" + address)
        except OSError:
            continue
        if _bindable(socket.AF_INET, socket.SOCK_DGRAM, address, udp_port) and (
                tcp_port is None or _bindable(socket.AF_INET, socket.SOCK_STREAM, address, tcp_port)):
            return address, lease
        lease.release()
    raise RuntimeError("\n".join(["no free loopback address in 127.0.0.%d-%d" % (ADDRESS_RANGE[0], ADDRESS_RANGE[-1])]
                                 + preflight.port_clashes(tcp_port or preflight.TCP_PORT, udp_port)))


def lease_block(count, udp_port=623, tcp_port=443):
    """`count` consecutive free addresses 127.0.0.N.. (for --bmc ranges) and their leases."""
    for first in range(ADDRESS_RANGE[0], ADDRESS_RANGE[-1] - count + 2):
        leases = []
        for n in range(first, first + count):
            address = "127.0.0.%d" % n
            try:
                lease = Lease("addr-" + address)
            except OSError:
                break
            leases.append(lease)
            if not (_bindable(socket.AF_INET, socket.SOCK_DGRAM, address, udp_port) and
                    _bindable(socket.AF_INET, socket.SOCK_STREAM, address, tcp_port)):
                break
        else:
            return ["127.0.0.%d" % n for n in range(first, first + count)], leases
        for lease in leases:
            lease.release()
    raise RuntimeError("no %d consecutive free loopback addresses in 127.0.0.%d-%d"
                       % (count, ADDRESS_RANGE[0], ADDRESS_RANGE[-1]))


def lease_port(host="::1"):
    """A port free for both UDP and TCP on host, and its lease."""
    family = socket.AF_INET6 if ":" in host else socket.AF_INET
    for _ in range(200):
        with socket.socket(family, socket.SOCK_STREAM) as s:
            s.bind((host, 0))
            port = s.getsockname()[1]
        try:
            lease = Lease("port-%d" % port)
        except OSError:
            continue
        if _bindable(family, socket.SOCK_DGRAM, host, port) and _bindable(family, socket.SOCK_STREAM, host, port):
            return port, lease
        lease.release()
    raise RuntimeError("no free port on %s" % host)


@dataclass
class CommandResult:
    argv: list
    returncode: int
    stdout: str
    stderr: str
    elapsed: float
    files: dict = field(default_factory=dict)
    # The run's peak resident set in KiB, when it was measured (run_morvel(measure_rss=True)):
    # the morvel process, or valgrind with it under MORVEL_WRAPPER.
    peak_rss_kib: int = None

    def describe(self):
        return "argv: %r\nexit: %d (%.2f s)\n--- stdout ---\n%s--- stderr ---\n%s" % (
            self.argv, self.returncode, self.elapsed, self.stdout, self.stderr)


def base_env(home):
    """A small, predictable environment: no proxies, C locale, a private HOME."""
    env = {
        "PATH": os.environ.get("PATH", "/usr/local/bin:/usr/bin:/bin"),
        "LANG": "C.UTF-8",
        "LC_ALL": "C.UTF-8",
        "HOME": home,
        "XDG_STATE_HOME": os.path.join(home, ".local", "state"),
        "XDG_CONFIG_HOME": os.path.join(home, ".config"),
    }
    for key in ("ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "TSAN_OPTIONS"):
        if key in os.environ:
            env[key] = os.environ[key]
    return env


# Runs "$@" in a private mount namespace with the system configuration's folder
# replaced: by the folder STAGING when given, else by an empty tmpfs. A folder
# that does not exist is made in an overlay of its parent (upper layer in
# SCRATCH), so the machine's own /etc is never written.
_SYSTEM_CONFIG_SCRIPT = r"""set -e
dir=$1 staging=$2 scratch=$3
shift 3
if [ ! -d "$dir" ]; then
    [ -n "$scratch" ] || { echo "no scratch folder for an overlay over ${dir%/*}" >&2; exit 125; }
    parent=${dir%/*}
    mkdir -p "$scratch/upper" "$scratch/work"
    mount -t overlay morvel-e2e -o "lowerdir=$parent,upperdir=$scratch/upper,workdir=$scratch/work" "$parent"
    mkdir -p "$dir"
fi
if [ -n "$staging" ]; then
    mount --bind "$staging" "$dir"
else
    mount -t tmpfs -o mode=0755 morvel-e2e "$dir"
fi
exec "$@"
"""


def system_config_wrapper(staging=None, scratch=None):
    """Words to run a command with the system configuration's folder replaced (see above)."""
    return ["unshare", "--mount", "--propagation", "private", "--", "/bin/sh", "-c", _SYSTEM_CONFIG_SCRIPT,
            "morvel-system-config", os.path.dirname(SYSTEM_CONFIG), staging or "", scratch or ""]


def read_text(path):
    """A file's text as it is now, "" while it does not exist."""
    try:
        with open(path, encoding="utf-8", errors="replace") as f:
            return f.read()
    except FileNotFoundError:
        return ""


def write_config(path, items):
    """A KEY=VALUE configuration file from a dict (values written as given)."""
    with open(path, "w", encoding="utf-8") as f:
        for key, value in items.items():
            f.write("%s=%s\n" % (key, value))
    return path


def run_command(argv, env=None, stdin=None, timeout=300, cwd=None):
    """Runs argv and captures standard output, standard error and exit status exactly.

    The output is decoded as UTF-8 with surrogateescape and no newline translation,
    so a carriage return stays one and text.encode("utf-8", "surrogateescape")
    gives back the bytes written.
    """
    start = time.monotonic()
    data = stdin.encode("utf-8", "surrogateescape") if isinstance(stdin, str) else stdin
    # A session of its own: no controlling terminal, so nothing can ask on the developer's.
    completed = subprocess.run(argv, env=env, input=data, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                               timeout=timeout, cwd=cwd, start_new_session=True)
    return CommandResult(list(argv), completed.returncode, completed.stdout.decode("utf-8", "surrogateescape"),
                         completed.stderr.decode("utf-8", "surrogateescape"), time.monotonic() - start)


def https_request(host, port, method, path, body=None, user=None, password=None, headers=None, timeout=10):
    """One HTTPS request without certificate checks: (status, {header: value}, body text)."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    all_headers = dict(headers or {})
    if user is not None:
        token = base64.b64encode(("%s:%s" % (user, password or "")).encode()).decode()
        all_headers["Authorization"] = "Basic " + token
    connection = http.client.HTTPSConnection(host, int(port), timeout=timeout, context=context)
    try:
        connection.request(method, path, body=body, headers=all_headers)
        response = connection.getresponse()
        return response.status, dict(response.getheaders()), response.read().decode("utf-8", "replace")
    finally:
        connection.close()


class UdpBlackhole:
    """A UDP socket that takes every datagram and never answers (no ICMP either)."""

    def __init__(self, address, port=623):
        family = socket.AF_INET6 if ":" in address else socket.AF_INET
        self._socket = socket.socket(family, socket.SOCK_DGRAM)
        self._socket.bind((address, port))
        self._socket.settimeout(0.1)
        self.packets = 0
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        while not self._stop.is_set():
            try:
                self._socket.recvfrom(4096)
                self.packets += 1
            except socket.timeout:
                continue
            except OSError:
                return

    def close(self):
        self._stop.set()
        self._thread.join()
        self._socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()


class Netns:
    """A private network namespace with its own loopback, for packet loss with iptables.

    Run the simulator and the client inside it (start_sim(netns=...),
    run_probe(..., netns=...), run_morvel(..., netns=...)); loopback traffic in
    both directions passes INPUT there.
    """

    def __init__(self):
        self.name = "morvel-e2e-%d-%s" % (os.getpid(), os.urandom(3).hex())
        self._ip("netns", "add", self.name)
        try:
            self._ip("netns", "exec", self.name, "ip", "link", "set", "lo", "up")
        except RuntimeError:
            self.close()
            raise

    @staticmethod
    def _ip(*args):
        result = run_command(["ip"] + list(args), env=dict(os.environ), timeout=30)
        if result.returncode != 0:
            raise RuntimeError("ip %s failed:\n%s" % (" ".join(args), result.describe()))

    def wrap(self, argv):
        return ["ip", "netns", "exec", self.name] + list(argv)

    def drop_udp(self, probability, port=623, match="dport"):
        """Drops that share of UDP packets to (match="dport") or from ("sport") port."""
        self._ip("netns", "exec", self.name, "iptables", "-A", "INPUT", "-p", "udp", "--" + match, str(port),
                 "-m", "statistic", "--mode", "random", "--probability", str(probability), "-j", "DROP")

    def blackhole(self, address):
        """Drops every packet to `address`, as a powered-off host or a wrong VLAN does: no answer, no refusal."""
        self._ip("netns", "exec", self.name, "iptables", "-A", "INPUT", "-d", address, "-j", "DROP")

    def close(self):
        if self.name:
            run_command(["ip", "netns", "del", self.name], env=dict(os.environ), timeout=30)
            self.name = None


class Sim:
    """One simulated SMM started with the launcher; see tools/smm-sim/README.md for knobs."""

    def __init__(self, directory, knobs=None, address=None, scenario=None, netns=None):
        self.dir = directory
        self.netns = netns
        self.knobs = {k.upper(): self._text(v) for k, v in (knobs or {}).items()}
        self.scenario = scenario
        self._leases = []
        if address is None:
            ipmi_port = int(self.knobs.get("IPMI_PORT", "623"))
            redfish_on = self.knobs.get("REDFISH", "on").lower() in ("on", "true", "1", "yes")
            tcp_port = int(self.knobs.get("REDFISH_PORT", "443")) if redfish_on else None
            address, lease = lease_address(ipmi_port, tcp_port)
            self._leases.append(lease)
        self.address = address
        self.pid = None

    @staticmethod
    def _text(value):
        if isinstance(value, bool):
            return "on" if value else "off"
        if isinstance(value, (list, tuple)):
            return ",".join(str(v) for v in value)
        if isinstance(value, dict):
            return ",".join("%s:%s" % (k, v) for k, v in value.items())
        return str(value)

    def hold(self, lease):
        self._leases.append(lease)

    def use_certificate(self, cert, key):
        """Serves HTTPS with this certificate and key from the next start (the launcher keeps what it finds)."""
        shutil.copyfile(cert, os.path.join(self.dir, "cert.pem"))
        shutil.copyfile(key, os.path.join(self.dir, "key.pem"))
        os.chmod(os.path.join(self.dir, "key.pem"), 0o600)

    # --- knobs as the tests see them
    @property
    def user(self):
        return self.knobs.get("USER", "admin")

    @property
    def password(self):
        return self.knobs.get("PASSWORD", "secret")

    @property
    def ipmi_port(self):
        return int(self.knobs.get("IPMI_PORT", "623"))

    @property
    def redfish_port(self):
        return int(self.knobs.get("REDFISH_PORT", "443"))

    def chassis(self, method="GET", body=None, user=None, password=None, host=None, headers=None, timeout=10):
        """A request to /redfish/v1/Chassis/2 with this simulator's credentials: (status, headers, body)."""
        return https_request(host or self.address, self.redfish_port, method, "/redfish/v1/Chassis/2", body,
                             self.user if user is None else user, self.password if password is None else password,
                             headers, timeout)

    def bmc(self, user=None, password=None, host=None, port=None):
        """The --bmc value USER:PASSWORD@HOST[:PORT] for this simulator."""
        host = host or self.address
        if ":" in host and not host.startswith("["):
            host = "[%s]" % host
        text = "%s:%s@%s" % (self.user if user is None else user, self.password if password is None else password,
                             host)
        if port is not None:
            text += ":%d" % port
        return text

    # --- life cycle
    def _launcher(self, *args):
        argv = [SMM_SIM] + list(args)
        if self.netns is not None:
            argv = self.netns.wrap(argv)
        result = run_command(argv, env=dict(os.environ), timeout=60)
        if result.returncode != 0:
            raise RuntimeError("smm-sim %s failed:\n%s" % (args[0], result.describe()))
        return result

    def start(self, reset=False):
        # A test process that dies half-way takes its simulators with it.
        args = ["start", "--address", self.address, "--dir", self.dir, "--watch-pid", str(os.getpid())]
        if self.scenario:
            args += ["--scenario", self.scenario]
        for key, value in self.knobs.items():
            args += ["--set", "%s=%s" % (key, value)]
        if reset:
            args.append("--reset")
        self.pid = int(self._launcher(*args).stdout.strip())
        return self

    def stop(self):
        self._launcher("stop", "--dir", self.dir)

    def kill(self):
        """Power loss: SIGKILL, no clean-up; the saved state stays."""
        self._launcher("kill", "--dir", self.dir)

    def restart(self):
        self.pid = int(self._launcher("restart", "--dir", self.dir).stdout.strip())

    def running(self):
        return run_command([SMM_SIM, "status", "--dir", self.dir], env=dict(os.environ)).returncode == 0

    def close(self):
        try:
            self.stop()
        finally:
            for lease in self._leases:
                lease.release()
            self._leases = []

    # --- what it received
    def records(self, face=None):
        path = os.path.join(self.dir, "record.jsonl")
        if not os.path.exists(path):
            return []
        with open(path, encoding="utf-8") as f:
            rows = [json.loads(line) for line in f if line.strip()]
        return [r for r in rows if face is None or r.get("face") == face]

    def ipmi_exchanges(self):
        """The record of every 0x3A exchange, in order.

        A reply that comes later than FreeIPMI's retransmission time-out (a loaded
        machine) makes it send the request again in the same session with the next
        sequence number; the simulator carries that out and records it, but it is
        the same exchange, so it is counted once. morvel opens a session for each
        exchange, so it never repeats a request in one session on purpose.
        """
        exchanges, last = [], None
        for r in self.records():
            if r.get("face") == "sim":
                last = None  # a restart begins new sessions, whatever their IDs
            elif r.get("face") == "ipmi":
                key = (r["session"], r["cmd"], r["data"])
                if last is None or key != last[0] or r["rq_seq"] != (last[1] + 1) % 64:
                    exchanges.append(r)
                last = (key, r["rq_seq"])
        return exchanges

    def ipmi_requests(self):
        """[(cmd, data)] of every 0x3A exchange, hex in lower case, in order."""
        return [(r["cmd"], r["data"]) for r in self.ipmi_exchanges()]

    def redfish_requests(self):
        """[(method, path, body)] of every HTTPS request, in order."""
        return [(r["method"], r["path"], r["body"]) for r in self.records("redfish")]

    def session_events(self):
        """[(event, session id, sessions open after it)] of the session service, in order."""
        return [(r["event"], r["session"], r["open"]) for r in self.records("session")]

    def sessions_open(self):
        """How many sessions the session service holds now (0 before the first)."""
        events = self.records("session")
        return events[-1]["open"] if events else 0

    def holds(self):
        """The PATCHes that PATCH_HOLD is holding or held, in order (their record lines)."""
        return self.records("hold")

    def release_patches(self):
        """Lets every held PATCH go on, and the later ones through: makes PATCH_HOLD's file."""
        with open(self.knobs["PATCH_HOLD"], "w", encoding="utf-8"):
            pass

    def state(self):
        """The saved state: {"STATUS": 1, "READS_LEFT": 0, "METHOD": 0, ["PENDING": n]}."""
        result = {}
        with open(os.path.join(self.dir, "state", "smm-state"), encoding="utf-8") as f:
            for line in f:
                if "=" in line:
                    key, value = line.strip().split("=", 1)
                    result[key] = int(value)
        return result

    def log(self):
        try:
            with open(os.path.join(self.dir, "ipmi_sim.log"), encoding="utf-8", errors="replace") as f:
                return f.read()
        except OSError:
            return ""


_machine_problems = None


def check_machine():
    """Raises once per process, with one line per problem, when the machine lacks what the suites need."""
    global _machine_problems
    if _machine_problems is None:
        _machine_problems = preflight.problems()
    if _machine_problems:
        raise RuntimeError("this machine cannot run the end-to-end tests:\n" + "\n".join(_machine_problems))


class E2ETestCase(unittest.TestCase):
    """Base class: a private temporary directory, simulators and runs that clean up after themselves."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        check_machine()

    def setUp(self):
        super().setUp()
        self.tmp = tempfile.mkdtemp(prefix="morvel-e2e-")
        if not KEEP:
            self.addCleanup(shutil.rmtree, self.tmp, True)
        self.home = os.path.join(self.tmp, "home")
        os.makedirs(self.home)
        self._counter = 0

    def _new_dir(self, prefix):
        self._counter += 1
        path = os.path.join(self.tmp, "%s%d" % (prefix, self._counter))
        os.makedirs(path)
        return path

    def start_sim(self, scenario=None, address=None, netns=None, certificate=None, **knobs):
        """Starts a simulated SMM with knobs (KEY=value); stopped at the end of the test.

        certificate: (cert, key) files its HTTPS face serves instead of a made one.
        """
        sim = Sim(self._new_dir("sim"), knobs, address=address, scenario=scenario, netns=netns)
        self.addCleanup(sim.close)
        if certificate:
            sim.use_certificate(*certificate)
        sim.start()
        return sim

    def start_sims(self, knob_list, addresses=None, netns=None):
        """One simulated SMM per dict of knobs, started side by side; stopped at the end of the test.

        addresses: where each listens (leased by the caller), else each leases its own.
        netns: a private network namespace (self.netns()) they run in.
        """
        sims = []
        for i, knobs in enumerate(knob_list):
            sim = Sim(self._new_dir("sim"), knobs, address=addresses[i] if addresses else None, netns=netns)
            self.addCleanup(sim.close)
            sims.append(sim)
        with concurrent.futures.ThreadPoolExecutor(max_workers=8) as pool:
            # list() re-raises the first start that failed.
            list(pool.map(lambda sim: sim.start(), sims))
        return sims

    def lease_block(self, count):
        """`count` consecutive free loopback addresses, ours for the test."""
        addresses, leases = lease_block(count)
        for lease in leases:
            self.addCleanup(lease.release)
        return addresses

    def lease_address(self, udp_port=623, tcp_port=443):
        """A loopback address with nothing listening, ours for the test."""
        address, lease = lease_address(udp_port, tcp_port)
        self.addCleanup(lease.release)
        return address

    def netns(self):
        """A private network namespace, deleted at the end of the test."""
        namespace = Netns()
        self.addCleanup(namespace.close)
        return namespace

    def wait_for(self, condition, what, guard=HANG_GUARD):
        """Polls `condition` until it holds; fails naming `what` if it has not after `guard` seconds."""
        deadline = time.monotonic() + guard
        while not condition():
            self.assertLess(time.monotonic(), deadline, "waited %d s for %s" % (guard, what))
            time.sleep(0.02)

    def lease_port(self, host="::1"):
        port, lease = lease_port(host)
        self.addCleanup(lease.release)
        return port

    def write_config(self, items):
        return write_config(os.path.join(self._new_dir("config"), "morvel.conf"), items)

    def env(self, extra=None):
        env = base_env(self.home)
        env.update(extra or {})
        return env

    def run_probe(self, address, port, ops, user="admin", password="secret", count=1, config=None, timeout=120,
                  netns=None, env=None):
        """Runs ipmi_client_probe (with `env` added to its environment); returns (result, [parsed lines])."""
        argv = [IPMI_CLIENT_PROBE, "--address", address, "--user", user, "--port", str(port), "--count", str(count)]
        for key, value in (config or {}).items():
            argv += ["--set", "%s=%s" % (key, value)]
        argv += list(ops)
        if netns is not None:
            argv = netns.wrap(argv)
        result = run_command(argv, env=self.env(dict({"IPMI_PROBE_PASSWORD": password}, **(env or {}))),
                             timeout=timeout)
        if result.returncode != 0:
            self.fail("ipmi_client_probe failed:\n" + result.describe())
        return result, [parse_probe_line(line) for line in result.stdout.splitlines()]

    def run_morvel(self, args, config=None, env=None, stdin=None, timeout=600, log_level=None, config_via="option",
                   netns=None, wrapper=None, binary=MORVEL, measure_rss=False, log_file=None):
        """Runs build/bin/morvel (or `binary`) with args.

        config: dict written to a file passed with --config (config_via="option") or
        $MORVEL_CONFIG (config_via="env"). The log goes to a file in the test's
        directory; its text is in result.files["log"]. wrapper: words run before
        the binary (and before $MORVEL_WRAPPER). measure_rss: run it under
        peak_rss and set result.peak_rss_kib. log_file: where the log goes, for
        a test that reads it while the run goes on (default: a new file).
        """
        log_file = log_file or os.path.join(self._new_dir("log"), "morvel.log")
        host_args = ["--log-file", log_file]
        extra = {"MORVEL_MODULE_PATH": MODULE_DIR}
        if log_level is not None:
            host_args += ["--log-level", str(log_level)]
        if config is not None:
            path = self.write_config(config)
            if config_via == "env":
                extra["MORVEL_CONFIG"] = path
            else:
                host_args += ["--config", path]
        extra.update(env or {})
        if wrapper is None and config is None and "MORVEL_CONFIG" not in extra and os.path.lexists(SYSTEM_CONFIG):
            # This machine has a system configuration (a package installed it):
            # the runs see only the configuration a test gives.
            wrapper = system_config_wrapper()
        argv = list(wrapper or []) + MORVEL_WRAPPER + [binary] + host_args + list(args)
        peak_file = os.path.join(os.path.dirname(log_file), "peak-rss-kib")
        if measure_rss:
            argv = [PEAK_RSS, peak_file] + argv
        if netns is not None:
            argv = netns.wrap(argv)
        result = run_command(argv, env=self.env(extra), stdin=stdin, timeout=timeout)
        if measure_rss:
            with open(peak_file, encoding="ascii") as f:
                result.peak_rss_kib = int(f.read())
        try:
            with open(log_file, encoding="utf-8", errors="replace") as f:
                result.files["log"] = f.read()
        except OSError:
            result.files["log"] = ""
        return result

    def assertNoSecret(self, secret, *texts):
        for text in texts:
            self.assertNotIn(secret, text)


def parse_probe_line(line):
    """'send 3a f1 00 rc=0 cc=00 data=01 ms=2' -> {'op': 'send', 'netfn': '3a', ..., 'rc': 0, 'ms': 2}"""
    parts = line.split()
    row = {"op": parts[0]}
    plain = []
    for part in parts[1:]:
        if "=" in part:
            key, value = part.split("=", 1)
            row[key] = int(value) if key in ("rc", "ms") else value
        else:
            plain.append(part)
    if row["op"] == "send":
        row["netfn"], row["cmd"] = plain[0], plain[1]
        row["request"] = plain[2] if len(plain) > 2 else ""
    return row


__all__ = ["E2ETestCase", "Sim", "Netns", "UdpBlackhole", "CommandResult", "run_command", "write_config", "lease_address",
           "https_request",
           "lease_port", "lease_block", "parse_probe_line", "BUILD_DIR", "build_option", "MORVEL", "MODULE_DIR", "SMM_SIM",
           "MORVEL_WRAPPER", "SYSTEM_CONFIG", "system_config_wrapper",
           "SANITIZED", "peak_rss_bound_kib", "scaled", "TIME_SCALE", "FAILING_IPMI_DIR", "HANG_GUARD",
           "read_text"]
