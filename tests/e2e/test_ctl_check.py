"""ip-sla-ctl check: every fault and warning of configuration files, without a daemon and without
privileges.
"""

import json
import re

import pytest
from support.ctl import Ctl
from support.tasks import icmp_echo, icmp_jitter, udp_jitter


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
    lab.path(names[1]).chmod(0o600)
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


def _texts(output):
    """The lines without file name and place."""
    return [re.sub(r"^\S+? ", "", line) for line in output.splitlines()]


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
    output = ctl("check", tasks, keys, status=1)
    assert _texts(output) == [
        "task 1 (id 1): num-rep-hist = 0: invalid history count value "
        "(expected a number from 1 to 255)",
        "task 1 (id 1): control-phase.retry (missing): no control phase retry configuration "
        "(expected seconds, a number of at least 1)",
        'task 1 (id 1): icmp-echo.ttl = "x": no measurement phase parametrs configuration '
        "(expected a number from 0 to 255)",
        "task 1 (id 1): icmp-echo.dscp = 64: invalid dscp value (expected a number from 0 to 63)",
        "task 3 (id 2): sla-id = 2: duplicate task",
        'task 4 (id 3): scheduler.Start-time = "soon": '
        "cannot be read as a time, which ends the daemon when it creates the test",
        'task 2 (id 2): warning: icmp-echo.dst-address = "host.example": '
        "is no IPv4 address and counts as 0.0.0.0",
        "task 2 (id 2): warning: icmp-echo.packet-size = 42: "
        "leaves 0 of the 8 bytes of the ICMP message's header; the smallest that works is 70",
        "key 1: key id #undefined parse skipped: no key configuration",
        "4 tasks, 1 accepted, 6 faults, 2 warnings",
        "1 key, 0 accepted, 1 fault, 0 warnings",
    ]
    text = lab.path(tasks).read_text()
    assert output.splitlines()[3].startswith(f"{tasks}:1:{text.index('64,') + 1}: ")


def test_check_warnings_alone_are_no_failure(lab, ctl):
    tasks, _ = _files(lab, [icmp_echo(1)], cpus=())
    ctl("--json", "check", "--strict", tasks, status=1)
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
                    "expected": "",
                    "line": 1,
                    "column": lab.path(tasks).read_text().index("[]") + 1,
                }
            ],
            "notes": [],
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
        f"{tasks}:2:3: not valid JSON",
        "/nonexistent: the file cannot be read: No such file or directory",
        f"{tasks}: 0 tasks, 0 accepted, 1 fault, 0 warnings",
        "/nonexistent: 0 keys, 0 accepted, 1 fault, 0 warnings",
    ]


def _check_task(lab, ctl, task, *options, status=0, cpus=(0,)):
    """What check says about a file with one task, without the counts."""
    tasks, _ = _files(lab, [task], cpus=cpus)
    return _texts(ctl("check", *options, tasks, status=status))[:-1]


def test_check_knows_which_vrfs_there_are(lab, ctl):
    lab.add_vrf("blue")
    lab.run("touch", "/run/netns/empty")
    in_blue = {"src": "10.1.0.1", "dst": "10.1.0.2"}
    assert _check_task(lab, ctl, icmp_echo(1, vrf="blue", **in_blue)) == []
    ends = "which ends the daemon when it creates the test"
    assert _check_task(lab, ctl, icmp_echo(1, vrf="red", **in_blue), status=1) == [
        'task 1 (id 1): vrf-instance = "red": '
        f"cannot be entered (/var/run/netns/red: No such file or directory), {ends}"
    ]
    assert _check_task(lab, ctl, icmp_echo(1, vrf="empty", **in_blue), status=1) == [
        'task 1 (id 1): vrf-instance = "empty": '
        f"cannot be entered (/var/run/netns/empty is no namespace), {ends}"
    ]
    assert _check_task(lab, ctl, icmp_echo(1, vrf="red", **in_blue), "--no-host") == []
    slash = _check_task(lab, ctl, icmp_echo(1, vrf="a/b", **in_blue), "--no-host", status=1)
    assert slash == [
        f'task 1 (id 1): vrf-instance = "a/b": cannot be the name of a network namespace, {ends}'
    ]


def test_check_knows_whether_the_daemon_finds_back_from_a_vrf(lab, ctl):
    lab.add_vrf("blue")
    task = icmp_echo(1, vrf="blue", src="10.1.0.1", dst="10.1.0.2")
    start = (
        'task 1 (id 1): vrf-instance = "blue": '
        "needs the daemon's own network namespace under the name 1 ("
    )
    end = "): without it the daemon ends or measures elsewhere"
    lab.unregister_own_namespace()
    missing = "/var/run/netns/1: No such file or directory"
    assert _check_task(lab, ctl, task, status=1) == [start + missing + end]
    lab.add_namespace("1")
    other = "/var/run/netns/1 is not the network namespace in which this check runs"
    assert _check_task(lab, ctl, task, status=1) == [start + other + end]
    assert _check_task(lab, ctl, icmp_echo(1)) == []


def test_the_daemon_ends_where_check_says_so(lab, ctl, start_daemon):
    """The faults that the parser does not know."""
    for task in (
        icmp_echo(1, vrf="red"),
        icmp_echo(1, scheduler={"Start-time": "soon"}),
        icmp_echo(1, scheduler={"life-time": "99999999999999999999"}),
    ):
        assert len(_check_task(lab, ctl, task, status=1)) == 1
        daemon = start_daemon([task], wait=False)
        assert daemon.wait_exit() != 0


def test_before_a_start_only_what_ends_the_daemon_is_a_failure(lab, ctl):
    tasks, keys = _files(lab, [icmp_echo(1, num_rep_hist=0), icmp_echo(2)])
    skipped = "num-rep-hist = 0: invalid history count value"
    assert skipped in ctl("check", tasks, keys, status=1)
    assert skipped in ctl("check", "--start", tasks, keys)
    _files(lab, [icmp_echo(1, scheduler={"Start-time": "soon"})])
    ctl("check", "--start", tasks, keys, status=1)
    lab.path(keys).unlink()
    _files(lab, [icmp_echo(1)])
    lab.path(keys).write_text("{}")
    ctl("check", "--start", tasks, keys, status=1)


def test_check_knows_addresses_interfaces_and_cpus(lab, ctl):
    lab.add_vrf("blue")
    assert _check_task(lab, ctl, icmp_echo(1, src="10.9.9.9"), cpus=(0, 250)) == [
        'task 1 (id 1): warning: icmp-echo.src-address = "10.9.9.9": '
        "is on no interface of this machine: no run can start until it is",
        "warning: cpus = 250: is no CPU that this machine has: the threads for it run on any",
    ]
    interface = {"src-address": None, "src-interface": "blue-out"}
    assert _check_task(lab, ctl, icmp_echo(1, measurement=interface)) == []
    assert _check_task(lab, ctl, icmp_echo(1, vrf="blue", measurement=interface)) == [
        'task 1 (id 1): warning: icmp-echo.src-interface = "blue-out": '
        'is not there in VRF "blue": no run can start until it is'
    ]
    broadcast = udp_jitter(1, timeout=300, control={"dst-address": "10.1.0.255"})
    lab.run("ip", "address", "add", "10.1.0.3/24", "brd", "+", "dev", "blue-out")
    assert _check_task(lab, ctl, broadcast) == [
        'task 1 (id 1): warning: control-phase.dst-address = "10.1.0.255": '
        "is the broadcast address of interface blue-out: no single host answers"
    ]


def test_check_says_what_it_may_not_look_at(lab, ctl):
    lab.add_vrf("blue")
    tasks, _ = _files(lab, [icmp_echo(1, vrf="blue", src="10.9.9.9")])
    result = lab.run(
        *("setpriv", "--bounding-set=-sys_admin", "--inh-caps=-sys_admin"),
        *ctl.command("check", tasks),
    )
    assert result.stdout.splitlines() == [
        f'{tasks}: note: which addresses VRF "blue" has could not be looked at: '
        "/var/run/netns/blue: Operation not permitted",
        f"{tasks}: 1 task, 1 accepted, 0 faults, 0 warnings",
    ]


def test_check_reads_standard_input_but_not_without_end(lab, ctl):
    document = json.dumps({"IP-SLA-tasks": [icmp_echo(1, num_rep_hist=0)], "cpus": [0]})
    tasks, keys = _files(lab, document)
    with open(lab.path(tasks)) as text:
        result = lab.run(*ctl.command("check", "-", keys), stdin=text, check=False)
    assert result.returncode == 1
    assert result.stdout.startswith("<standard input>:1:")
    with open(lab.path(keys)) as text:
        result = lab.run(*ctl.command("check", tasks, "-"), stdin=text, check=False)
    assert "<standard input>: 0 keys" in result.stdout
    lab.run("mkfifo", "/run/check/pipe")
    assert ctl("check", "/run/check/pipe", status=1).splitlines()[0] == (
        "/run/check/pipe: the file is a pipe into which nobody writes"
    )
    ctl("check", "/dev/zero", status=1)
    assert lab.run(*ctl.command("check", "-", "-"), check=False).returncode == 3


def test_check_of_a_keychain_that_others_can_read(lab, ctl):
    tasks, keys = _files(lab, [], '{"keychain-storage": [{"key-id": 1, "key-string": "x"}]}')
    lab.path(keys).chmod(0o644)
    assert ctl("check", tasks, keys).splitlines()[0] == (
        f"{keys}: warning: holds keys, and others than its owner can read it (mode 0644)"
    )
    assert len(ctl("check", "--no-host", tasks, keys).splitlines()) == 2
    lab.path(keys).write_text('{"keychain-storage": []}')
    assert len(ctl("check", tasks, keys).splitlines()) == 2
