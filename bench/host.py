"""Where figures come from: machine, build, commit. Figures without these say nothing."""

import os
import pathlib
import platform
import subprocess
import time

from . import ROOT

_OPTIMISED = ("Release", "RelWithDebInfo", "MinSizeRel")


def describe(build):
    """What a reader needs to know of a measurement's place."""
    cache = cache_of(build)
    return {
        "date": time.strftime("%Y-%m-%d %H:%M UTC", time.gmtime()),
        "machine": f"{platform.machine()}, {os.cpu_count()} CPUs, {cpu_model()}",
        "memory": f"{total_memory_mib()} MiB",
        "kernel": platform.release(),
        "compiler": first_line([cache.get("CMAKE_CXX_COMPILER", "c++"), "--version"]),
        "build": cache.get("CMAKE_BUILD_TYPE") or "unoptimised",
        "commit": commit(),
    }


def build_warnings(build):
    """Why the figures of this build are not those of the program that is installed."""
    cache = cache_of(build)
    if cache.get("CMAKE_BUILD_TYPE") not in _OPTIMISED:
        yield "this build is not optimised: its figures say nothing about the installed program"
    if cache.get("IPSLA_SANITIZE"):
        yield f"this build is sanitized ({cache['IPSLA_SANITIZE']}): its figures say nothing"
    if cache.get("IPSLA_COVERAGE", "OFF") not in ("", "OFF"):
        yield "this build counts its coverage: its figures say nothing"


def cache_of(build):
    found = {}
    for line in (build.directory / "CMakeCache.txt").read_text().splitlines():
        name, equals, value = line.partition("=")
        if equals and ":" in name:
            found[name.split(":")[0]] = value
    return found


def first_line(command):
    try:
        done = subprocess.run(command, capture_output=True, text=True, check=False)
    except OSError:
        return "unknown"
    return (done.stdout.splitlines() or ["unknown"])[0]


def commit():
    """The commit, marked when the tree has changes."""
    git = ["git", "-C", str(ROOT)]
    name = first_line([*git, "rev-parse", "--short", "HEAD"])
    changed = first_line([*git, "status", "--porcelain", "--untracked-files=no"]) != "unknown"
    return name + (" with changes" if changed and name != "unknown" else "")


def cpu_model():
    for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines():
        if line.startswith("model name"):
            return line.split(":", 1)[1].strip()
    return "unknown processor"


def total_memory_mib():
    return os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") >> 20


def busy_percent(seconds=0.4):
    """How busy the machine is with other things, of all its CPUs."""
    before = processor_times()
    time.sleep(seconds)
    after = processor_times()
    spent = [late - early for early, late in zip(before, after)]
    idle = spent[3] + spent[4]
    return 100 * (1 - idle / max(sum(spent), 1))


def processor_times():
    """user, nice, system, idle, iowait, irq, softirq, steal of all CPUs, in ticks."""
    return [int(part) for part in pathlib.Path("/proc/stat").read_text().split()[1:9]]
