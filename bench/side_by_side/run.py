#!/usr/bin/python3
"""Starts each system in turn, puts the same load on it, and prints what came out, side by side.

Interleaved: every round goes through all rows and systems, so that whatever else the machine does
falls on all of them. The server is pinned to one core, the load generator to another.
"""

import argparse
import collections
import json
import os
import resource
import select
import shutil
import socket
import subprocess
import sys
import tempfile
import time

import report
from systems import ROWS, SYSTEMS

PATIENCE_SECONDS = 60


class MeasurementFailed(Exception):
    pass


def on_cpu(cpu):
    return lambda: os.sched_setaffinity(0, {cpu})


def server_command(system, programs, address):
    if system.server == "redis-server":
        path = address.removeprefix("unix:")
        return [shutil.which("redis-server"), "--port", "0", "--unixsocket", path, "--save", "",
                "--loglevel", "warning"]
    return [os.path.join(programs, system.server), address, *system.arguments]


class Server:
    """A server process; `address` is where it listens."""

    def __init__(self, system, programs, scratch, cpu, tcp):
        asked = "127.0.0.1:0" if tcp else "unix:" + os.path.join(scratch, "socket")
        self.log = open(os.path.join(scratch, "log"), "w+b")
        self.process = subprocess.Popen(
            server_command(system, programs, asked), stdout=subprocess.PIPE, stderr=self.log,
            cwd=scratch, preexec_fn=on_cpu(cpu))
        if system.server == "redis-server":
            self.address = asked
            self.wait_for_file(asked.removeprefix("unix:"))
        else:
            self.address = self.first_line()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        self.process.stdout.close()
        self.log.close()

    def first_line(self):
        ready, _, _ = select.select([self.process.stdout], [], [], PATIENCE_SECONDS)
        line = self.process.stdout.readline().decode().strip() if ready else ""
        if not line:
            raise MeasurementFailed("the server does not start: " + self.said())
        return line

    def wait_for_file(self, path):
        end = time.monotonic() + PATIENCE_SECONDS
        while time.monotonic() < end and self.process.poll() is None:
            with socket.socket(socket.AF_UNIX) as probe:
                if probe.connect_ex(path) == 0:
                    return
            time.sleep(0.01)
        raise MeasurementFailed("the server does not start: " + self.said())

    def said(self):
        self.log.seek(0)
        return self.log.read().decode(errors="replace")


class Awake:
    """Keeps cores from going idle by work that gives way to any other: in a virtual machine, to wake
    an idle core takes longer than most calls do."""

    SPIN = ("import os; os.sched_setaffinity(0, {%d});"
            "os.sched_setscheduler(0, os.SCHED_IDLE, os.sched_param(0))\nwhile True: pass")

    def __init__(self, cpus):
        self.spinners = [subprocess.Popen([sys.executable, "-c", self.SPIN % cpu]) for cpu in cpus]

    def stop(self):
        for spinner in self.spinners:
            spinner.kill()
            spinner.wait()


class Runner:
    def __init__(self, arguments):
        self.arguments = arguments
        cpus = sorted(os.sched_getaffinity(0))
        self.server_cpu = cpus[0] if arguments.server_cpu is None else arguments.server_cpu
        self.load_cpu = cpus[-1] if arguments.load_cpu is None else arguments.load_cpu
        self.measured = collections.defaultdict(lambda: collections.defaultdict(list))
        self.failures = []

    def load_command(self, row, system):
        load = system.client if row.own_client else system.load
        mode = "redis-" + row.mode if system.server == "redis-server" else row.mode
        return [os.path.join(self.arguments.programs, load), "--mode", mode,
                "--seconds", str(self.arguments.seconds),
                "--warm-up", str(min(0.5, self.arguments.seconds / 4)),
                *row.load_arguments(self.arguments.short)]

    def measure(self, row, system):
        with tempfile.TemporaryDirectory(prefix="varnic_bench_") as scratch:
            command = self.load_command(row, system)
            if row.mode == "start":
                address = "unix:" + os.path.join(scratch, "socket")
                return self.run_load(command + [
                    "--address", address, "--server-cpu", str(self.server_cpu), "--",
                    *server_command(system, self.arguments.programs, address)])
            with Server(system, self.arguments.programs, scratch, self.server_cpu,
                        row.tcp) as server:
                return self.run_load(command + ["--address", server.address,
                                                "--server", str(server.process.pid)])

    def run_load(self, command):
        try:
            result = subprocess.run(command, capture_output=True, text=True, check=False,
                                    timeout=PATIENCE_SECONDS + 10 * self.arguments.seconds,
                                    preexec_fn=on_cpu(self.load_cpu))
        except subprocess.TimeoutExpired as error:
            raise MeasurementFailed("the load generator does not end") from error
        if result.returncode != 0:
            raise MeasurementFailed(result.stderr.strip() or f"exit status {result.returncode}")
        return json.loads(result.stdout)

    def round(self, number, rows):
        for row in rows:
            names = [name for name in row.systems if name in self.arguments.systems]
            shift = number % len(names) if names else 0
            for name in names[shift:] + names[:shift]:
                print(f"round {number + 1}: {row.name}: {name}", file=sys.stderr)
                try:
                    self.measured[row.name][name].append(self.measure(row, SYSTEMS[name]))
                except MeasurementFailed as failure:
                    self.failures.append(f"{row.name}: {name}: {failure}")
                    print(self.failures[-1], file=sys.stderr)

    def sizes(self):
        sizes = {}
        with tempfile.TemporaryDirectory(prefix="varnic_bench_") as scratch:
            for name in self.arguments.systems:
                program = server_command(SYSTEMS[name], self.arguments.programs, "")[0]
                sizes[name] = (report.stripped_size(program, scratch),
                               report.libraries_size(program))
        return sizes

    def run(self, rows):
        """The page of tables, and all of it for JSON."""
        stated = report.conditions(self.arguments, self.server_cpu, self.load_cpu)
        awake = Awake({self.server_cpu, self.load_cpu} if self.arguments.keep_awake else set())
        try:
            for number in range(self.arguments.rounds):
                self.round(number, rows)
        finally:
            awake.stop()
        stated["load_average_after"] = os.getloadavg()[0]
        sizes = self.sizes()
        tables = {row: {name: self.measured[row.name][name] for name in row.systems
                        if self.measured[row.name].get(name)} for row in rows}
        tables = {row: measured for row, measured in tables.items() if measured}
        return report.page(stated, tables, sizes), {
            "conditions": stated,
            "rows": {row.name: {"title": row.title, "systems": report.summarise(row, measured),
                                "measured": measured} for row, measured in tables.items()},
            "sizes": sizes,
            "failures": self.failures,
        }


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--programs", required=True, help="the folder of the programs that were built")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=float, default=2, help="for each measurement")
    parser.add_argument("--rows", help="separated by commas: " + ", ".join(row.name for row in ROWS))
    parser.add_argument("--systems", help="separated by semicolons: " + "; ".join(SYSTEMS))
    parser.add_argument("--json", metavar="FILE", help="write every figure there")
    parser.add_argument("--insert", metavar="FILE",
                        help="put the tables into this page, between its marks")
    parser.add_argument("--keep-awake", action="store_true",
                        help="let no core go idle, so that none has to be woken")
    parser.add_argument("--short", action="store_true",
                        help="once, briefly, with small numbers: whether it works, not how fast")
    parser.add_argument("--server-cpu", type=int, help="the first one by default")
    parser.add_argument("--load-cpu", type=int, help="the last one by default")
    arguments = parser.parse_args()
    if arguments.short:
        arguments.rounds, arguments.seconds = 1, 0.05
    arguments.programs = os.path.abspath(arguments.programs)
    arguments.systems = chosen(parser, arguments.systems, ";", SYSTEMS)
    arguments.rows = chosen(parser, arguments.rows, ",", [row.name for row in ROWS])
    return arguments


def chosen(parser, text, separator, known):
    names = [name.strip() for name in text.split(separator)] if text else list(known)
    for name in names:
        if name not in known:
            parser.error(f"no such one: {name}; there are: " + f"{separator} ".join(known))
    return names


def main():
    arguments = parse_arguments()
    _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    runner = Runner(arguments)
    page, result = runner.run([row for row in ROWS if row.name in arguments.rows])
    print(page)
    if arguments.insert:
        report.insert(page, arguments.insert)
    if arguments.json:
        with open(arguments.json, "w", encoding="utf-8") as file:
            json.dump(result, file, indent=1)
    for failure in result["failures"]:
        print("FAILED: " + failure, file=sys.stderr)
    return 1 if result["failures"] else 0


if __name__ == "__main__":
    sys.exit(main())
