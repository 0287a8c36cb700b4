"""The daemon under test: started inside a lab, its outputs kept, its logs read back."""

import json
import os
import signal
import subprocess

from . import logs
from .waiting import DEFAULT_DEADLINE, SCALE, wait_for

BASE_THREADS = 3  # main, log writer, API
WORKERS_PER_CPU = 15
SANITIZER_MARKS = (
    "ERROR: AddressSanitizer",
    "ERROR: LeakSanitizer",
    "WARNING: ThreadSanitizer",
    "runtime error:",
)


class Daemon:
    """One process of ip-sla-sender. Files of the test: tasks.json, keychain.json, stdout, stderr,
    syslog.
    """

    def __init__(
        self, lab, tasks=(), keychain=None, cpus=None, arguments=None, env=None, document=None
    ):
        self.lab = lab
        number = len(lab.daemons)
        self.directory = lab.directory / f"daemon-{number}"
        self.directory.mkdir()
        self.tasks_path = self.directory / "tasks.json"
        self.keychain_path = self.directory / "keychain.json"
        self.stdout_path = self.directory / "stdout"
        self.stderr_path = self.directory / "stderr"
        self.syslog_path = self.directory / "syslog"
        self.cpus = [lab.worker % (os.cpu_count() or 1)] if cpus is None else cpus
        self.expected_exit = False
        self.bad_stop = None
        own_file = document is None and arguments is None
        workers = WORKERS_PER_CPU * len(self.cpus) if own_file else 0
        # The thread sanitizer has one of its own.
        self.first_threads = BASE_THREADS + workers + ("thread" in lab.build.sanitizers)
        self.write_tasks(tasks, document)
        self.write_keychain(keychain or {})
        if arguments is None:
            arguments = ["-f", self.tasks_path, "-k", self.keychain_path]
        environment = lab.build.environment()
        environment["IPSLA_RECORDING_FILE"] = str(self.syslog_path)
        environment["LD_PRELOAD"] = str(lab.build.recorder)
        environment.update(env or {})
        variables = [f"{name}={value}" for name, value in environment.items() if value]
        command = lab.inside(
            "env",
            "-i",
            *variables,
            *lab.build.launcher(),
            lab.build.program("ip-sla-sender"),
            *arguments,
        )
        with open(self.stdout_path, "wb") as out, open(self.stderr_path, "wb") as err:
            self.process = subprocess.Popen(
                command, stdin=subprocess.DEVNULL, stdout=out, stderr=err
            )
        lab.daemons.append(self)
        lab.on_close(self.stop)

    # -- configuration
    # -------------------------------------------------------------------------------------------

    def write_tasks(self, tasks, document=None):
        if document is None:
            document = {"IP-SLA-tasks": list(tasks), "cpus": self.cpus}
        text = document if isinstance(document, str) else json.dumps(document, indent=1)
        self.tasks_path.write_text(text)

    def write_keychain(self, keychain):
        """`keychain` maps key ids to key texts; a text is written as it is."""
        if not isinstance(keychain, str):
            keys = [{"key-id": number, "key-string": text} for number, text in keychain.items()]
            keychain = json.dumps({"keychain-storage": keys})
        self.keychain_path.write_text(keychain)

    # -- life
    # ----------------------------------------------------------------------------------------------

    @property
    def pid(self):
        return self.process.pid

    def is_running(self):
        return self.process.poll() is None

    def wait_ready(self, deadline=DEFAULT_DEADLINE):
        """Until the daemon has read its configuration and all its threads are there."""

        def ready():
            assert (
                self.is_running()
            ), f"the daemon ended with {self.process.returncode}: {self.stderr}"
            return (
                "List of keys in the storage" in self.lab.log_text(0)
                and len(self.threads()) >= self.first_threads
            )

        wait_for(ready, "the daemon to be ready", deadline)
        return self

    def wait_exit(self, deadline=DEFAULT_DEADLINE):
        """The exit status of a daemon that is to end by itself (negative: the signal)."""
        self.expected_exit = True
        wait_for(lambda: not self.is_running(), "the daemon to end", deadline)
        return self.process.returncode

    def stop(self, deadline=DEFAULT_DEADLINE):
        """A clean stop; one that is not clean is among the findings."""
        if not self.is_running():
            return
        self.expected_exit = True
        self.process.send_signal(signal.SIGTERM)
        try:
            self.process.wait(timeout=deadline * SCALE)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        if self.process.returncode != 0:
            self.bad_stop = f"the daemon's stop gave {self.process.returncode}: {self.stderr}"

    def findings(self):
        """What makes a test fail although its own assertions hold: sanitizer reports, an unexpected
        end.
        """
        text = self.stderr
        found = [f"{mark} in {text}" for mark in SANITIZER_MARKS if mark in text]
        if self.bad_stop:
            found.append(self.bad_stop)
        if self.process.poll() is not None and not self.expected_exit:
            found.append(f"the daemon ended by itself with {self.process.returncode}: {text}")
        return found

    # -- what it wrote
    # -------------------------------------------------------------------------------------------

    @property
    def stdout(self):
        return self.stdout_path.read_text(errors="replace")

    @property
    def stderr(self):
        return self.stderr_path.read_text(errors="replace")

    def syslog(self):
        """The system-log copy as SyslogRecords."""
        return (
            logs.parse_recording(self.syslog_path.read_bytes()) if self.syslog_path.exists() else []
        )

    def log_records(self, task=0):
        return logs.split_records(self.lab.log_text(task))

    def wait_for_record(self, text, task=0, deadline=DEFAULT_DEADLINE, count=1):
        """Waits for `count` file records that contain `text`; returns them."""

        def found():
            records = [record for record in self.log_records(task) if text in record]
            return records if len(records) >= count else None

        return wait_for(found, f"{count} record(s) with {text!r} in the log of {task}", deadline)

    def reports(self, task):
        """The complete run reports in a test's log, oldest first."""
        return logs.parse_reports(self.log_records(task))

    def wait_for_reports(self, task, count=1, deadline=DEFAULT_DEADLINE):
        def enough():
            found = self.reports(task)
            return found if len(found) >= count else None

        return wait_for(enough, f"{count} run report(s) of task {task}", deadline)

    # -- its process
    # ---------------------------------------------------------------------------------------------

    def threads(self):
        try:
            return sorted(int(name) for name in os.listdir(f"/proc/{self.pid}/task"))
        except FileNotFoundError:
            return []

    def descriptors(self):
        found = {}
        for name in os.listdir(f"/proc/{self.pid}/fd"):
            try:
                found[int(name)] = os.readlink(f"/proc/{self.pid}/fd/{name}")
            except FileNotFoundError:
                continue
        return found
