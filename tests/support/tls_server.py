#!/usr/bin/env python3
"""A server for https on 127.0.0.1 that answers every GET with an empty catalogue, for tests that are not in Python.

Makes its own certificate, and one that has nothing to do with it, in the directory given: cert.pem and other.pem.
Prints its port, and ends when it is asked for /v1/quit, or when nobody has asked for that in a minute.
"""
import sys
import threading

from fake_server import FakeServer, answering, make_certificate, tls_context
from replies import json_reply


def main():
    quitted = threading.Event()

    def answer(method, target, body):
        if target == "/v1/quit":
            quitted.set()
        return json_reply("[]")

    make_certificate(sys.argv[1], "other")
    server = FakeServer(answering(answer), tls=tls_context(sys.argv[1]))
    print(server.port, flush=True)
    try:
        return 0 if quitted.wait(60) else 1
    finally:
        server.close()


if __name__ == "__main__":
    sys.exit(main())
