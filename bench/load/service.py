#!/usr/bin/env python3
"""Measures the router as a service, and the tool that watches it.

  start    from the start of the process to the first packet that a node gets from it, on Apache Kafka without the delay of
           a new group; start packets are sent all the while. And its resident memory then.
  watch    reading a log of 1 GB: reports only, as the log daemon writes them, and reports among traces. Report and trace
           are lines of the real router.
  reports  processor time of a forwarded packet with reports and without, in turns, each time in processes that were
           just started, so that neither side keeps a place in memory that is better by chance

It belongs into a network namespace of its own with private fixed paths, see bench/run.py.
"""

import argparse
import dataclasses
import datetime
import itertools
import json
import os
import pathlib
import re
import select
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

BENCH_DIR = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(BENCH_DIR))

from figures import Figure, ratio  # noqa: E402
from load.subjects import (  # noqa: E402
    KAFKA_CONF, KAFKA_SCRIPT, NODE_PORT, START_LIMIT_S, Bench, Broker, LoadError, packet,
)  # fmt: skip
from load.whole_process import (  # noqa: E402
    SESSIONS_FEW, SHAPES, START_RATE, conditions_note, cpu_of, quiet_run, say,
)  # fmt: skip

STARTS = 5
PROBE_INTERVAL_S = 0.001
MB = 1_000_000
POOL_MB = 211
RING_MB = 100_000 * 16 / MB  # elements of a virtual table and a pointer
REST_MB = 40
LOG_BYTES = 1_000_000_000
TRACES_PER_REPORT = 1000
REPORT_INTERVAL_S = 5
REPORT_RUN_S = 10  # holds two reports wherever it begins


class LogSink:
    """The log daemon: takes every record, and keeps the last of each kind."""

    def __init__(self):
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(os.path.realpath("/dev/log"))
        self._changed = threading.Condition()
        self._last = {}
        self.reports = 0
        threading.Thread(target=self._run, daemon=True).start()

    def _run(self):
        while True:
            text = self._socket.recv(65536).decode()
            with self._changed:
                if " statistic *" in text:
                    self.reports += 1
                    self._last["report"] = text
                elif " START | " in text:
                    self._last["trace"] = text

                self._changed.notify_all()

    def wait_for(self, kind):
        with self._changed:
            if not self._changed.wait_for(lambda: kind in self._last, START_LIMIT_S):
                raise LoadError(f"the router logs no {kind}")
            return self._last[kind]


# --- start --------------------------------------------------------------------------------------------------


def resident_mb(process):
    status = pathlib.Path(f"/proc/{process.pid}/status").read_text(encoding="utf-8")
    return int(re.search(r"VmRSS:\s*(\d+) kB", status).group(1)) * 1024 / MB


def first_packet(command, port, node, sender):
    """Seconds from the start of the process to its first packet, and its resident memory behind it."""
    begin = time.perf_counter()
    process = subprocess.Popen(command, stderr=subprocess.DEVNULL)
    try:
        for session in itertools.count(1):
            sender.sendto(packet(0x81, session, 1, 88), ("127.0.0.1", port))
            if select.select([node], [], [], PROBE_INTERVAL_S)[0]:
                break
            if process.poll() is not None or time.perf_counter() - begin > START_LIMIT_S:
                raise LoadError("the router forwards nothing")
        seconds = time.perf_counter() - begin
        return seconds, resident_mb(process)
    finally:
        process.terminate()
        if process.wait(START_LIMIT_S) != 0:
            raise LoadError(f"the router ended with status {process.returncode}")


def measure_start(build_dir, _folder, _arguments):
    say(f"{STARTS} starts on Apache Kafka")
    port = 5500
    broker = Broker([sys.executable, KAFKA_SCRIPT])
    for topic in ("requests", "broadcast", f"corvalin_router_127o0o0o1_{port}"):
        broker.create_topic(topic)
    KAFKA_CONF.write_text(
        f"kafka_broker={broker.address}\nkafka_topic_request=requests\nkafka_topic_broadcast=broadcast\n"
    )
    command = [str(build_dir / "router/corvalin_router"), "--args", f"port={port},media_node=127.0.0.1:{NODE_PORT}"]
    values = []
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
        for _ in range(STARTS):
            # A socket for each start: nothing of the one before is in it.
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as node:
                node.bind(("127.0.0.1", NODE_PORT))
                values.append(first_packet(command, port, node, sender))
                say(f"    {values[-1][0]:.3f} s, {values[-1][1]:.1f} MB resident")
    broker.stop()
    note = f"{POOL_MB} MB of pool, {RING_MB:.1f} MB of ring, {REST_MB} MB"
    return [
        Figure("start to the first forwarded packet", [seconds for seconds, _ in values], "s", 2, "Apache Kafka"),
        Figure("resident memory after the start", [mb for _, mb in values], "MB", POOL_MB + RING_MB + REST_MB, note),
    ]


# --- watch --------------------------------------------------------------------------------------------------


def lines_of_router(build_dir, folder, sink):
    """A report and a trace line as the log daemon writes them into a file, without their time."""
    with Bench(build_dir, folder) as bench:
        router = bench.start_router("router", 5510)
        bench.create_sessions(router, SESSIONS_FEW, START_RATE)
        records = [sink.wait_for("trace"), sink.wait_for("report")]
    # "<133>Nov 21 16:00:00 tag[pid]: text", with a line feed at the end.
    return [re.sub(r"^<\d+>.{15} ", " machine ", record).removesuffix("\n").replace("\n", "#012") + "\n"
            for record in records]


def write_log(path, trace, report, traces_per_report):
    """The number of reports in it."""
    when = datetime.datetime(2026, 1, 1, tzinfo=datetime.timezone.utc)
    reports = size = 0
    with open(path, "w", encoding="utf-8") as log:
        while size < LOG_BYTES:
            stamp = when.isoformat(timespec="microseconds")
            size += log.write((stamp + trace) * traces_per_report + stamp + report)
            when += datetime.timedelta(seconds=REPORT_INTERVAL_S)
            reports += 1
    return reports


def reading_seconds(build_dir, verb, path, reports):
    with subprocess.Popen(["tail", "-n", "1"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as tail:
        begin = time.perf_counter()
        done = subprocess.run([str(build_dir / "tools/corvalin_watch"), *verb, str(path)], stdout=tail.stdin, check=False)
        seconds = time.perf_counter() - begin
        last, _ = tail.communicate()
    # Reading less would be faster.
    if done.returncode != 0 or json.loads(last)["reports"] != reports:
        raise LoadError(f"{verb}: status {done.returncode}, {last}")
    return seconds


def measure_watch(build_dir, folder, arguments):
    trace, report = lines_of_router(build_dir, folder, arguments.sink)
    figures = []
    path = pathlib.Path(folder) / "statistic.log"
    for name, traces in (("reports", 0), ("traces and reports", TRACES_PER_REPORT)):
        reports = write_log(path, trace, report, traces)
        say(f"1 GB of {name}: {reports} reports")
        for verb in (["json"], ["doctor", "--json"]):
            values = [reading_seconds(build_dir, verb, path, reports) for _ in range(arguments.rounds)]
            say(f"    {verb[0]}: {', '.join(f'{value:.2f}' for value in values)} s")
            figures.append(Figure(f"corvalin_watch {verb[0]}, 1 GB of {name}", values, "s", 30, f"{reports} reports"))
    path.unlink()
    return figures


# --- reports ------------------------------------------------------------------------------------------------


def measure_reports(build_dir, folder, arguments):
    seconds = max(arguments.seconds, REPORT_RUN_S)
    rate, options = SHAPES["bursts"]
    say(f"reports, {arguments.rounds} rounds of {seconds:g} s, {rate} packets a second")
    runs = {"true": [], "false": []}
    ports = itertools.count(5520)
    written = {"true": 0, "false": 0}
    with Bench(build_dir, folder, arguments.patience) as bench:
        for index in range(arguments.rounds):
            say(f"  round {index + 1} of {arguments.rounds}")
            for enabled in ("true", "false") if index % 2 else ("false", "true"):
                name = "with reports" if enabled == "true" else "without reports"
                router = bench.start_router(name, next(ports), f"statistic_logging_enabled={enabled}")
                bench.create_sessions(router, SESSIONS_FEW, START_RATE)
                before = arguments.sink.reports
                runs[enabled].append(quiet_run(bench, router, SESSIONS_FEW, rate, seconds, options))
                written[enabled] += arguments.sink.reports - before
                bench.stop(router)
    if written["true"] < arguments.rounds or written["false"] != 0:
        raise LoadError(f"reports while packets were forwarded: {written}")
    cpu = {enabled: cpu_of(runs_of_one) for enabled, runs_of_one in runs.items()}
    title = "CPU per packet, "
    return [
        ratio(title + "reports / none", cpu["true"], cpu["false"], target=1.02, note=conditions_note(*runs.values())),
        Figure(title + "reports", cpu["true"], "ns", note=f"{written['true']} reports"),
        Figure(title + "no reports", cpu["false"], "ns"),
    ]


MODES = {"start": measure_start, "watch": measure_watch, "reports": measure_reports}


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build-dir", type=pathlib.Path, required=True)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=float, default=REPORT_RUN_S, help="length of a run of reports, 10 or more")
    parser.add_argument("--patience", type=float, default=2, help="seconds to wait for a machine at rest, each run")
    parser.add_argument("--modes", nargs="+", choices=MODES, default=list(MODES))
    parser.add_argument("--output", type=pathlib.Path, required=True, help="JSON of the figures")
    arguments = parser.parse_args()
    # An exception ends the processes that were started, where the signal alone would leave them.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    arguments.sink = LogSink()
    figures = []
    with tempfile.TemporaryDirectory(dir=arguments.output.parent) as folder:
        for mode in arguments.modes:
            figures += MODES[mode](arguments.build_dir.resolve(), folder, arguments)
    arguments.output.write_text(json.dumps([dataclasses.asdict(figure) for figure in figures]))


if __name__ == "__main__":
    try:
        main()
    except LoadError as error:
        sys.exit(f"service: {error}")
