"""The namespaces of the soak test and the far ends in them."""

import json
import socket
import struct

from .icmp_replier import TIMESTAMP_REPLY, IcmpReplier
from .pattern_responder import PatternResponder
from .responder_program import ResponderProgram
from .soak_plan import FIRST_PORT, FIRST_SIZE, KEY, VRFS, addresses, icmp_stamps

_SO_RCVBUFFORCE = 33


class ScriptedPings(IcmpReplier):
    """Waits for all probes of a run, then answers by its script. `script(number, run)` gives it;
    a task is told by the size of its probes.
    """

    def __init__(self, lab, script, packets, **options):
        self._script = script
        self._packets = packets  # by task
        self._probes = {}
        self.runs_played = {}  # by task
        super().__init__(lab, **options)
        self._wire.setsockopt(socket.SOL_SOCKET, _SO_RCVBUFFORCE, 16 << 20)

    def _session(self, identifier, source):
        self._source = source
        return self  # in place of a session of the simple replier: see probe()

    def _is_new_run(self, identifier, sequence):
        return False

    def probe(self, sequence, message):
        number = (len(message) - FIRST_SIZE) // 4
        probes = self._probes.setdefault(number, {})
        probes[sequence] = message
        if len(probes) < self._packets[number]:
            return
        del self._probes[number]
        self.headers.clear()
        run = self.runs_played.get(number, 0)
        self.runs_played[number] = run + 1
        script = self._script(number, run)
        self.later(script.delay, lambda: self._play(script, probes))

    def _play(self, script, probes):
        stamps = icmp_stamps(script)
        for answered in script.in_time():
            reply = self._reply(probes[answered])
            if reply[0] == TIMESTAMP_REPLY:
                struct.pack_into(">II", reply, 12, stamps[answered], stamps[answered])
            self.send(reply, self._source)


class ScriptedProbes(PatternResponder):
    """Keeps nothing of a run that it has answered."""

    def runs_played(self):
        """By task."""
        return {port - FIRST_PORT: count for port, count in self._run_numbers.items()}

    def _on_request(self, data, source):
        super()._on_request(data, source)
        self.requests.clear()

    def _play(self, run):
        super()._play(run)
        self._collected.pop(run.address, None)


class World:
    """Each VRF has a link to a namespace of its far end."""

    def __init__(self, lab, specs, script):
        self.lab = lab
        self._specs = {spec.number: spec for spec in specs}
        self._keys = lab.directory / "responder-keys.json"
        key = {"key-id": 1, "key-string": KEY}
        self._keys.write_text(json.dumps({"keychain-storage": [key]}))
        for place in VRFS:
            lab.add_namespace(place)
            lab.add_namespace(f"{place}-far")
            self.add_link(place)
        packets = {spec.number: spec.packets for spec in specs}

        def of_task(number, run):
            return script(self._specs[number], run)

        self.probes = ScriptedProbes(
            lab,
            lambda port, run: of_task(port - FIRST_PORT, run),
            address=addresses("scripted")[1],
            namespace="scripted-far",
        )
        self.pings = ScriptedPings(
            lab, of_task, packets, interface="scripted-out", namespace="scripted-far"
        )
        self.responders = {}
        for place in ("steady", "local", "links", "restarts", "changing"):
            self.start_responder(place)

    def add_link(self, place):
        near, far = addresses(place)
        ends = (place, f"{place}-in", f"{near}/24"), (f"{place}-far", f"{place}-out", f"{far}/24")
        self.lab.add_link(*ends)

    def start_responder(self, place):
        ports = f"{FIRST_PORT}-{FIRST_PORT + len(self._specs)}"
        options = ["--keychain", self._keys, "--allow-open", "--port-range", ports]
        namespace = None if place == "local" else f"{place}-far"
        self.responders[place] = ResponderProgram(self.lab, *options, namespace=namespace)

    def runs_played(self):
        """Runs that the scripted far ends have seen begin, by task."""
        return {**self.probes.runs_played(), **self.pings.runs_played}
