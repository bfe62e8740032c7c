#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Tests jobs without a systemd, and with one that is unusable."""

import ctypes
import os
import plistlib
import re
import select
import shutil
import signal
import socket
import threading

import keel_host
from keel_client import HANG_GUARD
from keel_host import BUNDLES, DaemonTest, remove
from keel_jobs import PYTHON, TELL, Caller, ask, shown_jobs, telling_job

CANNOT_LOAD = re.compile("loadAllModules: can't load module at .*")
ENABLING_FAILED = re.compile("loadModuleIfNeededFromPath QZSupervisorSetServiceEnabled returns .*")


class JobsTest(DaemonTest):
    def setUp(self):
        self.daemons = []
        remove(BUNDLES.rstrip("/"))

    def bundle(self, name, *services, **more):
        folder = f"{BUNDLES}keel_{name}.bundle"
        os.makedirs(folder)
        with open(f"{folder}/launchd.plist", "wb") as file:
            plistlib.dump(telling_job(f"com.e.{name}", *(services or (f"com.e.{name}",)), **more),
                          file, sort_keys=False)

    def table(self):
        return self.client().module_table()


class Embedded(JobsTest):
    def test_is_started_by_its_first_client_and_inherits_its_sockets(self):
        words = ["a b", "%n $HOME ;\"'\\\n\t", "", "ü"]
        self.bundle("first", "com.e.first.a", "com.e.first.b", arguments=words,
                    EnvironmentVariables={"A": "%n $X \"\n\\"},
                    WorkingDirectory="/usr", Nice=3)
        self.daemon = self.start()
        self.assertEqual(self.table(), {"keel_first": "com.e.first.a"})
        told = ask("com.e.first.a")
        self.assertEqual(told["arguments"][2:], words)
        self.assertEqual(told["names"], ["com.e.first.a", "com.e.first.b"])
        environment = told["environment"]
        self.assertEqual((environment["LISTEN_FDS"], environment["LISTEN_PID"]),
                         ("2", str(told["pid"])))
        self.assertEqual(environment["A"], "%n $X \"\n\\")
        self.assertNotIn("KEELD_LOG", environment)
        self.assertEqual((told["uid"], told["directory"], told["nice"]), (0, "/usr", 3))

    def test_runs_as_its_user(self):
        self.bundle("user", UserName="nobody")
        self.daemon = self.start()
        told = ask("com.e.user")
        self.assertEqual((told["uid"], told["groups"], told["environment"]["USER"]),
                         (65534, [65534], "nobody"))

    def test_fails_alone_where_keeld_may_not_change_users(self):
        def drop_privilege():
            set_bounding_capability, setgid = 24, 6
            if ctypes.CDLL(None, use_errno=True).prctl(set_bounding_capability, setgid, 0, 0,
                                                       0) != 0:
                raise OSError(ctypes.get_errno(), "prctl")

        self.bundle("user", UserName="nobody")
        self.bundle("root")
        self.daemon = self.start(before_exec=drop_privilege)
        caller = Caller("com.e.user")
        self.addCleanup(caller.close)
        why = re.compile(
            "the job com.e.user cannot be started: "
            "open files with the rights of its user: Operation not permitted .*")
        self.daemon.wait_for_log(why, level="error")
        self.assertEqual(ask("com.e.root")["uid"], 0)

    def test_is_restarted_on_demand(self):
        self.bundle("again")
        self.daemon = self.start()
        first = ask("com.e.again")
        # Not that of keeld's own thread which starts it.
        self.assertEqual(first["nice"], 0)
        self.daemon.wait_for_log("the job com.e.again exited with status 0")
        self.assertNotEqual(ask("com.e.again")["pid"], first["pid"])

    def test_is_watched_even_if_sigchld_was_ignored(self):
        """keeld inherits the signal as ignored if its parent ignores it."""
        self.bundle("again")
        self.daemon = self.start(before_exec=lambda: signal.signal(signal.SIGCHLD, signal.SIG_IGN))
        first = ask("com.e.again")
        self.daemon.wait_for_log("the job com.e.again exited with status 0")
        self.assertNotEqual(ask("com.e.again")["pid"], first["pid"])

    def test_a_crash_loop_is_paused(self):
        self.bundle("crash", ThrottleInterval=3600)
        path = f"{BUNDLES}keel_crash.bundle/launchd.plist"
        with open(path, "rb") as file:
            job = plistlib.load(file)
        job["ProgramArguments"] = ["/bin/sh", "-c", "kill -SEGV $$"]
        with open(path, "wb") as file:
            plistlib.dump(job, file)
        self.daemon = self.start()
        caller = Caller("com.e.crash")
        self.addCleanup(caller.close)
        self.daemon.wait_for_log(re.compile(r"the job com.e.crash was killed by signal 11 .*"),
                                 level="error")

    def test_ends_with_keeld(self):
        self.bundle("end")
        for end in (lambda daemon: daemon.stop(), lambda daemon: daemon.kill()):
            self.daemon = self.start()
            caller = Caller("com.e.end")
            pid = caller.told()["pid"]
            watched = os.pidfd_open(pid)
            end(self.daemon)
            select.select([watched], [], [], HANG_GUARD)[0] or self.fail('it lives on')
            os.close(watched)
            caller.close()

    def program(self, name, *words, **more):
        """Creates a bundle whose job is another program."""
        self.bundle(name, **more)
        path = f"{BUNDLES}keel_{name}.bundle/launchd.plist"
        with open(path, "rb") as file:
            job = plistlib.load(file)
        job["ProgramArguments"] = list(words)
        with open(path, "wb") as file:
            plistlib.dump(job, file, sort_keys=False)

    def test_gets_new_sockets_whatever_the_old_program_does(self):
        """The old program ignores SIGTERM and keeps the old socket."""
        stubborn = ("import signal\nsignal.signal(signal.SIGTERM, signal.SIG_IGN)\n"
                    + TELL + "signal.pause()\n")
        # Not keeld's standard error, whose end the test waits for.
        self.program("stubborn", PYTHON, "-c", stubborn, "com.e.stubborn",
                     StandardOutPath="/dev/null",
                     StandardErrorPath="/dev/null")
        for end in (lambda daemon: daemon.stop(), lambda daemon: daemon.kill()):
            self.daemon = self.start()
            self.assertEqual(self.table(), {"keel_stubborn": "com.e.stubborn"})
            caller = Caller("com.e.stubborn")
            pid = caller.told()["pid"]
            self.addCleanup(os.kill, pid, 9)
            self.addCleanup(caller.close)
            end(self.daemon)
            os.kill(pid, 0)
        self.daemon = self.start()
        self.assertEqual(self.table(), {"keel_stubborn": "com.e.stubborn"})
        caller = Caller("com.e.stubborn")
        self.addCleanup(caller.close)
        self.assertNotEqual(caller.told()["pid"], pid)

    def test_is_enabled_from_its_bundle_at_each_start(self):
        self.bundle("changed", EnvironmentVariables={"A": "old"})
        self.bundle("removed")
        self.daemon = self.start()
        self.assertEqual(ask("com.e.changed")["environment"]["A"], "old")
        self.daemon.wait_for_log("the job com.e.changed exited with status 0")
        self.assertEqual(self.daemon.stop(), 0)
        # No process listens meanwhile.
        for name in ("changed", "removed"):
            self.assertRaises(ConnectionRefusedError, Caller, f"com.e.{name}")
            remove(f"{BUNDLES}keel_{name}.bundle")
        self.bundle("changed", EnvironmentVariables={"A": "new"})
        self.daemon = self.start()
        self.assertEqual(self.table(), {"keel_changed": "com.e.changed"})
        self.assertTrue(shown_jobs()["keel_changed"]["enabled"])
        self.assertEqual(ask("com.e.changed")["environment"]["A"], "new")
        self.assertRaises(ConnectionRefusedError, Caller, "com.e.removed")

    def test_a_second_keeld_starts_no_jobs(self):
        self.bundle("idle")
        self.program("load", "/bin/sh", "-c", "echo >>/run/loaded; exec sleep 1000", RunAtLoad=True)
        self.addCleanup(remove, "/run/loaded")
        self.daemon = self.start()
        while shown_jobs().get("keel_load", {}).get("program") != "running":
            pass
        before = shown_jobs()
        second = self.start(ready=False)
        second.expected_status = 3
        self.assertEqual(second.wait(), 3)
        failures = second.logged(ENABLING_FAILED, "error")
        self.assertEqual(len(failures), 2)
        for failure in failures:
            self.assertIn("another keeld owns the jobs here", failure.text)
        self.assertEqual(shown_jobs(), before)
        with open("/run/loaded") as file:
            self.assertEqual(file.read(), "\n")
        self.assertEqual(self.daemon.logged(re.compile("the job com.e.idle runs .*")), [])
        self.assertIsNotNone(ask("com.e.idle"))

    def test_reports_job_states(self):
        self.bundle("idle")
        self.bundle("busy")
        self.bundle("bad", UserName="nobody-of-that-name", ThrottleInterval=3600)
        self.daemon = self.start()
        callers = Caller("com.e.busy"), Caller("com.e.bad")
        for caller in callers:
            self.addCleanup(caller.close)
        pid = callers[0].told()["pid"]
        # It is written down a little later than it comes about.
        while (jobs := shown_jobs())["keel_busy"]["program"] != "running" or jobs["keel_bad"][
            "program"] != "starting":
            pass
        ready = {"label": "com.e.idle", "enabled": True, "listening": True, "program": "none",
                 "pid": None, "problem": None}
        self.assertEqual(jobs["keel_idle"], ready)
        self.assertEqual(jobs["keel_busy"],
                         {**ready, "label": "com.e.busy", "program": "running", "pid": pid})
        self.assertIn("the user nobody-of-that-name", jobs["keel_bad"]["problem"])

    def test_a_slow_program_does_not_delay_others(self):
        """Programs that fail to start, or start slowly, are handled on a worker."""
        self.bundle("good")
        self.bundle("bad", UserName="nobody-of-that-name")
        self.daemon = self.start()
        caller = Caller("com.e.bad")
        self.addCleanup(caller.close)
        self.daemon.wait_for_log(
            re.compile("the job com.e.bad cannot be started: the user nobody-of-that-name: .*"))
        self.assertIsNotNone(ask("com.e.good"))


class UselessSystemd(JobsTest):
    """A systemd by appearance, which does not answer."""

    SOCKET = "/run/systemd/private"

    def setUp(self):
        super().setUp()
        os.makedirs("/run/systemd/system")
        self.addCleanup(shutil.rmtree, "/run/systemd")
        self.bundle("x")
        self.bundle("y")

    def systemd(self, serve):
        listener = socket.socket(socket.AF_UNIX)
        listener.bind(self.SOCKET)
        listener.listen()
        self.addCleanup(listener.close)
        if serve:
            threading.Thread(target=serve, args=(listener,), daemon=True).start()

    def assertStartsWithoutModules(self, why):
        self.daemon = self.start()
        self.assertEqual(self.table(), {})
        self.assertEqual(len(self.daemon.logged(CANNOT_LOAD, "error")), 2)
        failures = self.daemon.logged(ENABLING_FAILED, "error")
        self.assertEqual(len(failures), 2)
        for failure in failures:
            self.assertRegex(failure.text, why)

    def test_is_absent(self):
        self.assertStartsWithoutModules("systemd cannot be reached")

    def test_does_not_answer(self):
        self.systemd(None)
        self.assertStartsWithoutModules("systemd cannot be reached|did not answer before")

    def test_hangs_up(self):
        def serve(listener):
            while True:
                listener.accept()[0].close()

        self.systemd(serve)
        self.assertStartsWithoutModules("systemd cannot be reached")

    def test_dies_during_a_call(self):
        def serve(listener):
            while True:
                client, _ = listener.accept()
                client.recv(1 << 16)
                client.sendall(b"OK 0123456789abcdef0123456789abcdef\r\nAGREE_UNIX_FD\r\n")
                client.recv(1 << 16)
                client.close()

        self.systemd(serve)
        self.assertStartsWithoutModules("systemd")

    def test_answers_nonsense(self):
        def serve(listener):
            while True:
                client, _ = listener.accept()
                client.recv(1 << 16)
                client.sendall(b"\0" * 1000)

        self.systemd(serve)
        self.assertStartsWithoutModules("systemd cannot be reached|did not answer before")


if __name__ == "__main__":
    keel_host.main()
