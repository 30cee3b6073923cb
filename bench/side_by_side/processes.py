"""Servers and load generators: how they are started, and on which cores they run."""

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

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for spinner in self.spinners:
            spinner.kill()
            spinner.wait()


class Stage:
    """The two cores, and one measurement after the other on them."""

    def __init__(self, arguments):
        self.arguments = arguments
        cpus = sorted(os.sched_getaffinity(0))
        self.server_cpu = cpus[0] if arguments.server_cpu is None else arguments.server_cpu
        self.load_cpu = cpus[-1] if arguments.load_cpu is None else arguments.load_cpu
        self.failures = []

    def awake(self):
        return Awake({self.server_cpu, self.load_cpu} if self.arguments.keep_awake else set())

    def load_command(self, program, mode, options):
        return [os.path.join(self.arguments.programs, program), "--mode", mode,
                "--seconds", str(self.arguments.seconds),
                "--warm-up", str(min(0.5, self.arguments.seconds / 4)),
                *(text for name, value in options.items() for text in (f"--{name}", str(value)))]

    def measure(self, system, program, mode, options, tcp=False):
        """The figures of one load on one server, which lives as long as that."""
        command = self.load_command(program, mode, options)
        # What is counted takes as long as it takes.
        patience = (PATIENCE_SECONDS + 10 * self.arguments.seconds
                    + options.get("count", 0) / 2000)
        with tempfile.TemporaryDirectory(prefix="varnic_bench_") as scratch:
            if mode == "start":
                address = "unix:" + os.path.join(scratch, "socket")
                return self.run_load(command + [
                    "--address", address, "--server-cpu", str(self.server_cpu), "--",
                    *server_command(system, self.arguments.programs, address)], patience)
            with Server(system, self.arguments.programs, scratch, self.server_cpu, tcp) as server:
                return self.run_load(command + ["--address", server.address,
                                                "--server", str(server.process.pid)], patience)

    def run_load(self, command, patience):
        try:
            result = subprocess.run(command, capture_output=True, text=True, check=False,
                                    timeout=patience, preexec_fn=on_cpu(self.load_cpu))
        except subprocess.TimeoutExpired as error:
            raise MeasurementFailed("the load generator does not end") from error
        if result.returncode != 0:
            raise MeasurementFailed(result.stderr.strip() or f"exit status {result.returncode}")
        return json.loads(result.stdout)

    def try_to_measure(self, what, into, *measurement, **options):
        """Appends the figures to `into`, or a line to the failures."""
        print(what, file=sys.stderr)
        try:
            into.append(self.measure(*measurement, **options))
        except MeasurementFailed as failure:
            self.failures.append(f"{what}: {failure}")
            print(self.failures[-1], file=sys.stderr)

    def finish(self, result, json_file):
        """The exit status; `result` is what goes into the JSON file."""
        if json_file:
            with open(json_file, "w", encoding="utf-8") as file:
                json.dump({**result, "failures": self.failures}, file, indent=1)
        for failure in self.failures:
            print("FAILED: " + failure, file=sys.stderr)
        return 1 if self.failures else 0


def add_options(parser, rounds, seconds):
    """Those that every run has."""
    parser.add_argument("--programs", required=True, help="the folder of the programs that were built")
    parser.add_argument("--rounds", type=int, help=f"{rounds} by default")
    parser.add_argument("--seconds", type=float, help=f"for each measurement, {seconds} by default")
    parser.add_argument("--json", metavar="FILE", help="write every figure there")
    parser.add_argument("--insert", metavar="FILE",
                        help="put what comes out into this page, between its marks")
    parser.add_argument("--keep-awake", action="store_true",
                        help="let no core go idle, so that none has to be woken")
    length = parser.add_mutually_exclusive_group()
    length.add_argument("--quick", action="store_true", help="fewer and shorter rounds: a first look")
    length.add_argument("--short", action="store_true",
                        help="once, briefly, with small numbers: whether it works, not how fast")
    parser.add_argument("--server-cpu", type=int, help="the first one by default")
    parser.add_argument("--load-cpu", type=int, help="the last one by default")
    parser.set_defaults(usual_rounds=rounds, usual_seconds=seconds)


def settle(arguments):
    """Fills in what add_options() has left open, and makes room for many connections."""
    rounds, seconds = arguments.usual_rounds, arguments.usual_seconds
    if arguments.quick:
        rounds, seconds = min(rounds, 3), seconds / 4
    if arguments.short:
        rounds, seconds = 1, 0.05
    arguments.rounds = arguments.rounds or rounds
    arguments.seconds = arguments.seconds or seconds
    arguments.programs = os.path.abspath(arguments.programs)
    if not os.path.isdir(arguments.programs):
        sys.exit(f"no programs in {arguments.programs}: `./dev bench` builds them")
    _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))


def chosen(parser, text, separator, known):
    names = [name.strip() for name in text.split(separator)] if text else list(known)
    for name in names:
        if name not in known:
            parser.error(f"no such one: {name}; there are: " + f"{separator} ".join(known))
    return names
