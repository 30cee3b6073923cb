#!/usr/bin/python3
"""How long a build of Varnic from nothing takes: the host, its tools and all libraries, optimised,
without tests, benchmarks and a compiler cache."""

import argparse
import json
import os
import resource
import shutil
import subprocess
import sys
import tempfile
import time

import conditions
import report

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
ENVIRONMENT = {**os.environ, "CCACHE_DISABLE": "1"}
OPTIONS = ["-DVARNIC_BUILD_TESTS=OFF", "-DVARNIC_BUILD_BENCHMARKS=OFF",
           "-DCMAKE_C_COMPILER_LAUNCHER=", "-DCMAKE_CXX_COMPILER_LAUNCHER="]


def timed(command):
    """Seconds that pass, and seconds of CPU."""
    before, start = resource.getrusage(resource.RUSAGE_CHILDREN), time.monotonic()
    result = subprocess.run(command, cwd=ROOT, env=ENVIRONMENT, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True, check=False)
    if result.returncode != 0:
        # Without the lines that tell of progress.
        said = [line for line in result.stdout.splitlines() if not line.startswith("[")]
        sys.exit("\n".join(said + [f"FAILED: {' '.join(command)}"]))
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    cpu = after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime
    return {"seconds": time.monotonic() - start, "cpu_seconds": cpu}


def compiled_files(folder):
    return sum(name.endswith(".o") for _, _, names in os.walk(folder) for name in names)


def measure(folder, arguments):
    configure = timed(["cmake", "--preset", "release", "-B", folder, *OPTIONS])
    targets = ["--target", arguments.target] if arguments.target else []
    build = timed(["cmake", "--build", folder, "--parallel", str(arguments.jobs), *targets])
    return {"jobs": arguments.jobs, "target": arguments.target or "all", "configure": configure,
            "build": build, "compiled_files": compiled_files(folder)}


def text_of(stated, measured):
    rows = [[step, f"{measured[step]['seconds']:.1f}", f"{measured[step]['cpu_seconds']:.1f}"]
            for step in ("configure", "build")]
    what = "Everything" if measured["target"] == "all" else f"`{measured['target']}`"
    return "\n".join([
        f"{what}, {measured['compiled_files']} source files, generated ones included, "
        f"{measured['jobs']} at a time, without a compiler cache. Load average "
        f"{stated['load_average_before']:.2f} before.", "",
        report.table(["step", "seconds", "seconds of CPU"], rows)])


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), help="%(default)s by default")
    parser.add_argument("--target", help="only this one: whether it works")
    parser.add_argument("--folder", default=os.path.join(ROOT, "build"),
                        help="where the build goes, in a folder of its own: %(default)s by default")
    parser.add_argument("--json", metavar="FILE")
    parser.add_argument("--insert", metavar="FILE", help="put it into this page, between its marks")
    arguments = parser.parse_args()
    if arguments.insert and arguments.target:
        parser.error("--insert is for everything: without --target")
    if arguments.insert:
        report.page_with_places(arguments.insert, ["build-time"])
    stated = {**conditions.of_machine(), "load_average_before": os.getloadavg()[0]}
    os.makedirs(arguments.folder, exist_ok=True)
    folder = tempfile.mkdtemp(prefix="build_time_", dir=arguments.folder)
    try:
        measured = measure(folder, arguments)
    finally:
        shutil.rmtree(folder)
    text = text_of(stated, measured)
    print(text)
    if arguments.insert:
        report.insert({"build-time": text}, arguments.insert)
    if arguments.json:
        with open(arguments.json, "w", encoding="utf-8") as file:
            json.dump({"conditions": stated, **measured}, file, indent=1)


if __name__ == "__main__":
    main()
