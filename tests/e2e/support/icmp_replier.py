"""A scripted replier of ICMP echo and time-stamp requests, in place of a namespace's own kernel.

The kernel's answers are kept out by dropping the requests in the input hook; a packet socket on the
interface still sees them. The answers leave through a raw ICMP socket.
"""

import socket
import struct
import time

from .peers import Fate, Peer, Session, fates_of

__all__ = ["Fate", "IcmpReplier", "checksum"]

ECHO_REPLY, ECHO_REQUEST, TIMESTAMP_REQUEST, TIMESTAMP_REPLY = 0, 8, 13, 14
_ETH_P_IP = 0x0800


def checksum(data):
    """The Internet checksum of RFC 1071."""
    if len(data) % 2:
        data = bytes(data) + b"\0"
    total = sum(struct.unpack(f">{len(data) // 2}H", data))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def milliseconds_of_day():
    return time.time_ns() // 10**6 % 86400000


class IcmpReplier(Peer):
    """Answers the requests that arrive on one interface. `probes(identifier)` gives the plan of one
    test's probes.
    """

    def __init__(self, lab, interface, namespace=None):
        super().__init__()
        self.probes = lambda identifier: {}
        self.sessions = {}  # identifier to the Session of its latest run
        self.runs = []  # every Session, in the order of their first probes
        self.headers = []  # (tos, ttl, fragment field) of every request
        self._fates_key = 0
        self._sources = {}
        lab.drop("icmp type { echo-request, timestamp-request }", namespace=namespace)
        self._wire = lab.socket(
            socket.AF_PACKET, socket.SOCK_DGRAM, socket.htons(_ETH_P_IP), namespace=namespace
        )
        self._wire.bind((interface, _ETH_P_IP))
        self._out = lab.socket(
            socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP, namespace=namespace
        )
        self._lab = lab
        self.watch(self._wire, self._on_packet)
        lab.on_close(self.stop)
        self.start()

    def _on_packet(self, packet, address):
        if (
            address[2] == socket.PACKET_OUTGOING
            or len(packet) < 28
            or packet[9] != socket.IPPROTO_ICMP
        ):
            return
        header = (packet[0] & 15) * 4
        total = struct.unpack_from(">H", packet, 2)[0]
        message = packet[header:total]
        if message[0] not in (ECHO_REQUEST, TIMESTAMP_REQUEST):
            return
        assert checksum(message) == 0, "a request with a wrong checksum"
        self.headers.append((packet[1], packet[8], struct.unpack_from(">H", packet, 6)[0]))
        identifier, sequence = struct.unpack_from(">HH", message, 4)
        source = socket.inet_ntoa(packet[12:16])
        if identifier not in self.sessions or self._is_new_run(identifier, sequence):
            self.sessions[identifier] = self._session(identifier, source)
            self.runs.append(self.sessions[identifier])
        self.sessions[identifier].probe(sequence, message)

    def _is_new_run(self, identifier, sequence):
        return sequence == 1 and self.sessions[identifier].arrivals

    def _session(self, identifier, source):
        def answer(sequence, request, _counted, fate):
            self.send(self._reply(request), source, fate.alter)

        return Session(self, fates_of(self.probes(identifier)), answer)

    def send(self, reply, destination, alter=None):
        """Sends one message with its checksum set; `alter` may change it before that."""
        if alter is not None:
            reply = alter(reply)
        struct.pack_into(">H", reply, 2, 0)
        struct.pack_into(">H", reply, 2, checksum(reply))
        self._out.sendto(bytes(reply), (destination, 0))

    def _reply(self, request):
        reply = bytearray(request)
        if request[0] == TIMESTAMP_REQUEST:
            reply[0] = TIMESTAMP_REPLY
            struct.pack_into(">II", reply, 12, milliseconds_of_day(), milliseconds_of_day())
        else:
            reply[0] = ECHO_REPLY
        return reply
