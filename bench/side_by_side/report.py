"""From the figures of all rounds to a table, and to JSON."""

import os
import platform
import re
import statistics
import subprocess
import sys

from systems import SIZE_TITLE

# Between these, a page of documentation has the tables of a run.
BEGIN, END = "<!-- figures -->", "<!-- end of figures -->"
PACKAGES = ["libgrpc++1.51", "libprotobuf32", "libnghttp2-14", "libcapnp-0.9.2", "redis-server"]
NOTES = [
    "Each cell: the median of the rounds (the lowest to the highest). Lead: how many times as good "
    "as the other system varnic is, by the medians of the first figure; below 1, the other leads.",
    "Debian's grpc++ is built without NDEBUG: its debug assertions run, and a build of one's own is "
    "faster.",
    "A star: the load generator had more than 0.9 of its core, and the server less than 0.9 of its "
    "own, so the figure may be the generator's.",
    "Epoll echo is no RPC: it says what the sockets cost. Its batches have no framing to keep.",
    "Memory is the process's own; what the kernel keeps for a socket comes on top for everybody.",
]


def read(path):
    try:
        with open(path, encoding="utf-8") as file:
            return file.read().strip()
    except OSError:
        return ""


def conditions(arguments, server_cpu, load_cpu):
    """What has to be the same for figures of two runs to be compared."""
    model = re.search(r"model name\s*: (.*)", read("/proc/cpuinfo"))
    idle = "/sys/devices/system/cpu/cpuidle/"
    return {
        "machine": f"{model[1] if model else platform.machine()}, {os.cpu_count()} CPUs",
        "kernel": platform.release(),
        "idle_driver": read(idle + "current_driver"),
        "idle_governor": read(idle + "current_governor"),
        "guest_halt_poll_ns": read("/sys/module/haltpoll/parameters/guest_halt_poll_ns"),
        "kept_awake": arguments.keep_awake,
        "server_cpu": server_cpu,
        "load_cpu": load_cpu,
        "rounds": arguments.rounds,
        "seconds": arguments.seconds,
        "load_average_before": os.getloadavg()[0],
        "packages": {name: package_version(name) for name in PACKAGES},
    }


def package_version(name):
    result = subprocess.run(["dpkg-query", "-W", "-f", "${Version}", name], capture_output=True,
                            text=True, check=False)
    return result.stdout


def stripped_size(program, scratch):
    stripped = os.path.join(scratch, "stripped")
    subprocess.run(["strip", "-o", stripped, os.path.realpath(program)], check=True)
    return os.path.getsize(stripped)


def libraries_size(program):
    listing = subprocess.run(["ldd", program], capture_output=True, text=True, check=True).stdout
    paths = set(re.findall(r"(/\S+) \(0x", listing))
    return sum(os.path.getsize(os.path.realpath(path)) for path in paths)


def number(value):
    if value >= 1000:
        return f"{value:,.0f}"
    return f"{value:.3g}" if value >= 1 else f"{value:.2f}"


def spread(values):
    text = number(statistics.median(values))
    if len(values) > 1:
        text += f" ({number(min(values))}–{number(max(values))})"
    return text


def generator_bound(measured):
    return (statistics.median(m.get("load_busy", 0) for m in measured) > 0.9
            and statistics.median(m.get("server_busy", 1) for m in measured) < 0.9)


def summarise(row, measured_by_system):
    """For each system and figure: median, lowest, highest, and varnic's lead."""
    def median(system, key):
        return statistics.median(m[key] for m in measured_by_system[system])

    summary = {}
    for system, measured in measured_by_system.items():
        summary[system] = {"generator_bound": generator_bound(measured)}
        for key, _, less_is_better in row.figures:
            values = [m[key] for m in measured]
            summary[system][key] = {"median": statistics.median(values), "lowest": min(values),
                                    "highest": max(values)}
            if "varnic" in measured_by_system and median(system, key) and median("varnic", key):
                lead = median(system, key) / median("varnic", key)
                summary[system][key]["varnic_leads"] = lead if less_is_better else 1 / lead
    return summary


def row_table(row, measured_by_system):
    summary = summarise(row, measured_by_system)
    headings = ["system"] + [heading for _, heading, _ in row.figures] + ["lead"]
    lines = [f"**{row.title}** (`{row.name}`)", "", "| " + " | ".join(headings) + " |",
             "|---" * len(headings) + "|"]
    for system, measured in measured_by_system.items():
        star = "*" if summary[system]["generator_bound"] else ""
        cells = [spread([m[key] for m in measured]) for key, _, _ in row.figures]
        lead = summary[system][row.figures[0][0]].get("varnic_leads")
        cells.append(f"{lead:.2f}" if lead is not None and system != "varnic" else "")
        lines.append("| " + " | ".join([system + star] + cells) + " |")
    return "\n".join(lines) + "\n"


def size_table(sizes):
    lines = [f"**{SIZE_TITLE}** (`size`)", "", "| system | bytes | with libraries |", "|---|---|---|"]
    lines += [f"| {system} | {own:,} | {own + libraries:,} |"
              for system, (own, libraries) in sizes.items()]
    return "\n".join(lines) + "\n"


def heading(stated):
    kept = "kept awake" if stated["kept_awake"] else "left to sleep"
    packages = ", ".join(f"{name} {version}" for name, version in stated["packages"].items())
    lines = [
        f"{stated['machine']}, Linux {stated['kernel']}; load average {stated['load_average_before']:.2f} "
        f"before and {stated['load_average_after']:.2f} after.",
        f"Idle driver {stated['idle_driver'] or 'unknown'}, governor {stated['idle_governor'] or 'unknown'}; "
        f"idle cores {kept}. Server on CPU {stated['server_cpu']}, load generator on CPU "
        f"{stated['load_cpu']}. {stated['rounds']} rounds of {stated['seconds']:g} s each.",
        f"{packages}.", ""]
    return "\n".join(lines + [f"- {note}" for note in NOTES]) + "\n"


def page(stated, tables, sizes):
    return "\n".join([heading(stated)] + [row_table(row, measured) for row, measured in tables.items()]
                     + [size_table(sizes)])


def insert(text, path):
    with open(path, encoding="utf-8") as file:
        before, begin, rest = file.read().partition(BEGIN)
    _, end, after = rest.partition(END)
    if not (begin and end):
        sys.exit(f"{path} has no place for the tables: {BEGIN} and {END}")
    with open(path, "w", encoding="utf-8") as file:
        file.write(f"{before}{BEGIN}\n\n{text}\n{END}{after}")
