# SPDX-License-Identifier: GPL-3.0-or-later
"""Throw-away TLS certificates for the trust tests, made with the openssl command.

    ca = TestCa(directory)                       # a CA of its own
    cert, key = ca.issue("127.0.0.41")           # a server certificate for that address
    cert, key = ca.issue("127.0.0.41", expired=True)
    pin_of(cert)                                 # "sha256//..." as libcurl pins it

Every call runs openssl; a failure raises with its output, which fails the test.
"""

import base64
import hashlib
import os
import subprocess


def _openssl(*args, cwd=None, data=None):
    result = subprocess.run(["openssl"] + list(args), cwd=cwd, input=data, capture_output=True, timeout=60)
    if result.returncode != 0:
        raise RuntimeError("openssl %s failed:\n%s" % (" ".join(args[:2]), result.stderr.decode(errors="replace")))
    return result.stdout


def pin_of(certificate):
    """The SHA-256 pin of a PEM certificate's public key (its DER SubjectPublicKeyInfo), base64."""
    public = _openssl("x509", "-in", certificate, "-pubkey", "-noout")
    der = _openssl("pkey", "-pubin", "-outform", "der", data=public)
    return "sha256//" + base64.b64encode(hashlib.sha256(der).digest()).decode()


def dates_of(certificate):
    """(notBefore, notAfter) as openssl prints them, e.g. 'Nov 23 10:00:00 2026 GMT'."""
    out = _openssl("x509", "-in", certificate, "-noout", "-startdate", "-enddate").decode()
    fields = dict(line.split("=", 1) for line in out.splitlines())
    return fields["notBefore"], fields["notAfter"]


def self_signed(directory, name, address):
    """A self-signed EC certificate for `address`, as an SMM ships: (cert, key)."""
    os.makedirs(directory, exist_ok=True)
    cert, key = os.path.join(directory, name + ".pem"), os.path.join(directory, name + ".key")
    _openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-keyout", key,
             "-out", cert, "-days", "30", "-subj", "/CN=" + name, "-addext", "subjectAltName=IP:%s" % address)
    return cert, key


class TestCa:
    """A certificate authority of its own, for --tls-verify ca."""

    def __init__(self, directory, name="morvel-test-ca"):
        self.dir = directory
        os.makedirs(directory, exist_ok=True)
        self.cert = os.path.join(directory, "ca.pem")
        self.key = os.path.join(directory, "ca.key")
        _openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                 "-keyout", self.key, "-out", self.cert, "-days", "30", "-subj", "/CN=" + name,
                 "-addext", "basicConstraints=critical,CA:TRUE", "-addext", "keyUsage=critical,keyCertSign,cRLSign")
        with open(os.path.join(directory, "index.txt"), "w", encoding="ascii"):
            pass
        with open(os.path.join(directory, "serial"), "w", encoding="ascii") as f:
            f.write("1000\n")
        self.config = os.path.join(directory, "ca.cnf")
        with open(self.config, "w", encoding="ascii") as f:
            f.write("[ca]\ndefault_ca = test\n[test]\ndatabase = %(d)s/index.txt\nnew_certs_dir = %(d)s\n"
                    "certificate = %(d)s/ca.pem\nprivate_key = %(d)s/ca.key\nserial = %(d)s/serial\n"
                    "default_md = sha256\npolicy = anything\nunique_subject = no\n[anything]\ncommonName = supplied\n"
                    % {"d": directory})
        self._issued = 0

    def issue(self, address, expired=False):
        """A server certificate for IP `address`, signed by this CA: (cert, key)."""
        self._issued += 1
        base = os.path.join(self.dir, "server%d" % self._issued)
        key, csr, cert, extensions = base + ".key", base + ".csr", base + ".pem", base + ".ext"
        _openssl("req", "-new", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-keyout", key,
                 "-out", csr, "-subj", "/CN=smm-%d" % self._issued)
        with open(extensions, "w", encoding="ascii") as f:
            f.write("basicConstraints = CA:FALSE\nkeyUsage = digitalSignature\nextendedKeyUsage = serverAuth\n"
                    "subjectAltName = IP:%s\n" % address)
        dates = ["-startdate", "20200101000000Z", "-enddate", "20200201000000Z"] if expired else ["-days", "30"]
        _openssl("ca", "-batch", "-notext", "-config", self.config, "-in", csr, "-out", cert, "-extfile", extensions,
                 *dates)
        return cert, key
