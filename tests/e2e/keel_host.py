# SPDX-License-Identifier: Apache-2.0
"""The harness of the end-to-end tests: the real daemon at its real paths on a private host
(scripts/private-host).

A test program is called with the path of keeld, and of keelctl if it needs that one. Nothing here
waits for time to pass: every wait is for an event, and its limit only ends a test that hangs.
"""

import fcntl
import functools
import os
import re
import resource
import shutil
import signal
import socket
import struct
import subprocess
import sys
import threading
import unittest
from typing import NamedTuple

from keel_client import AUTH, DIRECTORY, HANG_GUARD, NOTIFY, Client
from keel_processes import OtherProcess

LOCK_DIRECTORY = "/private/var/keeld"
BUNDLES = "/Applications/Calder.app/Contents/CalderRoot/usr/share/keeld/bundles/"
NOTIFY_PATH = f"{DIRECTORY}/{NOTIFY}"
AUTH_PATH = f"{DIRECTORY}/{AUTH}"
LOG_LINE = re.compile(
    r"\d\d:\d\d:\d\d\.\d{3} (debug|default|error|fault) (?:\[uid (\d+)\] )?(\w+): (.*)"
)
SANITIZER_REPORT = re.compile(r"ERROR: \w+Sanitizer|WARNING: \w+Sanitizer|runtime error: ")
SHOWN_LOG_LINES = 40
INVALIDATED = re.compile(r"Dispatcher: connection from \d+ is invalidated")

keeld = ""
keelctl = ""


class LogLine(NamedTuple("LogLine", [("level", str), ("category", str), ("text", str)])):
    uid = None  # of the user who caused it, if any; not compared


class Daemon:
    """A running keeld. `lines` are its lines on standard error; those that are log messages are in
    `log`.

    log          the value of KEELD_LOG; None: not set
    sockets      listening sockets that it is handed, by service name
    descriptors  its limit of descriptors
    journal      standard error is the journal, as far as it can tell
    ready        wait until it says that it is; needs the debug level of the category runtime
    """

    def __init__(self, *, log="runtime=debug", environment=None, arguments=None, sockets=None,
                 descriptors=None, before_exec=None,
                 journal=False, stderr=None, ready=True):
        ours = ("KEELD_", "LISTEN_", "JOURNAL_", "NOTIFY_")
        variables = {name: value for name, value in os.environ.items() if not name.startswith(ours)}
        for name, setting in (("ASAN_OPTIONS", "quarantine_size_mb=8"),
                              ("TSAN_OPTIONS", "atexit_sleep_ms=50")):
            variables[name] = f"{os.environ.get(name, '')}:{setting}"
        if log is not None:
            variables["KEELD_LOG"] = log
        variables.update(environment or {})

        # Only the process itself can know its id and the device of its standard error.
        wrapper, handed = "", list((sockets or {}).values())
        if sockets:
            variables.update(LISTEN_FDS=str(len(handed)), LISTEN_FDNAMES=":".join(sockets))
            wrapper += "export LISTEN_PID=$$; "
        if journal:
            wrapper += "export JOURNAL_STREAM=$(stat -L -c %d:%i /proc/self/fd/2); "

        def prepare():
            # Out of one another's way first: a number that is wanted for one may be in use by
            # another.
            copies = [fcntl.fcntl(handed_socket.fileno(), fcntl.F_DUPFD_CLOEXEC, 100)
                      for handed_socket in handed]
            for number, copy in enumerate(copies, start=3):
                os.dup2(copy, number)
            if descriptors:
                resource.setrlimit(resource.RLIMIT_NOFILE, (descriptors, descriptors))
            if before_exec:
                before_exec()

        self.expected_status = 0  # at the end of the test
        self.lines = []
        self.log = []
        self._changed = threading.Condition()
        self._ended = False
        command = arguments or [keeld]
        self._process = subprocess.Popen(
            ["/bin/sh", "-c", wrapper + 'exec "$@"', "sh", *command] if wrapper else command,
            executable=None if wrapper else keeld,
            env=variables,
            stdin=subprocess.DEVNULL,
            stderr=subprocess.PIPE if stderr is None else stderr,
            preexec_fn=prepare,
            pass_fds=range(3, 3 + len(handed)),
        )
        self.pid = self._process.pid
        self._reader = threading.Thread(target=self._read, daemon=True)
        if stderr is None:
            self._reader.start()
        if ready:
            self.wait_for_log("up and running")

    def _read(self):
        for line in self._process.stderr:
            line = line.decode("utf-8", "backslashreplace").rstrip("\n")
            found = LOG_LINE.fullmatch(line)
            with self._changed:
                self.lines.append(line)
                if found:
                    level, uid, category, text = found.groups()
                    self.log.append(LogLine(level, category, text))
                    self.log[-1].uid = None if uid is None else int(uid)
                self._changed.notify_all()
        with self._changed:
            self._ended = True
            self._changed.notify_all()

    # -- its log

    def logged(self, text, level=None, category=None):
        """Returns the lines so far whose text is `text` (or matches it, a compiled pattern)."""
        matches = text.fullmatch if isinstance(text, re.Pattern) else text.__eq__
        with self._changed:
            return [
                line for line in self.log
                if matches(line.text) and level in (None, line.level)
                and category in (None, line.category)
            ]

    def wait_for_log(self, text, count=1, level=None, category=None):
        """Waits for `count` such lines and returns the last one."""
        with self._changed:
            came = self._changed.wait_for(
                lambda: self._ended or len(self.logged(text, level, category)) >= count,
                timeout=HANG_GUARD)
        found = self.logged(text, level, category)
        if len(found) < count:
            raise AssertionError(f"not logged: {text!r} {count} times, but {len(found)}"
                                 + ("" if came else " (hung)"))
        return found[count - 1]

    def times_logged(self, text, least, level=None, category=None):
        """Returns the number of such lines once there are at least `least`: a line may be read
        after a later answer.
        """
        self.wait_for_log(text, least, level, category)
        return len(self.logged(text, level, category))

    # -- its process

    def signal(self, number):
        os.kill(self.pid, number)

    def pause(self):
        """Stops it (SIGSTOP); returns once all its threads are stopped."""
        self.signal(signal.SIGSTOP)
        os.waitid(os.P_PID, self.pid, os.WSTOPPED)

    def go_on(self):
        self.signal(signal.SIGCONT)

    def wait(self):
        """Waits for its end and the end of its output; returns its exit status (negative: the
        signal that ended it).
        """
        status = self._process.wait(timeout=HANG_GUARD)
        if self._process.stderr:
            self._reader.join(timeout=HANG_GUARD)
        return status

    def stop(self):
        """Terminates it unless it has ended; returns its exit status."""
        if self._process.poll() is None:
            self.signal(signal.SIGTERM)
        try:
            return self.wait()
        except subprocess.TimeoutExpired:
            self._process.kill()
            self.wait()
            raise AssertionError("the daemon did not end at SIGTERM") from None

    def kill(self):
        self.expected_status = -signal.SIGKILL
        self._process.kill()
        self.wait()

    @property
    def running(self):
        return self._process.poll() is None

    def resident_bytes(self):
        with open(f"/proc/{self.pid}/status") as status:
            return next(int(line.split()[1]) << 10 for line in status if line.startswith("VmRSS"))

    def descriptor_count(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def sanitizer_report(self):
        with self._changed:
            first = next((place for place, line in enumerate(self.lines)
                          if SANITIZER_REPORT.search(line)), None)
            return "" if first is None else "\n".join(self.lines[first:])


@functools.cache
def memory_factor():
    """Returns the memory overhead of this build of keeld as a factor: sanitizers need more."""
    with open(keeld, "rb") as program:
        code = program.read()
    return 8 if b"__tsan_init" in code or b"__asan_init" in code else 1


def thread_priorities(pid):
    """Returns the sets of nice values of a process's threads, by thread name."""
    priorities = {}
    for thread in os.listdir(f"/proc/{pid}/task"):
        with open(f"/proc/{pid}/task/{thread}/stat") as file:
            name, _, fields = file.read().partition("(")[2].rpartition(")")
        priorities.setdefault(name, set()).add(int(fields.split()[16]))
    return priorities


def preferred_priority():
    """Returns the nice value of keeld's I/O thread here; some machines refuse it even to root."""
    return int(subprocess.run(["nice", "-n", "-5", "nice"], capture_output=True, check=True).stdout)


def remove(path):
    if os.path.isdir(path) and not os.path.islink(path):
        shutil.rmtree(path)
    elif os.path.lexists(path):
        os.unlink(path)


def listening_socket(path):
    """A listening socket as a service manager passes it. Clients can connect immediately."""
    remove(path)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    listener.bind(path)
    listener.listen(4096)
    return listener


class Journal:
    """A fake journald. Entries are dictionaries of their fields."""

    PATH = "/run/systemd/journal/socket"

    def __init__(self):
        os.makedirs(os.path.dirname(self.PATH), exist_ok=True)
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(self.PATH)
        self.socket.settimeout(HANG_GUARD)

    def next(self):
        entry, fields = self.socket.recv(1 << 20), {}
        while entry:
            head, _, entry = entry.partition(b"\n")
            name, equals, value = head.partition(b"=")
            if not equals:
                size = struct.unpack_from("<Q", entry)[0]
                value, entry = entry[8 : 8 + size], entry[8 + size + 1 :]
            fields[name.decode()] = value.decode()
        return fields

    def until(self, message):
        """Returns all entries up to the one with that text."""
        entries = [self.next()]
        while entries[-1].get("MESSAGE") != message:
            entries.append(self.next())
        return entries

    def close(self):
        self.socket.close()
        os.unlink(self.PATH)


class DaemonTest(unittest.TestCase):
    """Each case runs its own daemon, which must be alive at the end and exit cleanly.

    log      KEELD_LOG of the daemons that a case starts. The category runtime is at its debug
             level: "up and running" and the ends of connections are logged there. A class that
             checks debug lines of other categories enables those. With debug lines of the category
             notification, updates do not form batches as they do in production.
    options  further options of the daemon that setUp() starts
    """

    log = "runtime=debug"
    options = {}
    _own_client = None

    def setUp(self):
        self.daemons = []
        self.daemon = self.start(**self.options)

    def start(self, **options):
        daemon = Daemon(**{"log": self.log, **options})
        self.daemons.append(daemon)
        self.addCleanup(self._finish, daemon)
        return daemon

    def start_silent(self, **options):
        """Starts a daemon whose log does not show when it is ready. Its socket exists before it, so
        clients can connect.
        """
        listener = listening_socket(NOTIFY_PATH)
        self.addCleanup(listener.close)
        return self.start(ready=False, sockets={NOTIFY: listener}, **options)

    def _finish(self, daemon):
        status = daemon.stop()
        self.assertEqual(daemon.sanitizer_report(), "")
        self.assertEqual(status, daemon.expected_status, "the daemon's exit status")

    def client(self, *arguments, **options):
        client = Client(*arguments, **options)
        self.addCleanup(client.close)
        return client

    def wait_for_clean_up(self, count):
        """Waits until the daemon has cleaned up behind that many connections to the notify service,
        counted from its start. Needs the debug level of the category runtime.
        """
        self.daemon.wait_for_log(INVALIDATED, count)
        # The clean-up is queued in front of this request.
        self.own_client().dump("")

    def own_client(self):
        """Returns a connection that is kept throughout the test, so that its end is not counted
        among those waited for.
        """
        if self._own_client is None:
            self._own_client = self.client()
        return self._own_client

    def after_clean_up(self, end, count=1):
        """Calls `end`, which ends `count` connections to the notify service, and waits for their
        clean-up.
        """
        before = len(self.daemon.logged(INVALIDATED))
        end()
        self.wait_for_clean_up(before + count)

    def end_of(self, client):
        self.after_clean_up(client.close)

    def process(self, *arguments, **options):
        process = OtherProcess(*arguments, **options)
        self.addCleanup(process.close)
        return process

    def file(self, descriptor):
        """Closes a descriptor at the end of the case."""
        self.addCleanup(os.close, descriptor)
        return descriptor

    # -- assertions on errors of replies

    def assertWorked(self, error):
        self.assertIsNone(error)

    def assertError(self, error, code, description=None, domain="KLNErrorDomain"):
        self.assertIsNotNone(error, "no error")
        self.assertEqual((error.domain, error.code), (domain, code))
        self.assertEqual(error.description, description)

    def assertMemoryWithin(self, before, allowed):
        """Asserts that memory grew by less than `allowed` bytes since `before`."""
        self.assertLess(self.daemon.resident_bytes() - before, allowed * memory_factor())

    def notes(self):
        """Returns context for a failure message."""
        for daemon in getattr(self, "daemons", []):
            yield f"the last of {len(daemon.lines)} lines of keeld, process {daemon.pid}:"
            yield from (f"    {line[:500]}" for line in daemon.lines[-SHOWN_LOG_LINES:])


class Bystanders:
    """A publisher and a follower that take no part in a test and must be served normally."""

    def __init__(self, test, name="bystanders"):
        self._test = test
        self._name = name
        self._number = 0
        self._publisher = test.client()
        self._follower = test.client()
        test.assertWorked(self._publisher.publish({"number": 0}, name))
        test.assertWorked(self._follower.subscribe(name))
        self._expect()

    def step(self):
        """Publishes an update, which must be the next delivery."""
        self._number += 1
        self._test.assertWorked(self._publisher.update({"number": self._number}, self._name))
        self._expect()

    def _expect(self):
        delivery = self._follower.delivery()
        self._test.assertEqual(tuple(delivery), (self._name, {"number": self._number}, 0, None))


class _Result(unittest.TextTestResult):
    def _exc_info_to_string(self, err, test):
        text = super()._exc_info_to_string(err, test)
        return text + "\n".join(test.notes()) + "\n" if isinstance(test, DaemonTest) else text


def skip_or_fail(test, why):
    """Skips a test that this machine cannot run, or fails it where all tests must run."""
    if os.environ.get("CI") == "true":
        test.fail(why)
    test.skipTest(why)


def main():
    global keeld, keelctl
    if os.uname().nodename != "private-host" or os.getuid() != 0:
        sys.exit("this test changes the machine: run it with scripts/private-host")
    programs = [argument for argument in sys.argv[1:] if argument.startswith("/")]
    if not programs:
        sys.exit(f"usage: {sys.argv[0]} KEELD [KEELCTL] [unittest option or case...]")
    keeld, keelctl = (programs + [""])[:2]
    os.makedirs("/private/var", exist_ok=True)
    os.makedirs(BUNDLES, exist_ok=True)
    arguments = [argument for argument in sys.argv[1:] if not argument.startswith("/")]
    runner = unittest.TextTestRunner(verbosity=2, resultclass=_Result)
    unittest.main(argv=[sys.argv[0], *arguments], testRunner=runner, verbosity=2)
