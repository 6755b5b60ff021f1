"""Certificates for the loopback ingest server.

A private CA and a server certificate for the IP address 127.0.0.1, made
with the openssl command. Elliptic-curve keys keep the creation fast enough
to make a fresh set for every test.
"""

import os
import subprocess
import tempfile

CA_CERT = "ca.pem"
CA_KEY = "ca.key"
SERVER_CERT = "server.pem"
SERVER_KEY = "server.key"

_SERVER_EXTENSIONS = """\
basicConstraints=critical,CA:FALSE
keyUsage=critical,digitalSignature,keyEncipherment
extendedKeyUsage=serverAuth
subjectAltName=IP:127.0.0.1
"""


def _openssl(*args):
    subprocess.run(["openssl", *args], check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)


def ensure_certs(cert_dir, ca_name="Vantshrd Ingest Test CA"):
    """Creates the CA and the server certificate unless both exist.

    Returns the paths (ca certificate, server certificate, server key)."""
    os.makedirs(cert_dir, exist_ok=True)
    ca_cert = os.path.join(cert_dir, CA_CERT)
    ca_key = os.path.join(cert_dir, CA_KEY)
    cert = os.path.join(cert_dir, SERVER_CERT)
    key = os.path.join(cert_dir, SERVER_KEY)
    if all(os.path.exists(p) for p in (ca_cert, ca_key, cert, key)):
        return ca_cert, cert, key

    curve = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1"]
    _openssl("req", "-x509", *curve, "-nodes", "-keyout", ca_key,
             "-out", ca_cert, "-days", "3650", "-subj", "/CN=" + ca_name,
             "-addext", "basicConstraints=critical,CA:TRUE",
             "-addext", "keyUsage=critical,keyCertSign,cRLSign")
    with tempfile.TemporaryDirectory(dir=cert_dir) as work:
        csr = os.path.join(work, "server.csr")
        ext = os.path.join(work, "server.ext")
        with open(ext, "w", encoding="ascii") as f:
            f.write(_SERVER_EXTENSIONS)
        _openssl("req", *curve, "-nodes", "-keyout", key, "-out", csr,
                 "-subj", "/CN=127.0.0.1")
        serial = "0x" + os.urandom(8).hex()
        _openssl("x509", "-req", "-in", csr, "-CA", ca_cert, "-CAkey", ca_key,
                 "-set_serial", serial, "-out", cert, "-days", "3650",
                 "-extfile", ext)
    return ca_cert, cert, key
