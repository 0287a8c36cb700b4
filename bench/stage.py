"""The laboratory of a measurement: the daemon's namespace, a neighbour, and a wire between them."""

import contextlib
import os
import pathlib
import subprocess
import tempfile
import time

from support.daemon import Daemon
from support.lab import Build, Lab
from support.waiting import wait_for

NEAR, FAR = "10.2.0.1", "10.2.0.2"
NEAR_WIRE, FAR_WIRE, PEER = "peer-near", "peer-far", "peer"
_FARM = "10.3.0.0/16"


def farm_address(number):
    """One of the neighbour's many addresses, from 1; the kernel answers pings to all of them."""
    return f"10.3.{number // 250}.{number % 250 + 1}"


@contextlib.contextmanager
def stage(build):
    """A lab with a neighbour, gone at the end."""
    with tempfile.TemporaryDirectory(prefix="ipsla-bench-") as directory:
        lab = Lab(build, directory)
        try:
            lab.add_peer(PEER, f"{NEAR}/24", f"{FAR}/24")
            lab.run("ip", "route", "add", "local", _FARM, "dev", "lo", namespace=PEER)
            lab.run("ip", "route", "add", _FARM, "via", FAR)
            # An answer to "who has" in the middle of a run would be somebody else's time.
            lab.run("ping", "-c", "1", FAR, check=False)
            yield lab
        finally:
            lab.close()


@contextlib.contextmanager
def daemon(lab, tasks, cpus=None, **options):
    """A running daemon with its own system-log library, stopped at the end."""
    cpus = list(range(os.cpu_count())) if cpus is None else cpus
    environment = {"LD_PRELOAD": "", **options.pop("env", {})}
    running = Daemon(lab, tasks, cpus=cpus, env=environment, **options)
    try:
        yield running
    finally:
        running.stop()
        lab.daemons.remove(running)


@contextlib.contextmanager
def responder(lab, namespace=PEER, address=FAR, options=()):
    """The project's responder at the other end."""
    output = lab.directory / "responder.txt"
    with open(output, "wb") as out:
        program = lab.build.program("ip-sla-responder")
        arguments = [
            "--bind",
            address,
            "--control-port",
            "2000",
            "--port-range",
            "20001-25000",
            "--max-sessions",
            "5000",
            *options,
        ]
        process = lab.popen(
            "prlimit", "--nofile=20000", program, *arguments, namespace=namespace, stdout=out
        )
    try:
        wait_for(lambda: "listening on" in output.read_text(), "the responder to listen")
        yield process
    finally:
        end(process)


@contextlib.contextmanager
def busy_cores(is_busy):
    """Every core busy with work that gives way: ordinary scheduling, niced."""
    loop = ["nice", "-n", "19", "sh", "-c", "while :; do :; done"]
    count = os.cpu_count() if is_busy else 0
    loops = [subprocess.Popen(["setpriv", "--pdeathsig", "KILL", *loop]) for _ in range(count)]
    try:
        if is_busy:
            time.sleep(0.3)
        yield
    finally:
        for process in loops:
            process.kill()
            process.wait()


def end(process):
    """Ends a program that this measurement started."""
    if process.poll() is None:
        process.terminate()
        try:
            process.wait(timeout=10)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


def cpu_seconds(pid):
    """CPU time of all threads of a process, to the nanosecond, by the scheduler's own count."""
    total = 0
    for thread in os.listdir(f"/proc/{pid}/task"):
        with contextlib.suppress(FileNotFoundError):
            total += int(
                pathlib.Path(f"/proc/{pid}/task/{thread}/schedstat").read_text().split()[0]
            )
    return total / 1e9


def the_build(directory):
    return Build(pathlib.Path(directory))
