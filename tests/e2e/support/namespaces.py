"""Entering network namespaces from Python, for sockets that live there."""

import ctypes
import os
import socket
import threading

_LIBC = ctypes.CDLL(None, use_errno=True)
_CLONE_NEWNET = 0x40000000


def _enter(path):
    fd = os.open(path, os.O_RDONLY | os.O_CLOEXEC)
    try:
        if _LIBC.setns(fd, _CLONE_NEWNET) != 0:
            raise OSError(ctypes.get_errno(), f"setns {path}")
    finally:
        os.close(fd)


def call_in_namespace(path, function):
    """Calls the function on a thread of its own inside the network namespace at `path` and returns
    its result.

    The thread ends with the call, so no thread of the test process is left in a foreign namespace.
    """
    outcome = {}

    def body():
        try:
            _enter(path)
            outcome["result"] = function()
        except BaseException as error:  # handed to the caller below
            outcome["error"] = error

    thread = threading.Thread(target=body)
    thread.start()
    thread.join()
    if "error" in outcome:
        raise outcome["error"]
    return outcome["result"]


def socket_in_namespace(path, family, kind, protocol=0, bind=None):
    """A socket that belongs to the namespace at `path` and may be used from any thread."""

    def make():
        sock = socket.socket(family, kind, protocol)
        try:
            if bind is not None:
                sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
                sock.bind(bind)
        except OSError:
            sock.close()
            raise
        return sock

    return call_in_namespace(path, make)
