#!/usr/bin/python3
"""Starts each system in turn, puts the same load on it, and prints what came out, side by side.

Interleaved: every round goes through all rows and systems, so that whatever else the machine does
falls on all of them. The server is pinned to one core, the load generator to another.
"""

import argparse
import collections
import os
import sys
import tempfile

import bars
import conditions
import processes
import report
from systems import ROWS, SYSTEMS


class Comparison:
    def __init__(self, arguments):
        self.arguments = arguments
        self.stage = processes.Stage(arguments)
        self.measured = collections.defaultdict(lambda: collections.defaultdict(list))

    def round(self, number):
        for row in self.arguments.rows:
            names = [name for name in row.systems if name in self.arguments.systems]
            shift = number % len(names) if names else 0
            for name in names[shift:] + names[:shift]:
                system = SYSTEMS[name]
                mode = "redis-" + row.mode if system.server == "redis-server" else row.mode
                self.stage.try_to_measure(
                    f"round {number + 1}: {row.name}: {name}", self.measured[row.name][name],
                    system, system.client if row.own_client else system.load, mode,
                    row.load_arguments(self.arguments.short), tcp=row.tcp)

    def sizes(self):
        sizes = {}
        with tempfile.TemporaryDirectory(prefix="varnic_bench_") as scratch:
            for name in self.arguments.systems:
                program = processes.server_command(SYSTEMS[name], self.arguments.programs, "")[0]
                sizes[name] = (report.stripped_size(program, scratch),
                               report.libraries_size(program))
        return sizes

    def run(self):
        """The sections of the page, and all of it for JSON."""
        stated = conditions.of_run(self.stage)
        with self.stage.awake():
            for number in range(self.arguments.rounds):
                self.round(number)
        stated["load_average_after"] = os.getloadavg()[0]
        sizes = self.sizes()
        tables = {row: {name: self.measured[row.name][name] for name in row.systems
                        if self.measured[row.name].get(name)} for row in self.arguments.rows}
        tables = {row: measured for row, measured in tables.items() if measured}
        figures = {row.name: measured for row, measured in tables.items()}
        readings = bars.read(figures)
        return report.sections(stated, tables, sizes, readings), {
            "conditions": stated,
            "bars": readings,
            "rows": {row.name: {"title": row.title, "systems": report.summarise(row, measured),
                                "measured": measured} for row, measured in tables.items()},
            "sizes": sizes,
        }


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    processes.add_options(parser, rounds=5, seconds=2)
    names = [row.name for row in ROWS]
    parser.add_argument("--rows", help="separated by commas: " + ", ".join(names))
    parser.add_argument("--systems", help="separated by semicolons: " + "; ".join(SYSTEMS))
    arguments = parser.parse_args()
    if arguments.insert and (arguments.rows or arguments.systems or arguments.short):
        parser.error("--insert is for whole runs: without --rows, --systems and --short")
    processes.settle(arguments)
    arguments.systems = processes.chosen(parser, arguments.systems, ";", SYSTEMS)
    wanted = processes.chosen(parser, arguments.rows, ",", names)
    arguments.rows = [row for row in ROWS if row.name in wanted]
    return arguments


def main():
    arguments = parse_arguments()
    if arguments.insert:
        report.page_with_places(arguments.insert, ["machine", "bars", "rows"])
    comparison = Comparison(arguments)
    sections, result = comparison.run()
    print("\n".join(sections.values()))
    status = comparison.stage.finish(result, arguments.json)
    if arguments.insert:
        report.insert(sections, arguments.insert)
    return status


if __name__ == "__main__":
    sys.exit(main())
