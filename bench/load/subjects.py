"""The processes of a load test: what is measured, what sends to it and what receives from it.

All of them run in this process's network namespace, which should be one of its own: the ports are fixed, and
nobody else's traffic is then in the counters.
"""

import dataclasses
import glob
import json
import os
import pathlib
import resource
import shutil
import signal
import struct
import subprocess
import time

NODE_PORT = 7100
DATAGRAM_BYTES = 376
START_LIMIT_S = 60  # the router waits for its broker before it opens its port
SETTLE_S = 0.1  # several turns of the node, which looks for datagrams every millisecond
SETTLE_LIMIT_S = 10
SETTLE_LOAD = 0.02  # processors
REST_S = 0.5
REST_LOAD = 0.1  # processors
SEED = 20210101
START_GROUP = 100_000
START_ATTEMPTS = 4


# As the router sees it; the network and the paths are private ones.
KAFKA_CONF = pathlib.Path("/etc/tolvaine/corvalin/kafka.conf")
KAFKA_SCRIPT = pathlib.Path(__file__).resolve().parents[2] / "tests/kafka/kafka_broker.py"
MEDIA_FLAG = 0x40


class LoadError(Exception):
    """The load test cannot go on."""


class Broker:
    """A process with commands on its standard input, embedded or Apache Kafka."""

    def __init__(self, command):
        self._process = subprocess.Popen(
            [str(word) for word in command], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True
        )
        word, _, self.address = self._process.stdout.readline().strip().partition(" ")
        if word != "broker":
            raise LoadError(f"no broker: {command}")

    def create_topic(self, name):
        self._process.stdin.write(f"topic {name}\n")
        self._process.stdin.flush()
        answer = self._process.stdout.readline().strip()
        if answer != "ok":
            raise LoadError(f"topic {name}: {answer}")

    def stop(self):
        self._process.stdin.close()
        self._process.wait()


def packet(kind, session, seq, size):
    """A start (0x81) or terminate (0x82) packet; all that is not set is 0."""
    data = bytearray(size)
    struct.pack_into("<IBBBBQ", data, 0, 0x00FF00FF, kind, 0, 0, MEDIA_FLAG if kind == 0x81 else 0, session)
    struct.pack_into("<Q", data, 32, seq)
    return bytes(data)


def udp_socket(port):
    """(bytes in the receive buffer, datagrams dropped as it was full) of the local UDP port, None if not open."""
    for line in pathlib.Path("/proc/net/udp").read_text().splitlines()[1:]:
        fields = line.split()
        if int(fields[1].split(":")[1], 16) == port:
            return int(fields[4].split(":")[1], 16), int(fields[-1])
    return None


def udp_drops(port):
    return udp_socket(port)[1]


def busy_seconds():
    """Processor time of the machine, all processes and the kernel, since it started."""
    user, nice, system, _idle, _iowait, irq, softirq, steal = map(
        int, pathlib.Path("/proc/stat").read_text().split("\n", 1)[0].split()[1:9]
    )
    return (user + nice + system + irq + softirq + steal) / os.sysconf("SC_CLK_TCK")


def wait_for_rest(limit_s):
    """Until the machine does next to nothing for a while, but no longer than `limit_s`."""
    limit = time.monotonic() + limit_s
    while time.monotonic() < limit:
        before = busy_seconds()
        time.sleep(REST_S)
        if busy_seconds() - before <= REST_LOAD * REST_S:
            return


def children_seconds():
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


class Subject:
    """A forwarder whose processor time is measured."""

    def __init__(self, name, port, command):
        self.name = name
        self.port = port
        self.next_seq = 2
        self._process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        limit = time.monotonic() + START_LIMIT_S
        while udp_socket(port) is None:
            if self._process.poll() is not None:
                raise LoadError(f"{name} ended with status {self._process.returncode}: {' '.join(command)}")
            if time.monotonic() > limit:
                raise LoadError(f"{name} does not open port {port}")
            time.sleep(0.05)

    def cpu_ns(self):
        """Processor time of all threads."""
        tasks = glob.glob(f"/proc/{self._process.pid}/task/*/schedstat")
        return sum(int(pathlib.Path(task).read_text().split()[0]) for task in tasks)

    def wait_until_forwarded(self):
        """Until nothing waits at the sockets, and nothing in the process itself: it does next to no work."""
        limit = time.monotonic() + SETTLE_LIMIT_S
        is_settled = False
        while not is_settled and time.monotonic() < limit:
            cpu_before = self.cpu_ns()
            time.sleep(SETTLE_S)
            queued = udp_socket(self.port)[0] + udp_socket(NODE_PORT)[0]
            is_settled = queued == 0 and self.cpu_ns() - cpu_before < SETTLE_LOAD * SETTLE_S * 1e9

    def resident_bytes(self):
        for line in pathlib.Path(f"/proc/{self._process.pid}/status").read_text().splitlines():
            if line.startswith("VmRSS:"):
                return int(line.split()[1]) * 1024
        raise LoadError(f"{self.name} has no resident set")

    def stop(self):
        self._process.terminate()
        try:
            self._process.wait(10)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()


@dataclasses.dataclass
class Run:
    """What one load did."""

    sent: int
    received: int
    cpu_ns: int
    kernel_drops: int  # at the subject's port
    node_drops: int  # at the node's port
    sent_per_second: float
    foreign_load: float  # processors that were busy with anything else

    @property
    def cpu_ns_per_packet(self):
        if self.received == 0:
            raise LoadError("nothing was forwarded")
        return self.cpu_ns / self.received

    @property
    def loss(self):
        return 1 - self.received / self.sent


class Bench:
    """Starts and ends the processes. Use it in a `with` statement."""

    def __init__(self, build_dir, folder, patience_s=0):
        """`patience_s`: how long to wait, ahead of each load, for the machine to come to rest."""
        self._patience_s = patience_s
        self._build_dir = pathlib.Path(build_dir)
        self._folder = pathlib.Path(folder)
        self._subjects = []
        self._broker = None

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for subject in self._subjects:
            subject.stop()
        if self._broker is not None:
            self._broker.terminate()
            self._broker.wait()

    def _start_broker(self):
        """A broker that has nothing to say to the routers, which would wait for it at their start."""
        command = [self._build_dir / "tools/corvalin_embedded_broker", "--topic", "requests", "--topic", "broadcast"]
        self._broker = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        word, _, address = self._broker.stdout.readline().strip().partition(" ")
        if word != "broker":
            raise LoadError("the embedded broker did not start")
        KAFKA_CONF.write_text(
            f"kafka_broker={address}\nkafka_topic_request=requests\nkafka_topic_broadcast=broadcast\n"
        )

    def _start(self, name, port, command):
        subject = Subject(name, port, [str(word) for word in command])
        self._subjects.append(subject)
        return subject

    def start_router(self, name, port, *options):
        if self._broker is None:
            self._start_broker()
        arguments = ",".join([f"port={port}", f"media_node=127.0.0.1:{NODE_PORT}", *options])
        return self._start(name, port, [self._build_dir / "router/corvalin_router", "--args", arguments])

    def stop(self, subject):
        self._subjects.remove(subject)
        subject.stop()

    def start_relay(self, port):
        command = [self._build_dir / "bench/load/bare_relay", port, f"127.0.0.1:{NODE_PORT}"]
        return self._start("bare relay", port, command)

    def start_nginx(self, port):
        """One worker that keeps a session for the sender's address, and no log: a plain forwarder."""
        if shutil.which("nginx") is None:
            raise LoadError("nginx with its stream module is not installed; make bench does so")
        configuration = self._folder / f"nginx-{port}.conf"
        configuration.write_text(
            f"""\
load_module /usr/lib/nginx/modules/ngx_stream_module.so;
daemon off;
master_process off;
worker_processes 1;
pid {self._folder}/nginx-{port}.pid;
error_log /dev/null crit;
events {{
    worker_connections 512;
}}
stream {{
    access_log off;
    server {{
        listen 127.0.0.1:{port} udp;
        proxy_pass 127.0.0.1:{NODE_PORT};
    }}
}}
"""
        )
        return self._start("nginx", port, ["nginx", "-c", configuration, "-e", "/dev/null", "-p", self._folder])

    def load(self, subject, *options):
        """Sends to `subject` as `options` of the sender say, and waits until all has arrived that will."""
        wait_for_rest(self._patience_s)
        node_command = [self._build_dir / "tools/corvalin_media_node", "--port", NODE_PORT, "--discard", "--json"]
        node = subprocess.Popen([str(word) for word in node_command], stdout=subprocess.PIPE, text=True)
        try:
            node.stdout.readline()  # the ports: it receives from here on
            drops_before = udp_drops(subject.port)
            cpu_before = subject.cpu_ns()
            time_before, busy_before, children_before = time.monotonic(), busy_seconds(), children_seconds()
            command = [self._build_dir / "tools/corvalin_media_sender", subject.port, "--json", "--flags", "media"]
            command += ["--datagram-bytes", DATAGRAM_BYTES, "--no-terminate"]
            command += ["--seed", SEED, *options]
            sender = subprocess.run(
                [str(word) for word in command],
                stdout=subprocess.PIPE,
                stderr=subprocess.DEVNULL,
                text=True,
                check=True,
            )
            subject.wait_until_forwarded()
            cpu_after = subject.cpu_ns()
            seconds, busy = time.monotonic() - time_before, busy_seconds() - busy_before
        finally:
            node.send_signal(signal.SIGTERM)
            report = node.communicate()[0]
        own_seconds = children_seconds() - children_before + (cpu_after - cpu_before) / 1e9
        sent = json.loads(sender.stdout)
        counts = json.loads(report)["total"]
        return Run(
            sent=sent["total"]["datagrams"],
            received=counts["datagrams"],
            cpu_ns=cpu_after - cpu_before,
            kernel_drops=udp_drops(subject.port) - drops_before,
            node_drops=counts["kernel_drops"],
            sent_per_second=sent["datagrams_per_second"],
            foreign_load=max(0.0, (busy - own_seconds) / seconds),
        )

    def create_sessions(self, subject, sessions, rate):
        """Sends start packets until the router has forwarded one of each session.

        A start packet that was lost is sent again with all those of its group: the router refuses what it has
        already, and does not forward it.
        """
        for first_id in range(1, sessions + 1, START_GROUP):
            missing = min(START_GROUP, sessions + 1 - first_id)
            options = ["--id-base", first_id, "--sessions", missing, "--packets", 0]
            for attempt in range(START_ATTEMPTS):
                missing -= self.load(subject, *options, "--rate", rate >> attempt).received if missing else 0
            if missing != 0:
                raise LoadError(f"{subject.name} has {missing} sessions too few from {first_id} on")

    def send_data(self, subject, sessions, rate, seconds, *options):
        """Data packets of sessions that exist. Their numbers go on where the last ones ended, or above."""
        first_seq = subject.next_seq
        subject.next_seq += int(rate * seconds) + 1
        settings = ["--sessions", sessions, "--rate", rate, "--duration", seconds, "--first-seq", first_seq]
        return self.load(subject, "--no-start", "--endless", *settings, *options)
