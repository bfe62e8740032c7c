#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Tests the crash report in the log."""

import os
import re
import signal
import socket
import subprocess

import keel_host
from keel_client import HANG_GUARD
from keel_host import DaemonTest, remove

READINESS = "/run/readiness"
STARTED_THREADS = 7  # the log, the I/O thread, one of each of three pools, two signals
FRAME = re.compile(r"  (/\S+)\+0x([0-9a-f]+)")


def output_of(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def thread_names(pid):
    names = []
    for thread in os.listdir(f"/proc/{pid}/task"):
        with open(f"/proc/{pid}/task/{thread}/comm") as file:
            names.append(file.read().rstrip("\n"))
    return names


class Crash(DaemonTest):
    def setUp(self):
        self.daemons = []
        # A sanitizer reports a fault itself, and leaves only this one to keeld.
        self.number = signal.SIGSEGV if keel_host.memory_factor() == 1 else signal.SIGABRT

    def start_and_wait(self, **options):
        """Starts a daemon and waits until its main thread is parked, at any log level."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            manager.bind(READINESS)
            self.addCleanup(remove, READINESS)
            manager.settimeout(HANG_GUARD)
            daemon = self.start(ready=False, environment={"NOTIFY_SOCKET": READINESS}, **options)
            self.assertEqual(manager.recv(100), b"READY=1")
            return daemon

    def report_of(self, daemon, number):
        """Returns the lines that it logs when that signal ends it."""
        # A signal to the process goes to its main thread, unless another is just being started.
        # Each gives itself a name.
        while sum(name.startswith("keel-") for name in thread_names(daemon.pid)) < STARTED_THREADS:
            pass
        before = len(daemon.lines)
        daemon.expected_status = -number
        daemon.signal(number)
        self.assertEqual(daemon.wait(), -number)
        return daemon.lines[before:]

    def assertIsReport(self, lines, number):
        head, banner, build, backtrace, *frames = lines
        self.assertRegex(head,
                         rf"\Akeeld crashed: signal {int(number)} \(.+\) in thread keeld, "
                         rf"sent by process {os.getpid()}\Z")
        self.assertRegex(banner, r"\A\* Calder Version \d+\.\d+\.\d+ \*\Z")
        self.assertEqual(build,
                         "build id " + re.search("Build ID: ([0-9a-f]+)",
                                                 output_of("readelf", "-n", keel_host.keeld))[1])
        self.assertEqual(backtrace, "backtrace:")
        found = [FRAME.fullmatch(frame) for frame in frames]
        self.assertTrue(all(found), frames)
        # The main thread is where it is parked.
        ours = [frame[2] for frame in found if frame[1] == os.path.realpath(keel_host.keeld)]
        functions = output_of("addr2line", "-Cfe", keel_host.keeld, *ours)
        self.assertIn("main\n", functions)

    def test_leaves_banner_build_and_backtrace(self):
        self.assertIsReport(self.report_of(self.start(), self.number), self.number)

    def test_a_failed_check_leaves_the_same(self):
        self.assertIsReport(self.report_of(self.start(), signal.SIGABRT), signal.SIGABRT)

    def test_leaves_them_at_every_log_level(self):
        self.assertIsReport(self.report_of(self.start_and_wait(log="fault"), self.number),
                            self.number)

    def test_leaves_them_in_the_journal(self):
        lines = self.report_of(self.start_and_wait(journal=True), self.number)
        self.assertTrue(all(line.startswith("<2>") for line in lines), lines)
        self.assertIsReport([line.removeprefix("<2>") for line in lines], self.number)

    def test_is_never_written_to_a_clients_socket(self):
        daemon = self.start_and_wait(before_exec=lambda: os.close(2))
        # one of their sockets is what standard error would have been
        clients = [self.client() for _ in range(10)]
        self.assertEqual(self.report_of(daemon, self.number), [])
        for client in clients:
            self.assertIsNone(client.end())


if __name__ == "__main__":
    keel_host.main()
