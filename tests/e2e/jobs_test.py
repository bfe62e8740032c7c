#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Tests jobs as units of a real systemd, process 1 of the private host, and keeld as one of its
services.
"""

import os
import plistlib
import re
import shutil
import signal
import socket
import subprocess
import unittest
import unittest.mock

import keel_host
from keel_client import AUTH, DIRECTORY, NOTIFY
from keel_host import BUNDLES, DaemonTest, remove
from keel_jobs import Caller, JobTest, SpyBus, ask, shown_jobs, state_of, systemctl, telling_job

RUNTIME, PERSISTENT = "/run/systemd/system", "/etc/systemd/system"
PRIVATE = "/run/systemd/private"
NO_BUS = {"DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/run/missing"}
UNREACHABLE = "systemd cannot be reached, .*"
PACKAGING = os.path.join(os.path.dirname(__file__), "../../packaging/systemd")


class Jobs(JobTest):
    def test_is_started_by_its_first_client_and_inherits_its_sockets(self):
        words = ["a b", "%n $HOME ${HOME} ;\"'\\\n\t", ";", "", "ü"]
        self.assertEqual(self.supervisor.is_enabled("com.t.first"), (False, None))
        self.enable(telling_job("com.t.first", "com.t.first.a", "com.t.first.b", arguments=words,
                                EnvironmentVariables={"A": "%n $X \"\n\\"}, WorkingDirectory="/usr",
                                Nice=3))
        self.assertEqual(state_of("com.t.first.service"), "inactive")
        told = ask("com.t.first.a")
        self.assertEqual(told["arguments"], ["-c", "com.t.first.a", *words])
        self.assertEqual(told["names"], ["com.t.first.a", "com.t.first.b"])
        environment = told["environment"]
        self.assertEqual((environment["LISTEN_FDS"], environment["LISTEN_PID"]),
                         ("2", str(told["pid"])))
        self.assertEqual(environment["A"], "%n $X \"\n\\")
        self.assertEqual((told["uid"], told["directory"], told["nice"]), (0, "/usr", 3))

    def test_is_restarted_on_demand(self):
        self.enable(telling_job("com.t.again", "com.t.again"))
        self.assertNotEqual(ask("com.t.again")["pid"], ask("com.t.again")["pid"])

    def test_runs_as_its_user(self):
        self.enable(telling_job("com.t.user", "com.t.user", UserName="daemon"))
        told = ask("com.t.user")
        self.assertEqual((told["uid"], told["environment"]["USER"]), (1, "daemon"))

    def test_an_enabled_job_costs_the_next_keeld_one_call(self):
        self.enable(telling_job("com.t.cost", "com.t.cost.a", "com.t.cost.b"))
        spy = SpyBus()
        self.addCleanup(spy.close)
        other = self.make_supervisor(**spy.environment)
        self.assertDone(other.is_enabled("com.t.cost"))
        self.assertEqual(spy.take(), ["GetUnitFileState"])
        # A new job is created without reloading all units.
        self.assertDone(other.create(telling_job("com.t.new", "com.t.new")))
        self.assertDone(other.set_enabled("com.t.new"))
        self.assertEqual(spy.take(), ["UnitPath", "StartUnit", "EnableUnitFiles"])

    def test_a_changed_job_is_updated(self):
        self.enable(telling_job("com.t.change", "com.t.change", arguments=["old"]))
        self.assertEqual(ask("com.t.change")["arguments"][-1], "old")
        self.enable(telling_job("com.t.change", "com.t.change", arguments=["new"]))
        self.assertEqual(ask("com.t.change")["arguments"][-1], "new")

    def test_is_disabled(self):
        self.enable(telling_job("com.t.off", "com.t.off"))
        self.assertDone(self.supervisor.set_enabled("com.t.off", False))
        self.assertEqual(self.supervisor.is_enabled("com.t.off"), (False, None))
        with self.assertRaises(FileNotFoundError):
            # The socket goes with its unit, which is stopped before this is answered.
            systemctl("stop", "com.t.off.socket")
            ask("com.t.off")
        self.enable(telling_job("com.t.off", "com.t.off"))
        self.assertIsNotNone(ask("com.t.off"))

    def test_a_persistent_job_is_in_etc(self):
        job = telling_job("com.t.lasting", "com.t.lasting")
        del job["Transient"]
        self.enable(job)
        self.addCleanup(systemctl, "disable", "--now", "com.t.lasting.socket")
        self.assertTrue(os.path.exists(f"{PERSISTENT}/com.t.lasting.service"))
        self.assertEqual(systemctl("is-enabled", "com.t.lasting.socket"), "enabled")
        self.assertIsNotNone(ask("com.t.lasting"))

    def test_run_at_load_starts_it_immediately(self):
        self.enable(telling_job("com.t.load", "com.t.load", RunAtLoad=True))
        caller = Caller("com.t.load")
        self.addCleanup(caller.close)
        self.assertIsNotNone(caller.told())
        self.assertEqual(state_of("com.t.load.service"), "active")

    def test_a_crash_loop_keeps_the_socket(self):
        job = telling_job("com.t.crash", "com.t.crash", ThrottleInterval=3600)
        job["ProgramArguments"] = ["/bin/sh", "-c", "kill -SEGV $$"]
        self.enable(job)
        caller = Caller("com.t.crash")
        self.addCleanup(caller.close)
        # It is paused now, and its client still waits.
        while systemctl("show", "--property=SubState", "--value",
                        "com.t.crash.service") != "auto-restart":
            pass
        self.assertEqual(state_of("com.t.crash.socket"), "active")


class Nasty(JobTest):
    def test_labels_cannot_escape_the_folder(self):
        before = set(os.listdir("/etc"))
        for number, label in enumerate(["../../etc/x",
                                        "a b%n$HOME\n[Service]\nExecStart=/bin/false", "@x", "-x",
                                        ".hidden", "ü",
                                        "a:2", "x.service", "\\", "'\""]):
            with self.subTest(label):
                service = f"com.t.nasty{number}"
                self.enable(telling_job(label, service))
                self.assertIsNotNone(ask(service))
        self.assertEqual(set(os.listdir("/etc")), before)

    def test_labels_that_no_unit_can_have_are_refused(self):
        for label in ("", "x" * (1 << 20), "/" * 100):
            self.assertRefused(self.supervisor.create(telling_job(label, "com.t.no")), "label")
            self.assertRefused(self.supervisor.set_enabled(label), "label")
            self.assertRefused(self.supervisor.is_enabled(label), "label")

    def test_foreign_units_are_not_changed(self):
        for label in ("dbus", "systemd-journald", "dbus-org.freedesktop.login1"):
            self.assertRefused(self.supervisor.create(telling_job(label, "com.t.no")),
                               "is there already")
            self.assertRefused(self.supervisor.set_enabled(label), "is there already")
            self.assertEqual(self.supervisor.is_enabled(label), (False, None))
        self.assertFalse(os.path.exists(f"{RUNTIME}/dbus.service"))

    def test_masked_unit_stays_masked(self):
        systemctl("mask", "com.t.masked.socket")
        self.addCleanup(systemctl, "unmask", "com.t.masked.socket")
        self.assertRefused(self.supervisor.create(telling_job("com.t.masked", "com.t.masked")),
                           "is there already")
        self.assertFalse(os.path.exists(f"{RUNTIME}/com.t.masked.service"))

    def test_service_of_keeld_or_of_another_job_is_refused(self):
        self.enable(telling_job("com.t.owner", "com.t.owned"))
        self.assertRefused(self.supervisor.create(telling_job("com.t.thief", "com.t.owned")),
                           "com.t.owner")
        self.assertRefused(self.supervisor.create(telling_job("com.t.thief", NOTIFY)),
                           "keeld's own service")
        self.assertRefused(self.supervisor.create(telling_job("com.t.thief", AUTH)),
                           "keeld's own service")

    def test_systemd_finds_no_fault_with_the_units(self):
        job = telling_job("com.t.all", "com.t%all", arguments=["%n\n$\\\""], RunAtLoad=True,
                          KeepAlive={"SuccessfulExit": False}, UserName="daemon",
                          GroupName="daemon", Umask=0o27,
                          EnvironmentVariables={"A": "\n%"}, StandardOutPath="/var/log/%n x",
                          StandardErrorPath="/dev/null",
                          StandardInPath="/dev/null", WorkingDirectory="/usr", ThrottleInterval=3,
                          ExitTimeOut=0, Nice=-3,
                          ProcessType="Background", AbandonProcessGroup=True,
                          SoftResourceLimits={"NumberOfFiles": 10, "Core": 0, "CPU": 1,
                                              "Data": 1 << 30, "FileSize": 1,
                                              "MemoryLock": 1, "NumberOfProcesses": 1,
                                              "ResidentSetSize": 1, "Stack": 1 << 20})
        self.assertDone(self.supervisor.create(job))
        units = [name for name in os.listdir(RUNTIME) if name.startswith("com.t.all")]
        self.assertEqual(len(units), 2)
        verified = subprocess.run(["systemd-analyze", "verify",
                                   *(f"{RUNTIME}/{unit}" for unit in units)], capture_output=True,
                                   text=True)
        self.assertEqual((verified.returncode, verified.stderr), (0, ""))


class Trouble(JobTest):
    """With a systemd or a bus that misbehaves."""

    def freeze(self, *, frozen):
        with open("/sys/fs/cgroup/init.scope/cgroup.freeze", "w") as file:
            file.write("1" if frozen else "0")
        with open("/sys/fs/cgroup/init.scope/cgroup.events") as events:
            while f"frozen {int(frozen)}" not in events.read():
                events.seek(0)

    def test_an_unresponsive_systemd_is_waited_for_once(self):
        self.enable(telling_job("com.t.slow", "com.t.slow"))
        other = self.make_supervisor()
        self.freeze(frozen=True)
        self.addCleanup(self.freeze, frozen=False)
        self.assertRefused(other.is_enabled("com.t.slow"), "cannot be reached")
        for _ in range(100):
            self.assertRefused(other.is_enabled("com.t.slow"), "did not answer before")
        self.freeze(frozen=False)
        self.assertDone(self.supervisor.is_enabled("com.t.slow"))

    def test_an_unresponsive_bus_is_bypassed(self):
        self.enable(telling_job("com.t.busless", "com.t.busless"))
        bus = int(systemctl("show", "--property=MainPID", "--value", "dbus.service"))
        os.kill(bus, signal.SIGSTOP)
        try:
            self.assertDone(self.make_supervisor().is_enabled("com.t.busless"))
        finally:
            os.kill(bus, signal.SIGCONT)

    def test_a_missing_bus_is_bypassed(self):
        other = self.make_supervisor(**NO_BUS)
        self.assertDone(other.create(telling_job("com.t.direct", "com.t.direct")))
        self.assertDone(other.set_enabled("com.t.direct"))
        self.assertDone(other.is_enabled("com.t.direct"))
        self.assertIsNotNone(ask("com.t.direct"))

    def test_a_restarted_systemd_is_called_again(self):
        self.enable(telling_job("com.t.reexec", "com.t.reexec"))
        other = self.make_supervisor(**NO_BUS)
        self.assertDone(other.is_enabled("com.t.reexec"))
        systemctl("daemon-reexec")
        self.assertDone(other.is_enabled("com.t.reexec"))
        self.assertDone(self.supervisor.is_enabled("com.t.reexec"))

    def test_an_unwritable_folder_is_reported(self):
        subprocess.run(["mount", "--bind", RUNTIME, RUNTIME], check=True)
        subprocess.run(["mount", "-o", "remount,bind,ro", RUNTIME], check=True)
        try:
            self.assertRefused(self.supervisor.create(telling_job("com.t.ro", "com.t.ro")),
                               "Read-only file system")
            self.assertRefused(self.supervisor.set_enabled("com.t.ro"), "Read-only file system")
        finally:
            subprocess.run(["umount", RUNTIME], check=True)

    def test_a_failed_socket_leaves_the_job_disabled(self):
        os.makedirs(f"{DIRECTORY}/com.t.blocked/inside")
        self.addCleanup(shutil.rmtree, f"{DIRECTORY}/com.t.blocked")
        self.assertDone(self.supervisor.create(telling_job("com.t.blocked", "com.t.blocked")))
        self.assertRefused(self.supervisor.set_enabled("com.t.blocked"),
                           "com.t.blocked.socket did not start")
        self.assertEqual(self.supervisor.is_enabled("com.t.blocked"), (False, None))


class WithKeeld(DaemonTest):
    log = "runtime=debug,startup=debug"

    def setUp(self):
        self.daemons = []
        remove(BUNDLES.rstrip("/"))

    def bundle(self, name, **more):
        folder = f"{BUNDLES}keel_{name}.bundle"
        os.makedirs(folder)
        with open(f"{folder}/launchd.plist", "wb") as file:
            plistlib.dump(telling_job(f"com.k.{name}", f"com.k.{name}", **more), file,
                          sort_keys=False)

    def loaded(self, daemon):
        return [line.text.rpartition("/")[2] for line in daemon.log
                if line.text.startswith("loadAllModules: loaded ")]

    def test_modules_outlive_keeld_and_are_found_again(self):
        self.bundle("one")
        self.bundle("two")
        first = self.start()
        self.assertCountEqual(self.loaded(first), ["keel_one.bundle", "keel_two.bundle"])
        self.assertEqual(self.client().module_table(),
                         {"keel_one": "com.k.one", "keel_two": "com.k.two"})
        first.stop()
        self.assertIsNotNone(ask("com.k.one"))
        second = self.start()
        self.assertCountEqual(self.loaded(second), ["keel_one.bundle", "keel_two.bundle"])
        self.assertEqual(second.logged(re.compile(".*is not enabled ")), [])

    def test_keelctl_reports_job_states(self):
        for name in ("idle", "busy", "broken", "off"):
            self.bundle(name)
        self.start()
        caller = Caller("com.k.busy")
        self.addCleanup(caller.close)
        pid = caller.told()["pid"]
        systemctl("stop", "com.k.broken.socket")
        systemctl("disable", "--runtime", "com.k.off.socket")
        jobs = shown_jobs()
        ready = {"label": "com.k.idle", "enabled": True, "listening": True, "program": "none",
                 "pid": None, "problem": None}
        self.assertEqual(jobs["keel_idle"], ready)
        self.assertEqual(jobs["keel_busy"],
                         {**ready, "label": "com.k.busy", "program": "running", "pid": pid})
        self.assertEqual((jobs["keel_broken"]["listening"], jobs["keel_broken"]["problem"]),
                         (False, "com.k.broken.socket is inactive (success)"))
        self.assertFalse(jobs["keel_off"]["enabled"])
        # No job was started for it, and any user may ask.
        self.assertEqual(state_of("com.k.idle.service"), "inactive")
        os.seteuid(65534)
        try:
            self.assertEqual(shown_jobs()["keel_idle"], ready)
        finally:
            os.seteuid(0)

    def assertUnknown(self, why):
        """Asserts that the states of both jobs are shown as unknown."""
        unknown = {"enabled": None, "listening": None, "program": "unknown", "pid": None,
                   "problem": why}
        self.assertEqual(shown_jobs(),
                         {f"keel_{name}": {"label": f"com.k.{name}", **unknown}
                          for name in ("mute", "quiet")})

    def test_jobs_are_unknown_if_systemd_does_not_answer_one_call(self):
        self.bundle("mute")
        self.bundle("quiet")
        self.start()
        spy = SpyBus()
        self.addCleanup(spy.close)
        Trouble.freeze(self, frozen=True)
        try:
            with unittest.mock.patch.dict(os.environ, spy.environment):
                self.assertUnknown("systemd did not answer within 5 s")
        finally:
            Trouble.freeze(self, frozen=False)
        self.assertEqual(spy.take(), ["ActiveState"])
        self.assertEqual({job["program"] for job in shown_jobs().values()}, {"none"})

    def test_jobs_are_unknown_if_the_bus_refuses_access(self):
        self.bundle("mute")
        self.bundle("quiet")
        self.start()
        with socket.socket(socket.AF_UNIX) as silent:
            silent.bind("/run/silent-bus")
            self.addCleanup(remove, "/run/silent-bus")
            silent.listen()
            with unittest.mock.patch.dict(os.environ,
                                          DBUS_SYSTEM_BUS_ADDRESS="unix:path=/run/silent-bus"):
                self.assertUnknown("systemd did not answer within 5 s")
        with unittest.mock.patch.dict(os.environ, NO_BUS):
            self.assertUnknown("systemd cannot be queried: No such file or directory")

    def test_keeld_starts_without_an_answer_from_systemd(self):
        self.bundle("frozen")
        Trouble.freeze(self, frozen=True)
        try:
            daemon = self.start()
        finally:
            Trouble.freeze(self, frozen=False)
        self.assertEqual(self.loaded(daemon), [])
        self.assertEqual(len(daemon.logged(
            re.compile("loadAllModules: can't load module at .*keel_frozen.bundle"), "error")), 1)
        self.assertTrue(daemon.logged(re.compile(
            "loadModuleIfNeededFromPath QZSupervisorSetServiceEnabled returns .*"), "error"))
        self.assertEqual(self.client().module_table(), {})

    def loading_of(self, daemon, name):
        """Returns the log of loading that module, in order."""
        lines = []
        for line in (line for line in daemon.log if line.category == "startup"):
            lines.append(f"{line.level} {line.text}")
            if line.text.startswith("loadAllModules: "):
                if line.text.endswith(f"keel_{name}.bundle"):
                    return lines
                lines = []
        self.fail(f"nothing was logged of {name}")

    def assertLoadingFailed(self, daemon, name, *, before=None, enabling=None, after=None):
        """Patterns: errors of the check before, of enabling, and of the check after."""
        label, path = f"com.k.{name}", f"{BUNDLES}keel_{name}.bundle"
        check = "error loadModuleIfNeededFromPath QZSupervisorGetServiceEnabled returns "
        expected = [
            (check, before),
            (f"debug loadModuleIfNeededFromPath service {label} is not enabled ", ""),
            (f"debug loadModuleIfNeededFromPath created {label}", ""),
            ("error loadModuleIfNeededFromPath QZSupervisorSetServiceEnabled returns ", enabling),
            (f"debug loadModuleIfNeededFromPath enabled {label}", ""),
            (check, after),
            (f"error loadAllModules: can't load module at {path}", ""),
        ]
        patterns = [re.escape(text) + pattern for text, pattern in expected if pattern is not None]
        lines = self.loading_of(daemon, name)
        self.assertEqual(len(lines), len(patterns), lines)
        for line, pattern in zip(lines, patterns):
            self.assertIsNotNone(re.fullmatch(pattern, line), f"{line!r} is not {pattern!r}")

    def test_a_refused_module_does_not_affect_others(self):
        for name in ("masked", "taken", "blocked", "fine"):
            self.bundle(name)
        systemctl("mask", "com.k.masked.socket")
        self.addCleanup(systemctl, "unmask", "com.k.masked.socket")
        with open(f"{PERSISTENT}/com.k.taken.service", "w") as unit:
            unit.write("[Service]\nExecStart=/bin/true\n")
        self.addCleanup(remove, f"{PERSISTENT}/com.k.taken.service")
        os.makedirs(f"{DIRECTORY}/com.k.blocked/inside")
        self.addCleanup(remove, f"{DIRECTORY}/com.k.blocked")
        daemon = self.start()
        self.assertEqual(self.client().module_table(), {"keel_fine": "com.k.fine"})
        self.assertLoadingFailed(
            daemon, "masked",
            enabling=".*/com.k.masked.socket is there already, and not keeld's; .*")
        self.assertLoadingFailed(
            daemon, "taken",
            enabling=".*/com.k.taken.service is there already, and not keeld's; .*")
        self.assertLoadingFailed(daemon, "blocked",
                                 enabling=r"com.k.blocked.socket did not start \(failed\); .*")

    def hide_systemd(self):
        """Hides systemd's private socket, too."""
        os.rename(PRIVATE, PRIVATE + ".real")
        self.addCleanup(os.rename, PRIVATE + ".real", PRIVATE)

    def test_keeld_starts_if_systemd_is_unreachable(self):
        self.bundle("lost")
        self.start().stop()
        self.hide_systemd()
        daemon = self.start(environment=NO_BUS)
        self.assertLoadingFailed(daemon, "lost", before=UNREACHABLE, enabling=UNREACHABLE,
                                 after=UNREACHABLE)
        self.assertEqual(self.client().module_table(), {})

    def test_keeld_starts_if_systemd_dies_between_two_calls(self):
        asked = ["UnitPath", "StartUnit", "EnableUnitFiles", "GetUnitFileState"]
        neither = {"enabling": UNREACHABLE, "after": UNREACHABLE}
        # After so many answers: what the module that is being made fails with, and the next one,
        # whose units may be written.
        failures = [({"enabling": "systemd refused UnitPath: .*"}, {"enabling": UNREACHABLE}),
                    (neither, neither), (neither, neither), ({"after": UNREACHABLE}, neither)]
        self.hide_systemd()
        for answers, (first, second) in enumerate(failures):
            with self.subTest(answers=answers):
                names = [f"dies{answers}a", f"dies{answers}b"]
                for name in names:
                    self.bundle(name)
                spy = SpyBus(PRIVATE, PRIVATE + ".real", answers)
                daemon = self.start(environment=NO_BUS)
                self.assertEqual(spy.take(), asked[: answers + 1])
                names.sort(key=lambda name: os.listdir(BUNDLES).index(f"keel_{name}.bundle"))
                self.assertLoadingFailed(daemon, names[0], **first)
                self.assertLoadingFailed(daemon, names[1], **second)
                self.assertEqual(self.client().module_table(), {})
                daemon.stop()
                # The next one makes up for it.
                self.assertCountEqual(self.loaded(self.start()),
                                      [f"keel_{name}.bundle" for name in names])
                self.daemons[-1].stop()
                remove(BUNDLES.rstrip("/"))

    def test_a_bus_that_dies_between_two_calls_is_bypassed(self):
        for answers in range(1, 4):
            with self.subTest(answers=answers):
                self.bundle(f"around{answers}")
                spy = SpyBus(answers=answers)
                daemon = self.start(environment=spy.environment)
                self.assertEqual(len(spy.take()), answers + 1)
                self.assertEqual(self.loaded(daemon), [f"keel_around{answers}.bundle"])
                self.assertEqual([line for line in daemon.log if line.level == "error"], [])
                daemon.stop()
                remove(BUNDLES.rstrip("/"))

    def test_keeld_creates_its_modules_while_its_own_unit_starts(self):
        self.bundle("a")
        self.bundle("b", RunAtLoad=True)
        os.makedirs("/private/var", exist_ok=True)
        shutil.copy(keel_host.keeld, "/usr/sbin/keeld")
        for unit in ("keeld.service", "keeld-auth.socket", "keeld-notify.socket"):
            shutil.copy(f"{PACKAGING}/{unit}", PERSISTENT)
        # The sanitizer's search for leaks at the end needs a system call that the unit refuses, and
        # would wait for it for ever.
        os.makedirs(f"{PERSISTENT}/keeld.service.d")
        with open(f"{PERSISTENT}/keeld.service.d/sanitizer.conf", "w") as drop_in:
            drop_in.write("[Service]\nEnvironment=ASAN_OPTIONS=detect_leaks=0\n")
        systemctl("daemon-reload")
        paths = [f"{PERSISTENT}/{unit}"
                 for unit in ("keeld.service", "keeld-auth.socket", "keeld-notify.socket")]
        verified = subprocess.run(["systemd-analyze", "verify", "--man=no", *paths],
                                  capture_output=True, text=True)
        self.assertEqual((verified.returncode, verified.stderr), (0, ""))
        self.addCleanup(systemctl, "stop", "keeld.service", "keeld-auth.socket",
                        "keeld-notify.socket")
        systemctl("start", "keeld-auth.socket", "keeld-notify.socket", "keeld.service")
        self.assertEqual(state_of("keeld.service"), "active")
        # It is ready, and so are they.
        self.assertEqual(self.client().module_table(), {"keel_a": "com.k.a", "keel_b": "com.k.b"})
        self.assertIsNotNone(ask("com.k.a"))
        systemctl("restart", "keeld.service")
        self.assertEqual(self.client().module_table(), {"keel_a": "com.k.a", "keel_b": "com.k.b"})
        systemctl("stop", "keeld.service", "keeld-auth.socket", "keeld-notify.socket")
        self.assertIsNotNone(ask("com.k.a"))


if __name__ == "__main__":
    keel_host.main()
