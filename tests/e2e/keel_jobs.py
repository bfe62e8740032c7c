# SPDX-License-Identifier: Apache-2.0
"""Jobs for the tests of the service managers: a program that reports its environment, and a driver
of the supervisor alone.
"""

import json
import os
import re
import socket
import subprocess
import sys
import threading
import unittest

import keel_host
from keel_client import DIRECTORY, HANG_GUARD

PYTHON = "/usr/bin/python3"

# Serves one client of the service that its first argument names, tells it what it knows of itself,
# waits until the client has gone, and ends.
TELL = """
import json, os, socket, sys
names = os.environ["LISTEN_FDNAMES"].split(":")
client, _ = socket.socket(fileno=3 + names.index(sys.argv[1])).accept()
told = {"arguments": sys.argv, "environment": dict(os.environ), "pid": os.getpid(),
        "names": sorted(names), "uid": os.getuid(),
        "groups": os.getgroups(), "directory": os.getcwd(), "nice": os.nice(0)}
client.sendall(json.dumps(told).encode() + b"\\n")
client.recv(1)
"""


def telling_job(label, *services, arguments=(), **more):
    program = [PYTHON, "-c", TELL, services[0], *arguments]
    return {"Label": label, "ProgramArguments": program,
            "MachServices": {service: True for service in services},
            "Transient": True, **more}


class Caller:
    """A connection to a job's service."""

    def __init__(self, service):
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.settimeout(HANG_GUARD)
        self._socket.connect(f"{DIRECTORY}/{service}")

    def told(self):
        """Returns the program's report; None if it ended without one."""
        try:
            line = self._socket.makefile("rb").readline()
        except ConnectionResetError:
            return None
        return json.loads(line) if line else None

    def close(self):
        self._socket.close()


def shown_jobs():
    """Returns keelctl's description of each module's job."""
    shown = subprocess.run([keel_host.keelctl, "modules", "--json"], check=True,
                           capture_output=True, text=True).stdout
    return {line["module"]: line["job"] for line in map(json.loads, shown.splitlines())}


def ask(service):
    caller = Caller(service)
    try:
        return caller.told()
    finally:
        caller.close()


class Supervisor:
    """A process that calls this system's supervisor, without a keeld."""

    def __init__(self, **environment):
        self._process = subprocess.Popen(
            [next(word for word in sys.argv if word.endswith("supervisor_driver"))],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
            env={**os.environ, **environment})

    def _call(self, **call):
        self._process.stdin.write(json.dumps(call) + "\n")
        self._process.stdin.flush()
        answer = json.loads(self._process.stdout.readline())
        return answer["answer"], answer["error"]

    # Each returns its answer and its error or None.

    def create(self, job):
        return self._call(call="create", job=job)

    def set_enabled(self, label, enabled=True):
        return self._call(call="set", label=label, enabled=enabled)

    def is_enabled(self, label):
        return self._call(call="enabled", label=label)

    def close(self):
        self._process.communicate(timeout=HANG_GUARD)


class SpyBus:
    """A proxy between a process and the system bus or systemd that records calls to systemd:
    methods and properties.

    path     where it stands
    target   where the one behind it is
    answers  how many questions it passes on; at the next one it dies, and leaves nothing at its
             place. None: all
    """

    QUESTIONS = re.compile(
        rb"\0(GetUnitFileState|EnableUnitFiles|DisableUnitFiles|StartUnit|StopUnit|Reload|UnitPath"
        rb"|ActiveState)\0")
    PATH = "/run/spy-bus"
    BUS = "/run/dbus/system_bus_socket"

    def __init__(self, path=PATH, target=BUS, answers=None):
        self.calls = []
        self._path, self._target, self._answers = path, target, answers
        self._listener = socket.socket(socket.AF_UNIX)
        self._listener.bind(path)
        self._listener.listen()
        self.environment = {"DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={path}"}
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self):
        client, _ = self._listener.accept()
        bus = socket.socket(socket.AF_UNIX)
        bus.connect(self._target)
        threading.Thread(target=self._pass_on, args=(bus, client, False), daemon=True).start()
        self._pass_on(client, bus, True)

    def _pass_on(self, source, target, noted):
        try:
            while data := source.recv(1 << 16):
                # Calls are sent one at a time, since each waits for its answer.
                if noted:
                    self.calls += [found.decode() for found in self.QUESTIONS.findall(data)]
                if noted and self._answers is not None and len(self.calls) > self._answers:
                    self.close()
                    source.shutdown(socket.SHUT_RDWR)
                    target.shutdown(socket.SHUT_RDWR)
                    return
                target.sendall(data)
        except OSError:
            pass  # one end has closed

    def take(self):
        calls, self.calls = self.calls, []
        return calls

    def close(self):
        self._listener.close()
        keel_host.remove(self._path)


def systemctl(*words, check=True):
    return subprocess.run(["systemctl", *words], check=check, capture_output=True,
                          text=True).stdout.strip()


def state_of(unit):
    return systemctl("show", "--property=ActiveState", "--value", unit)


class JobTest(unittest.TestCase):
    """Tests a supervisor driver of its own against the systemd of the private host."""

    def setUp(self):
        self.supervisor = self.make_supervisor()

    def make_supervisor(self, **environment):
        supervisor = Supervisor(**environment)
        self.addCleanup(supervisor.close)
        return supervisor

    def assertDone(self, outcome):
        self.assertEqual(outcome, (True, None))

    def assertRefused(self, outcome, text):
        self.assertFalse(outcome[0])
        self.assertIn(text, outcome[1])

    def enable(self, job):
        self.assertDone(self.supervisor.create(job))
        self.assertDone(self.supervisor.set_enabled(job["Label"]))
        self.assertDone(self.supervisor.is_enabled(job["Label"]))
