"""What passes an interface, with the kernel's time stamps, in nanoseconds.

tcpdump copies from the kernel's ring without a wake-up for each packet, so that watching costs
little where 100,000 packets pass in a second.
"""

import re
import signal
import socket
import struct
import subprocess
import time
from dataclasses import dataclass

_NANOSECOND_MAGIC = 0xA1B23C4D
_FILE_HEADER = 24
_RECORD = struct.Struct("<IIII")
_ETHERNET = 14
_ICMP_REQUESTS, _ICMP_REPLIES = (8, 13), (0, 14)
_SNAP_LENGTH = 96
# The kernel writes in blocks and hands one over at least once a second.
_BLOCK_TIMEOUT = 1.5
# SO_TIMESTAMPNS; Python does not name it.
_STAMP_OPTION = 35


@dataclass
class Flow:
    """One test on the wire: when each probe left and each reply came, by sequence number; ns."""

    departures: dict
    arrivals: dict

    def gaps(self):
        """From each probe to the next one."""
        stamps = [self.departures[number] for number in sorted(self.departures)]
        return [later - earlier for earlier, later in zip(stamps, stamps[1:])]

    def round_trips(self):
        return {
            number: self.arrivals[number] - left
            for number, left in self.departures.items()
            if number in self.arrivals
        }


class Capture:
    """Everything that matches `rule` on one interface of a lab, between start and stop."""

    def __init__(self, lab, interface, rule, namespace=None, name="wire"):
        self.path = lab.directory / f"{name}.pcap"
        self._errors = lab.directory / f"{name}.tcpdump"
        # Arriving packets are stamped as early as possible only while somebody asks for it.
        self._asks_for_stamps = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._asks_for_stamps.setsockopt(socket.SOL_SOCKET, _STAMP_OPTION, 1)
        command = ["tcpdump", "-i", interface, "-n", "-Z", "root", "-B", "65536"]
        command += ["-s", str(_SNAP_LENGTH), "--time-stamp-precision=nano", "-w", self.path]
        with open(self._errors, "wb") as errors:
            self._process = lab.popen(*command, *rule.split(), namespace=namespace, stderr=errors)
        while "listening on" not in self._errors.read_text():
            if self._process.poll() is not None:
                raise RuntimeError(f"tcpdump ended: {self._errors.read_text()}")
            time.sleep(0.01)

    def stop(self):
        """Ends the capture; nothing of it may have been dropped."""
        time.sleep(_BLOCK_TIMEOUT)
        self._process.send_signal(signal.SIGINT)
        try:
            self._process.wait(timeout=20)
        except subprocess.TimeoutExpired:
            self._process.kill()
            raise
        self._asks_for_stamps.close()
        dropped = re.search(r"(\d+) packets? dropped by kernel", self._errors.read_text())
        if dropped is None or int(dropped[1]) > 0:
            raise RuntimeError(f"the capture is not whole: {self._errors.read_text()}")
        return self

    def packets(self):
        """(stamp, bytes from the IPv4 header on) of every packet."""
        data = self.path.read_bytes()
        magic = struct.unpack_from("<I", data)[0]
        if magic != _NANOSECOND_MAGIC:
            raise RuntimeError(f"{self.path} is no capture with nanoseconds")
        offset = _FILE_HEADER
        while offset + _RECORD.size <= len(data):
            seconds, nanoseconds, stored, _ = _RECORD.unpack_from(data, offset)
            offset += _RECORD.size
            yield seconds * 10**9 + nanoseconds, data[offset + _ETHERNET : offset + stored]
            offset += stored


def icmp_flows(capture):
    """The flows of echo and time stamp requests, by (destination, identifier)."""
    flows = {}
    for stamp, packet in capture.packets():
        start = (packet[0] & 15) * 4
        if packet[9] != socket.IPPROTO_ICMP or len(packet) < start + 8:
            continue
        kind, _, _, identifier, number = struct.unpack_from(">BBHHH", packet, start)
        if kind in _ICMP_REQUESTS:
            flow = flows.setdefault((packet[16:20], identifier), Flow({}, {}))
            flow.departures.setdefault(number, stamp)
        elif kind in _ICMP_REPLIES and (flow := flows.get((packet[12:16], identifier))):
            flow.arrivals.setdefault(number, stamp)
    return flows


def udp_flows(capture, near, number_of):
    """The flows of datagrams that leave the address `near`, by (port, destination, its port).

    `number_of(payload)` is the sequence number of a datagram, None for one that is no probe.
    """
    near = socket.inet_aton(near)
    flows = {}
    for stamp, packet in capture.packets():
        start = (packet[0] & 15) * 4
        if packet[9] != socket.IPPROTO_UDP or len(packet) < start + 8:
            continue
        from_port, to_port = struct.unpack_from(">HH", packet, start)
        number = number_of(packet[start + 8 :])
        if number is None:
            continue
        if packet[12:16] == near:
            flow = flows.setdefault((from_port, packet[16:20], to_port), Flow({}, {}))
            flow.departures.setdefault(number, stamp)
        elif flow := flows.get((to_port, packet[12:16], from_port)):
            flow.arrivals.setdefault(number, stamp)
    return flows
