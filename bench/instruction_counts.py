#!/usr/bin/python3
"""Counts the instructions and the system calls that the server takes for fixed work, and compares them
with those that are kept in instruction_counts.json: more than 5 % growth fails.

Neither is time, but they do not depend on what else the machine does, so they show small steps that no
measurement of time would. Instructions depend on compiler and libraries; those of the kernel are not
counted.
"""

import argparse
import glob
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

ALLOWED_GROWTH = 0.05
SKIPPED = 77
LIBRARIES = ["libc6", "libnghttp2-14", "libprotobuf32", "libstdc++6"]
# Classes that look at what a peer does, on behalf of a limit.
GUARDS = re.compile(r"varnic::(net::)?(\w+(Guard|Rule|Watch)|SubscriptionBounds|PingPolicy|TokenBucket|"
                    r"UnfinishedMessages|StreamHistory|FrameScanner|ProgressMark)::")


def count(program):
    """For each kind of work, of one of it: instructions, those of them that guards take, system calls."""
    with tempfile.TemporaryDirectory(prefix="varnic_counts_") as scratch:
        out = os.path.join(scratch, "out")
        command = ["valgrind", "--tool=callgrind", "--collect-atstart=no", "--collect-systime=yes",
                   f"--callgrind-out-file={out}", program,
                   "unix:" + os.path.join(scratch, "socket")]
        # The same routines of the C library on every machine, whatever its processor has.
        environment = {"PATH": os.environ["PATH"],
                       "GLIBC_TUNABLES": "glibc.cpu.hwcaps=-AVX2,-AVX,-ERMS,-FSRM,-BMI2"}
        result = subprocess.run(command, env=environment, capture_output=True, text=True,
                                check=False)
        if result.returncode != 0:
            sys.exit("callgrind has failed:\n" + result.stderr)
        counts = {}
        for path in glob.glob(out + ".*"):
            with open(path, encoding="utf-8") as dump:
                text = dump.read()
            label = re.search(r"^desc: Trigger: Client Request: (\w+) (\d+)$", text, re.MULTILINE)
            if label:
                times = int(label[2])
                # Of numbers at the end that are 0, callgrind writes none.
                totals = re.search(r"^totals: (\d+) (\d+)(?: \d+)?$", text, re.MULTILINE)
                counts[label[1]] = {"instructions": round(int(totals[1]) / times),
                                    "of guards": round(guards_cost(text) / times),
                                    "system calls": round(int(totals[2]) / times, 3)}
        return dict(sorted(counts.items()))


def guards_cost(dump):
    """What is counted in the functions of guards, and in all that they call."""
    names = {}

    def is_guard(reference):
        number, _, name = reference.partition(" ")
        if name:
            names[number] = bool(GUARDS.match(name))
        return names[number]

    cost, inside, callee_is_guard, is_call = 0, False, False, False
    for line in dump.splitlines():
        if line.startswith("fn="):
            inside = is_guard(line[3:])
        elif line.startswith("cfn="):
            callee_is_guard = is_guard(line[4:])
        elif line.startswith("calls="):
            is_call = True
        elif line and line[0] in "0123456789+-*":
            fields = line.split()
            # What a guard's guard takes is counted there.
            if inside and len(fields) > 1 and not (is_call and callee_is_guard):
                cost += int(fields[1])
            is_call = False
    return cost


def library_versions():
    result = subprocess.run(["dpkg-query", "-W", "-f", "${Package} ${Version}\n", *LIBRARIES],
                            capture_output=True, text=True, check=False)
    return dict(line.split() for line in result.stdout.splitlines())


def read_reference(path):
    if not os.path.exists(path):
        return {}
    with open(path, encoding="utf-8") as file:
        return json.load(file)


def renew(path, build, counts):
    reference = read_reference(path)
    reference[build] = {"libraries": library_versions(),
                        "counts": counts}
    with open(path, "w", encoding="utf-8") as file:
        json.dump(reference, file, indent=2, sort_keys=True)
        file.write("\n")


def compare(kept, counts):
    """What is wrong, a line each."""
    complaints = []
    for name, counted in counts.items():
        for unit in ("instructions", "system calls"):
            former, now = kept["counts"].get(name, {}).get(unit), counted[unit]
            if former is None:
                complaints.append(f"{name}: no number of {unit} is kept")
            elif now > former * (1 + ALLOWED_GROWTH):
                complaints.append(f"{name}: {former} {unit} before, {now} now "
                                  f"({now / former - 1:+.1%}; {ALLOWED_GROWTH:.0%} is allowed)")
    if complaints and kept["libraries"] != library_versions():
        complaints.append(f"The kept numbers are of other libraries: {kept['libraries']}, "
                          f"and here are {library_versions()}")
    return complaints


def show(counts, kept):
    print(f"{'for one':26} {'instructions':>12} {'before':>9} {'of guards':>10} {'system calls':>13} "
          f"{'before':>7}")
    for name, counted in counts.items():
        former = kept["counts"].get(name, {}) if kept else {}
        print(f"{name:26} {counted['instructions']:12} {former.get('instructions', '-'):>9} "
              f"{counted['of guards']:10} {counted['system calls']:13} "
              f"{former.get('system calls', '-'):>7}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--program", required=True)
    parser.add_argument("--reference", required=True, help="the file with the numbers that are kept")
    parser.add_argument("--build", required=True, help="architecture and compiler")
    parser.add_argument("--renew", action="store_true", help="keep the numbers of now")
    arguments = parser.parse_args()
    if shutil.which("valgrind") is None:
        print("skipped: valgrind is not installed")
        return SKIPPED
    counts = count(arguments.program)
    kept = read_reference(arguments.reference).get(arguments.build)
    show(counts, kept)
    if arguments.renew:
        renew(arguments.reference, arguments.build, counts)
        return 0
    if kept is None:
        print(f"skipped: no numbers are kept for {arguments.build}; "
              "./dev instructions keeps these")
        return SKIPPED
    complaints = compare(kept, counts)
    for complaint in complaints:
        print(complaint)
    if complaints:
        print("If that is meant: ./dev instructions, and say why in the change.")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
