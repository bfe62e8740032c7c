# SPDX-License-Identifier: Apache-2.0
"""Clients in other processes, controlled by the test."""

import os
import pickle
import resource
import signal
import socket
import struct
import traceback

from keel_client import Client


class OtherProcess:
    """A process with clients, as another user or in another audit session. It executes commands and
    lives until it is killed.
    """

    def __init__(self, uid=0, new_session=False):
        ours, its = socket.socketpair()
        self._channel = ours
        self.pid = os.fork()
        if self.pid == 0:
            status = 1
            try:
                self._channel = its
                self._serve(uid, new_session)
                status = 0
            except BaseException:
                traceback.print_exc()
            finally:
                os._exit(status)
        its.close()
        self._receive()

    def _serve(self, uid, new_session):
        # The sockets of others must end with those who opened them.
        number = self._channel.fileno()
        os.closerange(3, number)
        os.closerange(number + 1, resource.getrlimit(resource.RLIMIT_NOFILE)[0])
        if new_session:
            with open("/proc/self/loginuid", "w") as file:
                file.write(str(uid))
        if uid:
            os.setgroups([])
            os.setresgid(uid, uid, uid)
            os.setresuid(uid, uid, uid)
        clients = []
        self._send(("result", None))
        while (told := self._receive(closable=True)) is not None:
            place, method, arguments, options = told
            try:
                if place is None:
                    found = method(*arguments, **options)
                    if isinstance(found, Client):
                        clients.append(found)
                        found = len(clients) - 1
                    self._send(("result", found))
                else:
                    found = getattr(clients[place], method)
                    self._send(("result",
                                found(*arguments, **options) if callable(found) else found))
            except Exception:
                self._send(("raised", traceback.format_exc()))

    def _send(self, what):
        data = pickle.dumps(what)
        self._channel.sendall(struct.pack("<Q", len(data)) + data)

    def _receive(self, closable=False):
        def read(size):
            data = bytearray()
            while len(data) < size:
                piece = self._channel.recv(size - len(data))
                if not piece:
                    break
                data += piece
            return data

        head = read(8)
        if not head and closable:
            return None
        data = read(struct.unpack("<Q", head)[0])
        return pickle.loads(data)

    def _do(self, *what):
        self._send(what)
        return self.result()

    def do(self, function, *arguments):
        """Calls a function in that process and returns its result."""
        return self._do(None, function, arguments, {})

    def begin(self, function, *arguments):
        """Calls it without waiting; result() returns the result."""
        self._send((None, function, arguments, {}))

    def result(self):
        outcome, value = self._receive()
        if outcome == "raised":
            raise AssertionError(f"in another process:\n{value}")
        return value

    def client(self, *arguments, **options):
        """Returns a Client in that process. `options` may name another factory as `maker`."""
        maker = options.pop("maker", Client)
        return RemoteClient(self, self._do(None, maker, arguments, options))

    def kill(self):
        if self.pid:
            os.kill(self.pid, signal.SIGKILL)
            self._reap()

    def close(self):
        self.kill()
        self._channel.close()

    def _reap(self):
        os.waitpid(self.pid, 0)
        self.pid = 0

    @property
    def session(self):
        with open(f"/proc/{self.pid}/sessionid") as file:
            return struct.unpack("i", struct.pack("I", int(file.read())))[0]


class RemoteClient:
    """A proxy of a Client in an OtherProcess."""

    def __init__(self, process, place):
        self._process = process
        self._place = place

    def __getattr__(self, method):
        return lambda *arguments, **options: self._process._do(self._place, method, arguments,
                                                               options)
