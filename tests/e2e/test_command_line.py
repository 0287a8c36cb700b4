"""Command line, exit statuses and the conditions under which the daemon refuses to start."""

import re
import shutil

import pytest

from support.daemon import Daemon
from support.tasks import icmp_echo

USAGE = (
    "usage syntax: {program} -f [IP SLA tasks configuration file] -k [keychain configuration file]\n"
    "available type of measurement:\n"
    " - udp echo\n"
    " - udp jitter\n"
    " - udp jitter [ntp timestamp]\n"
    " - icmp echo\n"
    " - icmp jitter\n"
)
BANNER = re.compile(
    r"IP SLA module version R1\.0\.0-78d40e7-dirty \(compiled [A-Z][a-z]{2} [ \d]\d \d{4} @ \d\d:\d\d:\d\d\)\n"
)


@pytest.mark.parametrize("arguments", [["-v"], ["-v", "-x"], ["-f", "absent", "-v"], ["-v", "-f"]])
def test_version_is_printed_at_once_whatever_follows(start_daemon, arguments):
    daemon = start_daemon(wait=False, arguments=arguments)
    assert daemon.wait_exit() == 0
    assert BANNER.fullmatch(daemon.stdout)


@pytest.mark.parametrize("arguments", [["-x"], ["-x", "-v"], ["-f"], ["-k"], ["-f", "tasks", "-k"]])
def test_bad_option_and_missing_argument_print_the_usage(build, start_daemon, arguments):
    daemon = start_daemon(wait=False, arguments=arguments)
    assert daemon.wait_exit() == 1
    assert daemon.stdout == USAGE.format(program=build.program("ip-sla-sender"))


@pytest.mark.parametrize(
    "arguments, reason, said",
    [
        (
            [],
            "invalid keychain configuration filename",
            "missing: -f with the tasks file and -k with the keychain file",
        ),
        (
            ["-f", "{tasks}"],
            "invalid keychain configuration filename",
            "missing: -k with the keychain file",
        ),
        (
            ["-f", "{tasks}", "-k", "/nowhere/keychain.json"],
            "unable to open configuration file",
            "/nowhere/keychain.json: No such file or directory",
        ),
        (
            ["-f", "{tasks}", "-k", "/tmp"],
            "unable to open configuration file",
            "/tmp: Is a directory",
        ),
    ],
    ids=["no files", "no keychain", "absent", "directory"],
)
def test_keychain_that_cannot_be_read_ends_the_start(
    lab, start_daemon, tmp_path, arguments, reason, said
):
    tasks = tmp_path / "tasks.json"
    tasks.write_text('{"IP-SLA-tasks": []}')
    daemon = start_daemon(wait=False, arguments=[text.format(tasks=tasks) for text in arguments])
    assert daemon.wait_exit() == 1
    assert daemon.log_records() == [reason, "ParseKeychainConfigs() failed"]
    assert daemon.stderr == f"ip-sla-sender: {said}\n"


@pytest.mark.parametrize(
    "tasks, reason, said",
    [
        (None, "invalid SLA tasks configuration filename", "missing: -f with the tasks file"),
        (
            "/nowhere/tasks.json",
            "unable to open configuration file",
            "/nowhere/tasks.json: No such file or directory",
        ),
        ("/tmp", "unable to open configuration file", "/tmp: Is a directory"),
    ],
)
def test_tasks_file_that_cannot_be_read_ends_the_start(start_daemon, tmp_path, tasks, reason, said):
    keychain = tmp_path / "keychain.json"
    keychain.write_text('{"keychain-storage": []}')
    arguments = ["-k", keychain] + (["-f", tasks] if tasks else [])
    daemon = start_daemon(wait=False, arguments=arguments)
    assert daemon.wait_exit() == 1
    assert daemon.log_records() == [reason, "ParseTaskConfigs() failed"]
    assert daemon.stderr == f"ip-sla-sender: {said}\n"


def test_json_error_shows_the_text_from_the_error_on(start_daemon):
    daemon = start_daemon(wait=False, document='{"IP-SLA-tasks": [}')
    assert daemon.wait_exit() == 1
    assert daemon.log_records() == ["JSON parse error at line: }", "ParseTaskConfigs() failed"]
    assert re.fullmatch(r"ip-sla-sender: /\S+:1:19: is not JSON\n", daemon.stderr)


def test_tasks_file_without_a_task_list_ends_the_start(start_daemon):
    daemon = start_daemon(wait=False, document='{"cpus": [0]}')
    assert daemon.wait_exit() == 1
    assert daemon.log_records() == ["ivalid configuration", "ParseTaskConfigs() failed"]
    assert daemon.stderr.endswith(': has no array "IP-SLA-tasks" in its root\n')


def test_keychain_without_a_key_list_ends_the_start_silently(start_daemon):
    daemon = start_daemon(wait=False, keychain="{}")
    assert daemon.wait_exit() == 1
    assert daemon.log_records() == ["ParseKeychainConfigs() failed"]
    assert daemon.stderr.endswith(': has no array "keychain-storage" in its root\n')
    assert daemon.stderr.count("\n") == 1


def test_surplus_arguments_are_named(start_daemon, tmp_path):
    empty = tmp_path / "empty.json"
    empty.write_text('{"IP-SLA-tasks": []}')
    daemon = start_daemon(wait=False, arguments=["start", "-f", empty, "now"])
    assert daemon.wait_exit() == 1
    assert daemon.stderr.splitlines() == [
        "ip-sla-sender: surplus arguments 'start' 'now' are not read",
        "ip-sla-sender: missing: -k with the keychain file",
    ]


def test_later_option_replaces_an_earlier_one(start_daemon, tmp_path):
    empty = tmp_path / "empty.json"
    empty.write_text('{"IP-SLA-tasks": []}')
    keys = tmp_path / "keys.json"
    keys.write_text('{"keychain-storage": []}')
    daemon = start_daemon(arguments=["-f", "/nowhere", "-k", "/nowhere", "-f", empty, "-k", keys])
    assert "List IP SLA operations: 0 tasks" in daemon.log_records()


def test_log_directory_that_cannot_be_made_ends_the_start(lab, start_daemon):
    lab.path("/var/log/ip-sla").write_text("a file is in the way")
    daemon = start_daemon(wait=False)
    assert daemon.wait_exit() == 1
    assert daemon.stderr == (
        "ip-sla-sender: no log in /var/log/ip-sla: Failed to create log directory!: Not a directory\n"
    )


class TestWithoutRootRights:
    """The daemon as another user: its files are copied to where that user may read them."""

    @pytest.fixture
    def refused(self, lab, build):
        def start(*privileges):
            place = lab.path("/run/ip-sla")
            place.mkdir()
            shutil.copy(build.program("ip-sla-sender"), place)
            for library in (build.directory / "lib").glob("lib*.so"):
                shutil.copy(library, place)
            lab.run("mkdir", "-m", "777", "/var/log/ip-sla")
            lab.run("prlimit", "--pid", str(lab.pid), "--core=0")
            environment = {**build.environment(), "LD_LIBRARY_PATH": "/run/ip-sla"}
            variables = [f"{name}={value}" for name, value in environment.items() if value]
            result = lab.run(
                *["env", "-i", *variables, *build.launcher()],
                *["setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups", *privileges],
                *["/run/ip-sla/ip-sla-sender", "-f", "tasks", "-k", "keychain"],
                check=False,
            )
            assert "Sanitizer" not in result.stderr
            return result

        return start

    def test_real_time_scheduling_that_is_denied_ends_the_start(self, lab, refused):
        result = refused()
        assert result.returncode == 1
        assert lab.log_text().endswith(": sched_setscheduler\n")
        assert result.stderr == (
            "ip-sla-sender: real-time scheduling is refused: Operation not permitted; "
            "it has to be started as root\n"
        )

    def test_missing_root_rights_end_the_start(self, lab, refused):
        result = refused("--inh-caps", "+sys_nice", "--ambient-caps", "+sys_nice")
        assert result.returncode == 1
        assert result.stderr == (
            "ip-sla-sender: no root privileges; it has to be started as root\n"
        )
        assert lab.log_text().endswith(": CheckRootPriv() failed: no root privileges\n")


def test_clean_stop_on_sigterm(start_daemon):
    daemon = start_daemon([icmp_echo(1)])
    daemon.wait_for_reports(1)
    daemon.stop()
    assert daemon.process.returncode == 0


def test_second_daemon_goes_on_without_the_api_socket(lab, start_daemon):
    start_daemon([])
    # It shares the first one's log files; its own outputs are told apart by the system-log
    # recording.
    second = Daemon(lab, [icmp_echo(5)])
    second.wait_for_reports(5)
    texts = [record.text for record in second.syslog()]
    assert any(
        text.endswith("Sender api creation failed: bind: Address already in use") for text in texts
    )
    second.stop()
    assert second.stderr == (
        "ip-sla-sender: no API on 127.0.0.1:10101: bind: Address already in use; "
        "the tests run all the same\n"
    )
