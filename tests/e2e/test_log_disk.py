"""A log directory on a disk that stops answering."""

import fcntl
import os
import struct
import termios

from support.api_client import ApiClient
from support.tasks import icmp_jitter
from support.waiting import wait_for

FULL = 60000  # a pipe holds 65536 bytes


def waiting_bytes(pipe):
    return struct.unpack("i", fcntl.ioctl(pipe, termios.FIONREAD, b"    "))[0]


def test_disk_that_does_not_write_stops_nothing(lab, start_daemon):
    """A pipe that is not read stands for it: the writer thread hangs in the log of test 1."""
    lab.run("mkdir", "-m", "755", "/var/log/ip-sla")
    lab.run("mkfifo", "/var/log/ip-sla/test_1.log")
    pipe = os.open(lab.log_path(1), os.O_RDWR | os.O_NONBLOCK)
    lab.on_close(lambda: os.close(pipe))
    daemon = start_daemon([icmp_jitter(1, packets=200, interval=0)])
    client = ApiClient(lab)

    def runs():
        return client.statistics(1)[0]["successful-count"]

    wait_for(lambda: waiting_bytes(pipe) > FULL, "the pipe to be full")
    before = runs()
    wait_for(lambda: runs() >= before + 2, "two more runs")
    daemon.stop()
    assert daemon.process.returncode == 0
