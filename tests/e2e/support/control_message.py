"""Control-phase messages of our own making: what a task's request must be, byte for byte, and its
dump.
"""

import hashlib
import hmac
import socket
import struct

SIZE = 172
NONCE, DIGEST = slice(32, 48), slice(48, 80)
TYPES = {"udp-echo": 1, "udp-jitter": 2, "udp-jitter-ntp": 3, "icmp-echo": 4, "icmp-jitter": 5}
MODES = {"no": 1, "password": 2, "keychain": 3}
ALGORITHMS = {None: 0, "sha256": 1, "hmac-sha256": 2}
STATUS_NAMES = [
    "successful",
    "fail",
    "authentication fail",
    "format error",
    "requested port is busy",
    "unsupported protocol version",
    "invalid status",
    "invalid length",
    "unsupported address",
    "unsupported role",
    "unsupported authentication mode",
    "unsupported authentication algorithm",
    "unsupported operation type",
    "unknown internal error",
]
_MODE_NAMES = {1: "no authentication", 2: "password", 3: "keychain"}
_ALGORITHM_NAMES = {1: "SHA-256", 2: "HMAC-SHA-256"}
_COMMAND_NAMES = {1: "authentication CSLD", 2: "measurement CSLD"}
_ADDRESS_NAMES = {2: "IPv4", 3: "IPv6"}
_ROLE_NAMES = {1: "responder", 2: "sender"}
_TYPE_NAMES = {number: name for name, number in TYPES.items()}


def status_name(code):
    return STATUS_NAMES[code] if code < len(STATUS_NAMES) else "undefined"


def expected_request(task, control_port, measurement_port):
    """The request of a task as the tasks file has it, sent from the given ports, nonce and digest
    left zero.
    """
    kind = task["sla-type"]
    control, measurement = task["control-phase"], task[kind]
    authentication = control["authentication"]
    duration = (measurement["interval"] + 7) * measurement["num-packets"] + measurement["timeout"]
    # Header, authentication block, measurement block: one piece per line of the layout.
    pieces = [
        struct.pack(">BBHIIII", 2, 0, 0, 0, SIZE, 0, 0),
        struct.pack(">HHI", 1, 0, 60),
        struct.pack(
            ">BBBB",
            MODES[authentication["mode"]],
            ALGORITHMS[authentication.get("algorithm")],
            0,
            authentication.get("key-id", 0) & 0xFF,
        ),
        bytes(48),
        struct.pack(">HHI", 2, 0, 92),
        struct.pack(">BBBBI", 2, 1, TYPES[kind], 0, 0),
    ]
    for endpoint, end in (
        (control, "src"),
        (control, "dst"),
        (measurement, "src"),
        (measurement, "dst"),
    ):
        pieces.append(socket.inet_aton(endpoint[f"{end}-address"]).ljust(16, b"\0"))
    pieces.append(
        struct.pack(">HHHHI", control_port, 0, measurement_port, measurement["dst-port"], duration)
    )
    message = b"".join(pieces)
    assert len(message) == SIZE
    return message


def unsigned(message):
    return message[:32] + bytes(48) + message[80:]


def digest(message, algorithm, key):
    """The digest of a message that holds its nonce: over all of it with the digest's own place
    zero.
    """
    covered = message[:48] + bytes(32) + message[80:]
    if algorithm == "sha256":
        return hashlib.sha256(covered + key).digest()
    return hmac.new(key, covered, hashlib.sha256).digest()


def dump_records(message, mode, key, response=False):
    """The records of a message's dump in the file log; `mode` is the task's own."""

    def named(table, value):
        return f"{table.get(value, 'undefined')} (#{value})"

    def status(offset):
        code = struct.unpack_from(">H", message, offset)[0]
        return f"{status_name(code)} (#{code})"

    def u16(offset):
        return struct.unpack_from(">H", message, offset)[0]

    def u32(offset):
        return struct.unpack_from(">I", message, offset)[0]

    def address(offset):
        return socket.inet_ntoa(message[offset : offset + 4])

    first = [
        f" [Control phase {'response' if response else 'request'}]",
        "   |- Command-Header",
        f"   .  |- Version                   : #{message[0]}",
        f"   .  |- Status                    : {status(2)}",
        f"   .  |- Sequence number           : {u32(4)}",
        f"   .  |- Total length              : {u32(8)} bytes",
        f"   .  |- Sender timestamp          : {u32(12)}",
        "   .  -",
        "   |- Authentication CSLD",
        f"   .  |- Command                   : {named(_COMMAND_NAMES, u16(20))}",
        f"   .  |- Status                    : {status(22)}",
        f"   .  |- CSLD length               : {u32(24)} bytes",
        f"   .  |- Mode                      : {named(_MODE_NAMES, message[28])}",
    ]
    second = ["   .  -"]
    if mode != "no":
        second = [
            f"   .  |- Algorithm                 : {named(_ALGORITHM_NAMES, message[29])}\n   .  |- Key"
        ]
        if mode == "keychain":
            second.append(f"   .  .  |- ID                     : #{message[31]}")
        second.append(f'   .  .  |- Value                  : "{key}"\n   .  .  -\n   .  -')
    third = [
        f"   .  |- Rand number               : {message[NONCE].hex()}",
        f"   .  |- Authentication digest     : {message[DIGEST].hex()}",
        "   .  -",
        "   |- Measurement CSLD",
        f"   .  |- Command                   : {named(_COMMAND_NAMES, u16(80))}",
        f"   .  |- Status                    : {status(82)}",
        f"   .  |- CSLD length               : {u32(84)} bytes",
        f"   .  |- Address type              : {named(_ADDRESS_NAMES, message[88])}",
        f"   .  |- Role                      : {named(_ROLE_NAMES, message[89])}",
        f"   .  |- Operation type            : {named(_TYPE_NAMES, message[90])}",
        f"   .  |- Session ID                : #{u32(92)}",
        f"   .  |- Control sender address    : {address(96)}:{u16(160)}",
        f"   .  |- Control responder address : {address(112)}",
        f"   .  |- Measur. sender address    : {address(128)}:{u16(164)}",
        f"   .  |- Measur. responder address : {address(144)}:{u16(166)}",
        f"   .  |- Duration                  : {u32(168)} ms",
        "   .  -",
        "   -",
    ]
    return ["\n".join(first), *second, "\n".join(third)]
