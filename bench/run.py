#!/usr/bin/env python3
"""Runs the benchmarks and prints one table: each figure, its median and spread, and what it should be.

Figures are ratios where they can be: both sides take turns in one run on one machine, and the ratio is taken
round by round. What other work the machine has then disturbs both sides alike, but not always: repeat what
looks odd, on a machine at rest.
"""

import argparse
import datetime
import json
import os
import pathlib
import platform
import subprocess
import sys
import tempfile
import time

import ratios
from figures import Figure, print_table

BENCH_DIR = pathlib.Path(__file__).resolve().parent
LOAD_MODES = ["shapes", "rate", "sessions"]
# Only by name: they need Apache Kafka, the first one python3-kafka too, and take six minutes more each.
CONFIGURATION = "configuration"
SERVICE = "service"

def say(text):
    print(text, file=sys.stderr, flush=True)


def run_in_private(build_dir, folder, *command):
    """A script of whole processes, in a network of their own and with private fixed paths: the figures that it writes.

    There is a place for /dev/log and nobody behind it: lines of sessions are built and then not delivered. Data
    packets write none.
    """
    (folder / "etc" / "corvalin").mkdir(parents=True)
    (folder / "log").mkdir()
    (folder / "dev").mkdir()
    output = folder / "figures.json"
    private_run = [build_dir / "tools/corvalin_private_run", "--net", "--etc", folder / "etc", "--log", folder / "log"]
    private_run += ["--dev-log", folder / "dev" / "log", "--", *command, "--build-dir", build_dir, "--output", output]
    subprocess.run([str(word) for word in private_run], check=True)
    return [Figure(**figure) for figure in json.loads(output.read_text())]


def run_load(build_dir, modes, rounds, seconds, patience, folder):
    command = [sys.executable, BENCH_DIR / "load/whole_process.py", "--rounds", rounds, "--seconds", seconds]
    return run_in_private(build_dir, folder, *command, "--patience", patience, "--modes", *modes)


def run_on_kafka(build_dir, folder, *command):
    # Maven reaches its registry from out here, and not from the network of its own.
    subprocess.run([BENCH_DIR.parent / "tests/kafka/kafka_broker.py", "--prepare"], stdout=sys.stderr, check=True)
    return run_in_private(build_dir, folder, "/usr/bin/python3", *command)


def first_line_of(*command):
    try:
        return subprocess.run(command, stdout=subprocess.PIPE, text=True, check=True).stdout.splitlines()[0]
    except (OSError, subprocess.CalledProcessError, IndexError):
        return "unknown"


def processor_name():
    for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines():
        if line.startswith("model name"):
            return line.split(":", 1)[1].strip()
    return platform.machine()


def cache_entry(build_dir, name):
    for line in (build_dir / "CMakeCache.txt").read_text().splitlines():
        if line.startswith(name + ":"):
            return line.split("=", 1)[1]
    return ""


def print_conditions(build_dir, rounds, seconds):
    compiler = cache_entry(build_dir, "CMAKE_CXX_COMPILER")
    flags = cache_entry(build_dir, "CMAKE_CXX_FLAGS_" + cache_entry(build_dir, "CMAKE_BUILD_TYPE").upper())
    receive_buffer = pathlib.Path("/proc/sys/net/core/rmem_default").read_text().strip()
    print(f"date      {datetime.datetime.now().isoformat(timespec='seconds')}")
    print(f"machine   {os.cpu_count()} x {processor_name()}, Linux {platform.release()}")
    print(f"load      {' '.join(f'{load:.2f}' for load in os.getloadavg())} before the first benchmark")
    print(f"compiler  {first_line_of(compiler, '--version')}, {flags}")
    print(f"commit    {first_line_of('git', '-C', str(BENCH_DIR), 'describe', '--always', '--dirty', '--abbrev=12')}")
    print(f"rounds    {rounds}, load runs of {seconds:g} s")
    print(f"buffer    net.core.rmem_default {receive_buffer} bytes, which the router's socket has too")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build_dir", type=pathlib.Path, help="folder of a release build")
    parser.add_argument(
        "--only",
        nargs="+",
        choices=[*ratios.PARTS, *LOAD_MODES, CONFIGURATION, SERVICE],
        default=[*ratios.PARTS, *LOAD_MODES],
        help="parts to run, instead of all of them",
    )
    parser.add_argument("--rounds", type=int, default=int(os.environ.get("ROUNDS", "5")), help="or $ROUNDS")
    parser.add_argument(
        "--seconds", type=float, default=float(os.environ.get("ROUND_SECONDS", "2")), help="or $ROUND_SECONDS"
    )
    parser.add_argument(
        "--patience",
        type=float,
        default=float(os.environ.get("PATIENCE", "2")),
        help="seconds to wait ahead of each load run for a machine at rest, or $PATIENCE",
    )
    parser.add_argument("--output", type=pathlib.Path, help="write the figures as JSON, too")
    arguments = parser.parse_args()
    build_dir = arguments.build_dir.resolve()
    began = time.monotonic()
    print_conditions(build_dir, arguments.rounds, arguments.seconds)
    figures = []
    modes = [mode for mode in LOAD_MODES if mode in arguments.only]
    if modes:
        with tempfile.TemporaryDirectory(dir=build_dir, prefix="bench-") as folder:
            figures += run_load(
                build_dir, modes, arguments.rounds, arguments.seconds, arguments.patience, pathlib.Path(folder)
            )
    if CONFIGURATION in arguments.only:
        with tempfile.TemporaryDirectory(dir=build_dir, prefix="bench-") as folder:
            figures += run_on_kafka(build_dir, pathlib.Path(folder), BENCH_DIR / "load/configuration.py")
    if SERVICE in arguments.only:
        with tempfile.TemporaryDirectory(dir=build_dir, prefix="bench-") as folder:
            figures += run_on_kafka(
                build_dir, pathlib.Path(folder), BENCH_DIR / "load/service.py",
                "--rounds", arguments.rounds, "--seconds", arguments.seconds, "--patience", arguments.patience,
            )  # fmt: skip
    for part, measure in ratios.PARTS.items():
        if part in arguments.only:
            say(part)
            figures += measure(build_dir, arguments.rounds)
    if arguments.output:
        arguments.output.write_text(json.dumps([vars(figure) for figure in figures], indent=1))
    print_table("Figures to reach", [figure for figure in figures if figure.target is not None])
    print_table("For comparison", [figure for figure in figures if figure.target is None])
    print(f"\n{time.monotonic() - began:.0f} s in all")


if __name__ == "__main__":
    try:
        main()
    except subprocess.CalledProcessError as error:
        sys.exit(f"run.py: status {error.returncode} of: {' '.join(str(word) for word in error.cmd)}")
