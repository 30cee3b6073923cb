"""What has to be the same for the figures of two runs to be compared."""

import os
import platform
import re
import subprocess

PACKAGES = ["libgrpc++1.51", "libprotobuf32", "libnghttp2-14", "libabsl20220623", "libcapnp-0.9.2",
            "redis-server"]
IDLE = "/sys/devices/system/cpu/cpuidle/"


def read(path):
    try:
        with open(path, encoding="utf-8") as file:
            return file.read().strip()
    except OSError:
        return ""


def said_by(*command):
    """The first line that a command prints; empty if there is no such command."""
    try:
        result = subprocess.run(command, capture_output=True, text=True, check=False)
    except OSError:
        return ""
    return result.stdout.partition("\n")[0].strip()


def first_match(pattern, text, otherwise):
    match = re.search(pattern, text)
    return match[1] if match else otherwise


def of_machine():
    return {
        "machine": first_match(r"model name\s*: (.*)", read("/proc/cpuinfo"), platform.machine()),
        "cpus": os.cpu_count(),
        "memory_gib": round(os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / 2**30),
        "kernel": platform.release(),
        "system": first_match(r'PRETTY_NAME="(.*)"', read("/etc/os-release"), "unknown"),
        "idle_driver": read(IDLE + "current_driver") or "unknown",
        "idle_governor": read(IDLE + "current_governor") or "unknown",
        "guest_halt_poll_ns": read("/sys/module/haltpoll/parameters/guest_halt_poll_ns"),
        "compiler": said_by("c++", "--version"),
        "revision": said_by("git", "-C", os.path.dirname(__file__), "describe", "--always",
                            "--dirty", "--tags") or "unknown",
        "packages": {name: said_by("dpkg-query", "-W", "-f", "${Version}", name)
                     for name in PACKAGES},
    }


def of_run(stage):
    """Of the machine, and of a run that is about to begin on `stage`."""
    return {
        **of_machine(),
        "kept_awake": stage.arguments.keep_awake,
        "server_cpu": stage.server_cpu,
        "load_cpu": stage.load_cpu,
        "rounds": stage.arguments.rounds,
        "seconds": stage.arguments.seconds,
        "short": stage.arguments.short,
        "load_average_before": os.getloadavg()[0],
    }


def idle_text(stated):
    text = f"driver {stated['idle_driver']}, governor {stated['idle_governor']}"
    polls = stated["guest_halt_poll_ns"]
    return text + (f", guest_halt_poll_ns {int(polls):,}" if polls else "")


def machine_text(stated):
    packages = ", ".join(f"{name} {version}" for name, version in stated["packages"].items())
    return "\n".join([
        "| | |", "|---|---|",
        f"| machine | {stated['machine']}, {stated['cpus']} CPUs, {stated['memory_gib']} GiB |",
        f"| system | {stated['system']}, Linux {stated['kernel']} |",
        f"| idle cores | {idle_text(stated)} |",
        f"| compiler | {stated['compiler']} |",
        f"| Varnic | {stated['revision']} |",
        f"| packages | {packages} |"]) + "\n"


def run_text(stated):
    """One paragraph, which stands above whatever a run has to show."""
    kept = "kept awake (`--keep-awake`)" if stated["kept_awake"] else "left to sleep"
    text = (f"Rounds: {stated['rounds']}, of {stated['seconds']:g} s for each measurement. Idle cores: "
            f"{idle_text(stated)}; {kept}. Server on CPU {stated['server_cpu']}, load "
            f"generator on CPU {stated['load_cpu']}. Load average {stated['load_average_before']:.2f} "
            f"before and {stated['load_average_after']:.2f} after.")
    if stated["short"]:
        text += " A short run: it shows that everything works, and its figures mean nothing."
    return text + "\n"
