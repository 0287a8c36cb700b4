"""ip-sla-ctl check: every fault and warning of configuration files, without a daemon and without
privileges.
"""

import json

import pytest
from support.ctl import Ctl
from support.tasks import icmp_echo, icmp_jitter


@pytest.fixture
def ctl(lab):
    return Ctl(lab)


def _files(lab, tasks, keychain=None, cpus=(0,)):
    """Written where a user without privileges can read them."""
    lab.run("mkdir", "-p", "/run/check")
    names = ["/run/check/tasks.json", "/run/check/keychain.json"]
    lab.path(names[0]).write_text(
        tasks if isinstance(tasks, str) else json.dumps({"IP-SLA-tasks": tasks, "cpus": list(cpus)})
    )
    lab.path(names[1]).write_text(keychain or '{"keychain-storage": []}')
    return names


def test_check_of_good_files_needs_no_daemon(lab, ctl):
    tasks, keys = _files(
        lab,
        [icmp_echo(1), icmp_echo(2)],
        '{"keychain-storage": [{"key-id": 1, "key-string": "x"}]}',
    )
    assert ctl("check", tasks, keys).splitlines() == [
        f"{tasks}: 2 tasks, 2 accepted, 0 faults, 0 warnings",
        f"{keys}: 1 key, 1 accepted, 0 faults, 0 warnings",
    ]
    assert ctl("check", tasks) == f"{tasks}: 2 tasks, 2 accepted, 0 faults, 0 warnings\n"


def test_check_needs_no_privileges(lab, ctl):
    tasks, _ = _files(lab, [icmp_echo(1)])
    lab.run("cp", lab.build.program("ip-sla-ctl"), "/run/check/ctl")
    libraries = lab.build.directory / "lib"
    lab.run("sh", "-c", f"cp -d {libraries}/*.so* /run/check/")
    result = lab.run(
        *(
            "setpriv",
            "--reuid",
            "65534",
            "--regid",
            "65534",
            "--clear-groups",
            "--inh-caps=-all",
            "env",
        ),
        "LD_LIBRARY_PATH=/run/check",
        *(f"{name}={value}" for name, value in ctl.environment.items()),
        *(*lab.build.launcher(), "/run/check/ctl", "check", tasks),
    )
    assert result.stdout == f"{tasks}: 1 task, 1 accepted, 0 faults, 0 warnings\n"


def test_check_names_every_fault_and_what_cannot_work(lab, ctl):
    tasks, keys = _files(
        lab,
        [
            icmp_echo(
                1, num_rep_hist=0, control={"retry": None}, measurement={"dscp": 64, "ttl": "x"}
            ),
            icmp_echo(2, measurement={"packet-size": 42, "dst-address": "host.example"}),
            icmp_echo(2, scheduler={"Start-time": "now"}),
            icmp_echo(3, scheduler={"Start-time": "soon"}),
        ],
        '{"keychain-storage": [{"key-id": "1", "key-string": "x"}]}',
    )
    assert ctl("check", tasks, keys, status=1).splitlines() == [
        f"{tasks}: task 1 (id 1): num-rep-hist = 0: invalid history count value",
        f"{tasks}: task 1 (id 1): control-phase.retry (missing): no control phase retry configuration",
        f'{tasks}: task 1 (id 1): icmp-echo.ttl = "x": no measurement phase parametrs configuration',
        f"{tasks}: task 1 (id 1): icmp-echo.dscp = 64: invalid dscp value",
        f"{tasks}: task 3 (id 2): sla-id = 2: duplicate task",
        f'{tasks}: task 2 (id 2): warning: icmp-echo.dst-address = "host.example": '
        "is no IPv4 address and counts as 0.0.0.0",
        f"{tasks}: task 2 (id 2): warning: icmp-echo.packet-size = 42: "
        "leaves 0 of the 8 bytes of the ICMP message's header; the smallest that works is 70",
        f'{tasks}: task 4 (id 3): warning: scheduler.Start-time = "soon": '
        "cannot be read as a time, which ends the daemon when it creates the test",
        f"{keys}: key 1: key id #undefined parse skipped: no key configuration",
        f"{tasks}: 4 tasks, 2 accepted, 5 faults, 3 warnings",
        f"{keys}: 1 key, 0 accepted, 1 fault, 0 warnings",
    ]


def test_check_warnings_alone_are_no_failure(lab, ctl):
    tasks, _ = _files(lab, [icmp_echo(1)], cpus=())
    document = ctl.json("check", tasks)
    assert document == {
        "tasks": {
            "file": tasks,
            "elements": 1,
            "accepted": 1,
            "faults": [],
            "warnings": [
                {
                    "number": None,
                    "id": None,
                    "key": "cpus",
                    "value": "[]",
                    "reason": "names no CPU: the daemon starts no worker threads and runs no test",
                }
            ],
        },
        "keychain": None,
    }


def test_check_agrees_with_the_daemon(lab, ctl, start_daemon):
    """The first fault of each task is the one that the daemon logs."""
    tasks = [
        icmp_echo(1, num_rep_hist="x", measurement={"dscp": 64}),
        icmp_echo(2, measurement={"dscp": 64, "num-packets": 0}),
        icmp_jitter(3, control={"dst-port": 65536}, authentication={"mode": "secret"}),
        icmp_echo(4, packets=1000),
        icmp_echo(5),
        icmp_echo(5),
    ]
    daemon = start_daemon(tasks)
    path, _ = _files(lab, tasks)
    first = {}
    for fault in ctl.json("check", path, status=1)["tasks"]["faults"]:
        first.setdefault(fault["number"], fault["reason"])
    skipped = [
        record.split(": ", 1)[1] for record in daemon.log_records() if "parse skipped" in record
    ]
    assert list(first.values()) == skipped and len(skipped) == 5


def test_check_of_files_that_cannot_be_used(lab, ctl):
    tasks, _ = _files(lab, "{\n nonsense")
    assert ctl("check", tasks, "/nonexistent", status=1).splitlines() == [
        f"{tasks}: not valid JSON at line 2, column 3",
        "/nonexistent: the file cannot be read",
        f"{tasks}: 0 tasks, 0 accepted, 1 fault, 0 warnings",
        "/nonexistent: 0 keys, 0 accepted, 1 fault, 0 warnings",
    ]
