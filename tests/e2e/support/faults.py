"""Orders for the preloaded library of faults: which call of the daemon fails, and how."""

import mmap
import struct

from .waiting import wait_for

# struct Orders of faults.c
_LAYOUT = struct.Struct("=24s256siiiiii")
_HITS = _LAYOUT.size - 4

SOCKETS = {"any": 0, "netlink": 1, "api": 2, "raw": 3, "probes": 4, "control": 5}


class Faults:
    """One order at a time. Give `environment` to the daemon."""

    def __init__(self, lab, recorder=True):
        path = lab.directory / "faults"
        path.write_bytes(bytes(_LAYOUT.size))
        with open(path, "r+b") as file:
            self._memory = mmap.mmap(file.fileno(), _LAYOUT.size)
        library = lab.build.recorder.with_name("libfaults.so")
        preload = f"{library}:{lab.build.recorder}" if recorder else f"{library}"
        self.environment = {"LD_PRELOAD": preload, "IPSLA_FAULTS": str(path)}

    def order(self, call, error, socket="any", detail=-1, skip=0, times=1, path=""):
        """From now on the call fails `times` times, after `skip` that go through."""
        self._write("", "", 0, 0, -1, 0, 0)
        self._write(call, path, error, SOCKETS[socket], detail, skip, 0)
        self._memory[_HITS - 4 : _HITS] = struct.pack("=i", times)

    def _write(self, call, path, error, socket, detail, skip, times):
        self._memory[:] = _LAYOUT.pack(
            call.encode(), path.encode(), error, socket, detail, skip, times, 0
        )

    @property
    def hits(self):
        return struct.unpack("=i", self._memory[_HITS:])[0]

    def withdraw(self):
        """No order any more; tells how many calls have failed."""
        hits = self.hits
        self._write("", "", 0, 0, -1, 0, 0)
        return hits

    def wait_hit(self):
        wait_for(lambda: self.hits, "the call that fails")
