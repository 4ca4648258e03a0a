#!/usr/bin/env python3
"""Runs a real Kafka broker for the tests: one process, broker and controller at once, on 127.0.0.1.

The class path is assembled by Maven the first time and kept in the work folder. The broker's own files live in a
temporary folder and go with it. The first line on standard output is "broker 127.0.0.1:PORT"; the port is the
kernel's choice and stays kept while the broker is away. Commands are read from standard input, one per line, and
each is answered by "ok" or "error TEXT":

  topic NAME [PARTITIONS]   create a topic, with one partition by default
  kill                      end the broker without a chance to tell anybody (SIGKILL)
  stop                      end it as an operator does (SIGTERM)
  restart                   start it again, on the same port and with all that it had stored
  free-group NAME           remove the members of a consumer group, who may be dead and hold it for 45 s
  slow CLIENT BYTES         let clients of this client.id read so many bytes a second, 0 for no limit
  help                      list the commands
  quit                      end

Ends at the end of the input, and by SIGTERM and SIGINT.

Exit status:
  0   success
  1   the broker cannot be started
  2   wrong command line
  77  no broker to be had: Java, Maven or what Maven fetches is missing; the last line on standard error says why
"""

import argparse
import contextlib
import ctypes
import fcntl
import hashlib
import os
import pathlib
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time

NAME = "kafka_broker"
POM = pathlib.Path(__file__).resolve().parent / "pom.xml"
PROJECT = POM.parent.parent.parent
DEFAULT_VERSION = "3.9.2"
EXIT_FAILED = 1
EXIT_UNAVAILABLE = 77

READY_LIMIT_S = 90
STOP_LIMIT_S = 30
REQUEST_LIMIT_S = 10
POLL_INTERVAL_S = 0.02
LOG_TAIL_LINES = 30
WARM_UP_GROUP = "kafka_broker_warm_up"
CLUSTER_ID = "Y29ydmFsaW4tdGVzdHMtMQ"  # 16 bytes in base64; nothing but this one broker ever sees it

# A small heap, and the quick compiler only: the broker lives for seconds, so that its start is what it costs.
JAVA_OPTIONS = ["-Xms64m", "-Xmx256m", "-XX:+UseSerialGC", "-XX:TieredStopAtLevel=1",
                "-Dorg.slf4j.simpleLogger.defaultLogLevel=warn", "-Dorg.slf4j.simpleLogger.showDateTime=true"]

# What Maven says when it cannot reach a registry, as opposed to when it is asked for something wrong.
UNREACHABLE = re.compile(r"could not transfer|failed to transfer|in offline mode", re.IGNORECASE)

# Without broker.session.timeout.ms a broker that was killed is fenced for 9 s after its restart, since the controller
# takes it for alive. The rest makes first assignments immediate, and files small.
SERVER_PROPERTIES = """\
process.roles=broker,controller
node.id=1
controller.quorum.voters=1@127.0.0.1:{controller_port}
listeners=CLIENTS://127.0.0.1:{port},CONTROLLER://127.0.0.1:{controller_port}
advertised.listeners=CLIENTS://127.0.0.1:{port}
listener.security.protocol.map=CLIENTS:PLAINTEXT,CONTROLLER:PLAINTEXT
inter.broker.listener.name=CLIENTS
controller.listener.names=CONTROLLER
log.dirs={log_dir}
num.partitions=1
offsets.topic.replication.factor=1
offsets.topic.num.partitions=1
transaction.state.log.replication.factor=1
transaction.state.log.min.isr=1
transaction.state.log.num.partitions=1
group.initial.rebalance.delay.ms=0
broker.session.timeout.ms=2000
broker.heartbeat.interval.ms=500
log.cleaner.dedupe.buffer.size=2097152
log.index.size.max.bytes=65536
num.network.threads=1
num.io.threads=2
background.threads=1
"""


class Unavailable(Exception):
    """No broker to be had on this machine."""


class BrokerError(Exception):
    """The broker does not do what it was told."""


class Ended(Exception):
    """A signal asks for the end."""


LIBC = ctypes.CDLL(None)
PR_SET_PDEATHSIG = 1


def die_with_parent():
    LIBC.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)


# --- class path ---------------------------------------------------------------------------------------------


def find_command(name, what):
    path = shutil.which(name)
    if path is None:
        raise Unavailable(f"{what} is not installed: there is no command \"{name}\"")
    return path


def first_error_of_maven(output):
    for line in re.sub(r"\x1b\[[0-9;]*m", "", output).splitlines():
        if line.startswith("[ERROR]"):
            return line.removeprefix("[ERROR]").strip()
    return output.strip()


def run_maven(arguments, jars):
    command = [find_command(arguments.maven, "Maven"), "--batch-mode", "--quiet", "--file", str(POM),
               f"-Dkafka.version={arguments.kafka_version}", f"-Djars.directory={jars}", "generate-resources"]
    if arguments.offline:
        command.append("--offline")
    try:
        result = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                text=True, errors="replace", timeout=arguments.maven_limit, check=False,
                                preexec_fn=die_with_parent)
    except subprocess.TimeoutExpired:
        raise Unavailable(f"Maven got no answer from its registry within {arguments.maven_limit} s") from None
    if result.returncode == 0:
        return
    error = first_error_of_maven(result.stdout)
    if UNREACHABLE.search(error):
        raise Unavailable(f"Maven cannot reach its registry: {error}")
    raise BrokerError(f"Maven failed with status {result.returncode}: {error}")


def assemble_class_path(arguments):
    """The folder with the jars. One of several processes gets them, the others wait for it."""
    began = time.time()
    pom_hash = hashlib.sha256(POM.read_bytes()).hexdigest()[:8]
    folder = pathlib.Path(arguments.work_dir).resolve() / f"{arguments.kafka_version}-{pom_hash}"
    folder.mkdir(parents=True, exist_ok=True)
    jars = folder / "jars"
    refusal = folder / "unavailable.txt"
    with open(folder / "lock", "w", encoding="utf-8") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if jars.is_dir():
            return jars
        # Whoever waited here while another process found no registry need not wait for the same answer again.
        if refusal.exists() and refusal.stat().st_mtime > began:
            raise Unavailable(refusal.read_text(encoding="utf-8"))
        fetched = folder / "fetched"
        shutil.rmtree(fetched, ignore_errors=True)
        try:
            run_maven(arguments, fetched)
        except Unavailable as error:
            refusal.write_text(str(error), encoding="utf-8")
            raise
        fetched.rename(jars)  # complete or not at all
        return jars


# --- the broker's protocol, as far as this script needs it --------------------------------------------------


NO_ERROR = 0
TOPIC_ALREADY_EXISTS = 36
ERROR_NAMES = {3: "unknown topic", 14: "coordinator is loading", 15: "coordinator is not available",
               16: "not the coordinator", 17: "invalid topic name", 36: "topic exists already",
               37: "invalid number of partitions"}


def error_text(code):
    return ERROR_NAMES.get(code, f"error {code} of the broker")


def string(text):
    data = text.encode()
    return struct.pack(">h", len(data)) + data


class Reader:
    def __init__(self, data):
        self.data = data
        self.position = 0

    def take(self, count):
        self.position += count
        if self.position > len(self.data):
            raise BrokerError("the broker's answer is too short")
        return self.data[self.position - count:self.position]

    def int16(self):
        return struct.unpack(">h", self.take(2))[0]

    def int32(self):
        return struct.unpack(">i", self.take(4))[0]

    def string(self):
        return self.take(max(0, self.int16())).decode()

    def block(self):
        return self.take(max(0, self.int32()))


class Connection:
    """One request at a time, each in the oldest version that all brokers since 2.1 take."""

    def __init__(self, port):
        self.socket = socket.create_connection(("127.0.0.1", port), REQUEST_LIMIT_S)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def receive(self, count):
        data = b""
        while len(data) < count:
            part = self.socket.recv(count - len(data))
            if not part:
                raise ConnectionError("the broker closed the connection")
            data += part
        return data

    def request(self, api_key, version, body):
        message = struct.pack(">hhi", api_key, version, 1) + string(NAME) + body
        self.socket.sendall(struct.pack(">i", len(message)) + message)
        size = struct.unpack(">i", self.receive(4))[0]
        reader = Reader(self.receive(size))
        reader.int32()  # correlation id
        return reader

    def find_coordinator(self, group):
        """Makes the broker create the topic of the group offsets, too."""
        reader = self.request(10, 1, string(group) + b"\0")
        reader.int32()  # throttle time
        return reader.int16()

    def group_members(self, group):
        """Error code and member ids."""
        reader = self.request(15, 0, struct.pack(">i", 1) + string(group))
        reader.int32()  # number of groups
        code = reader.int16()
        for _ in range(4):  # group, state, protocol type, protocol
            reader.string()
        members = []
        for _ in range(reader.int32()):
            members.append(reader.string())
            reader.string()  # client id
            reader.string()  # client host
            reader.block()  # metadata
            reader.block()  # assignment
        return code, members

    def leave_group(self, group, member):
        return self.request(13, 0, string(group) + string(member)).int16()

    def create_topic(self, name, partitions):
        topic = string(name) + struct.pack(">ihii", partitions, 1, 0, 0)
        reader = self.request(19, 2, struct.pack(">i", 1) + topic + struct.pack(">ib", REQUEST_LIMIT_S * 1000, 0))
        reader.int32()  # throttle time
        reader.int32()  # number of topics
        reader.string()
        return reader.int16()

    def limit_reading(self, client, bytes_per_second):
        """None lifts the limit."""
        entity = struct.pack(">i", 1) + string("client-id") + string(client)
        operation = struct.pack(">i", 1) + string("consumer_byte_rate")
        operation += struct.pack(">db", bytes_per_second or 0, bytes_per_second is None)
        reader = self.request(49, 0, struct.pack(">i", 1) + entity + operation + b"\0")
        reader.int32()  # throttle time
        reader.int32()  # number of entries
        return reader.int16()


# --- the process --------------------------------------------------------------------------------------------


def keep_port():
    """A bound socket that never listens: Java's listener may be bound beside it, but the kernel gives the port to no
    other process, not even while the broker is away."""
    kept = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    kept.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    kept.bind(("127.0.0.1", 0))
    return kept


class Broker:
    def __init__(self, arguments, jars, folder):
        self.java = find_command(arguments.java, "Java")
        self.class_path = f"{jars}/*"
        self.folder = pathlib.Path(folder)
        self.log_path = self.folder / "broker.log"
        self.properties = self.folder / "server.properties"
        self.process = None
        self.kept_port = keep_port()
        self.kept_controller_port = keep_port()
        self.port = self.kept_port.getsockname()[1]
        self.properties.write_text(SERVER_PROPERTIES.format(
            port=self.port, controller_port=self.kept_controller_port.getsockname()[1],
            log_dir=self.folder / "data"), encoding="utf-8")

    def java_command(self, *words):
        return [self.java, *JAVA_OPTIONS, "-cp", self.class_path, *words]

    def format_storage(self):
        result = subprocess.run(
            self.java_command("kafka.tools.StorageTool", "format", "--ignore-formatted", "-t", CLUSTER_ID, "-c",
                              str(self.properties)),
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace",
            preexec_fn=die_with_parent, check=False)
        if result.returncode != 0:
            raise BrokerError(f"cannot format the storage: {result.stdout.strip()}")

    def start(self):
        if self.is_running():
            raise BrokerError("the broker runs already")
        with open(self.log_path, "ab") as log:
            self.process = subprocess.Popen(self.java_command("kafka.Kafka", str(self.properties)),
                                            stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                            preexec_fn=die_with_parent)
        self.wait_until_ready()

    def is_running(self):
        return self.process is not None and self.process.poll() is None

    def wait_until_ready(self):
        """Ready means that a group can be joined at once: the first group of a broker waits for a topic of its own."""
        deadline = time.monotonic() + READY_LIMIT_S
        reason = ""
        while time.monotonic() < deadline:
            if not self.is_running():
                raise BrokerError(f"the broker ended with status {self.process.returncode}\n{self.log_tail()}")
            try:
                with Connection(self.port) as connection:
                    code = connection.find_coordinator(WARM_UP_GROUP)
                    if code == NO_ERROR:
                        code, _ = connection.group_members(WARM_UP_GROUP)
                    if code == NO_ERROR:
                        return
                    reason = error_text(code)
            except (OSError, BrokerError) as error:
                reason = str(error)
            time.sleep(POLL_INTERVAL_S)
        self.end(signal.SIGKILL)
        raise BrokerError(f"the broker was not ready within {READY_LIMIT_S} s: {reason}\n{self.log_tail()}")

    def log_tail(self):
        lines = self.log_path.read_text(encoding="utf-8", errors="replace").splitlines()
        return "\n".join(lines[-LOG_TAIL_LINES:])

    def end(self, number):
        if not self.is_running():
            raise BrokerError("the broker does not run")
        self.process.send_signal(number)
        try:
            self.process.wait(STOP_LIMIT_S)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            raise BrokerError(f"the broker did not end within {STOP_LIMIT_S} s and was killed") from None

    def create_topic(self, name, partitions):
        with Connection(self.port) as connection:
            code = connection.create_topic(name, partitions)
            if code != NO_ERROR:
                raise BrokerError(error_text(code))

    def free_group(self, name):
        with Connection(self.port) as connection:
            code, members = connection.group_members(name)
            for member in members:
                code = code or connection.leave_group(name, member)
            if code != NO_ERROR:
                raise BrokerError(error_text(code))

    def limit_reading(self, client, bytes_per_second):
        with Connection(self.port) as connection:
            code = connection.limit_reading(client, bytes_per_second)
            if code != NO_ERROR:
                raise BrokerError(error_text(code))


# --- commands -----------------------------------------------------------------------------------------------


def help_text():
    return "\n".join(line[2:] for line in __doc__.split("TEXT\":\n\n")[1].split("\n\n")[0].splitlines())


def parse_partitions(text):
    if not re.fullmatch("[0-9]{1,4}", text):
        raise BrokerError(f"\"{text}\" is not a number of partitions")
    return int(text)


def parse_bytes(text):
    if not re.fullmatch("[0-9]{1,9}", text):
        raise BrokerError(f"\"{text}\" is not a number of bytes")
    return int(text) or None


def execute(broker, words):
    """Carries out one command. True if it asks for the end."""
    match words:
        case ["topic", name]:
            broker.create_topic(name, 1)
        case ["topic", name, partitions]:
            broker.create_topic(name, parse_partitions(partitions))
        case ["kill"]:
            broker.end(signal.SIGKILL)
        case ["stop"]:
            broker.end(signal.SIGTERM)
        case ["restart"]:
            broker.start()
        case ["free-group", name]:
            broker.free_group(name)
        case ["slow", client, bytes_per_second]:
            broker.limit_reading(client, parse_bytes(bytes_per_second))
        case ["help"]:
            print(help_text())
        case ["quit"]:
            return True
        case _:
            raise BrokerError(f"unknown command \"{' '.join(words)}\", see \"help\"")
    return False


def serve(broker):
    for line in iter(sys.stdin.readline, ""):
        words = line.split()
        if not words:
            continue
        ended = False
        try:
            ended = execute(broker, words)
            answer = "ok"
        except (BrokerError, OSError) as error:
            answer = "error " + str(error).replace("\n", " | ")
        print(answer, flush=True)
        if ended:
            return


def raise_ended(_number, _frame):
    # A second signal must not cut the end short, which would leave files behind.
    signal.signal(signal.SIGTERM, signal.SIG_IGN)
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    raise Ended


def run(arguments):
    find_command(arguments.java, "Java")
    jars = assemble_class_path(arguments)
    if arguments.prepare:
        print(f"jars {jars}")
        return
    with tempfile.TemporaryDirectory(prefix="corvalin_kafka_") as folder:
        broker = Broker(arguments, jars, folder)
        try:
            broker.format_storage()
            broker.start()
            print(f"broker 127.0.0.1:{broker.port}", flush=True)
            serve(broker)
        finally:
            # What it has stored goes with it, so there is nothing to wait for.
            if broker.is_running():
                with contextlib.suppress(BrokerError):
                    broker.end(signal.SIGKILL)


def parse_arguments():
    parser = argparse.ArgumentParser(prog=NAME, description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--kafka-version", default=os.environ.get("CORVALIN_KAFKA_VERSION", DEFAULT_VERSION),
                        metavar="VERSION",
                        help=f"release to run, by default CORVALIN_KAFKA_VERSION or {DEFAULT_VERSION}")
    parser.add_argument("--work-dir", default=str(PROJECT / "build" / "kafka"), metavar="DIR",
                        help="folder that keeps the class path, build/kafka by default")
    parser.add_argument("--prepare", action="store_true", help="assemble the class path and end")
    parser.add_argument("--java", default=os.environ.get("CORVALIN_JAVA", "java"), metavar="COMMAND",
                        help="Java 17 or later, by default CORVALIN_JAVA or java")
    parser.add_argument("--maven", default="mvn", metavar="COMMAND", help="Maven, by default mvn")
    parser.add_argument("--maven-limit", default=600, type=float, metavar="SECONDS",
                        help="how long Maven may take, 600 by default")
    parser.add_argument("--offline", action="store_true", help="let Maven use only what it has fetched before")
    return parser.parse_args()


def main():
    arguments = parse_arguments()
    signal.signal(signal.SIGTERM, raise_ended)
    signal.signal(signal.SIGINT, raise_ended)
    try:
        run(arguments)
    except Ended:
        pass
    except Unavailable as error:
        print(f"{NAME}: no broker to be had: {error}", file=sys.stderr)
        return EXIT_UNAVAILABLE
    except BrokerError as error:
        print(f"{NAME}: {error}", file=sys.stderr)
        return EXIT_FAILED
    return 0


if __name__ == "__main__":
    sys.exit(main())
