"""What happens to the daemon of the soak test while it runs. Each trouble is a generator: it yields
the seconds that it wants to wait.
"""

import socket
import threading
import time
import traceback

from .api_client import ApiClient
from .soak_plan import addresses

_SO_RCVBUFFORCE = 33


class Troubles:
    """Calls the generators when they are due, in the thread of the test."""

    def __init__(self, generators):
        now = time.monotonic()
        self._due = [[now, generator] for generator in generators]

    def step(self):
        for entry in self._due:
            if entry[0] <= time.monotonic():
                entry[0] = time.monotonic() + next(entry[1])

    def settle(self, windows):
        """Goes on with what has been taken until it is given back."""
        while any(window[1] == float("inf") for window in windows()):
            self.step()
            time.sleep(0.02)


def link_troubles(world, windows, chance, rest):
    """Takes a link or an address from under the tasks of one VRF, and gives it back."""
    lab, (near, far) = world.lab, addresses("links")
    inside, outside = {"namespace": "links"}, {"namespace": "links-far"}

    def ip(words, place):
        lab.run("ip", *words.split(), **place)

    pairs = [
        ("link set links-in down", "link set links-in up", inside),
        ("link set links-out down", "link set links-out up", outside),
        (f"address del {near}/24 dev links-in", f"address add {near}/24 dev links-in", inside),
        (f"address del {far}/24 dev links-out", f"address add {far}/24 dev links-out", outside),
        ("link set links-in down", "link set links-in up", inside),
    ]
    yield rest() / 2
    while True:
        before, after, place = chance.choice(pairs)
        window = [time.time(), float("inf")]
        windows.append(window)
        ip(before, place)
        yield chance.uniform(0.2, 2.5)
        ip(after, place)
        # Addresses that no task has come and go as well.
        for number in range(chance.choice((0, 0, 3, 10))):
            for verb in ("add", "del"):
                ip(f"address {verb} 192.0.2.{number}/32 dev links-in", inside)
        window[1] = time.time()
        yield rest()


def responder_restarts(world, windows, chance, rest):
    yield rest() / 2
    while True:
        window = [time.time(), float("inf")]
        windows.append(window)
        world.responders["restarts"].stop()
        yield chance.uniform(0, 3)
        world.start_responder("restarts")
        window[1] = time.time()
        yield rest()


class Reloads:
    """Changes some tasks of one place in the file and has it read; now and then the file is broken
    and nothing may change, or it is the keys that are read again.
    """

    def __init__(self, daemon, api, specs, books):
        self.daemon, self.api = daemon, api
        self.present = {spec.number: spec for spec in specs}
        self._absent = {}
        self._books = books
        self.tasks_reloads = self.broken_reloads = self.key_reloads = self.changes = 0

    def troubles(self, chance, rest):
        yield rest() / 2
        while True:
            kind = chance.randrange(6)
            if kind == 0:
                assert self.api.reload_keychain() == 0
                self.key_reloads += 1
            elif kind == 1:
                self._break()
            else:
                self._change(chance)
            yield rest()

    def _write(self):
        self.daemon.write_tasks([spec.document() for spec in self.present.values()])

    def _break(self):
        whole = self.daemon.tasks_path.read_text()
        self.daemon.tasks_path.write_text(whole[: len(whole) // 2])
        assert self.api.reload_tasks() != 0
        self.daemon.tasks_path.write_text(whole)
        self.broken_reloads += 1

    def _change(self, chance):
        changing = [spec for spec in self.present.values() if spec.place == "changing"]
        for number in list(self._absent):
            if chance.random() < 0.6:
                self._put(self._absent.pop(number))
        for spec in chance.sample(changing, len(changing) // 4):
            if chance.random() < 0.4:
                self._absent[spec.number] = self.present.pop(spec.number)
            else:
                spec.packets += 1 if spec.packets < 6 else -3
                self._put(spec)
            self.changes += 1
        self._write()
        assert self.api.reload_tasks() == 0
        self.tasks_reloads += 1

    def _put(self, spec):
        """A test of its own from the next reload on."""
        self.present[spec.number] = spec
        self._books[spec.number].packets_of_tests.append(spec.packets)


class ApiLoad:
    """A client that asks at random, in bursts now and then, and gets whole answers."""

    def __init__(self, lab, numbers, chance):
        self._api, self._noise = ApiClient(lab), ApiClient(lab)
        # A reply with all groups of all tests has 30 fragments; the system's usual room is for 13.
        self._api.socket.setsockopt(socket.SOL_SOCKET, _SO_RCVBUFFORCE, 4 << 20)
        self._numbers, self._chance = list(numbers), chance
        self.requests = 0
        self.errors = []
        self._end = threading.Event()
        self._thread = threading.Thread(target=self._run)
        self._thread.start()

    def stop(self):
        self._end.set()
        self._thread.join()
        assert not self.errors, self.errors[0]

    def _run(self):
        chance = self._chance
        try:
            while not self._end.wait(chance.expovariate(5)):
                for _ in range(chance.choice((1, 1, 1, 1, 40))):
                    self._ask()
        except Exception:  # shown by stop(), in the test's own thread
            self.errors.append(traceback.format_exc())

    def _ask(self):
        chance = self._chance
        chosen = chance.sample(self._numbers, chance.randrange(1, 6))
        self.requests += 1
        kind = chance.randrange(10)
        if kind == 0:
            found = self._api.all_statistics()
            assert {entry["sla-id"] for entry in found} <= set(self._numbers)
        elif kind < 6:
            found = self._api.statistics(*chosen)
            assert {entry["sla-id"] for entry in found} <= set(chosen)
        elif kind < 9:
            found = self._api.status(*chosen)
            assert {entry["sla-id"] for entry in found} <= set(chosen)
        else:  # nobody waits for what it answers to these
            self._noise.send(chance.randbytes(chance.randrange(1, 60)))
