#!/usr/bin/env python3
"""A server for https on 127.0.0.1 that answers every GET with an empty catalogue.

Makes its own certificate, and one that has nothing to do with it, in the directory given: cert.pem and other.pem.
Prints its port, and ends when it is asked for /v1/quit, or when nobody asks for a minute.
"""

import os
import socket
import ssl
import subprocess
import sys


def make_certificate(folder, name):
    path = os.path.join(folder, name)
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=test",
                    "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", path + ".key", "-out", path + ".pem"],
                   check=True, stderr=subprocess.DEVNULL, timeout=60)
    return path


def serve(conn, context):
    """Answers one request; true when it was the last."""
    conn.settimeout(20)
    with context.wrap_socket(conn, server_side=True) as tls:
        head = b""
        while b"\r\n\r\n" not in head:
            more = tls.recv(4096)
            if not more:
                return False
            head += more
        tls.sendall(b"HTTP/1.1 200 OK\r\nConnection: close\r\nContent-length: 2\r\n\r\n[]")
        return head.startswith(b"GET /v1/quit ")


def main():
    own = make_certificate(sys.argv[1], "cert")
    make_certificate(sys.argv[1], "other")
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(own + ".pem", own + ".key")
    with socket.create_server(("127.0.0.1", 0)) as listener:
        listener.settimeout(60)
        print(listener.getsockname()[1], flush=True)
        done = False
        while not done:
            try:
                conn, _ = listener.accept()
            except socket.timeout:
                return 1
            try:
                with conn:
                    done = serve(conn, context)
            except OSError:  # a client that does not trust the certificate
                pass
    return 0


if __name__ == "__main__":
    sys.exit(main())
