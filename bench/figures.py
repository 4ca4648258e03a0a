"""Figures: what a benchmark measured, beside what it should reach, and the table of them."""

import dataclasses
import statistics


@dataclasses.dataclass
class Figure:
    """One row of the table. `values` holds one value for each round; `target` is the most that it should be."""

    name: str
    values: list
    unit: str = ""
    target: float | None = None
    note: str = ""

    @property
    def median(self):
        return statistics.median(self.values)

    @property
    def is_reached(self):
        return self.target is None or self.median <= self.target

    def cells(self):
        spread = f"[{number(min(self.values))} .. {number(max(self.values))}]" if len(self.values) > 1 else ""
        target = "" if self.target is None else f"<= {number(self.target)}"
        verdict = "" if self.target is None else "reached" if self.is_reached else "MISSED"
        return [self.name, f"{number(self.median)} {self.unit}".rstrip(), spread, target, verdict, self.note]


def number(value):
    """Three digits, or all of them in front of the point."""
    if value == int(value) and abs(value) < 100:
        return str(int(value))
    return f"{value:.0f}" if abs(value) >= 100 else f"{value:.3g}" if abs(value) < 1 else f"{value:.2f}"


def ratio(name, numerators, denominators, **details):
    """Round by round: what disturbs the machine for longer than a round is then in both and cancels out."""
    values = [above / below for above, below in zip(numerators, denominators, strict=True)]
    return Figure(name, values, **details)


def print_table(title, figures):
    header = ["figure", "median", "[min .. max]", "target", "", "note"]
    rows = [header] + [figure.cells() for figure in figures]
    widths = [max(len(row[column]) for row in rows) for column in range(len(header) - 1)]
    print(f"\n{title}\n")
    for index, row in enumerate(rows):
        cells = [cell.ljust(width) for cell, width in zip(row, widths)] + [row[-1]]
        print("  ".join(cells).rstrip())
        if index == 0:
            print("-" * (sum(widths) + 2 * len(widths) + len(header[-1])))
