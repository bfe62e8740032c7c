# SPDX-License-Identifier: Apache-2.0
"""Attacks a daemon as users without rights (tests/siege), and measures how it serves others
meanwhile and what it holds. For the test of a short siege and for scripts/siege.
"""

import contextlib
import fcntl
import json
import os
import resource
import select
import subprocess
import threading
import time
from collections.abc import Callable
from dataclasses import dataclass

from keel_client import AUTH, HANG_GUARD, NOTIFY
from keel_host import AUTH_PATH, NOTIFY_PATH, Daemon, listening_socket

MEBIBYTE = 1 << 20
VICTIMS = 64001
ATTACKERS = 64011  # the first of them
QUIET_SECONDS = 5  # after an attack; then what it took has come back
PIPE_BYTES = 1 << 20
SAMPLE_SECONDS = 0.05

# The attacks whose connections no process owns, and nobody ends: the daemon has to notice.
QUIET_SECONDS_OF = {"self-passing": 70}


@dataclass
class Holdings:
    """Resources of the daemon: bytes of resident memory, descriptors, threads."""

    resident: int
    descriptors: int
    threads: int

    @classmethod
    def of(cls, pid):
        status = status_of(pid)
        descriptors, threads = (len(os.listdir(f"/proc/{pid}/{each}")) for each in ("fd", "task"))
        return cls(status["VmRSS"], descriptors, threads)


@dataclass
class Outcome:
    """The measurements of one attack. Times are in milliseconds."""

    victims: dict
    attackers: list
    rest: Holdings
    quiet: Holdings
    peak_bytes: int  # of the daemon's address space
    peak_shared_bytes: int  # on the machine, above rest; the daemon's memory files among it
    quiet_shared_bytes: int
    log_bytes: int
    processor_seconds: float

    @property
    def peak_held_bytes(self):
        return max(self.peak_bytes, self.rest.resident + self.peak_shared_bytes)

    @property
    def kept_bytes(self):
        return max(self.quiet.resident - self.rest.resident, 0) + max(self.quiet_shared_bytes, 0)

    @property
    def unanswered(self):
        kinds = ("unanswered", "auth_unanswered", "failures")
        return sum(self.victims[kind] for kind in kinds)


def fields_of(path):
    """Parses a file of lines `Name: NUMBER kB`; the values are in bytes."""
    with open(path) as file:
        words = (line.split() for line in file)
        return {each[0].rstrip(":"): int(each[1]) << 10 for each in words if each[-1] == "kB"}


def status_of(pid):
    return fields_of(f"/proc/{pid}/status")


def shared_bytes():
    return fields_of("/proc/meminfo")["Shmem"]


def processor_seconds(pid):
    with open(f"/proc/{pid}/stat") as file:
        fields = file.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


class LogCounter:
    """Drains a daemon's log, like a journal that keeps up, and counts its bytes."""

    def __init__(self):
        self._read_end, self.write_end = os.pipe()
        fcntl.fcntl(self._read_end, fcntl.F_SETPIPE_SZ, PIPE_BYTES)
        self.size = 0
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    def _read(self):
        while data := os.read(self._read_end, PIPE_BYTES):
            self.size += len(data)

    def close(self):
        """Releases the pipe. Only once the daemon has ended."""
        self._thread.join(timeout=HANG_GUARD)
        os.close(self._read_end)


class PeakOfSharedMemory(threading.Thread):
    """Samples the machine's shared memory, for which the kernel has no high-water mark."""

    def __init__(self):
        super().__init__(daemon=True)
        self._over = threading.Event()
        self.bytes = 0

    def run(self):
        while not self._over.wait(SAMPLE_SECONDS):
            self.bytes = max(self.bytes, shared_bytes())

    def stop(self):
        self._over.set()
        self.join()


@dataclass
class Siege:
    """A daemon and who attacks it.

    program            keel_siege
    patience_seconds   how long the victims' last answers may take
    is_back            called after the attack, with what the daemon held at rest and holds now,
                       until it returns true; without it, QUIET_SECONDS pass
    """

    program: str
    seconds: int = 5
    attacker_count: int = 1
    patience_seconds: int = 5
    is_back: Callable[[Holdings, Holdings], bool] | None = None

    def run(self, case, *options):
        """Attacks a fresh daemon and returns the outcome. `case` is one of keel_siege's, or `rest`
        or `burn`. Raises RuntimeError if the daemon does not serve, or the attack itself fails.
        """
        with contextlib.ExitStack() as stack:
            log = LogCounter()
            stack.callback(log.close)
            paths = {NOTIFY: NOTIFY_PATH, AUTH: AUTH_PATH}
            listeners = {name: listening_socket(path) for name, path in paths.items()}
            for listener in listeners.values():
                stack.callback(listener.close)
                os.chmod(listener.getsockname(), 0o666)
            descriptors = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
            daemon = Daemon(log=None, sockets=listeners, descriptors=descriptors,
                            stderr=log.write_end, ready=False)
            os.close(log.write_end)
            stack.callback(daemon.stop)
            outcome = self._attack(daemon, log, case, options)
            if status := daemon.stop():
                raise RuntimeError(f"the daemon ended with status {status}")
            return outcome

    def _attack(self, daemon, log, case, options):
        patience = ("--patience", str(self.patience_seconds))
        victims = self._start(VICTIMS, "victims", *patience, stdin=subprocess.PIPE)
        try:
            self._expect_ready(victims)
            rest, shared_at_rest = Holdings.of(daemon.pid), shared_bytes()
            with open(f"/proc/{daemon.pid}/clear_refs", "w") as file:
                file.write("5")  # the high-water mark begins anew
            peak = PeakOfSharedMemory()
            peak.start()
            logged, used = log.size, processor_seconds(daemon.pid)

            self._next_period(victims)
            attackers = self._attack_once(case, options)
            self._next_period(victims)
            used = processor_seconds(daemon.pid) - used

            quiet = self._wait_until_quiet(daemon, case, rest)
            peak.stop()
            quiet_shared = shared_bytes() - shared_at_rest
            peak_bytes = status_of(daemon.pid)["VmHWM"]
            self._next_period(victims)
            measured, _ = victims.communicate(timeout=self.patience_seconds + HANG_GUARD)
        finally:
            victims.kill()
        return Outcome(
            victims=json.loads(measured),
            attackers=attackers,
            rest=rest,
            quiet=quiet,
            peak_bytes=peak_bytes,
            peak_shared_bytes=max(peak.bytes - shared_at_rest, 0),
            quiet_shared_bytes=quiet_shared,
            log_bytes=log.size - logged,
            processor_seconds=used,
        )

    def _wait_until_quiet(self, daemon, case, rest):
        if not self.is_back:
            threading.Event().wait(QUIET_SECONDS_OF.get(case, QUIET_SECONDS))
            return Holdings.of(daemon.pid)
        limit = time.monotonic() + HANG_GUARD
        end_of_daemon = os.pidfd_open(daemon.pid)
        try:
            while True:
                holdings = Holdings.of(daemon.pid)
                if self.is_back(rest, holdings) or time.monotonic() > limit:
                    return holdings
                if select.select([end_of_daemon], [], [], SAMPLE_SECONDS)[0]:
                    raise RuntimeError("the daemon has ended")
        finally:
            os.close(end_of_daemon)

    def _attack_once(self, case, options):
        if case == "rest":
            threading.Event().wait(self.seconds)
            return []
        if case == "burn":
            command = ["/bin/sh", "-c", "while :; do :; done"]
            processes = [subprocess.Popen(command, user=ATTACKERS) for _ in range(2)]
            threading.Event().wait(self.seconds)
            for process in processes:
                process.kill()
                process.wait()
            return []
        attackers = [
            self._start(ATTACKERS + number, "--seconds", str(self.seconds), *options, case)
            for number in range(self.attacker_count)
        ]
        patience = self.seconds + HANG_GUARD
        outputs = [attacker.communicate(timeout=patience)[0] for attacker in attackers]
        if any(attacker.returncode != 0 for attacker in attackers):
            raise RuntimeError(f"the attack {case} failed")
        return [json.loads(output) for output in outputs]

    def _start(self, user, *arguments, stdin=subprocess.DEVNULL):
        command = [self.program, "--uid", str(user), *arguments]
        return subprocess.Popen(command, stdin=stdin, stdout=subprocess.PIPE)

    @staticmethod
    def _expect_ready(victims):
        came, _, _ = select.select([victims.stdout], [], [], HANG_GUARD)
        if not came or victims.stdout.readline() != b"ready\n":
            raise RuntimeError("the daemon does not serve")

    @staticmethod
    def _next_period(victims):
        victims.stdin.write(b"\n")
        victims.stdin.flush()
