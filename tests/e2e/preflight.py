#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""What the end-to-end suites need from the machine, checked before the first test.

    preflight.py                     programs and ports; one line per problem, exit 1 on any
    preflight.py programs            only the programs of scripts/debian-packages
    preflight.py ports               only the ports the simulated SMMs take (TCP 443, UDP 623)
    preflight.py free-addresses N    N loopback addresses with UDP 623 and TCP 443 free on them

The programs come from scripts/debian-packages, the list scripts/setup installs,
so the two never disagree. A port is a problem when something holds it on every
address (0.0.0.0 or ::): then no simulated SMM can bind it on 127.0.0.N.
"""

import os
import shutil
import socket
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
PACKAGE_LIST = os.path.join(os.path.dirname(os.path.dirname(HERE)), "scripts", "debian-packages")

# The addresses the harness leases (smmsim.ADDRESS_RANGE) and the ports a simulated SMM takes there.
FIRST_ADDRESS, LAST_ADDRESS = 20, 250
TCP_PORT, UDP_PORT = 443, 623
# Outside the leased range: binding here tells whether a wildcard socket also covers IPv4.
PROBE_ADDRESS = "127.0.0.19"


def required_programs(path=PACKAGE_LIST):
    """[(program, package)] in the order of the list."""
    programs = []
    with open(path, encoding="utf-8") as f:
        for line in f:
            words = line.split("#", 1)[0].split()
            programs += [(program, words[0].rstrip("!")) for program in words[1:]]
    return programs


def missing_programs(search_path=None):
    """One line per program of the list that is not on PATH."""
    return ["%s not found on PATH; install the Debian package %s (scripts/setup does)" % (program, package)
            for program, package in required_programs() if shutil.which(program, path=search_path) is None]


def _wildcard_sockets(table, port, listening_state):
    """Inodes of the sockets in /proc/net/TABLE bound to the wildcard address and `port`."""
    inodes = []
    try:
        with open("/proc/net/" + table, encoding="ascii") as f:
            rows = f.readlines()[1:]
    except OSError:
        return inodes
    for row in rows:
        fields = row.split()
        address, port_hex = fields[1].rsplit(":", 1)
        if int(port_hex, 16) == port and set(address) == {"0"} and fields[3] == listening_state:
            inodes.append(fields[9])
    return inodes


def _owner(inode):
    """'PID N (name)' of the process holding the socket, or 'an unknown process'."""
    target = "socket:[%s]" % inode
    for pid in filter(str.isdigit, os.listdir("/proc")):
        fd_dir = "/proc/%s/fd" % pid
        try:
            fds = os.listdir(fd_dir)
        except OSError:
            continue
        for fd in fds:
            try:
                if os.readlink(os.path.join(fd_dir, fd)) == target:
                    with open("/proc/%s/comm" % pid, encoding="utf-8", errors="replace") as f:
                        return "PID %s (%s)" % (pid, f.read().strip())
            except OSError:
                continue
    return "an unknown process"


def _covers_ipv4(kind, port):
    """True when PROBE_ADDRESS:port cannot be bound, i.e. a wildcard socket takes IPv4 too."""
    with socket.socket(socket.AF_INET, kind) as s:
        try:
            s.bind((PROBE_ADDRESS, port))
        except OSError:
            return True
    return False


def port_clashes(tcp_port=TCP_PORT, udp_port=UDP_PORT):
    """One line per wildcard socket that keeps the simulated SMMs off their ports."""
    lines = []
    # 0A is TCP_LISTEN; 07 is an unconnected UDP socket.
    for protocol, kind, tables, port, state in (("TCP", socket.SOCK_STREAM, ("tcp", "tcp6"), tcp_port, "0A"),
                                                ("UDP", socket.SOCK_DGRAM, ("udp", "udp6"), udp_port, "07")):
        inodes = [inode for table in tables for inode in _wildcard_sockets(table, port, state)]
        if inodes and _covers_ipv4(kind, port):
            lines.append("%s port %d is taken on all addresses by %s; the tests need it free on 127.0.0.%d\u2013%d"
                         % (protocol, port, _owner(inodes[0]), FIRST_ADDRESS, LAST_ADDRESS))
    return lines


def _bindable(kind, address, port):
    with socket.socket(socket.AF_INET, kind) as s:
        if kind == socket.SOCK_STREAM:
            s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        try:
            s.bind((address, port))
        except OSError:
            return False
    return True


def free_addresses(count, first=FIRST_ADDRESS, last=LAST_ADDRESS):
    """The first `count` addresses 127.0.0.N with TCP_PORT and UDP_PORT free; fewer when there are not enough."""
    found = []
    for n in range(first, last + 1):
        address = "127.0.0.%d" % n
        if _bindable(socket.SOCK_DGRAM, address, UDP_PORT) and _bindable(socket.SOCK_STREAM, address, TCP_PORT):
            found.append(address)
            if len(found) == count:
                break
    return found


def problems():
    return missing_programs() + port_clashes()


def main(argv):
    what = argv[0] if argv else "all"
    if what == "free-addresses" and len(argv) == 2 and argv[1].isdigit():
        found = free_addresses(int(argv[1]))
        print("\n".join(found))
        if len(found) < int(argv[1]):
            print("preflight: only %d free loopback addresses in 127.0.0.%d\u2013%d"
                  % (len(found), FIRST_ADDRESS, LAST_ADDRESS), file=sys.stderr)
            return 1
        return 0
    checks = {"all": problems, "programs": missing_programs, "ports": port_clashes}
    if what not in checks or len(argv) > 1:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    lines = checks[what]()
    for line in lines:
        print("preflight: " + line, file=sys.stderr)
    return 1 if lines else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
