"""Turns the JSON of the Google Benchmark programs into figures.

Each program runs all its benchmarks once per round, and in random order where both sides of a ratio should see
the same machine; the rounds are the repetitions of its output.
"""

import collections
import json
import pathlib
import subprocess

from figures import Figure, ratio

NS_PER_UNIT = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}


class Results:
    """Values of one program's benchmarks, by name, one for each round."""

    def __init__(self, report):
        self._rounds = collections.defaultdict(list)
        self._labels = {}
        for run in json.loads(report)["benchmarks"]:
            if run["run_type"] == "iteration":
                if run.get("error_occurred"):
                    raise RuntimeError(f"{run['name']}: {run['error_message']}")
                name = run["run_name"]
                for suffix in ("/manual_time", "/real_time"):
                    name = name.replace(suffix, "")
                self._rounds[strip_iterations(name)].append(run)

    def names(self, prefix):
        return [name for name in self._rounds if name.startswith(prefix)]

    def label(self, name):
        return self._rounds[name][0].get("label", "")

    def ns(self, name, clock="cpu_time"):
        """Time of an iteration: on the processor, or with clock="real_time" what the benchmark's clock says."""
        return [run[clock] * NS_PER_UNIT[run["time_unit"]] for run in self._rounds[name]]

    def counter(self, name, counter):
        return [run[counter] for run in self._rounds[name]]


def strip_iterations(name):
    return "/".join(part for part in name.split("/") if not part.startswith("iterations:"))


def run_program(build_dir, name, rounds, filter_expression="."):
    command = [
        pathlib.Path(build_dir) / "bench" / name,
        "--benchmark_format=json",
        f"--benchmark_repetitions={rounds}",
        "--benchmark_enable_random_interleaving=true",
        "--benchmark_min_time=0.1",
        f"--benchmark_filter={filter_expression}",
    ]
    report = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, check=True)
    return Results(report.stdout)


def queue_figures(build_dir, rounds):
    results = run_program(build_dir, "queue_bench", rounds)
    per_element = {
        name: [ns / 100_000 for ns in results.ns(name, "real_time")]
        for name in ("product_ring", "bare_ring", "bare_ring_of_rc_ptr", "bare_ring_sequentially_consistent")
    }
    disturbed = sum(sum(results.counter(name, "disturbed")) for name in per_element)
    note = f"{disturbed:.0f} rounds disturbed by other work" if disturbed else ""
    title = "ring hand-over: "
    return [
        ratio(
            title + "product / bare ring, same elements",
            per_element["product_ring"],
            per_element["bare_ring_of_rc_ptr"],
            target=1.3,
            note=note,
        ),
        ratio(title + "product / bare ring, pointers", per_element["product_ring"], per_element["bare_ring"]),
    ] + [Figure(title + name.replace("_", " "), values, "ns") for name, values in per_element.items()]


DESIGNS = {
    "product": "product",
    "one_map_siphash": "one unordered_map, SipHash",
    "sharded_map": "shards of unordered_map",
    "one_map_identity": "one unordered_map, identity",
}


def look_up_figures(build_dir, rounds):
    results = run_program(build_dir, "media_session_index_bench", rounds, "^find")
    figures = []
    for design, title in DESIGNS.items():
        attacks = {results.label(name): results.ns(name) for name in results.names(f"find_chosen/{design}/")}
        random = attacks.pop("random")
        worst = max(attacks, key=lambda attack: ratio(attack, attacks[attack], random).median)
        few = " (10000 ids)" if design == "one_map_identity" else ""
        target = 2.0 if design == "product" else None
        name = f"look-up, chosen / random ids: {title}{few}"
        figures.append(ratio(name, attacks[worst], random, target=target, note="worst: " + worst.replace("_", " ")))
    for design, title in DESIGNS.items():
        for sessions in (1000, 10_000, 100_000, 1_000_000):
            values = results.ns(f"find/{design}/sessions:{sessions}")
            figures.append(Figure(f"look-up among {sessions}: {title}", values, "ns"))
    return figures


def growth_figures(build_dir, rounds):
    figures = []
    for design, title in DESIGNS.items():
        is_product = design == "product"
        # The others are there for scale, and one round of each takes seconds.
        results = run_program(
            build_dir, "media_session_index_bench", rounds if is_product else 1, f"^longest_insert/{design}/"
        )
        name = f"longest_insert/{design}/sessions:10000000"
        milliseconds = [ns / 1e6 for ns in results.ns(name, "real_time")]
        wall = max(results.counter(name, "longest_wall_ms"))
        figures.append(
            Figure(
                f"longest insertion up to 10000000: {title}",
                milliseconds,
                "ms",
                target=10 if is_product else None,
                note=f"on the clock {wall:.1f} ms",
            )
        )
    return figures


def memory_figures(build_dir, rounds):
    del rounds  # it is a count, the same each time
    results = run_program(build_dir, "media_session_memory_bench", 1, "call_id_bytes:36")
    one_host, two_hosts = (
        results.counter(f"build_sessions/hosts:{hosts}/call_id_bytes:36", "bytes_per_session") for hosts in (1, 2)
    )
    title = "memory of a routed session at 1000000: "
    return [
        Figure(title + "one host", one_host, "bytes", target=450, note="exact count, call id of 36 bytes"),
        Figure(title + "two hosts", two_hosts, "bytes"),
    ]


def allocation_figures(build_dir, rounds):
    results = run_program(build_dir, "media_packet_path_bench", rounds)
    values = results.counter("data_packets", "allocations")
    return [Figure("allocations of 300000 data packets", values, target=0)]


def simple_figures(program, title, clock="cpu_time"):
    def measure(build_dir, rounds):
        results = run_program(build_dir, program, rounds)
        return [
            Figure(f"{title}: {name.replace('_', ' ').replace('/', ', ')}", results.ns(name, clock), "ns")
            for name in results.names("")
        ]

    return measure


PARTS = {
    "queue": queue_figures,
    "look-up": look_up_figures,
    "growth": growth_figures,
    "memory": memory_figures,
    "allocations": allocation_figures,
    "buffer": simple_figures("media_packet_buffer_bench", "packet buffer"),
    "session": simple_figures("media_session_manager_bench", "session table"),
    "rc_ptr": simple_figures("reference_countable_bench", "rc_ptr"),
}
