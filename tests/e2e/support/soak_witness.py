"""Whether the machine itself stood still: processes that do nothing but look at the clock, one with
the daemon's priority on the daemon's CPU, one as the far ends run; and a thread of this process,
which the scripted far ends share.
"""

import os
import subprocess
import sys
import threading
import time

_PROGRAM = """
import os, sys, time
if len(sys.argv) > 1:
    os.sched_setaffinity(0, {int(sys.argv[1])})
    os.sched_setscheduler(0, os.SCHED_RR, os.sched_param(int(sys.argv[2])))
while True:
    before = time.time()
    time.sleep(0.1)
    if time.time() - before > 0.4:
        print(before, time.time(), flush=True)
"""
# Where the daemon does what takes it long.
_PRIORITY = 98


class Witness:
    """`windows`: begin and end of each time in which it was not let run, as the clock has them."""

    def __init__(self, cpu):
        self._windows = []
        self._processes = []
        for arguments in ([str(cpu), str(_PRIORITY)], []):
            command = [sys.executable, "-c", _PROGRAM, *arguments]
            process = subprocess.Popen(command, stdout=subprocess.PIPE)
            os.set_blocking(process.stdout.fileno(), False)
            self._processes.append([process, b""])
        self._end = threading.Event()
        self._thread = threading.Thread(target=self._watch)
        self._thread.start()

    def _watch(self):
        before = time.time()
        while not self._end.wait(0.1):
            if time.time() - before > 0.4:
                self._windows.append([before, time.time()])
            before = time.time()

    @property
    def windows(self):
        for entry in self._processes:
            lines = (entry[1] + (entry[0].stdout.read() or b"")).split(b"\n")
            entry[1] = lines.pop()
            self._windows += [[float(word) for word in line.split()] for line in lines]
        return self._windows

    def stop(self):
        self._end.set()
        self._thread.join()
        for process, _ in self._processes:
            process.kill()
            process.wait()
            process.stdout.close()
