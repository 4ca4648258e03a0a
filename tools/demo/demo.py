#!/usr/bin/env python3
"""The router's main job, shown on real packets, with node lists that come over Kafka.

One router, eight nodes, two senders, a configuration manager and an embedded Kafka broker, each a process of its own, in a
network and mount namespace of their own: the ports are free, and the router's fixed paths (/etc/tolvaine,
/var/log/tolvaine, /dev/log) are private. Everything that is written goes to <build>/demo, and every process ends with this
one.

A first wave of sessions runs on the nodes of the first lists. While it runs, both lists are replaced by ones that have no
node in common with them, and a second wave begins: the first must stay where it is, the second must take the new nodes.

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
import typing

ROUTER_PORT = 5000
ROUTER_TOPIC = f"corvalin_router_127o0o0o1_{ROUTER_PORT}"
REPORT_LIMIT_S = 15  # a report comes every 5 seconds
START_LIMIT_S = 60  # the embedded broker gives a new group its partitions after 3 seconds


class Wave(typing.NamedTuple):
    """Sessions that begin together, and the lists that are in force then."""

    name: str
    sessions: int
    data_packets: int  # of each session
    packets_per_second: int  # in sum a pace at which a busy machine does not overflow the receive buffer
    first_id: int
    writer_ports: tuple
    media_ports: tuple

    @property
    def packets(self):
        return self.sessions * (self.data_packets + 2)


# Long enough to be running still when the second wave begins.
FIRST = Wave("first", 1000, 22, 1000, 1, (6001, 6002), (7001, 7002))
SECOND = Wave("second", 1000, 8, 1000, 100001, (6003, 6004), (7003, 7004))
WAVES = (FIRST, SECOND)
PACKETS = sum(wave.packets for wave in WAVES)

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
    def __init__(self, tools, folder, wave, kind, port):
        self.wave = wave
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


class Conversation:
    """Broker, manager and router, and the lists that go from one to the other."""

    def __init__(self, build, folder):
        self.build = build
        self.folder = folder
        self.router_log = os.path.join(folder, "router.log")
        self.broker = None
        self.manager = None
        self.router = None

    def path(self, *names):
        return os.path.join(self.folder, *names)

    def tool(self, name):
        return os.path.join(self.build, "tools", name)

    def start_broker(self):
        """kafka.conf names the broker, as its port is the kernel's choice."""
        topics = [word for topic in ("requests", "broadcast", ROUTER_TOPIC) for word in ("--topic", topic)]
        self.broker = start(
            [self.tool("corvalin_embedded_broker"), *topics], stdin=subprocess.PIPE, stdout=subprocess.PIPE
        )
        word, _, address = self.broker.stdout.readline().strip().partition(" ")
        if word != "broker":
            raise DemoError("the embedded broker did not start")
        with open(self.path("etc", "corvalin", "kafka.conf"), "w", encoding="utf-8") as file:
            file.write(f"kafka_broker={address}\nkafka_topic_request=requests\nkafka_topic_broadcast=broadcast\n")

    def write_lists(self, wave):
        """Replaces the manager's files as a deployment would: a reader finds the old list or the new one."""
        for kind, ports in (("media", wave.media_ports), ("writer", wave.writer_ports)):
            path = self.path(f"{kind}_nodes.json")
            with open(path + ".next", "w", encoding="utf-8") as file:
                json.dump([{"ip": "127.0.0.1", "port": port} for port in ports], file)
            os.replace(path + ".next", path)

    def start_manager(self):
        self.manager = start(
            [
                *(self.tool("corvalin_config_manager"), "run"),
                *("--media", self.path("media_nodes.json")),
                *("--writer", self.path("writer_nodes.json")),
                *("--state", self.path("node_lists.json")),
                *("--kafka-config", self.path("etc", "corvalin", "kafka.conf")),
                *("--poll-ms", "20"),
            ],
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
        )
        threading.Thread(target=self._show_manager, daemon=True).start()

    def _show_manager(self):
        for line in self.manager.stdout:
            print(f"  manager: {line.rstrip()}", flush=True)

    def start_router(self):
        with open(self.router_log, "w", encoding="utf-8") as log:
            self.router = start(
                [os.path.join(self.build, "router", "corvalin_router"), "--args", f"port={ROUTER_PORT}"], stderr=log
            )
        self.wait_for_router(lambda: udp_port_is_open(ROUTER_PORT), "the router to open its port")

    def wait_for_router(self, condition, what):
        wait_until(lambda: condition() or self.router.poll() is not None, START_LIMIT_S, what)
        if self.router.poll() is not None:
            raise DemoError(f"the router ended with status {self.router.returncode}; see {self.router_log}")

    def wait_for_lists(self, wave):
        """Until the router has replaced both its lists by those of the wave."""

        def has_taken_both():
            with open(self.router_log, encoding="utf-8") as file:
                log = file.read()
            return all(taken_up(log, kind, WAVES.index(wave) + 1) for kind in ("media", "writer"))

        self.wait_for_router(has_taken_both, f"the router to take up the {wave.name} lists")

    def stop(self):
        """Ends all three; the exit status of each."""
        statuses = {}
        for name, process in (("router", self.router), ("manager", self.manager)):
            process.send_signal(signal.SIGTERM)
            statuses[name] = process.wait(timeout=60)
        self.broker.stdin.close()
        statuses["broker"] = self.broker.wait(timeout=60)
        return statuses


def taken_up(log, kind, version):
    """True if the router's log shows that a list with this version has reached its handler."""
    received = re.search(rf'JSON event received: {{"type":"corvalin_{kind}_nodes","version":{version},', log)
    return bool(received) and f"SERVICE: event [corvalin_{kind}_nodes] received" in log[received.end() :]


class Sender:
    def __init__(self, tools, wave):
        self.process = start(
            [
                os.path.join(tools, "corvalin_media_sender"),
                str(ROUTER_PORT),
                *("--sessions", str(wave.sessions)),
                *("--packets", str(wave.data_packets)),
                *("--rate", str(wave.packets_per_second)),
                *("--id-base", str(wave.first_id)),
                *("--flags", "both"),
                "--json",
            ],
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
        )

    def is_running(self):
        return self.process.poll() is None

    def summary(self):
        return json.load(self.process.stdout)["total"]


def run_inside(build, folder):
    tools = os.path.join(build, "tools")
    sink = SyslogSink("log.socket")
    sink.start()
    nodes = []
    for wave in WAVES:
        nodes += [Node(tools, folder, wave, "writer", port) for port in wave.writer_ports]
        nodes += [Node(tools, folder, wave, "media", port) for port in wave.media_ports]
    for node in nodes:
        wait_until(lambda port=node.port: udp_port_is_open(port), 10, f"the node on port {node.port}")

    conversation = Conversation(build, folder)
    print("Starting the broker, the configuration manager and corvalin_router, which has no node lists of its own")
    conversation.start_broker()
    conversation.write_lists(FIRST)
    conversation.start_manager()
    conversation.start_router()
    conversation.wait_for_lists(FIRST)

    print(f"First wave: {FIRST.sessions} interleaved sessions of {FIRST.data_packets + 2} packets each")
    first = Sender(tools, FIRST)
    # Each session sends one packet in turn, so all have begun by then.
    wait_until(lambda: sum(node.received for node in nodes) >= 4 * FIRST.sessions, 30, "all sessions to begin")
    print("Replacing both lists while these sessions run")
    before = time.monotonic()
    conversation.write_lists(SECOND)
    conversation.wait_for_lists(SECOND)
    delay_ms = (time.monotonic() - before) * 1000
    print(f"The router took up both lists {delay_ms:.0f} ms after they were written")
    print(f"Second wave: {SECOND.sessions} interleaved sessions of {SECOND.data_packets + 2} packets each")
    second = Sender(tools, SECOND)
    has_overlapped = first.is_running()
    while first.is_running() or second.is_running():
        show_progress(nodes, "sending")
        time.sleep(0.2 if sys.stdout.isatty() else 1)
    sent = {FIRST: first.summary(), SECOND: second.summary()}
    show_progress(nodes, "waiting for the next report")
    # A report that has all packets comes at the latest five seconds after them; nodes have them long before.
    report = sink.wait_for_report(lambda counters: counters["packet queue passed elements number"] >= PACKETS)
    show_progress(nodes, "done")
    print()
    summaries = [(node, node.finish()) for node in nodes]
    faults = [] if has_overlapped else ["the first wave was over before the second began"]
    faults += [
        f"the {name} ended with status {status}" for name, status in conversation.stop().items() if status != 0
    ]
    return judge(sent, summaries, report, faults)


def judge(sent, summaries, report, faults):
    print()
    print(f"{'node':<22}{'in lists':>10}" + "".join(f"{title:>13}" for title in COLUMNS))
    totals = collections.defaultdict(collections.Counter)
    for node, summary in summaries:
        row = "".join(f"{summary[name]:>13}" for name in COLUMNS.values())
        print(f"{node.kind + ' 127.0.0.1:' + str(node.port):<22}{node.wave.name:>10}{row}")
        totals[node.wave, node.kind].update(summary)
    for (wave, kind), total in totals.items():
        # No gap and no repeat: each session is wholly on one node. The waves' sessions differ in length, so the sums also
        # tell that no session of one wave is among those of the other.
        expected = {
            "sessions": wave.sessions,
            "ended_sessions": wave.sessions,
            "datagrams": wave.packets,
            "bytes": sent[wave]["bytes"],
        }
        for name in ("gaps", "repeats", "after_end", "invalid", "changed", "kernel_drops"):
            expected[name] = 0
        faults += [
            f"{kind} nodes of the {wave.name} lists: {name.replace('_', ' ')} {total[name]}, and should be {value}"
            for name, value in expected.items()
            if total[name] != value
        ]
    print()
    if report is None:
        faults.append("no statistic report arrived")
    else:
        print(report)
        faults += judge_counters(counters_of(report))
    print()
    for fault in faults:
        print(f"FAILED: {fault}")
    if not faults:
        print("Sessions that ran when the lists changed stayed on their nodes, and new ones took the new nodes.")
        print(f"Every one of {PACKETS} packets reached its writer node and its media node, changed in nothing but seq.")
    return 1 if faults else 0


def judge_counters(counters):
    expected = {
        "packet queue passed elements number": PACKETS,
        "packet 'start' type number": sum(wave.sessions for wave in WAVES),
        "packet 'data'  type number": sum(wave.sessions * wave.data_packets for wave in WAVES),
        "packet 'term'  type number": sum(wave.sessions for wave in WAVES),
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
