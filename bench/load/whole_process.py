#!/usr/bin/env python3
"""Measures whole processes: the router, the bare relay and nginx forward the same datagrams.

Processor time of a packet is the time of all threads of the process, from /proc/PID/task/*/schedstat, over the
packets that arrived at the node. All processes live side by side, and each round sends to one after the other. Where its
memory lies makes one process of a program some percent faster than the next one: of each program there are several, which
take turns, and once all had theirs, another program begins.

Memory that has lain idle is slow at its first touch, above all in a virtual machine, and the router goes once through its
whole pool before it is at the same buffer again. Ahead of each measurement the process forwards as many packets as that.

It belongs into a network namespace of its own with private fixed paths, see bench/run.py.
"""

import argparse
import dataclasses
import json
import pathlib
import signal
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))

from figures import Figure, ratio  # noqa: E402
from load.subjects import Bench, LoadError  # noqa: E402

SESSIONS_FEW = 1000
SESSIONS_MANY = 1_000_000
BURST_RATE = 50_000
SMOOTH_RATE = 10_000
LOSS_LIMIT = 0.001
FOREIGN_LOAD_LIMIT = 0.15  # processors
RETRIES = 3
PROCESSES = 3
WARM_UP_PACKETS = 160_000  # more than the router's pool has buffers, 150 000, and the relay's ring slots, 100 000
START_RATE = 20_000  # a start packet costs the router some ten times as much as a data packet

# A burst is there all at once, as a network card hands it over: the receiver is woken once for it, and not by each of its
# datagrams in turn while the sender is still at the next one.
BURSTS = ["--burst-interval-us", 1000, "--segmentation-offload"]
SHAPES = {
    "bursts": (BURST_RATE, BURSTS),
    "smooth": (SMOOTH_RATE, ["--burst-interval-us", 0]),
}


def say(text):
    print(text, file=sys.stderr, flush=True)


def quiet_run(bench, subject, sessions, rate, seconds, options, order=()):
    """A run that lost next to nothing on a machine at rest, with warm memory. One that was disturbed is repeated, but not for
    ever: the best of the disturbed ones is better than none."""
    bench.send_data(subject, sessions, BURST_RATE, WARM_UP_PACKETS / BURST_RATE, *BURSTS, *order)
    runs = []
    for _ in range(RETRIES + 1):
        runs.append(bench.send_data(subject, sessions, rate, seconds, *options, *order))
        # Below 0: what the run before had left on its way.
        if abs(runs[-1].loss) <= LOSS_LIMIT and runs[-1].foreign_load <= FOREIGN_LOAD_LIMIT:
            break
    run = min(runs, key=lambda run: (abs(run.loss) > LOSS_LIMIT, run.foreign_load))
    say(
        f"    {subject.name:22} {run.cpu_ns_per_packet:7.0f} ns a packet, {run.received} packets, "
        f"loss {run.loss:.3%}, other load {run.foreign_load:.2f}"
    )
    return run


def interleaved(programs, rounds, measure):
    """`measure` for each of the programs, lists of processes of one name, in each of the rounds: name -> runs."""
    runs = {processes[0].name: [] for processes in programs}
    for index in range(rounds):
        say(f"  round {index + 1} of {rounds}")
        turn, place = divmod(index, len(programs[0]))
        first = turn % len(programs)
        for processes in programs[first:] + programs[:first]:
            subject = processes[place]
            runs[subject.name].append(measure(subject))
    return runs


def cpu_of(runs):
    return [run.cpu_ns_per_packet for run in runs]


def conditions_note(*runs_of_subjects):
    runs = [run for runs in runs_of_subjects for run in runs]
    loss = max(abs(run.loss) for run in runs)
    foreign_load = max(run.foreign_load for run in runs)
    disturbed = f", other load up to {foreign_load:.1f}" if foreign_load > FOREIGN_LOAD_LIMIT else ""
    return f"loss at most {loss:.2%}{disturbed}"


def measure_shapes(bench, routers, relays, nginxes, rounds, seconds):
    figures = []
    for shape, (rate, options) in SHAPES.items():
        say(f"{shape}, {rate} packets a second, {SESSIONS_FEW} sessions")
        runs = interleaved(
            [routers, relays, nginxes],
            rounds,
            lambda subject: quiet_run(bench, subject, SESSIONS_FEW, rate, seconds, options),
        )
        cpu = {name: cpu_of(runs_of_one) for name, runs_of_one in runs.items()}
        note = conditions_note(*runs.values())
        title = f"CPU per packet, {shape}: "
        nginx_target = 0.75 if shape == "bursts" else None
        figures += [
            ratio(title + "router / bare relay", cpu["router"], cpu["bare relay"], target=1.05, note=note),
            ratio(title + "router / nginx", cpu["router"], cpu["nginx"], target=nginx_target),
            ratio(title + "bare relay / nginx", cpu["bare relay"], cpu["nginx"]),
        ]
        figures += [Figure(title + name, values, "ns") for name, values in cpu.items()]
    return figures


def limit_of(run, rate):
    """What kept `run` from `rate` packets a second without a loss."""
    if run.sent_per_second < 0.97 * rate:
        return "sender"
    lost = run.sent - run.received
    elsewhere = {"kernel, receive buffer": run.kernel_drops, "node": run.node_drops}
    elsewhere["process, ring"] = lost - sum(elsewhere.values())
    return max(elsewhere, key=elsewhere.get)


def measure_highest_rate(bench, subjects, rounds, seconds):
    """Rising rates in bursts, until a rate fails twice."""
    say(f"highest rate with less than {LOSS_LIMIT:.1%} loss")
    figures = []
    reached = {subject.name: [] for subject in subjects}
    limits = {subject.name: [] for subject in subjects}
    for _ in range(rounds):
        highest = {subject.name: 0.0 for subject in subjects}
        rising = list(subjects)
        rate = BURST_RATE
        while rising:
            for subject in list(rising):
                for _ in range(2):
                    run = bench.send_data(subject, SESSIONS_FEW, rate, seconds, *BURSTS)
                    if run.loss < LOSS_LIMIT and run.sent_per_second >= 0.97 * rate:
                        highest[subject.name] = run.sent_per_second
                        break
                else:
                    rising.remove(subject)
                    limits[subject.name].append(limit_of(run, rate))
                    say(
                        f"    {subject.name:22} fails at {rate} a second: sent {run.sent_per_second:.0f} a second, "
                        f"lost {run.loss:.3%}, limit: {limits[subject.name][-1]}"
                    )
            rate = int(rate * 1.1)
        for name, value in highest.items():
            reached[name].append(value)
    for subject in subjects:
        note = "limit: " + ", ".join(sorted(set(limits[subject.name])))
        figures.append(Figure(f"highest rate: {subject.name}", reached[subject.name], "packets/s", note=note))
    return figures


def measure_many_sessions(bench, few, many, rounds, seconds):
    say(f"{SESSIONS_MANY} sessions: building them, {SESSIONS_MANY // START_RATE} s")
    resident_before = many.resident_bytes()
    bench.create_sessions(many, SESSIONS_MANY, START_RATE)
    resident = (many.resident_bytes() - resident_before) / SESSIONS_MANY
    sessions = {few.name: SESSIONS_FEW, many.name: SESSIONS_MANY}
    rate, options = SHAPES["bursts"]
    say(f"bursts, {rate} packets a second, sessions in random order")
    runs = interleaved(
        [[few], [many]],
        rounds,
        lambda subject: quiet_run(
            bench, subject, sessions[subject.name], rate, seconds, options, order=["--order", "random"]
        ),
    )
    cpu = {name: cpu_of(runs_of_one) for name, runs_of_one in runs.items()}
    title = "CPU per packet, random order: "
    return [
        ratio(
            title + f"{SESSIONS_MANY} / {SESSIONS_FEW} sessions",
            cpu[many.name],
            cpu[few.name],
            target=1.15,
            note=conditions_note(*runs.values()),
        ),
        Figure(title + f"{SESSIONS_FEW} sessions", cpu[few.name], "ns"),
        Figure(title + f"{SESSIONS_MANY} sessions", cpu[many.name], "ns"),
        Figure("resident memory of a session", [resident], "bytes"),
    ]


MODES = ["shapes", "rate", "sessions"]


def measure(bench, modes, rounds, seconds):
    figures = []
    number = PROCESSES if "shapes" in modes else 1
    routers = [bench.start_router("router", 5100 + place) for place in range(number)]
    router = routers[0]
    for process in routers:
        bench.create_sessions(process, SESSIONS_FEW, START_RATE)
    if "shapes" in modes or "rate" in modes:
        relays = [bench.start_relay(5200 + place) for place in range(number)]
    if "shapes" in modes:
        nginxes = [bench.start_nginx(5300 + place) for place in range(number)]
        figures += measure_shapes(bench, routers, relays, nginxes, rounds, seconds)
    if "rate" in modes:
        figures += measure_highest_rate(bench, [router, relays[0]], min(rounds, 3), min(seconds, 1))
    if "sessions" in modes:
        many = bench.start_router(f"router, {SESSIONS_MANY}", 5400)
        figures += measure_many_sessions(bench, router, many, rounds, seconds)
    return figures


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build-dir", type=pathlib.Path, required=True)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=float, default=2, help="length of a run")
    parser.add_argument("--patience", type=float, default=2, help="seconds to wait for a machine at rest, each run")
    parser.add_argument("--modes", nargs="+", choices=MODES, default=MODES)
    parser.add_argument("--output", type=pathlib.Path, required=True, help="JSON of the figures")
    arguments = parser.parse_args()
    # An exception ends the processes that were started, where the signal alone would leave them.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    with tempfile.TemporaryDirectory() as folder, Bench(
        arguments.build_dir.resolve(), folder, arguments.patience
    ) as bench:
        figures = measure(bench, arguments.modes, arguments.rounds, arguments.seconds)
    arguments.output.write_text(json.dumps([dataclasses.asdict(figure) for figure in figures]))


if __name__ == "__main__":
    try:
        main()
    except LoadError as error:
        sys.exit(f"whole_process: {error}")
