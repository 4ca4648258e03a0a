#!/usr/bin/python3
"""Measures what a change of the node lists costs a router, and how soon new sessions take it up.

  latency   from the moment a list is handed to the manager's Kafka client to the first packet of a session on it, on the
            embedded broker, which answers an empty fetch after 500 ms, and on Apache Kafka
  swaps     processor time of the two media threads for each forwarded packet while lists are swapped 100 times a second
            and while they are not, in turns, and packets lost meanwhile; on Apache Kafka
  changes   1000 changes at load: every session must lie wholly on nodes of one list; on Apache Kafka

Belongs to /usr/bin/python3, which sees Debian's python3-kafka, and into a network namespace of its own with private
fixed paths, see bench/run.py.
"""

import argparse
import collections
import contextlib
import ctypes
import dataclasses
import json
import os
import pathlib
import random
import re
import select
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import zlib

import kafka

BENCH_DIR = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(BENCH_DIR))

from figures import Figure, ratio  # noqa: E402
from load.subjects import (  # noqa: E402
    KAFKA_CONF, KAFKA_SCRIPT, SEED, SETTLE_LIMIT_S, SETTLE_LOAD, SETTLE_S, Broker, LoadError, packet, udp_drops,
    udp_socket,
)  # fmt: skip
from load.whole_process import BURST_RATE, BURSTS, SESSIONS_FEW, START_RATE, say  # noqa: E402

KERNEL_SETTINGS = BENCH_DIR.parent / "packaging/sysctl/50-corvalin_router.conf"
SYS_PIDFD_GETFD = 438
SO_RCVBUFFORCE = 33
MEDIA_NODES = "corvalin_media_nodes"
NODE_PORT = 7100
OTHER_PORTS = (7200, 7201)  # of a list that nobody's sessions are on
START_LIMIT_S = 60
ANSWER_LIMIT_S = 30
PROBE_INTERVAL_S = 0.0005
SWAPS_PER_SECOND = 100
CHANGES = 1000
CHANGE_LOAD_RATE = 10_000


class Manager:
    """Sends media lists with rising versions to one router."""

    def __init__(self, broker, topic):
        self._producer = kafka.KafkaProducer(bootstrap_servers=broker.address, api_version=(0, 11), linger_ms=0)
        self._topic = topic
        self._version = 0

    def publish(self, ports):
        """Does not wait; the result can be waited for."""
        self._version += 1
        nodes = [{"ip": "127.0.0.1", "port": port} for port in ports]
        event = {"type": MEDIA_NODES, "version": self._version, "data": nodes}
        payload = zlib.compress(b"\0" + json.dumps(event).encode())
        return self._producer.send(self._topic, payload, partition=0)

    def stop(self):
        self._producer.close(ANSWER_LIMIT_S)


class Router:
    def __init__(self, build_dir, folder, broker, port):
        self.port = port
        self.topic = f"corvalin_router_127o0o0o1_{port}"
        for topic in ("requests", "broadcast"):
            with contextlib.suppress(LoadError):  # there is one from the router before
                broker.create_topic(topic)
        broker.create_topic(self.topic)
        KAFKA_CONF.write_text(
            f"kafka_broker={broker.address}\nkafka_topic_request=requests\nkafka_topic_broadcast=broadcast\n"
        )
        self._log = pathlib.Path(folder) / f"router-{port}.log"
        with open(self._log, "w", encoding="utf-8") as log:
            self._process = subprocess.Popen(
                [str(build_dir / "router/corvalin_router"), "--args", f"port={port},log_level=WARNING"], stderr=log
            )
        self._wait(lambda: udp_socket(port) is not None, "its port")
        self._wait(lambda: self._media_threads() is not None, "its reader")

    def _wait(self, condition, what):
        limit = time.monotonic() + START_LIMIT_S
        while not condition():
            if self._process.poll() is not None or time.monotonic() > limit:
                raise LoadError(f"the router does not come to {what}")
            time.sleep(0.02)

    def _media_threads(self):
        reader = re.search(r"PACKETS_READER: thread \[(\d+)\] started", self._log.read_text(encoding="utf-8"))
        return (self._process.pid, int(reader.group(1))) if reader else None

    def _receive_socket(self):
        """A descriptor of our own of the socket that the router receives by."""
        inode = next(
            line.split()[9]
            for line in pathlib.Path("/proc/net/udp").read_text().splitlines()[1:]
            if int(line.split()[1].split(":")[1], 16) == self.port
        )
        folder = pathlib.Path(f"/proc/{self._process.pid}/fd")
        number = next(int(entry.name) for entry in folder.iterdir() if os.readlink(entry) == f"socket:[{inode}]")
        process = os.pidfd_open(self._process.pid)
        try:
            descriptor = ctypes.CDLL(None, use_errno=True).syscall(SYS_PIDFD_GETFD, process, number, 0)
        finally:
            os.close(process)
        if descriptor < 0:
            raise LoadError(f"cannot reach the router's socket: {os.strerror(ctypes.get_errno())}")
        return socket.socket(fileno=descriptor)

    def enlarge_receive_buffer(self):
        """To what the packaged kernel settings give a router. The setting itself would be the whole machine's.

        Returns the size, which is less than that without the privilege.
        """
        text = KERNEL_SETTINGS.read_text(encoding="utf-8")
        wanted = int(re.search(r"^net\.core\.rmem_default = (\d+)$", text, re.MULTILINE).group(1))
        with self._receive_socket() as receiver:
            if receiver.getsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF) < wanted:
                half = wanted // 2  # the kernel doubles what is asked for, and not its own default
                try:
                    receiver.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, half)
                except PermissionError:
                    receiver.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, half)
            return receiver.getsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF)

    def wait_for_lists(self, count):
        received = f"SERVICE: event [{MEDIA_NODES}] received"
        self._wait(lambda: self._log.read_text(encoding="utf-8").count(received) >= count, f"{count} lists")

    def media_cpu_ns(self):
        """Of the thread that receives and the one that forwards."""
        tasks = pathlib.Path(f"/proc/{self._process.pid}/task")
        return sum(int((tasks / str(thread) / "schedstat").read_text().split()[0]) for thread in self._media_threads())

    def wait_until_forwarded(self, *node_ports):
        """Until nothing waits at the sockets, and nothing in the process: its media threads do next to no work."""
        limit = time.monotonic() + SETTLE_LIMIT_S
        is_settled = False
        while not is_settled and time.monotonic() < limit:
            cpu_before = self.media_cpu_ns()
            time.sleep(SETTLE_S)
            queued = sum(udp_socket(port)[0] for port in (self.port, *node_ports))
            is_settled = queued == 0 and self.media_cpu_ns() - cpu_before < SETTLE_LOAD * SETTLE_S * 1e9

    def stop(self):
        self._process.terminate()
        if self._process.wait(60) != 0:
            raise LoadError(f"the router ended with status {self._process.returncode}")


def latency_of_change(manager, router, sender, old, new, sessions):
    """Seconds until a session reaches `new`; sessions begin every half millisecond meanwhile."""
    while select.select([new, old], [], [], 0)[0]:
        for node in select.select([new, old], [], [], 0)[0]:
            node.recv(2048)
    begin = time.perf_counter()
    manager.publish([new.getsockname()[1]])
    while time.perf_counter() - begin < ANSWER_LIMIT_S:
        session = next(sessions)
        sender.send(packet(0x81, session, 1, 88))
        sender.send(packet(0x82, session, 2, 48))
        if select.select([new], [], [], PROBE_INTERVAL_S)[0]:
            return time.perf_counter() - begin
    raise LoadError(f"no session on the new list of the router on port {router.port}")


def measure_latency(build_dir, folder, name, broker, port, changes, target_ms):
    say(f"latency of {changes} lists, {name}")
    router = Router(build_dir, folder, broker, port)
    manager = Manager(broker, router.topic)
    nodes = []
    for _ in range(2):
        node = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        node.bind(("127.0.0.1", 0))
        nodes.append(node)
    sender = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sender.connect(("127.0.0.1", port))
    sessions = iter(range(1, 1 << 62))
    chance = random.Random(SEED)
    values = []
    for change in range(changes + 1):
        value = latency_of_change(manager, router, sender, nodes[change % 2], nodes[1 - change % 2], sessions)
        if change > 0:  # the first one fetches metadata
            values.append(value * 1000)
        time.sleep(chance.uniform(0.05, 0.3))  # so that changes fall anywhere into a fetch
    manager.stop()
    router.stop()
    values.sort()
    worst, at = target_ms
    shown = {"median": values[len(values) // 2], "worst": values[-1]}
    distribution = ", ".join(
        f"{percent} % in {values[min(len(values) - 1, len(values) * percent // 100)]:.1f}" for percent in (10, 90, 99)
    )
    return [Figure(f"list to first session, {at}, {name}", [shown[at]], "ms", worst, distribution + " ms"),
            Figure(f"list to first session, all {changes}, {name}", values, "ms")]


class Swapper(threading.Thread):
    """Publishes the lists in turn at a steady pace until it is stopped or has published `limit` of them."""

    def __init__(self, manager, lists, limit=None):
        super().__init__(daemon=True)
        self._manager = manager
        self._lists = lists
        self._limit = limit
        self._ended = threading.Event()
        self.published = 0
        self.seconds = 0.0

    def run(self):
        begin = time.monotonic()
        while not self._ended.is_set() and self.published != self._limit:
            last = self._manager.publish(self._lists[self.published % len(self._lists)])
            self.published += 1
            time.sleep(max(0.0, begin + self.published / SWAPS_PER_SECOND - time.monotonic()))
        last.get(ANSWER_LIMIT_S)
        self.seconds = time.monotonic() - begin

    def stop(self):
        self._ended.set()
        self.join()


def run_sender(build_dir, port, *options):
    command = [build_dir / "tools/corvalin_media_sender", port, "--json", "--flags", "media", "--seed", SEED, *options]
    done = subprocess.run(
        [str(word) for word in command], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, check=True
    )
    return json.loads(done.stdout)


@contextlib.contextmanager
def running_node(build_dir, ports, *options):
    """A list that holds the node's summary when the block is left."""
    command = [build_dir / "tools/corvalin_media_node", "--json", *options]
    for port in ports:
        command += ["--port", port]
    node = subprocess.Popen([str(word) for word in command], stdout=subprocess.PIPE, text=True)
    node.stdout.readline()
    summary = []
    try:
        yield summary
    finally:
        node.send_signal(signal.SIGTERM)
        summary.append(json.loads(node.communicate()[0]))


def places(lost):
    return ", ".join(f"{place} {count}" for place, count in sorted(lost.items()))


def measure_swaps(build_dir, folder, broker, port, rounds, seconds):
    say(f"{SWAPS_PER_SECOND} swaps a second, {rounds} rounds of {seconds:g} s, {BURST_RATE} packets a second")
    router = Router(build_dir, folder, broker, port)
    buffer_bytes = router.enlarge_receive_buffer()
    manager = Manager(broker, router.topic)
    manager.publish([NODE_PORT]).get(ANSWER_LIMIT_S)
    router.wait_for_lists(1)
    time.sleep(0.1)  # the balancer takes the list right behind that line
    with running_node(build_dir, [NODE_PORT], "--discard") as summary:
        run_sender(build_dir, port, "--sessions", SESSIONS_FEW, "--packets", 0, "--no-terminate", "--rate", START_RATE)
        router.wait_until_forwarded(NODE_PORT)
    if summary[0]["total"]["datagrams"] != SESSIONS_FEW:
        raise LoadError("not all sessions were begun")
    next_seq = 2
    lists = 1
    cpu = {"swaps": [], "quiet": []}
    lost = {"swaps": collections.Counter(), "quiet": collections.Counter()}
    rates = []
    for index in range(rounds):
        for kind in ("swaps", "quiet") if index % 2 else ("quiet", "swaps"):
            swapper = Swapper(manager, [OTHER_PORTS, [NODE_PORT]])
            with running_node(build_dir, [NODE_PORT], "--discard") as summary:
                before, drops_before = router.media_cpu_ns(), udp_drops(port)
                if kind == "swaps":
                    swapper.start()
                sent = run_sender(
                    build_dir, port, "--sessions", SESSIONS_FEW, "--no-start", "--no-terminate", "--endless",
                    "--rate", BURST_RATE, "--duration", seconds, "--first-seq", next_seq, "--datagram-bytes", 376,
                    *BURSTS,
                )  # fmt: skip
                if kind == "swaps":
                    swapper.stop()
                    rates.append(swapper.published / swapper.seconds)
                    lists += swapper.published
                    router.wait_for_lists(lists)
                router.wait_until_forwarded(NODE_PORT)
                used = router.media_cpu_ns() - before
            next_seq += int(BURST_RATE * seconds) + 1
            received = summary[0]["total"]["datagrams"]
            cpu[kind].append(used / received)
            lost_now = collections.Counter()
            lost_now["router's socket"] = udp_drops(port) - drops_before
            lost_now["node's socket"] = summary[0]["total"]["kernel_drops"]
            lost_now["router"] = sent["total"]["datagrams"] - received - lost_now.total()
            lost[kind].update(lost_now)
            say(f"    {kind:6} {used / received:6.0f} ns a packet, {received} packets, lost: {places(lost_now)}")
    manager.stop()
    router.stop()
    note = f"{min(rates):.1f} swaps a second at least"
    lost_note = f"{places(lost['swaps'])}; without swaps {places(lost['quiet'])}; receive buffer {buffer_bytes} bytes"
    return [
        ratio("CPU of the media threads per packet, swaps / none", cpu["swaps"], cpu["quiet"], target=1.05, note=note),
        Figure("packets lost, swaps", [lost["swaps"].total()], target=0, note=lost_note),
        Figure("CPU of the media threads per packet, swaps", cpu["swaps"], "ns"),
        Figure("CPU of the media threads per packet, none", cpu["quiet"], "ns"),
    ]


def measure_changes(build_dir, folder, broker, port):
    say(f"{CHANGES} changes at {CHANGE_LOAD_RATE} packets a second")
    router = Router(build_dir, folder, broker, port)
    manager = Manager(broker, router.topic)
    lists = [(NODE_PORT, NODE_PORT + 1), OTHER_PORTS]
    manager.publish(lists[1]).get(ANSWER_LIMIT_S)
    router.wait_for_lists(1)
    time.sleep(0.1)
    with running_node(build_dir, [port for ports in lists for port in ports], "--no-check") as summary:
        swapper = Swapper(manager, lists, CHANGES)
        swapper.start()
        sent = run_sender(
            build_dir, port, "--sessions", 100_000_000, "--live", 200, "--packets", 18, "--rate", CHANGE_LOAD_RATE,
            "--duration", CHANGES / SWAPS_PER_SECOND + 1,
        )  # fmt: skip
        swapper.join()
        router.wait_for_lists(1 + CHANGES)
        router.wait_until_forwarded(*lists[0], *lists[1])
    manager.stop()
    router.stop()
    total = summary[0]["total"]
    # A session on two ports would count at both, with a gap at each.
    begun = sent["start"]["datagrams"]
    faults = sum(total[name] for name in ("gaps", "repeats", "after_end", "invalid")) + abs(total["sessions"] - begun)
    faults += abs(total["datagrams"] - sent["total"]["datagrams"]) + abs(total["ended_sessions"] - begun)
    return [Figure(f"faults of sessions at {CHANGES} changes", [faults], target=0, note=f"{begun} sessions")]


def measure(build_dir, folder, arguments):
    figures = []
    if "latency" in arguments.modes:
        broker = Broker([build_dir / "tools/corvalin_embedded_broker"])
        figures += measure_latency(
            build_dir, folder, "embedded broker", broker, 5400, arguments.latency_changes, (600, "worst")
        )
        broker.stop()
    broker = Broker([sys.executable, KAFKA_SCRIPT])
    if "latency" in arguments.modes:
        figures += measure_latency(
            build_dir, folder, "Apache Kafka", broker, 5401, arguments.latency_changes, (50, "median")
        )
    if "swaps" in arguments.modes:
        figures += measure_swaps(build_dir, folder, broker, 5402, arguments.rounds, arguments.seconds)
    if "changes" in arguments.modes:
        figures += measure_changes(build_dir, folder, broker, 5403)
    broker.stop()
    return figures


MODES = ["latency", "swaps", "changes"]


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build-dir", type=pathlib.Path, required=True)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--seconds", type=float, default=60, help="length of a run of swaps")
    parser.add_argument("--latency-changes", type=int, default=100)
    parser.add_argument("--modes", nargs="+", choices=MODES, default=MODES)
    parser.add_argument("--output", type=pathlib.Path, required=True, help="JSON of the figures")
    arguments = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    with tempfile.TemporaryDirectory() as folder:
        figures = measure(arguments.build_dir.resolve(), folder, arguments)
    arguments.output.write_text(json.dumps([dataclasses.asdict(figure) for figure in figures]))


if __name__ == "__main__":
    try:
        main()
    except LoadError as error:
        sys.exit(f"configuration: {error}")
