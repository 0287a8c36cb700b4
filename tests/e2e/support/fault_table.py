"""The faults that the daemon is put through, and what each of them does to it.

docs/reliability.md shows the same table to its readers; a test compares them.
"""

import errno
import socket
from dataclasses import dataclass, field

ICMP, UDP = 2, 3  # the tasks of the tests: icmp-echo in a VRF, udp-jitter in the default one
START = "Start test failed"
CONTROL = "control phase failed: internal error"
NONE, FEWER, CUT = "good", "fewer", "timeout, no samples"
NETNS = "/var/run/netns/"
SO_RCVBUFFORCE, SO_ATTACH_FILTER, SO_TIMESTAMPING, IP_RECVERR = 33, 26, 37, 11
EPOLL_CTL_ADD = 1


@dataclass(frozen=True)
class Fault:
    """`run`: how the run that it hits ends. An error text of the run; or NONE: as if nothing had
    happened; FEWER: well, without the probes that did not leave or were not seen again; CUT: well,
    with the replies that came before, or for want of any not."""

    what: str
    call: str
    error: int
    task: int
    run: str
    effect: str
    order: dict = field(default_factory=dict)
    line: str = ""  # of the test's log, on the way

    @property
    def name(self):
        return f"{self.what}: {errno.errorcode[self.error]}"


def _udp(what, call, error, run, effect, line="", **order):
    return Fault(what, call, error, UDP, run, effect, order, line)


def _icmp(what, call, error, run, effect, line="", **order):
    return Fault(what, call, error, ICMP, run, effect, order, line)


RUN_FAILS = "the run fails: “Start test failed”; the reason in the log, once a minute"
RUN_IS_RIGHT = "none: the run is right"
RUN_LASTS = "the run is right and lasts until its time-out; the reason in the log"

RUN_FAULTS = [
    _icmp("socket, ICMP", "socket", errno.EMFILE, START, RUN_FAILS, socket="raw"),
    _udp("socket, probes", "socket", errno.ENOMEM, START, RUN_FAILS, socket="probes"),
    _udp(
        "socket, control phase", "socket", errno.EMFILE, START, RUN_FAILS, socket="probes", skip=1
    ),
    _icmp("bind, ICMP", "bind", errno.ENOMEM, START, RUN_FAILS, socket="raw"),
    _udp("bind, probes", "bind", errno.EADDRINUSE, START, RUN_FAILS, socket="probes"),
    _udp("bind, control phase", "bind", errno.EADDRINUSE, START, RUN_FAILS, socket="control"),
    _udp("getsockname", "getsockname", errno.ENOBUFS, START, RUN_FAILS),
    _icmp("connect", "connect", errno.ENOMEM, START, RUN_FAILS, socket="raw"),
    _icmp(
        "setsockopt, TTL",
        "setsockopt",
        errno.ENOMEM,
        START,
        RUN_FAILS,
        socket="raw",
        detail=socket.IP_TTL,
    ),
    _udp(
        "setsockopt, errors of the control phase",
        "setsockopt",
        errno.ENOMEM,
        START,
        RUN_FAILS,
        socket="probes",
        detail=IP_RECVERR,
    ),
    _icmp(
        "setsockopt, filter",
        "setsockopt",
        errno.ENOMEM,
        NONE,
        "none: the daemon sorts the replies out itself",
        detail=SO_ATTACH_FILTER,
    ),
    _udp(
        "setsockopt, stamps",
        "setsockopt",
        errno.ENOMEM,
        NONE,
        "the run is right, its times are taken by the daemon's clock",
        detail=SO_TIMESTAMPING,
        times=2,
    ),
    _icmp("setns into the VRF", "setns", errno.ENOMEM, START, RUN_FAILS),
    _icmp(
        "setns back",
        "setns",
        errno.ENOMEM,
        START,
        RUN_FAILS + "; the thread returns all the same",
        skip=1,
    ),
    _icmp("open, the VRF", "open", errno.EMFILE, START, RUN_FAILS, path=NETNS),
    _icmp(
        "open, the own namespace", "open", errno.ENFILE, START, RUN_FAILS, path="/proc/thread-self"
    ),
    _icmp(
        "epoll_ctl, ICMP",
        "epoll_ctl",
        errno.ENOSPC,
        NONE,
        RUN_LASTS,
        line="SendPacket failed on test 2: assign: No space left on device",
        socket="raw",
        detail=EPOLL_CTL_ADD,
    ),
    _udp(
        "epoll_ctl, probes",
        "epoll_ctl",
        errno.ENOMEM,
        NONE,
        RUN_LASTS,
        line="SendPacket failed on test 3: assign: Cannot allocate memory",
        socket="probes",
        detail=EPOLL_CTL_ADD,
    ),
    _udp(
        "epoll_ctl, control phase",
        "epoll_ctl, unbound",
        errno.ENOMEM,
        START,
        RUN_FAILS,
        socket="probes",
        detail=EPOLL_CTL_ADD,
    ),
    _icmp(
        "sendto, ICMP",
        "sendto",
        errno.ENOBUFS,
        FEWER,
        "the probe counts as lost",
        line="sendto() failed: No buffer space available",
        socket="raw",
    ),
    _udp(
        "sendto, UDP",
        "sendto",
        errno.ENOMEM,
        CUT,
        "the run's later probes are not sent; if there was none yet: “timeout, no samples”; "
        "the reason in the log, once a minute",
        socket="probes",
        skip=2,
    ),
    _udp("sendto", "sendto", errno.EINTR, NONE, RUN_IS_RIGHT, socket="probes", times=2),
    _icmp(
        "sendto, full",
        "sendto",
        errno.EAGAIN,
        NONE,
        "the probe is sent when there is room",
        socket="raw",
    ),
    _udp(
        "sendto, control request",
        "sendto",
        errno.ENOBUFS,
        CONTROL,
        "the run fails: “control phase failed: internal error”",
        socket="control",
    ),
    _udp(
        "recvmsg, control response",
        "recvmsg",
        errno.ENOMEM,
        "",
        "the run fails without a text, and at once",
        socket="control",
        detail=0,
    ),
    _icmp(
        "recvmsg, ICMP",
        "recvmsg",
        errno.ENOMEM,
        CUT,
        "the run's later replies are not taken; if there was none yet: “timeout, no samples”",
        line="ReceivePacket failed on test 2: Cannot allocate memory",
        socket="raw",
        detail=0,
    ),
    _udp("recvmsg", "recvmsg", errno.EINTR, NONE, RUN_IS_RIGHT, socket="probes", detail=0, times=2),
    _udp(
        "recvmsg, departures",
        "recvmsg",
        errno.ENOMEM,
        NONE,
        RUN_IS_RIGHT,
        socket="probes",
        detail=1,
    ),
    _udp("epoll_wait", "epoll_wait", errno.EINTR, NONE, RUN_IS_RIGHT, times=3),
    _udp(
        "writev, log",
        "writev",
        errno.ENOSPC,
        NONE,
        "the lines of that write are lost, later ones are written",
    ),
]


@dataclass(frozen=True)
class Rest:
    """A fault outside of a run: test_faults.py and test_start_faults.py have a test for it."""

    name: str
    effect: str


OTHER_FAULTS = [
    Rest("recvmsg, API request: ENOMEM", "none: it is received again and answered"),
    Rest("recvmsg, API request: EINTR", "none: it is received again and answered"),
    Rest("sendto, API reply: ENOBUFS", "this request has no reply, the next one has"),
    Rest("fopen, tasks file at a reload: EMFILE", "the reload fails, everything stays as it was"),
    Rest(
        "malloc, while a request is served: ENOMEM",
        "this request fails or has no reply, the next one is answered; also where it is logged",
    ),
    Rest(
        "recvfrom, netlink: ENOBUFS",
        "what waits is discarded and the addresses are listed anew: none gets lost",
    ),
    Rest("recvfrom, netlink: ENOMEM", "none: it is received again"),
    Rest(
        "socket, to ask about the interface of a new address: EMFILE",
        "its tests fail as without the address; asked again within two seconds",
    ),
    Rest("getifaddrs, of a VRF made again: EMFILE", "asked again within two seconds, said once"),
    Rest(
        "socket, netlink of a VRF made again: EMFILE", "tried again within two seconds, said once"
    ),
    Rest(
        "socket, netlink of a new VRF at a reload: EMFILE",
        "ends the daemon, as every test that cannot be created: "
        "“CreateNetlinkSocketInVrf failed”, with task and VRF; the unit starts it again",
    ),
    Rest(
        "fopen, keychain file at a reload: EMFILE",
        "ends the daemon: “ParseKeychainConfigs() failed”; the unit starts it again",
    ),
    Rest(
        "pthread_create, first threads at a reload: EAGAIN",
        "“Start main loop failed”; the next reload tries again",
    ),
    Rest(
        "pthread_create, later threads at a reload: EAGAIN",
        "the threads that are there do the work",
    ),
    Rest("timerfd_settime: ENOMEM", "a run may begin or end late; the next one is right"),
    Rest(
        "timerfd_create, clock watch at the start: ENOMEM",
        "tests do not start over when the clock is set; said on standard error and in the log",
    ),
    Rest(
        "timerfd_settime, clock watch at the start: ENOMEM",
        "tests do not start over when the clock is set; said on standard error and in the log",
    ),
    Rest("timerfd_create, other timers at the start: ENFILE", "none: the runs are right"),
    Rest(
        "pthread_create, log's writer at the start: EAGAIN",
        "the daemon does not start; the reason on standard error",
    ),
    Rest(
        "pthread_create, API's thread at the start: EAGAIN",
        "ends the daemon with its log written and a crash trace; the unit starts it again",
    ),
    Rest(
        "pthread_create, first worker at the start: EAGAIN",
        "“Start main loop failed”: no run until the next reload, which tries again",
    ),
    Rest(
        "pthread_create, later worker at the start: EAGAIN",
        "“Start main loop failed”; the threads that are there do the work",
    ),
]
