#!/usr/bin/python3
"""What things cost as there are more of them, and whether the server's memory grows with time.

Ends with 3 if the memory has grown beyond what is allowed, and otherwise with 1 if a measurement has
failed.
"""

import argparse
import collections
import dataclasses
import os
import resource
import statistics
import sys

import conditions
import processes
import report
from systems import SYSTEMS

FLAT = 1.2  # The highest figure of a flat curve, as so many times the lowest.
GREW = 3    # The exit status.
OUTSTANDING = 1000
CONNECTIONS = 10
# Besides the connections: what a process has open anyhow, and a quarter that the server keeps free.
SPARE_FILES = 300


def files_limit():
    return resource.getrlimit(resource.RLIMIT_NOFILE)[0]


@dataclasses.dataclass(frozen=True)
class Curve:
    """`options(point)` are the load generator's; `figures` makes, of what it prints, one value for
    each heading."""
    name: str
    title: str
    axis: str
    points: tuple
    short: tuple
    systems: tuple
    mode: str
    options: object
    figures: dict
    program: str = ""  # Instead of the system's own load generator.
    files: object = lambda point: 0

    def points_of(self, short):
        return [point for point in (self.short if short else self.points)
                if self.files(point) <= files_limit() - SPARE_FILES]

    def left_out(self, short):
        measured = self.points_of(short)
        return [f"{point:,}" for point in (self.short if short else self.points)
                if point not in measured]


CURVES = [
    Curve("events", "An event to more and more subscribers, streams on 10 connections: per delivery",
          "subscribers", (100, 300, 1000, 3000, 10_000), (100, 300),
          ("varnic", "grpc++ callback"), "fan-out",
          lambda point: {"connections": CONNECTIONS, "streams": point // CONNECTIONS},
          {"time to the last / subscribers, ns": lambda m, point: m["p50_us"] / point * 1e3,
           "server CPU, µs": lambda m, point: m["server_cpu_us"]}),
    Curve("connections",
          "Unary calls from more and more connections, 1,000 outstanding altogether: per call",
          "connections", (1, 5, 10, 50, 100, 500, 1000), (1, 10),
          ("varnic", "grpc++ callback", "epoll echo"), "unary",
          lambda point: {"connections": point, "outstanding": OUTSTANDING // point},
          {"time, µs": lambda m, point: 1e6 / m["per_second"],
           "server CPU, µs": lambda m, point: m["server_cpu_us"]},
          files=lambda point: point),
    Curve("keys", "Subscribing, unsubscribing and disconnecting while other streams hold other keys: "
          "server CPU for each stream, µs", "other keys",
          (1, 10, 100, 1000, 10_000, 100_000), (1, 300), ("varnic",), "keys",
          lambda point: {"keys": point, "streams": 100},
          {"subscribe": lambda m, point: m["subscribe_us"],
           "unsubscribe": lambda m, point: m["unsubscribe_us"],
           "disconnect": lambda m, point: m["disconnect_us"]}, program="key_load"),
]

# What a server's memory is watched with: the load generator's mode and options.
LOADS = {
    "unary calls": ("unary", {"outstanding": 100}),
    "delivered events": ("fan-out", {"connections": CONNECTIONS, "streams": 100}),
}
PARTS = [curve.name for curve in CURVES] + ["memory"]


def flatness(values):
    """By the medians along a curve."""
    low, high = min(values), max(values)
    times = high / low if low > 0 else float("inf")
    return {"highest_to_lowest": times, "last_to_first": values[-1] / values[0] if values[0] else 0,
            "flat": times <= FLAT}


def sparkline(values):
    levels = "▁▂▃▄▅▆▇█"
    top = max(values)
    return "".join(levels[min(7, max(0, int(8 * value / top)))] if top > 0 else levels[0]
                   for value in values)


def curve_text(curve, measured):
    """`measured`: by system and point, one dictionary for each round."""
    systems = [system for system in curve.systems if measured.get(system)]
    points = sorted({point for system in systems for point in measured[system]})
    several = len(systems) > 1
    columns = [(system, heading) for system in systems for heading in curve.figures]
    rows = []
    for point in points:
        cells = [report.spread([figures[heading] for figures in measured[system][point]])
                 if measured[system].get(point) else "" for system, heading in columns]
        rows.append([f"{point:,}"] + cells)
    headings = [f"{system}: {heading}" if several else heading for system, heading in columns]
    readings = readings_of(curve, measured)
    return "\n".join([
        f"**{curve.title}** (`{curve.name}`)", "", report.table([curve.axis] + headings, rows),
        report.table(
            ["figure", "from the first point to the last", "last / first", "highest / lowest",
             "flat within 20 %"],
            [[f"{one['system']}: {one['figure']}", one["curve"], report.number(one["last_to_first"]),
              report.number(one["highest_to_lowest"]), "yes" if one["flat"] else "**no**"]
             for one in readings])])


def readings_of(curve, measured):
    readings = []
    for system in curve.systems:
        by_point = measured.get(system, {})
        for heading in curve.figures:
            values = [statistics.median(figures[heading] for figures in by_point[point])
                      for point in sorted(by_point) if by_point[point]]
            if len(values) > 1:
                readings.append({"system": system, "figure": heading, "curve": sparkline(values),
                                 **flatness(values)})
    return readings


def growth_of(measured, allowed_kib):
    """Of one load: the server's memory after the warm-up and after each tenth, and the verdict."""
    kib = [measured[f"kib_{part}"] for part in range(11)]
    grown = max(kib) - kib[0]
    return {"kib": kib, "grown_kib": grown, "allowed_kib": allowed_kib,
            "within": grown <= allowed_kib}


def memory_text(stated, growths, count, allowed_kib):
    loads = list(growths)
    rows = [["the warm-up" if part == 0 else f"{count * part // 10:,}"]
            + [f"{growths[load]['kib'][part]:,.0f}" for load in loads] for part in range(11)]
    rows.append(["growth, at most"] + [
        f"{growths[load]['grown_kib']:,.0f}: " + ("within" if growths[load]["within"] else "**beyond**")
        + " the allowance" for load in loads])
    return "\n".join([
        f"The server's own memory, KiB, after a warm-up with {count // 10:,}, and after each further "
        f"{count // 10:,}. Allowed: {allowed_kib:,} KiB more than after the warm-up. Load average "
        f"{stated['load_average_before']:.2f} before and {stated['load_average_after']:.2f} after.", "",
        report.table(["after"] + loads, rows)])


class Scale:
    def __init__(self, arguments):
        self.arguments = arguments
        self.stage = processes.Stage(arguments)
        self.measured = {curve.name: collections.defaultdict(lambda: collections.defaultdict(list))
                         for curve in CURVES}
        self.growths = {}

    def run_curves(self):
        for number in range(self.arguments.rounds):
            for curve in CURVES:
                if curve.name in self.arguments.parts:
                    self.run_curve(curve, number)

    def run_curve(self, curve, number):
        for point in curve.points_of(self.arguments.short):
            for name in curve.systems:
                if name in self.arguments.systems:
                    self.run_point(curve, point, name, number)

    def run_point(self, curve, point, name, number):
        got = []
        system = SYSTEMS[name]
        self.stage.try_to_measure(
            f"round {number + 1}: {curve.name}: {point:,} {curve.axis}: {name}", got, system,
            curve.program or system.load, curve.mode, curve.options(point))
        for figures in got:
            self.measured[curve.name][name][point].append(
                {heading: of(figures, point) for heading, of in curve.figures.items()})

    def run_memory(self):
        for load, (mode, options) in LOADS.items():
            got = []
            system = SYSTEMS["varnic"]
            self.stage.try_to_measure(
                f"memory: {self.arguments.count:,} {load}", got, system, system.load, mode,
                {**options, "count": self.arguments.count})
            for figures in got:
                self.growths[load] = growth_of(figures, self.arguments.allowed_kib)

    def run(self):
        """The sections of the page, and all of it for JSON."""
        stated = conditions.of_run(self.stage)
        with self.stage.awake():
            self.run_curves()
            if "memory" in self.arguments.parts:
                self.run_memory()
        stated["load_average_after"] = os.getloadavg()[0]
        return self.sections(stated), {
            "conditions": stated,
            "curves": {curve.name: {"title": curve.title, "measured": self.measured[curve.name],
                                    "readings": readings_of(curve, self.measured[curve.name])}
                       for curve in CURVES if self.measured[curve.name]},
            "memory": self.growths,
        }

    def sections(self, stated):
        sections = {}
        curves = [curve_text(curve, self.measured[curve.name])
                  for curve in CURVES if self.measured[curve.name]]
        if curves:
            sections["curves"] = "\n".join([conditions.run_text(stated)] + curves + self.omissions())
        if self.growths:
            sections["memory"] = memory_text(stated, self.growths, self.arguments.count,
                                             self.arguments.allowed_kib)
        return sections

    def omissions(self):
        lines = []
        for curve in CURVES:
            missing = curve.left_out(self.arguments.short)
            if missing and self.measured[curve.name]:
                lines.append(f"Left out of `{curve.name}`, as `ulimit -n` is {files_limit():,}: "
                             + ", ".join(missing) + ".\n")
        return lines

    def finish(self, result):
        status = self.stage.finish(result, self.arguments.json)
        for load, growth in self.growths.items():
            if not growth["within"]:
                print(f"MEMORY GREW: by {growth['grown_kib']:,.0f} KiB in {self.arguments.count:,} "
                      f"{load}, and {growth['allowed_kib']:,} KiB are allowed", file=sys.stderr)
                status = GREW
        return status


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    processes.add_options(parser, rounds=3, seconds=2)
    parser.add_argument("--parts", help="separated by commas: " + ", ".join(PARTS))
    parser.add_argument("--systems", help="separated by semicolons: " + "; ".join(SYSTEMS))
    parser.add_argument("--count", type=int,
                        help="calls, and events, for the memory: 10,000,000 by default")
    parser.add_argument("--allowed-kib", type=int, default=1024,
                        help="by which the memory may grow, %(default)s by default")
    arguments = parser.parse_args()
    if arguments.insert and (arguments.systems or arguments.short):
        parser.error("--insert is for whole parts: without --systems and --short")
    processes.settle(arguments)
    arguments.parts = processes.chosen(parser, arguments.parts, ",", PARTS)
    arguments.systems = processes.chosen(parser, arguments.systems, ";", SYSTEMS)
    usual = 50_000 if arguments.short else 1_000_000 if arguments.quick else 10_000_000
    arguments.count = arguments.count or usual
    return arguments


def main():
    arguments = parse_arguments()
    if arguments.insert:
        report.page_with_places(arguments.insert, ["curves", "memory"])
    scale = Scale(arguments)
    sections, result = scale.run()
    print("\n".join(sections.values()))
    status = scale.finish(result)
    if arguments.insert:
        report.insert(sections, arguments.insert)
    return status


if __name__ == "__main__":
    sys.exit(main())
