"""From the figures of all rounds to sections of a page."""

import json
import os
import re
import statistics
import subprocess
import sys

import conditions
from ratio import ratio
from systems import RATE, SIZE_TITLE, UNIX_AND_TCP

INSTRUCTION_COUNTS = os.path.join(os.path.dirname(__file__), "..", "instruction_counts.json")
BAR_NOTES = [
    "Ratio: Varnic's figure as so many times the other's of the same round; the median of the rounds. "
    "Where there is none, the bar is for the figure itself.",
    "Beside grpc++ stands the best of its three services for that figure. Debian's grpc++ is built "
    "without NDEBUG: its debug assertions run, and a build of one's own is faster.",
    "Epoll echo is no RPC: it says what the sockets cost. A call and a question are the same to it.",
    "What idle cores do (see the line above) is in every figure of one thing at a time, and can be "
    "most of it: compare only runs with the same driver and the same `--keep-awake`.",
]
ROW_NOTES = [
    "Each cell: the median of the rounds (the lowest to the highest). Lead: how many times as good "
    "as the other system varnic is, by the first figure, in the same round; the median of the rounds. "
    "Below 1, the other leads.",
    "The server had less than 0.9 of its core where there is a mark, and so could have done more. A "
    "star: the load generator had more than 0.9 of its own, and the figure may be the generator's. A "
    "dagger: neither was busy all the time. On a machine that does nothing else they wait for each "
    "other, so that the rate is of both together, and only the CPU is the server's alone. Otherwise "
    "both wait for a core.",
    "Epoll echo's batches have no framing to keep.",
    "Memory is the process's own; what the kernel keeps for a socket comes on top for everybody.",
]


def notes(lines):
    return "\n".join(f"- {line}" for line in lines) + "\n"


def table(headings, rows):
    lines = ["| " + " | ".join(headings) + " |", "|---" * len(headings) + "|"]
    return "\n".join(lines + ["| " + " | ".join(cells) + " |" for cells in rows]) + "\n"


def stripped_size(program, scratch):
    stripped = os.path.join(scratch, "stripped")
    subprocess.run(["strip", "-o", stripped, os.path.realpath(program)], check=True)
    return os.path.getsize(stripped)


def libraries_size(program):
    listing = subprocess.run(["ldd", program], capture_output=True, text=True, check=True).stdout
    paths = set(re.findall(r"(/\S+) \(0x", listing))
    return sum(os.path.getsize(os.path.realpath(path)) for path in paths)


def number(value):
    if abs(value) >= 1000:
        return f"{value:,.0f}"
    return f"{value:.3g}"


def without_unit(heading):
    return heading.partition(",")[0]


def spread(values):
    text = number(statistics.median(values))
    if len(values) > 1:
        text += f" ({number(min(values))}–{number(max(values))})"
    return text


def mark_of(measured):
    """A star or a dagger if the figure is not the server's alone; ROW_NOTES has what they mean."""
    load = statistics.median(m.get("load_busy", 0) for m in measured)
    server = statistics.median(m.get("server_busy", 1) for m in measured)
    if server >= 0.9:
        return ""
    return "*" if load > 0.9 else "†"


def median_of(measured, key):
    return statistics.median(m[key] for m in measured)


def summarise(row, measured_by_system):
    """For each system and figure: median, lowest, highest, and varnic's lead."""
    summary = {}
    for system, measured in measured_by_system.items():
        summary[system] = {"mark": mark_of(measured)}
        for key, _, less_is_better in row.figures:
            values = [m[key] for m in measured]
            middle = statistics.median(values)
            summary[system][key] = {"median": middle, "lowest": min(values),
                                    "highest": max(values)}
            ours = measured_by_system.get("varnic", [])
            if ours and all(values) and all(m[key] for m in ours):
                one, other = (measured, ours) if less_is_better else (ours, measured)
                summary[system][key]["varnic_leads"] = ratio(key, one, other)
    return summary


def row_table(row, measured_by_system, readings):
    summary = summarise(row, measured_by_system)
    cells_of_rows = []
    for system, measured in measured_by_system.items():
        # Of one thing at a time nobody expects anything else.
        mark = summary[system]["mark"] if row.figures[0] == RATE else ""
        cells = [spread([m[key] for m in measured]) for key, _, _ in row.figures]
        lead = summary[system][row.figures[0][0]].get("varnic_leads")
        cells.append(f"{lead:.2f}" if lead is not None and system != "varnic" else "")
        cells_of_rows.append([system + mark] + cells)
    text = f"**{row.title}** (`{row.name}`)\n\n" + table(
        ["system"] + [heading for _, heading, _ in row.figures] + ["lead"], cells_of_rows)
    bars = [f"{without_unit(one['figure'])} {one['bar']}{' of ' + one['beside'] if 'beside' in one else ''}: "
            f"{verdict(one)}" for one in readings if one["row"] == row.name]
    return text + ("\nBar: " + "; ".join(bars) + ".\n" if bars else "")


def verdict(reading):
    return f"{number(reading.get('ratio', reading['varnic']))}, " + ("met" if reading["met"] else "**missed**")


def bar_table(rows, readings):
    titles = {row.name: row.title for row in rows}
    return table(
        ["what", "figure", "varnic", "beside", "ratio", "bar", "met?"],
        [[f"{titles[one['row']]} (`{one['row']}`)", one["figure"], number(one["varnic"]),
          f"{one['beside']}: {number(one['theirs'])}" if "beside" in one else "",
          number(one["ratio"]) if "ratio" in one else "", one["bar"],
          "met" if one["met"] else "**missed**"] for one in readings])


def size_table(sizes):
    return f"**{SIZE_TITLE}** (`size`)\n\n" + table(
        ["system", "bytes", "with libraries"],
        [[system, f"{own:,}", f"{own + libraries:,}"]
         for system, (own, libraries) in sizes.items()])


def tcp_table(tables):
    """What TCP takes besides, by the figures of rows that are there over both kinds of socket."""
    by_name = {row.name: (row, measured) for row, measured in tables.items()}
    cells_of_rows = []
    for unix, tcp in UNIX_AND_TCP:
        if unix not in by_name or tcp not in by_name:
            continue
        (row, over_unix), (_, over_tcp) = by_name[unix], by_name[tcp]
        shown = [figure for figure in row.figures if figure[0] != "p99_us"]
        for system in over_unix:
            if system in over_tcp:
                ratios = [
                    f"{without_unit(heading)} {number(ratio(key, over_tcp[system], over_unix[system]))}"
                    for key, heading, _ in shown]
                cells_of_rows.append([f"`{unix}`", system, ", ".join(ratios)])
    if not cells_of_rows:
        return ""
    return ("**TCP on loopback as so many times the same over a Unix-domain socket** (`tcp`)\n\n"
            + table(["row", "system", "TCP / Unix"], cells_of_rows))


def guards_table(tables):
    """What the limits cost: with the usual ones, and with some that are never reached."""
    cells_of_rows = []
    for row, measured in tables.items():
        if "varnic" not in measured or "varnic, relaxed" not in measured:
            continue
        usual = median_of(measured["varnic"], "server_cpu_us")
        relaxed = median_of(measured["varnic, relaxed"], "server_cpu_us")
        times = ratio("server_cpu_us", measured["varnic"], measured["varnic, relaxed"])
        cells_of_rows.append([f"{row.title} (`{row.name}`)", number(usual), number(relaxed),
                              f"{100 * (times - 1):+.1f} %"])
    if not cells_of_rows:
        return ""
    return ("**What the limits cost: server CPU, µs each, with the usual limits, and with limits that "
            "are never reached** (`guards`)\n\n"
            + table(["what", "usual limits", "none reached", "the limits cost"], cells_of_rows)
            + "\nWhat they cost is the median of the rounds' ratios. Limits that are never reached are "
            "looked at all the same; those in time are off. A difference smaller than the spread of the "
            "rounds is none. All of the guards, which look at what a peer does on behalf of a limit, "
            f"take, by the count of instructions: {guard_shares()}.\n")


def guard_shares():
    with open(INSTRUCTION_COUNTS, encoding="utf-8") as file:
        builds = json.load(file)
    counts = next(iter(builds.values()))["counts"]
    return ", ".join(f"{100 * count.get('of guards', 0) / count['instructions']:.1f} % of a "
                     f"{name.replace('_', ' ')}" for name, count in counts.items())


def sections(stated, tables, sizes, readings):
    """By the name of the place in a page that each is for."""
    rows = [row_table(row, measured, readings) for row, measured in tables.items()]
    return {
        "machine": conditions.machine_text(stated),
        "bars": "\n".join([conditions.run_text(stated), bar_table(tables, readings),
                           notes(BAR_NOTES)]),
        "rows": "\n".join([notes(ROW_NOTES)] + [text for text in rows + [
            tcp_table(tables), guards_table(tables), size_table(sizes)] if text]),
    }


def marks(name):
    return f"<!-- begin: {name} -->", f"<!-- end: {name} -->"


def page_with_places(path, names):
    """The page's text; ends the program if it has no place for one of these."""
    with open(path, encoding="utf-8") as file:
        page = file.read()
    for name in names:
        begin, end = marks(name)
        if end not in page.partition(begin)[2]:
            sys.exit(f"{path} has no place for {name}: {begin} and {end}")
    return page


def insert(sections_by_name, path):
    """Puts each section between its marks."""
    page = page_with_places(path, sections_by_name)
    for name, text in sections_by_name.items():
        begin, end = marks(name)
        before, _, rest = page.partition(begin)
        page = f"{before}{begin}\n\n{text}\n{end}{rest.partition(end)[2]}"
    with open(path, "w", encoding="utf-8") as file:
        file.write(page)
