#!/usr/bin/env python3
"""Loads the sample firewall in a network namespace of its own, and sends what it must take and what it must drop.

Runs itself again inside the namespace. Traffic stays on its loopback device. Status 0: every datagram fared as it should.
"""
import os
import re
import socket
import subprocess
import sys

PORT = 5000
SENDER = "127.0.0.1"
STRANGER = "127.0.0.2"
HEADER = bytes.fromhex("ff00ff00") + bytes([0x82, 0, 0, 0]) + bytes(40)

# What is sent, from where, and whether it comes through.
CASES = [
    ("a header", HEADER, SENDER, True),
    ("the longest packet", HEADER + bytes(1328), SENDER, True),
    ("a packet of unknown type, which is the router's to count", HEADER[:4] + b"\x90" + HEADER[5:], SENDER, True),
    ("a good packet of a stranger", HEADER, STRANGER, False),
    ("an empty datagram", b"", SENDER, False),
    ("47 bytes", HEADER[:47], SENDER, False),
    ("1377 bytes", HEADER + bytes(1329), SENDER, False),
    ("a marker that is one bit off", b"\xfe" + HEADER[1:], SENDER, False),
    ("a marker in the other byte order", bytes.fromhex("00ff00ff") + HEADER[4:], SENDER, False),
    ("version 1", HEADER[:5] + b"\x01" + HEADER[6:], SENDER, False),
    ("the longest datagram, in fragments", bytes(65507), SENDER, False),
]


def rules(path):
    text = open(path, encoding="utf-8").read()
    changed = re.sub(r"(?m)^define sender_addresses = .*$", "define sender_addresses = { %s }" % SENDER, text)
    changed = re.sub(r"(?m)^define router_port = .*$", "define router_port = %d" % PORT, changed)
    return changed


def came_through(receiver, data, source):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
        sender.bind((source, 0))
        sender.sendto(data, (SENDER, PORT))
    # Loopback delivers within the call, so whatever comes is here.
    try:
        return receiver.recv(65536) == data
    except BlockingIOError:
        return False


def try_rules(path):
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    wrong = 0
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as receiver:
        receiver.bind((SENDER, PORT))
        receiver.setblocking(False)
        for description, data, source, _ in CASES:
            if not came_through(receiver, data, source):
                print("without rules, did not come through:", description)
                wrong += 1
        subprocess.run(["nft", "-f", "-"], input=rules(path).encode(), check=True)
        for description, data, source, wanted in CASES:
            came = came_through(receiver, data, source)
            if came != wanted:
                print("came through" if came else "was dropped", ":", description)
                wrong += 1
        # Other protocols and other ports are none of its business.
        with socket.socket() as listener, socket.socket() as client:
            listener.bind((SENDER, PORT))
            listener.listen()
            client.bind((STRANGER, 0))
            client.settimeout(5)
            try:
                client.connect((SENDER, PORT))
            except TimeoutError:
                print("a TCP connection was dropped")
                wrong += 1
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as other:
            other.bind((SENDER, 0))
            other.setblocking(False)
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
                sender.bind((STRANGER, 0))
                sender.sendto(b"x", other.getsockname())
            try:
                other.recv(10)
            except BlockingIOError:
                print("another port lost a datagram")
                wrong += 1
    print("%d cases, %d wrong" % (len(CASES), wrong))
    return 1 if wrong else 0


def main():
    if len(sys.argv) == 3 and sys.argv[1] == "--inside":
        sys.exit(try_rules(sys.argv[2]))
    here = [sys.executable, os.path.abspath(__file__), "--inside", os.path.abspath(sys.argv[1])]
    namespace = ["unshare", "--net"] if os.getuid() == 0 else ["unshare", "--user", "--map-root-user", "--net"]
    sys.exit(subprocess.run(namespace + here).returncode)


main()
