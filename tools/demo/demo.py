#!/usr/bin/env python3
"""The router's main job, shown on real packets.

One router, two writer nodes, two media nodes and a sender, each a process of its own, in a network and mount namespace
of their own: the ports are free, and the router's fixed paths (/etc/tolvaine, /var/log/tolvaine, /dev/log) are private.
Everything that is written goes to <build>/demo, and every process ends with this one.

Exit status: 0 if every packet arrived as it should, 1 otherwise, 2 if the demo could not be run.
"""

import argparse
import collections
import ctypes
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import threading
import time

SESSIONS = 1000
DATA_PACKETS = 18  # for each session
PACKETS_PER_SECOND = 5000  # a pace at which a busy machine does not overflow the receive buffer
ROUTER_PORT = 5000
WRITER_PORTS = (6001, 6002)
MEDIA_PORTS = (7001, 7002)
PACKETS = SESSIONS * (DATA_PACKETS + 2)
REPORT_LIMIT_S = 15  # a report comes every 5 seconds

# Title of each column, and the name of its figure in a node's summary.
COLUMNS = {
    "sessions": "sessions",
    "packets": "datagrams",
    "bytes": "bytes",
    "gaps in seq": "gaps",
    "changed": "changed",
}

PR_SET_PDEATHSIG = 1
LIBC = ctypes.CDLL(None)


class DemoError(Exception):
    """The demo could not be run."""


def die_with_parent():
    """Runs in a new child: it must not outlive the demo, whatever becomes of that."""
    LIBC.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)


def start(command, **options):
    return subprocess.Popen(command, preexec_fn=die_with_parent, text=True, **options)


class SyslogSink(threading.Thread):
    """The demo's own log daemon: keeps the last statistic report and the number of lines."""

    REPORT_PRIORITY = "<133>"  # LOG_LOCAL0 with LOG_NOTICE

    def __init__(self, path):
        super().__init__(daemon=True)
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(path)
        self.condition = threading.Condition()
        self.lines = 0
        self.report = None

    def run(self):
        while True:
            record = self.socket.recv(65536).decode("utf-8", "replace")
            with self.condition:
                self.lines += 1
                if record.startswith(self.REPORT_PRIORITY):
                    self.report = record[record.index("\n") + 1 :].rstrip("\n\0")
                    self.condition.notify_all()

    def wait_for_report(self, is_wanted):
        """The first report for which `is_wanted` of its counters is true, or the last one when the limit is over."""
        with self.condition:
            self.condition.wait_for(
                lambda: self.report is not None and is_wanted(counters_of(self.report)), REPORT_LIMIT_S
            )
            return self.report


def counters_of(report):
    """Maps the label of each counter, without its dots, to the value."""
    rows = re.findall(r"^\* (.*?)\.*: (\d+) *\*$", report, re.MULTILINE)
    return {label: int(value) for label, value in rows}


def wait_until(condition, limit_s, what):
    deadline = time.monotonic() + limit_s
    while not condition():
        if time.monotonic() > deadline:
            raise DemoError(f"waited {limit_s} s in vain for {what}")
        time.sleep(0.02)


def udp_port_is_open(port):
    with open("/proc/net/udp", encoding="ascii") as table:
        return any(line.split()[1].endswith(f":{port:04X}") for line in table.readlines()[1:])


class Node:
    def __init__(self, tools, folder, kind, port):
        self.kind = kind
        self.port = port
        self.summary_path = os.path.join(folder, f"node-{port}.json")
        self.received = 0
        self.process = start(
            [
                os.path.join(tools, "corvalin_media_node"),
                *("--port", str(port)),
                "--verify-content",
                *("--progress", "250"),
                "--json",
                *("--output", self.summary_path),
            ],
            stdout=subprocess.DEVNULL,
            stderr=subprocess.PIPE,
        )
        self.reader = threading.Thread(target=self._follow_progress, daemon=True)
        self.reader.start()

    def _follow_progress(self):
        for line in self.process.stderr:
            match = re.match(r"received (\d+) datagrams", line)
            if match:
                self.received = int(match.group(1))

    def finish(self):
        self.process.send_signal(signal.SIGTERM)
        self.process.wait(timeout=10)
        with open(self.summary_path, encoding="utf-8") as file:
            return json.load(file)["total"]


def show_progress(nodes, state):
    """One line that is written over on a terminal, and a line each time in a log."""
    total = sum(node.received for node in nodes)
    line = f"  {total:6d} of {2 * PACKETS} packets at the nodes ({state})"
    print(f"\r{line:<70}" if sys.stdout.isatty() else line, end="" if sys.stdout.isatty() else "\n", flush=True)


def start_broker(tools, folder):
    """Ends with the demo. kafka.conf names it, as its port is the kernel's choice."""
    broker = start(
        [os.path.join(tools, "corvalin_embedded_broker"), *("--topic", "requests"), *("--topic", "broadcast")],
        stdin=subprocess.PIPE,
        stdout=subprocess.PIPE,
    )
    word, _, address = broker.stdout.readline().strip().partition(" ")
    if word != "broker":
        raise DemoError("the embedded broker did not start")
    with open(os.path.join(folder, "etc", "corvalin", "kafka.conf"), "w", encoding="utf-8") as file:
        file.write(f"kafka_broker={address}\nkafka_topic_request=requests\nkafka_topic_broadcast=broadcast\n")


def run_inside(build, folder):
    tools = os.path.join(build, "tools")
    sink = SyslogSink("log.socket")
    sink.start()
    nodes = [Node(tools, folder, "writer", port) for port in WRITER_PORTS]
    nodes += [Node(tools, folder, "media", port) for port in MEDIA_PORTS]
    for node in nodes:
        wait_until(lambda port=node.port: udp_port_is_open(port), 10, f"the node on port {node.port}")

    def addresses(ports):
        return ",,".join(f"127.0.0.1:{port}" for port in ports)

    start_broker(tools, folder)
    options = f"port={ROUTER_PORT},writer_node={addresses(WRITER_PORTS)},media_node={addresses(MEDIA_PORTS)}"
    router_log = os.path.join(folder, "router.log")
    print(f"Starting corvalin_router with --args {options}")
    with open(router_log, "w", encoding="utf-8") as log:
        router = start([os.path.join(build, "router", "corvalin_router"), "--args", options], stderr=log)
    wait_until(
        lambda: udp_port_is_open(ROUTER_PORT) or router.poll() is not None, 30, "the router to open its port"
    )
    if router.poll() is not None:
        raise DemoError(f"the router ended with status {router.returncode}; see {router_log}")

    print(f"Sending {SESSIONS} interleaved sessions of {DATA_PACKETS + 2} packets each")
    sender = start(
        [
            os.path.join(tools, "corvalin_media_sender"),
            str(ROUTER_PORT),
            *("--sessions", str(SESSIONS)),
            *("--packets", str(DATA_PACKETS)),
            *("--rate", str(PACKETS_PER_SECOND)),
            *("--flags", "both"),
            "--json",
        ],
        stdout=subprocess.PIPE,
        stderr=subprocess.DEVNULL,
    )
    while sender.poll() is None:
        show_progress(nodes, "sending")
        time.sleep(0.2 if sys.stdout.isatty() else 1)
    sent = json.load(sender.stdout)["total"]
    show_progress(nodes, "waiting for the next report")
    # A report that has all packets comes at the latest five seconds after them; nodes have them long before.
    report = sink.wait_for_report(lambda counters: counters["packet queue passed elements number"] >= PACKETS)
    show_progress(nodes, "done")
    print()
    summaries = [(node, node.finish()) for node in nodes]
    router.send_signal(signal.SIGTERM)
    router_status = router.wait(timeout=20)
    return judge(sent, summaries, report, router_status)


def judge(sent, summaries, report, router_status):
    print()
    print(f"{'node':<22}" + "".join(f"{title:>15}" for title in COLUMNS))
    faults = []
    totals = {kind: collections.Counter() for kind in ("writer", "media")}
    for node, summary in summaries:
        row = [summary[name] for name in COLUMNS.values()]
        print(f"{node.kind + ' 127.0.0.1:' + str(node.port):<22}" + "".join(f"{value:>15}" for value in row))
        totals[node.kind].update(summary)
    for kind, total in totals.items():
        expected = {"sessions": SESSIONS, "ended_sessions": SESSIONS, "datagrams": PACKETS, "bytes": sent["bytes"]}
        for name in ("gaps", "repeats", "after_end", "invalid", "changed", "kernel_drops"):
            expected[name] = 0
        faults += [
            f"{kind} nodes: {name.replace('_', ' ')} {total[name]}, and should be {value}"
            for name, value in expected.items()
            if total[name] != value
        ]
    print()
    if report is None:
        faults.append("no statistic report arrived")
    else:
        print(report)
        faults += judge_counters(counters_of(report))
    if router_status != 0:
        faults.append(f"the router ended with status {router_status}")
    print()
    for fault in faults:
        print(f"FAILED: {fault}")
    if not faults:
        print(f"Every one of {PACKETS} packets reached its writer node and its media node, changed in nothing but seq.")
    return 1 if faults else 0


def judge_counters(counters):
    expected = {
        "packet queue passed elements number": PACKETS,
        "packet 'start' type number": SESSIONS,
        "packet 'data'  type number": SESSIONS * DATA_PACKETS,
        "packet 'term'  type number": SESSIONS,
        "session number": 0,
        "session lost packets number": 0,
        "session sequence break errors number": 0,
        "session unknown index errors number": 0,
    }
    return [
        f"counter [{label}] is {counters.get(label)} and should be {value}"
        for label, value in expected.items()
        if counters.get(label) != value
    ]


def run_outside(build):
    """Prepares the private paths and runs this script again inside the namespaces."""
    folder = os.path.join(build, "demo")
    shutil.rmtree(folder, ignore_errors=True)
    for name in ("etc/corvalin", "log"):
        os.makedirs(os.path.join(folder, name))
    return subprocess.call(
        [
            os.path.join(build, "tools", "corvalin_private_run"),
            "--net",
            *("--etc", os.path.join(folder, "etc")),
            *("--log", os.path.join(folder, "log")),
            *("--dev-log", os.path.join(folder, "log.socket")),
            "--",
            *(sys.executable, os.path.abspath(__file__), "--inside", build),
        ],
        preexec_fn=die_with_parent,
    )


def main():
    parser = argparse.ArgumentParser(description="Runs the router on real packets and shows what arrived.")
    parser.add_argument("build", help="build folder of the release preset")
    parser.add_argument("--inside", action="store_true", help=argparse.SUPPRESS)
    arguments = parser.parse_args()
    build = os.path.abspath(arguments.build)
    if not arguments.inside:
        return run_outside(build)
    folder = os.path.join(build, "demo")
    os.chdir(folder)  # a socket's path may have 107 characters only, so it is bound by a relative one
    return run_inside(build, folder)


if __name__ == "__main__":
    try:
        sys.exit(main())
    except (DemoError, OSError, subprocess.SubprocessError) as error:
        print(f"\nThe demo could not be run: {error}", file=sys.stderr)
        sys.exit(2)
