"""The exporter's page, looked at in headless Chromium."""

import time

import pytest

from support import page
from support.ctl import NO_SOURCE
from support.exporter import Exporter
from support.fake_daemon import FakeDaemon, task
from support.tasks import icmp_echo, icmp_jitter
from support.waiting import wait_for

pytestmark = pytest.mark.fleet

PHONE = {"width": 390, "height": 844}


@pytest.fixture(scope="session")
def modules(build):
    return page.fetch_modules(build)


@pytest.fixture
def look(lab, modules):
    """Takes steps on the page and returns what they saw; the page must not complain."""

    def take(*steps):
        report = page.take_steps(lab, modules, *steps)
        assert report["errors"] == []
        return report["seen"]

    return take


@pytest.fixture
def pictures(build):
    """Where the screenshots are left to be looked at."""
    directory = build.directory / "pictures"
    directory.mkdir(exist_ok=True)
    return directory


@pytest.fixture
def daemon(lab, start_daemon):
    """Tasks 1 and 2 run all the time, 3 ran once, 4 fails."""
    lab.add_vrf("blue")
    daemon = start_daemon(
        [
            icmp_echo(1),
            icmp_jitter(2, src="10.1.0.1", dst="10.1.0.2", vrf="blue"),
            icmp_jitter(3, time=3600),
            icmp_echo(4, time=3600, src="192.0.2.10"),
        ]
    )
    for number in range(1, 5):
        daemon.wait_for_reports(number)
    return daemon


def number(value):
    """As the page writes it."""
    digits = next((d for size, d in ((1000, 0), (100, 1), (10, 2)) if value >= size), 3)
    return f"{value:.{digits}f}"


def wait_for_points(exporter, task_number, count=4, ask=False):
    """`ask`: makes the exporter ask, instead of waiting until it does by itself."""

    def enough():
        if ask:
            exporter.metrics()
        return len(exporter.json(f"/api/history?task={task_number}")["time"]) >= count

    wait_for(enough, "some results in the history")


def test_values_are_those_of_the_api(lab, daemon, look):
    exporter = Exporter(lab, "--interval", "0.5")
    wait_for(lambda: len(exporter.json("/api/tasks")["tasks"]) == 4, "all tasks")
    rows, api = look(["open", {}], ["waitFor", "#tasks tr", "192.0.2.10"], ["rows"], ["api"])
    tasks = {task["sla-id"]: task for task in api["tasks"]}
    assert [row[0].split() for row in rows] == [
        ["1", "icmp-echo"],
        ["2", "icmp-jitter"],
        ["3", "icmp-jitter"],
        ["4", "icmp-echo"],
    ]
    assert rows[1][1].split("\n") == ["10.1.0.2", "from 10.1.0.1 · VRF blue"]
    assert [row[2].split("\n")[0] for row in rows] == ["ok", "ok", "ok", "failed"]
    # Task 3 has not run since, so that its values cannot have changed meanwhile.
    delay, jitter = tasks[3]["one-way-latency-values"], tasks[3]["jitter-values"]
    assert rows[2][4] == number(tasks[3]["rtt-values"]["avg"])
    assert rows[2][5].split("\n") == [number(delay["sd-avg"]), number(delay["ds-avg"])]
    assert rows[2][6].split("\n") == [number(jitter["sd-sd"]), number(jitter["ds-sd"])]
    assert rows[2][7:] == ["0", "1 / 0"]
    # An echo task has no one-way values, a failed one none at all, but a reason.
    assert rows[0][5:8] == ["–", "–", "0"]
    assert rows[3][2].split("\n") == ["failed", NO_SOURCE]
    assert rows[3][4:] == ["–", "–", "–", "–", "0 / 1"]


def test_plots_draw_in_both_schemes(lab, daemon, look, pictures):
    exporter = Exporter(lab, "--interval", "0.5")
    wait_for_points(exporter, 2)
    backgrounds = []
    for scheme in ("light", "dark"):
        plots, background = look(
            ["open", {"scheme": scheme, "hash": "#task-2"}],
            ["waitFor", ".plot", "Loss"],
            ["plots"],
            ["background"],
            ["screenshot", str(pictures / f"task-{scheme}.png")],
            ["open", {"scheme": scheme}],
            ["waitFor", "#tasks tr", "192.0.2.10"],
            ["screenshot", str(pictures / f"list-{scheme}.png")],
        )
        assert [name for name, _ in plots] == ["Round trip", "One-way delay", "Jitter", "Loss"]
        # The marker of the legend is not on the canvas: what is counted there is the line.
        assert all(pixels > 10 for _, pixels in plots[:3]), plots
        backgrounds.append(sum(map(int, background.strip("rgb()").split(","))))
    assert backgrounds[0] > 600 and backgrounds[1] < 150


def test_failed_runs_are_marked_with_their_reasons(lab, look):
    daemon = FakeDaemon(lab)
    exporter = Exporter(lab, "--interval", "0.1")
    begin = int(time.time()) - 60
    for run in range(7):
        daemon.tasks = [
            task(
                8,
                status="fail" if run == 3 else "successful",
                error_description="timeout, no samples" if run == 3 else "",
                successful_count=run,
                failed_count=1,
                finish_time=begin + 10 * run,
            )
        ]
        wait_for_points(exporter, 8, run + 1, ask=True)
    seen = look(
        ["open", {"hash": "#task-8"}],
        ["waitFor", "#failures", "timeout, no samples"],
        ["texts", "#failures li span"],
        ["texts", "#why"],
        ["sweep"],
        ["plots"],
    )
    assert seen[0] == ["timeout, no samples"]
    assert seen[1] == [], "the last run was fine"
    assert len(seen[2]) == 7, "a time for each run"
    assert sum(text.endswith(": timeout, no samples") for text in seen[2]) == 1
    assert [name for name, _ in seen[3]] == ["Round trip", "Loss"]
    daemon.tasks[0].update(
        {"status": "fail", "error-description": "Start test failed", "failed-count": 2}
    )
    seen = look(["open", {"hash": "#task-8"}], ["waitFor", "#why", "Start test failed"], ["rows"])
    assert seen[0][0][2].split("\n") == ["failed", "Start test failed"]


def test_the_page_keeps_itself_up_to_date(lab, start_daemon, look):
    daemon = start_daemon([icmp_echo(1)])
    daemon.wait_for_reports(1)
    Exporter(lab, "--interval", "0.5")
    [(before, after)] = look(
        ["open", {"hash": "#task-1"}],
        ["waitFor", "#facts", "ok, 0 failed"],
        ["waitForChange", "#facts dd:nth-of-type(2)"],
    )
    assert int(after.split()[0]) > int(before.split()[0]), "the number of runs"


class _ClockSetBack(FakeDaemon):
    """Once `after` is set, it gives one more answer and then that one: its clock was set back."""

    after = None

    def _answer(self, request, source):
        super()._answer(request, source)
        self.tasks = self.after or self.tasks


def test_results_from_a_future_that_the_clock_left_do_not_stop_the_plots(lab, look):
    now = int(time.time())
    failed = {"status": "fail", "successful_count": 0}
    ahead = [task(8, error_description="before", failed_count=1, finish_time=now + 5000, **failed)]
    daemon = _ClockSetBack(lab, ahead)
    exporter = Exporter(lab, "--interval", "3600")
    wait_for_points(exporter, 8, 1)
    # The page sees the future first: from now on nobody else asks.
    daemon.after = [task(8, error_description="after", failed_count=2, finish_time=now, **failed)]
    seen = look(
        ["open", {"hash": "#task-8"}],
        ["waitFor", "#failures", "before"],
        ["waitFor", "#failures", "after"],
        ["texts", "#failures li span"],
    )
    assert seen == [["after"]]


def test_the_page_says_that_the_daemon_does_not_answer(lab, look):
    Exporter(lab, "--timeout", "0.5")
    seen = look(
        ["open", {}],
        ["waitFor", "#daemon.bad", "no daemon answers"],
        ["texts", "#daemon"],
        # The browser itself reports each answer with an error status.
        ["forgiveErrors"],
    )
    assert seen == [["no daemon answers on 127.0.0.1:10101"]]


def test_a_phone_has_room_for_all_of_it(lab, daemon, look, pictures):
    exporter = Exporter(lab, "--interval", "0.5")
    wait_for_points(exporter, 2)
    seen = look(
        ["open", PHONE],
        ["waitFor", "#tasks tr", "192.0.2.10"],
        ["overflow"],
        ["screenshot", str(pictures / "list-phone.png")],
        ["click", "#tasks tr:nth-child(2)"],
        ["waitFor", ".plot", "Loss"],
        ["overflow"],
        ["texts", "#tasks tr"],
        ["screenshot", str(pictures / "task-phone.png")],
        ["click", "#close"],
        ["texts", "#tasks tr td:first-child a"],
    )
    assert seen == [0, 0, [], ["1", "2", "3", "4"]]


def test_a_thousand_tasks_are_found_by_filtering(lab, look):
    tasks = [
        task(number, dst_address=f"10.1.{number // 256}.{number % 256}") for number in range(1000)
    ]
    for number in (17, 512):
        tasks[number].update({"status": "fail", "error-description": "timeout, no samples"})
    FakeDaemon(lab, tasks)
    Exporter(lab)
    rows = ["texts", "#tasks tr:not([hidden]) td:first-child a"]
    seen = look(
        ["open", {}],
        ["waitFor", "#counts", "1000 tasks · 2 failing"],
        ["click", "#failing"],
        rows,
        ["fill", "#filter", "timeout 512"],
        rows,
        ["click", "#failing"],
        ["fill", "#filter", "10.1.3.99"],
        rows,
        ["fill", "#filter", "nothing of the kind"],
        ["texts", "#empty"],
    )
    assert seen == [["17", "512"], ["512"], ["867"], ["No task is like that."]]


def test_texts_of_the_daemon_stay_texts(lab, look):
    hostile = "<img src=x onerror=\"document.title='owned'\"><script>alert(1)</script>"
    FakeDaemon(
        lab,
        [
            task(
                5,
                status="fail",
                error_description=hostile,
                vrf_instance=hostile,
                iface_name=hostile,
                src_address=hostile,
                dst_address=hostile,
                finish_time=int(time.time()),
            )
        ],
    )
    Exporter(lab)
    seen = look(
        ["open", {"hash": "#task-5"}],
        ["waitFor", "#failures li", "onerror"],
        ["texts", "#why"],
        ["texts", "#title"],
        ["texts", "main img, main script"],
    )
    assert seen == [[hostile], [f"Task 5: icmp-echo to {hostile}"], []]
