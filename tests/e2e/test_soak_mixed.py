"""Tests of all types in several VRFs under reloads, address and link changes, responder restarts
and API load: nothing grows, every run is stored once, and comes to what the far end made of it.

IPSLA_SOAK_SECONDS makes it longer (script/soak), IPSLA_SOAK_SEED repeats a run of it.
"""

import os
import random
import time
from collections import Counter

from support import soak_plan
from support.api_client import ApiClient
from support.soak_ledger import Book, usage
from support.soak_trouble import ApiLoad, Reloads, Troubles, link_troubles, responder_restarts
from support.soak_witness import Witness
from support.soak_world import World
from support.waiting import SCALE, wait_for

SECONDS = float(os.environ.get("IPSLA_SOAK_SECONDS", "12"))
LONG = SECONDS >= 60
# So that ten minutes pass 65,536 runs.
TASKS = 60 if not LONG else 220 if SECONDS < 1200 else 200
SEED = int(os.environ.get("IPSLA_SOAK_SEED", random.randrange(1_000_000)))
GROWTH = 4096  # KiB that resident memory may differ between early and late
POLL = 2 if LONG else 0.5


class Soak:
    def __init__(self, lab, start_daemon):
        self.lab = lab
        chance = random.Random(SEED)
        self.specs = soak_plan.make_specs(TASKS, SECONDS, chance)
        self.world = World(lab, self.specs, self.script)
        self.books = {spec.number: Book(spec, lab, self._script_of(spec)) for spec in self.specs}
        self.windows = {"links": [], "restarts": []}
        # The files and namespaces of tests that never start are what stays when all have stopped.
        self.daemon = start_daemon(
            self._parked(),
            keychain={1: soak_plan.KEY},
            env={"IPSLA_RECORDING_FILE": ""},
        )
        self.api = ApiClient(lab, deadline=60)
        wait_for(lambda: self.api.status(1), "the API")
        self.witness = Witness(self.daemon.cpus[0])
        lab.on_close(self.witness.stop)
        self.threads = usage(self.daemon.pid)[2]
        self.parked_descriptors = usage(self.daemon.pid)[1]
        self.reloads = Reloads(self.daemon, self.api, self.specs, self.books)
        self.usage = []  # of the daemon: resident KiB, descriptors, threads
        self.responder_usage = []  # of those that are not restarted: resident KiB, descriptors
        self.chance = chance

    def _parked(self):
        return [spec.document(life_time="-1") for spec in self.specs]

    def script(self, spec, run):
        return soak_plan.scripted(SEED, spec, run)

    def _script_of(self, spec):
        if spec.place != "scripted":
            return None
        return lambda run: self.script(spec, run)

    # -- while it runs
    # ------------------------------------------------------------------------------------------

    def begin(self):
        self.daemon.write_tasks([spec.document() for spec in self.specs])
        assert self.api.reload_tasks() == 0

    def go_on(self):
        """Until the time is over."""
        mean = 4 if not LONG else 15 if SECONDS < 1200 else 30
        pauses = random.Random(SEED + 1)

        def rest():
            return pauses.uniform(0.7 * mean, 1.6 * mean) * SCALE

        chance = self.chance
        troubles = Troubles(
            [
                link_troubles(self.world, self.windows["links"], chance, rest),
                responder_restarts(self.world, self.windows["restarts"], chance, rest),
                self.reloads.troubles(chance, rest),
            ]
        )
        end = time.monotonic() + SECONDS
        polled = 0
        while time.monotonic() < end:
            troubles.step()
            if time.monotonic() - polled >= POLL:
                polled = time.monotonic()
                self.look()
            time.sleep(0.05)
        troubles.settle(lambda: [w for windows in self.windows.values() for w in windows[-1:]])

    def look(self):
        assert self.daemon.is_running(), self.daemon.stderr
        self.usage.append(usage(self.daemon.pid))
        responders = [self.world.responders[place].pid for place in ("steady", "local", "links")]
        self.responder_usage.append(
            tuple(map(sum, list(zip(*[usage(pid)[:2] for pid in responders]))))
        )
        self.follow()

    def follow(self):
        stood_still = self.witness.windows
        for book in self.books.values():
            book.follow(self.windows.get(book.spec.place, []), stood_still)

    # -- what has come of it
    # ------------------------------------------------------------------------------------------

    def counts(self):
        """Runs stored and successful ones, as the API has them, by task."""
        found = self.api.all_statistics(groups=[])
        return {
            entry["sla-id"]: (
                entry["successful-count"] + entry["failed-count"],
                entry["successful-count"],
            )
            for entry in found
        }

    def wait_until_log_and_api_agree(self):
        """Every task has a moment in which the log tells as many runs as the API counts."""
        disagree = {number for number in self.books if number in self.reloads.present}

        def agreed():
            before = self.counts()
            self.follow()
            after = self.counts()
            for number in list(disagree):
                book = self.books[number]
                told = book.runs, book.successful
                if before.get(number, (0, 0)) == after.get(number, (0, 0)) == told:
                    disagree.discard(number)
            return not disagree

        try:
            wait_for(agreed, "log and API to agree", deadline=60, interval=0.3)
        except AssertionError:
            counts = self.counts()
            raise AssertionError(
                [(n, self.books[n].runs, self.books[n].dropped, counts.get(n)) for n in disagree]
            ) from None

    def assert_far_end_saw_the_same(self):
        """The scripted far ends have seen the runs that were stored, and at most one more."""
        seen = self.world.runs_played()
        for number, book in self.books.items():
            if book.spec.place == "scripted":
                assert book.runs <= seen.get(number, 0) <= book.runs + 1, number

    @staticmethod
    def _early_and_late(samples):
        fifth = len(samples) // 5
        return samples[fifth : 2 * fifth], samples[-fifth:]

    def tell_usage(self):
        early, late = self._early_and_late(self.usage)
        print("daemon: resident KiB", _spread(early, 0), "then", _spread(late, 0))
        print("daemon: descriptors", _spread(early, 1), "then", _spread(late, 1))
        print("threads", self.threads)
        early, late = self._early_and_late(self.responder_usage)
        print("responders: resident KiB", _spread(early, 0), "then", _spread(late, 0))

    def assert_nothing_grew(self):
        assert {entry[2] for entry in self.usage} == {self.threads}
        if not self.lab.build.sanitizers:
            early, late = self._early_and_late(self.usage)
            assert _middle(late, 0) <= _middle(early, 0) + GROWTH
        early, late = self._early_and_late(self.responder_usage)
        if LONG:
            assert _middle(late, 0) <= _middle(early, 0) + GROWTH
        self.daemon.write_tasks(self._parked())
        assert self.api.reload_tasks() == 0
        wait_for(
            lambda: usage(self.daemon.pid)[1] == self.parked_descriptors,
            f"{self.parked_descriptors} descriptors as before",
        )

    def stood_still(self):
        return sum(window[1] - window[0] for window in self.witness.windows)

    def tell(self):
        outcomes = {}
        for book in self.books.values():
            outcomes.setdefault(book.spec.place, Counter()).update(book.outcomes)
        for place, counter in outcomes.items():
            print(f"{place}: {sum(counter.values())} runs: {dict(counter)}")
        count, seconds = len(self.witness.windows), self.stood_still()
        print(
            f"the machine stood still {count} times, for {seconds:.0f} s in all, "
            f"which {sum(book.starved for book in self.books.values())} runs felt"
        )
        strays = sum(book.strays for book in self.books.values())
        print(f"{strays} runs ended by a reply to another run's probe")
        calm = [book for book in self.books.values() if book.spec.place not in self.windows]
        print(f"longest wait beyond a period: {max(book.longest_wait for book in calm):.0f} s")
        reloads = self.reloads
        print(
            f"{reloads.tasks_reloads} reloads with {reloads.changes} changed tasks, "
            f"{reloads.broken_reloads} of a broken file, {reloads.key_reloads} of the keys; "
            f"{len(self.windows['links'])} links or addresses gone and back, "
            f"{len(self.windows['restarts'])} restarts of a responder"
        )


def _middle(samples, place):
    return sorted(sample[place] for sample in samples)[len(samples) // 2]


def _spread(samples, place):
    values = [sample[place] for sample in samples]
    return f"{min(values)} to {max(values)}"


def test_mixed_tasks_under_changes(lab, start_daemon):
    print(f"IPSLA_SOAK_SEED={SEED}, {SECONDS:.0f} s")
    soak = Soak(lab, start_daemon)
    soak.begin()
    load = ApiLoad(lab, [spec.number for spec in soak.specs], random.Random(SEED + 2))
    try:
        soak.go_on()
    finally:
        soak.tell()
        load.stop()
    print(f"{load.requests} API requests")
    soak.tell_usage()
    soak.wait_until_log_and_api_agree()
    soak.assert_far_end_saw_the_same()
    wrong = [(book.spec, book.wrong[:3]) for book in soak.books.values() if book.wrong]
    assert not wrong, f"IPSLA_SOAK_SEED={SEED}: {len(wrong)} tasks: {wrong[:5]}"
    for book in soak.books.values():
        if book.spec.place in ("scripted", "steady", "local"):
            book.assert_enough_runs(SECONDS - soak.stood_still())
    runs = sum(book.runs + book.earlier for book in soak.books.values())
    probes = sum(book.probes for book in soak.books.values())
    print(f"{runs} runs, {probes} probes")
    assert all(book.runs + book.earlier > 0 for book in soak.books.values())
    if SECONDS >= 600:
        assert runs > 65536 and probes > 65536
    soak.assert_nothing_grew()
