"""A private laboratory for one test.

    lab: network namespace of its own, registered as "1", the daemon's own namespace
         lo up; /var/log and /run are private and empty
    add_namespace("red"), add_link(...): further namespaces (VRFs for the daemon) and veth pairs
    between them

Nothing of the machine is touched: no log, port, route, interface or file below /run. Everything is
gone when the lab is closed, and also when the test process dies, because the namespaces live as
long as a process that reads its pipe.
"""

import os
import pathlib
import subprocess

from . import namespaces
from .waiting import DEFAULT_DEADLINE, wait_for

_SETUP = """
set -e
mount -t tmpfs -o mode=755 tmpfs /var/log
mount -t tmpfs -o mode=755 tmpfs /run
mkdir /run/netns
mount --bind /run/netns /run/netns
mount --make-private /run/netns
touch /run/netns/1
mount --bind /proc/self/ns/net /run/netns/1
ip link set lo up
echo ready
exec cat
"""


class Lab:
    def __init__(self, build, directory, worker=0):
        self.build = build
        self.directory = pathlib.Path(directory)
        self.worker = worker
        self._closers = []
        self.daemons = []
        self._holder = subprocess.Popen(
            ["unshare", "--net", "--mount", "--propagation", "private", "sh", "-c", _SETUP],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
        )
        if self._holder.stdout.readline().strip() != "ready":
            raise RuntimeError("the namespaces could not be made")
        self.pid = self._holder.pid

    # -- the namespaces
    # ------------------------------------------------------------------------------------------

    def path(self, inside):
        """A file as the daemon sees it, by a path that the test process can open."""
        return pathlib.Path(f"/proc/{self.pid}/root{inside}")

    def namespace_path(self, name=None):
        return f"/proc/{self.pid}/ns/net" if name is None else str(self.path(f"/run/netns/{name}"))

    def inside(self, *command, namespace=None):
        """The command line that runs `command` inside; the process keeps the id that the caller
        sees.
        """
        entered = ["nsenter", "-t", str(self.pid), "-m", f"--net={self.namespace_path(namespace)}"]
        # The last one clears the way for a test process that is killed: its programs do not outlive
        # it.
        return entered + ["setpriv", "--pdeathsig", "KILL"] + [str(part) for part in command]

    def run(self, *command, namespace=None, check=True, **options):
        result = subprocess.run(
            self.inside(*command, namespace=namespace),
            stdin=options.pop("stdin", subprocess.DEVNULL),
            capture_output=True,
            text=True,
            timeout=options.pop("timeout", 60),
            **options,
        )
        if check and result.returncode != 0:
            raise AssertionError(
                f"{command} gave status {result.returncode}: {result.stdout}{result.stderr}"
            )
        return result

    def popen(self, *command, namespace=None, **options):
        process = subprocess.Popen(self.inside(*command, namespace=namespace), **options)
        self.on_close(lambda: _end(process))
        return process

    def on_close(self, function):
        self._closers.append(function)

    # -- topology
    # ----------------------------------------------------------------------------------------------

    def add_namespace(self, name):
        """A named namespace with its loopback up: a VRF for the daemon, or the place of a peer."""
        self.run("ip", "netns", "add", name)
        self.run("ip", "link", "set", "lo", "up", namespace=name)

    def add_link(self, first, second):
        """A veth pair between two ends (namespace or None, interface, "a.b.c.d/n"), both up."""
        (space_a, name_a, address_a), (space_b, name_b, address_b) = first, second
        target = ["netns", space_b] if space_b else ["netns", "1"]
        self.run(
            "ip",
            "link",
            "add",
            name_a,
            "type",
            "veth",
            "peer",
            "name",
            name_b,
            *target,
            namespace=space_a,
        )
        for space, name, address in (first, second):
            self.run("ip", "address", "add", address, "dev", name, namespace=space)
            self.run("ip", "link", "set", name, "up", namespace=space)
        for space, name, _ in (first, second):
            wait_for(lambda: self.is_running(name, space), f"carrier on {name}")

    def is_running(self, interface, namespace=None):
        return "state UP" in self.run("ip", "link", "show", interface, namespace=namespace).stdout

    def add_vrf(self, name, vrf_address="10.1.0.1/24", peer_address="10.1.0.2/24"):
        """A VRF joined to the lab's own namespace by a veth pair: interfaces <name>-in and
        <name>-out.
        """
        self.add_namespace(name)
        self.add_link((name, f"{name}-in", vrf_address), (None, f"{name}-out", peer_address))

    def add_peer(self, name="peer", local_address="10.2.0.1/24", peer_address="10.2.0.2/24"):
        """A neighbour of the lab's own namespace, in a namespace of its own: interfaces
        <name>-near, <name>-far.
        """
        self.add_namespace(name)
        self.add_link((None, f"{name}-near", local_address), (name, f"{name}-far", peer_address))

    def unregister_own_namespace(self):
        """Takes the name "1" away."""
        self.run("umount", "/run/netns/1")
        self.run("rm", "/run/netns/1")

    def drop(self, rule, hook="input", namespace=None):
        """Drops what matches an nftables expression in one namespace; "limit"s and counters are
        allowed in it.
        """
        if not getattr(self, "_tables", None):
            self._tables = set()
        if (namespace, hook) not in self._tables:
            self._tables.add((namespace, hook))
            self.run("nft", "add table ip lab", namespace=namespace)
            self.run(
                "nft",
                f"add chain ip lab {hook} {{ type filter hook {hook} priority 0; }}",
                namespace=namespace,
            )
        self.run("nft", f"add rule ip lab {hook} {rule} counter drop", namespace=namespace)

    def socket(self, family, kind, protocol=0, bind=None, namespace=None):
        sock = namespaces.socket_in_namespace(
            self.namespace_path(namespace), family, kind, protocol, bind
        )
        self.on_close(sock.close)
        return sock

    # -- logs
    # ----------------------------------------------------------------------------------------------

    def log_path(self, task=0):
        name = "sender.log" if task == 0 else f"test_{task}.log"
        return self.path(f"/var/log/ip-sla/{name}")

    def log_text(self, task=0):
        try:
            return self.log_path(task).read_text(errors="replace")
        except FileNotFoundError:
            return ""

    # -- end
    # ----------------------------------------------------------------------------------------------

    def close(self):
        for closer in reversed(self._closers):
            closer()
        self._closers.clear()
        self._holder.stdin.close()
        try:
            self._holder.wait(timeout=DEFAULT_DEADLINE)
        except subprocess.TimeoutExpired:
            self._holder.kill()
            self._holder.wait()
        self._holder.stdout.close()


def _end(process):
    if process.poll() is None:
        process.kill()
    process.wait()
    for stream in (process.stdin, process.stdout, process.stderr):
        if stream is not None:
            stream.close()


_TSAN_SUPPRESSIONS = pathlib.Path(__file__).parents[2] / "tsan-suppressions.txt"


class Build:
    """The build directory under test and what it was built with."""

    def __init__(self, directory):
        self.directory = pathlib.Path(directory)
        cache = (self.directory / "CMakeCache.txt").read_text()
        flags = [
            line.split("=", 1)[1]
            for line in cache.splitlines()
            if line.startswith("IPSLA_SANITIZE:")
        ]
        self.sanitizers = set(flags[0].split(",")) - {""} if flags else set()

    def program(self, name):
        path = self.directory / "bin" / name
        assert path.exists(), f"{path} is not built"
        return path

    def has(self, name):
        return (self.directory / "bin" / name).exists()

    @property
    def recorder(self):
        return self.directory / "lib" / "recording" / "liblogsvc.so"

    def environment(self):
        """The sanitizers stop a program at its first finding and make it end with a status of their
        own.
        """
        return {
            "ASAN_OPTIONS": "detect_leaks=1:halt_on_error=1:exitcode=66:verify_asan_link_order=0",
            "UBSAN_OPTIONS": "print_stacktrace=1:halt_on_error=1",
            "TSAN_OPTIONS": "halt_on_error=1:exitcode=66:second_deadlock_stack=1"
            f":suppressions={_TSAN_SUPPRESSIONS}",
            "PATH": os.environ.get("PATH", "/usr/sbin:/usr/bin:/sbin:/bin"),
            "TZ": os.environ.get("TZ", ""),
        }

    def launcher(self):
        # A crash that a test provokes leaves no core file behind.
        launcher = ["prlimit", "--core=0"]
        # The thread sanitizer's shadow memory does not fit a widely randomised address space.
        return launcher + (["setarch", "-R"] if "thread" in self.sanitizers else [])
