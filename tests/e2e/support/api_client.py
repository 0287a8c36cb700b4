"""A client of the Sender API that works on raw datagrams and shares no code with the daemon.

Header, 28 bytes: 0 prefix[8] | 8 marker | 9 flags (bit 0: more fragments) | 10 reserved[2] |
12 fragment number u32 | 16 datagram length u32 | 20 command u16 (host order) | 22 result u16 (host
order) | 24 block length u32; big-endian unless stated. The JSON text follows, ended by a NUL.
"""

import json
import socket
import struct
from dataclasses import dataclass

from .waiting import DEFAULT_DEADLINE, SCALE

ADDRESS = ("127.0.0.1", 10101)
HEADER_SIZE = 28
STATISTICS, ALL_STATISTICS, STATUS, RELOAD_TASKS, RELOAD_KEYCHAIN = range(5)
GROUPS = [
    "rtt-values",
    "one-way-latency-values",
    "jitter-values",
    "loss-values",
    "out-of-sequence-values",
]


@dataclass
class Header:
    prefix: bytes = b"\0" * 8
    marker: int = 1
    flags: int = 0
    reserved: bytes = b"\0\0"
    fragment: int = 0
    length: int = 0
    command: int = 0
    result: int = 0
    block: int = 0

    def pack(self):
        return (
            struct.pack(
                ">8sBB2sII",
                self.prefix,
                self.marker,
                self.flags,
                self.reserved,
                self.fragment,
                self.length,
            )
            + struct.pack("=HH", self.command, self.result)
            + struct.pack(">I", self.block)
        )

    @classmethod
    def unpack(cls, data):
        first = struct.unpack_from(">8sBB2sII", data, 0)
        command, result = struct.unpack_from("=HH", data, 20)
        return cls(*first, command, result, struct.unpack_from(">I", data, 24)[0])


@dataclass
class Reply:
    headers: list
    payload: bytes

    @property
    def result(self):
        return self.headers[0].result

    @property
    def text(self):
        assert self.payload.endswith(b"\0"), "a JSON reply ends with its NUL"
        return self.payload[:-1].decode()

    @property
    def document(self):
        return json.loads(self.text)


class ApiClient:
    def __init__(self, lab, deadline=DEFAULT_DEADLINE):
        self.socket = lab.socket(socket.AF_INET, socket.SOCK_DGRAM, bind=("127.0.0.1", 0))
        self.socket.settimeout(deadline * SCALE)

    def send(self, data):
        self.socket.sendto(data, ADDRESS)

    def receive(self):
        return self.socket.recv(65535)

    def request(self, command, body=None, header=None):
        """Sends one request (a body that is no text is written as JSON) and returns the whole
        reply.
        """
        text = (
            b""
            if body is None
            else (body if isinstance(body, bytes) else json.dumps(body).encode() + b"\0")
        )
        if header is None:
            length = HEADER_SIZE + len(text)
            header = Header(command=command, length=length, block=length - 20)
        self.send(header.pack() + text)
        return self.collect()

    def collect(self):
        """One reply, its fragments joined and their numbers checked."""
        headers, payload = [], b""
        while True:
            data = self.receive()
            header = Header.unpack(data)
            headers.append(header)
            payload += data[HEADER_SIZE:]
            # The last fragment carries the more bit too when it is full.
            if not header.flags & 1 or payload.endswith(b"\0"):
                break
        if payload:
            assert [header.fragment for header in headers] == list(range(1, len(headers) + 1))
        return Reply(headers, payload)

    def statistics(self, *tasks, groups=tuple(GROUPS)):
        body = {"tasks": [{"sla-id": number, "metrics": list(groups)} for number in tasks]}
        return self.request(STATISTICS, body).document["tasks"]

    def all_statistics(self, groups=tuple(GROUPS)):
        return self.request(ALL_STATISTICS, {"metrics": list(groups)}).document["tasks"]

    def status(self, *tasks):
        return self.request(STATUS, {"tasks": list(tasks)}).document["tasks"]

    def reload_tasks(self):
        return self.request(RELOAD_TASKS).result

    def reload_keychain(self):
        return self.request(RELOAD_KEYCHAIN).result
