"""The daemon's end of the Sender API inside a lab, with results that a test makes up."""

import json
import socket
import struct
import threading

_HEADER = struct.Struct(">8sBB2sIIHHI")  # but for command and result, which are little-endian here
_MORE = 1
_FAILURE = 4
_SLICE = 8192 - 28


def task(number, **changes):
    """An icmp-echo task as a statistics document has it, its last run successful."""
    result = {
        "sla-id": number,
        "status": "successful",
        "error-description": "",
        "start-time": 1700000000,
        "finish-time": 1700000001,
        "successful-count": 1,
        "failed-count": 0,
        "transm-pkt-count": 5,
        "test-type": 4,
        "src-address": "10.0.0.1",
        "dst-address": "10.0.0.2",
        "iface-name": "",
        "sd-smp-count": 5,
        "ds-smp-count": 5,
        "sd-pkt-count": 5,
        "ds-pkt-count": 5,
        "rtt-values": {"min": 0, "avg": 1.5, "max": 2.5},
    }
    result.update({name.replace("_", "-"): value for name, value in changes.items()})
    return result


class FakeDaemon:
    """Answers every request with the statistics of `tasks`, which may be exchanged at any time, or
    refuses it.
    """

    def __init__(self, lab, tasks=(), refuses=False):
        self.tasks = list(tasks)
        self._refuses = refuses
        self._socket = lab.socket(socket.AF_INET, socket.SOCK_DGRAM, bind=("127.0.0.1", 10101))
        self._socket.settimeout(0.1)
        self._ending = threading.Event()
        self._thread = threading.Thread(target=self._run)
        lab.on_close(self.stop)
        self._thread.start()

    def stop(self):
        """Nothing listens any more."""
        self._ending.set()
        self._thread.join()
        self._socket.close()

    def _run(self):
        while not self._ending.is_set():
            try:
                request, source = self._socket.recvfrom(8192)
            except socket.timeout:
                continue
            self._answer(request, source)

    def _answer(self, request, source):
        prefix, marker, _, reserved, _, _, command, _, _ = _HEADER.unpack(request[:28])
        if self._refuses:
            fields = (prefix, marker, 0, reserved, 0, 28, command, _FAILURE << 8, 8)
            self._socket.sendto(_HEADER.pack(*fields), source)
            return
        text = json.dumps({"tasks": self.tasks}).encode() + b"\0"
        slices = [text[start : start + _SLICE] for start in range(0, len(text), _SLICE)]
        for number, piece in enumerate(slices, 1):
            flags = _MORE if number < len(slices) else 0
            size = len(piece)
            fields = (prefix, marker, flags, reserved, number, size + 28, command, 0, size + 8)
            self._socket.sendto(_HEADER.pack(*fields) + piece, source)
