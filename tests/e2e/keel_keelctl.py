# SPDX-License-Identifier: Apache-2.0
"""Runs keelctl in tests, to its end or line by line."""

import os
import select
import subprocess

import keel_host
from keel_client import HANG_GUARD
from keel_host import SANITIZER_REPORT, DaemonTest

ENVIRONMENT = {"PATH": os.environ["PATH"], "TERM": "xterm"}


class Running:
    """A running keelctl whose output is read line by line."""

    def __init__(self, *arguments, stdout=subprocess.PIPE):
        self._process = subprocess.Popen(
            [keel_host.keelctl, *arguments],
            env=ENVIRONMENT,
            stdin=subprocess.PIPE,
            stdout=stdout,
            stderr=subprocess.PIPE,
        )
        self._buffers = {self._process.stdout: b"", self._process.stderr: b""}

    def write(self, line):
        self._process.stdin.write(line.encode() + b"\n")
        self._process.stdin.flush()

    def end_of_input(self):
        self._process.stdin.close()
        self._process.stdin = None

    def _line(self, stream):
        while b"\n" not in self._buffers[stream]:
            if not select.select([stream], [], [], HANG_GUARD)[0]:
                raise AssertionError("keelctl wrote nothing")
            data = os.read(stream.fileno(), 1 << 16)
            if not data:
                raise AssertionError(f"keelctl ended, with {self._process.wait()}: {self._buffers}")
            self._buffers[stream] += data
        line, _, self._buffers[stream] = self._buffers[stream].partition(b"\n")
        return line.decode()

    def out(self):
        """Returns the next line of standard output."""
        return self._line(self._process.stdout)

    def told(self):
        """Returns the next line of standard error."""
        return self._line(self._process.stderr)

    def signal(self, number):
        self._process.send_signal(number)

    def end(self):
        """Waits for its end; returns its exit status and the output not yet read."""
        out, told = self._process.communicate(timeout=HANG_GUARD)
        return self._process.returncode, (out or b"").decode(), told.decode()

    def close(self):
        self._process.kill()
        self._process.communicate()


class KeelctlTest(DaemonTest):
    def run_keelctl(self, *arguments, text="", uid=0, stdout=subprocess.PIPE):
        """Runs it to its end; returns its exit status, output and errors."""
        done = subprocess.run(
            [keel_host.keelctl, *arguments], env=ENVIRONMENT, input=text.encode(), stdout=stdout,
            stderr=subprocess.PIPE,
            timeout=HANG_GUARD, user=uid)
        told = done.stderr.decode()
        self.assertNotRegex(told, SANITIZER_REPORT)
        return done.returncode, (done.stdout or b"").decode(), told

    def assertExits(self, status, *arguments, out="", told=None, **options):
        """Runs it to its end. `told` is a pattern for standard error; None: nothing there."""
        code, written, errors = self.run_keelctl(*arguments, **options)
        self.assertEqual(code, status, errors)
        self.assertEqual(written, out)
        if told is None:
            self.assertEqual(errors, "")
        else:
            self.assertRegex(errors, rf"\A(keelctl: )?{told}")
        return errors

    def start_keelctl(self, *arguments, **options):
        running = Running(*arguments, **options)
        self.addCleanup(running.close)
        return running

    def events(self, *expected):
        """Returns the lines that a subscriber prints for pairs of a name and data."""
        return "".join(f'{{"name":"{name}","event":"data","data":{data}}}\n'
                       for name, data in expected)
