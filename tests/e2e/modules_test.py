#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Tests module bundles: which are found, how broken ones are handled, and that keeld starts in any
case.
"""

import glob
import json
import os
import plistlib
import re
import signal
import socket
import subprocess
import time

import keel_host
from keel_client import AUTH, DIRECTORY, NOTIFY
from keel_host import AUTH_PATH, BUNDLES, NOTIFY_PATH, DaemonTest, remove

DEFAULT = "com.vantor.keeld."
PROGRAM = "/bin/true"
SHUTTING_DOWN = "signal handler: received SIGTERM, shutting down"
MAKING = "synthesizeJobFromBundle: did not find a custom launchd.plist, creating one"


def forget_jobs():
    """Without a systemd, jobs end with keeld. With one they stay."""
    if not os.path.isdir("/run/systemd/system"):
        return
    units = glob.glob("/run/systemd/system/com.vantor.*") + glob.glob(
        "/etc/systemd/system/com.vantor.*")
    for part in (units[place : place + 500] for place in range(0, len(units), 500)):
        subprocess.run(["systemctl", "disable", "--now", "--runtime", *map(os.path.basename, part)],
                       capture_output=True)
    for unit in units:
        remove(unit)
    subprocess.run(["systemctl", "daemon-reload"], check=True)


class ModulesTest(DaemonTest):
    """Each case creates bundles, then starts a daemon, with or without a systemd."""

    log = "runtime=debug,startup=debug,bundle=debug"

    def setUp(self):
        self.daemons = []
        self.addCleanup(forget_jobs)
        remove(BUNDLES.rstrip("/"))
        os.makedirs(BUNDLES)
        self.addCleanup(remove, DIRECTORY)
        self.addCleanup(os.makedirs, BUNDLES, exist_ok=True)
        self.addCleanup(remove, BUNDLES.rstrip("/"))

    @staticmethod
    def path(name, file=""):
        return os.path.join(BUNDLES, f"keel_{name}.bundle", file).rstrip("/")

    def write(self, name, file, content):
        path = self.path(name, file)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as output:
            output.write(content)

    def bundle(self, name, *, info=None, job=None, contents=True, form=plistlib.FMT_XML):
        """Creates a bundle with these dictionaries."""
        os.makedirs(self.path(name), exist_ok=True)
        inside, resources = ("Contents/", "Contents/Resources/") if contents else ("", "")
        if info is not None:
            self.write(name, inside + "Info.plist", plistlib.dumps(info, fmt=form, sort_keys=False))
        if job is not None:
            self.write(name, resources + "launchd.plist",
                       plistlib.dumps(job, fmt=form, sort_keys=False))

    def run_daemon(self, **options):
        self.daemon = self.start(**options)
        return self.daemon

    def table(self):
        return self.client().module_table()

    def startup(self, level=None):
        """Returns the log of the modules, in order."""
        lines = [line for line in self.daemon.log if line.category == "startup"]
        return [line.text for line in lines if level in (None, line.level)]

    def wait_for_crash(self, label):
        """Waits until the job's program has died of SIGSEGV, and the job is given a pause."""
        if not os.path.isdir("/run/systemd/system"):
            self.daemon.wait_for_log(re.compile(f"the job {label} was killed by signal 11 .*"),
                                     level="error")
            return
        ask = ["systemctl", "show", "--property=SubState,ExecMainStatus", f"{label}.service"]
        shown = ""
        while "SubState=auto-restart" not in shown:
            shown = subprocess.run(ask, check=True, capture_output=True, text=True).stdout.split()
        self.assertIn(f"ExecMainStatus={signal.SIGSEGV:d}", shown)

    def assertLoaded(self, *names):
        self.assertEqual(sorted(self.daemon_texts("loadAllModules: loaded ")),
                         sorted(self.path(name) for name in names))

    def daemon_texts(self, beginning):
        return [text.removeprefix(beginning) for text in self.startup()
                if text.startswith(beginning)]


def own_job(label, *services):
    return {"Label": label, "ProgramArguments": [PROGRAM],
            "MachServices": {service: True for service in services}}


class Loading(ModulesTest):
    def test_twenty_bundles_of_every_kind(self):
        expected = {}

        def good(name, service, **files):
            self.bundle(name, **files)
            expected[f"keel_{name}"] = service

        good("plain", DEFAULT + "plain")
        good("labelled", DEFAULT + "labelled", info={"QZJobLabel": "com.vantor.label"})
        good("named", "com.vantor.name", info={"QZMachServiceName": "com.vantor.name"})
        good("flat", "com.vantor.flat", info={"QZMachServiceName": "com.vantor.flat"},
             contents=False)
        good("binary", "com.vantor.binary", info={"QZMachServiceName": "com.vantor.binary"},
             form=plistlib.FMT_BINARY)
        good("own", "com.vantor.own.z",
             job=own_job("com.vantor.own", "com.vantor.own.z", "com.vantor.own.a"))
        good("own_binary", "com.vantor.ob", job=own_job("com.vantor.own-binary", "com.vantor.ob"),
             form=plistlib.FMT_BINARY)
        good("own_flat", "com.vantor.of", job=own_job("com.vantor.own-flat", "com.vantor.of"),
             contents=False)
        good("dotted.name", DEFAULT + "dotted.name")
        good("ünicode", "com.vantor.unicode", info={"QZMachServiceName": "com.vantor.unicode"})
        crashing = own_job("com.vantor.crashing", "com.vantor.crash")
        crashing.update(ProgramArguments=["/bin/sh", "-c", "kill -SEGV $$"], RunAtLoad=True,
                        ThrottleInterval=3600)
        good("crashing", "com.vantor.crash", job=crashing)
        # Broken ones that are modules all the same.
        self.write("garbage", "launchd.plist", os.urandom(1000))
        self.write("array", "launchd.plist", plistlib.dumps(["Label"]))
        self.write("entities", "launchd.plist",
                   b'<!DOCTYPE plist [<!ENTITY a "b">]><plist><string>&a;</string></plist>')
        self.write("nested", "launchd.plist", b"<plist>" + b"<array>" * 140000)
        self.write("large", "launchd.plist",
                   b"<plist><string>" + b"x" * (2 << 20) + b"</string></plist>")
        self.write("info", "Info.plist", b"bplist00")
        os.makedirs(self.path("pipe"))
        os.mkfifo(self.path("pipe", "launchd.plist"))
        os.makedirs(self.path("device"))
        os.symlink("/dev/zero", self.path("device", "Info.plist"))
        os.symlink("keel_loop.bundle", self.path("loop"))
        with open(self.path("file"), "w"):
            pass
        broken = ("garbage", "array", "entities", "nested", "large", "info", "pipe", "device",
                  "loop", "file")
        expected.update({f"keel_{name}": DEFAULT + name for name in broken})
        # These cannot be loaded.
        self.bundle("unlabelled",
                    job={"ProgramArguments": [PROGRAM],
                         "MachServices": {"com.vantor.unlabelled": True}})
        self.bundle("programless", job={"Label": "com.vantor.programless"})
        self.bundle("stealing", info={"QZMachServiceName": NOTIFY})
        refused = ("unlabelled", "programless", "stealing")
        # This one can, but has no service.
        self.bundle("serviceless",
                    job={"Label": "com.vantor.serviceless", "ProgramArguments": [PROGRAM]})
        # These are no modules.
        for name in ("a.bundle", "keel_b.plist", "Keel_c.bundle", "keel_d.bundle.old"):
            os.mkdir(BUNDLES + name)
        os.mkdir(os.fsencode(BUNDLES) + b"keel_\xff.bundle")

        self.run_daemon()
        self.assertEqual(self.table(), expected)
        self.assertLoaded("serviceless", *(key.removeprefix("keel_") for key in expected))
        failed = self.daemon_texts("loadAllModules: can't load module at ")
        odd = [path for path in failed
               if not path.endswith(tuple(f"keel_{name}.bundle" for name in refused))]
        self.assertEqual(len(odd), 1)
        failed.remove(odd[0])
        self.assertEqual(sorted(failed), sorted(self.path(name) for name in refused))
        # Each that could not be read is replaced without an error, and named for whoever looks
        # closer: once for each file.
        remarks = [line.text for line in self.daemon.log if line.category == "bundle"
                   and line.level == "debug"]
        for name in broken:
            self.assertEqual([text for text in self.startup("error") if self.path(name) in text],
                             [])
            named = [text for text in remarks if text.startswith(f"{self.path(name)}: ")]
            self.assertEqual(len(named), {"file": 0, "loop": 2}.get(name, 1), named)
        for name, why in (("nested", "nested more than 64 deep"),
                          ("large", "more than 1048576 bytes")):
            self.assertTrue([text for text in remarks if self.path(name) in text and why in text],
                            name)
        self.assertEqual(len([text for text in self.startup("error") if "is not UTF-8" in text]), 1)
        self.wait_for_crash("com.vantor.crashing")
        self.assertEqual(self.table(), expected)

    def test_the_order_is_that_of_the_directory(self):
        for number in range(30):
            self.bundle(f"m{number * 7919 % 30}")
        self.run_daemon()
        with os.scandir(BUNDLES) as entries:
            listed = [entry.path for entry in entries]
        self.assertEqual(self.daemon_texts("loadAllModules: loaded "), listed)

    def test_an_empty_directory_is_reported(self):
        self.run_daemon()
        self.assertEqual(self.startup(), ["loadAllModules: moduleTable is {}"])
        self.assertEqual(self.table(), {})

    def test_a_missing_directory_is_an_error_and_nothing_more(self):
        remove(BUNDLES.rstrip("/"))
        self.run_daemon()
        texts = [f"loadAllModules: can't find {BUNDLES} error No such file or directory "
                 "(NSPOSIXErrorDomain error 2)"]
        self.assertEqual(self.startup("error"), texts)
        self.assertEqual(self.startup(), texts)
        self.assertEqual(self.table(), {})

    def test_a_directory_that_is_a_file_is_an_error_and_nothing_more(self):
        remove(BUNDLES.rstrip("/"))
        with open(BUNDLES.rstrip("/"), "w"):
            pass
        self.run_daemon()
        texts = [f"loadAllModules: can't find {BUNDLES} error Not a directory "
                 "(NSPOSIXErrorDomain error 20)"]
        self.assertEqual(self.startup(), texts)

    def test_a_job_with_empty_services_ends_the_walk(self):
        for number in range(10):
            self.bundle(f"m{number}")
        with os.scandir(BUNDLES) as entries:
            listed = [entry.name.removeprefix("keel_").removesuffix(".bundle") for entry in entries]
        self.bundle(listed[4], job=own_job("com.vantor.empty"))
        self.run_daemon()
        self.assertLoaded(*listed[:4])
        self.assertEqual(self.table(), {f"keel_{name}": DEFAULT + name for name in listed[:4]})
        exception = "loadAllModules: received an exception NSRangeException: "
        self.assertRegex(self.startup("error")[-1],
                         re.escape(exception) + ".*" + re.escape(self.path(listed[4])))
        self.assertTrue(self.startup()[-1].startswith("loadAllModules: moduleTable is "))

    def test_bundles_may_vanish_during_the_walk(self):
        names = [f"m{number}" for number in range(200)]
        for name in names:
            self.bundle(name, job=own_job(f"com.vantor.{name}", f"com.vantor.{name}.own"))
        daemon = self.run_daemon(ready=False)
        daemon.wait_for_log(re.compile("loadAllModules: loaded .*"))
        for name in names:
            remove(self.path(name))
        daemon.wait_for_log("up and running")
        table = self.table()
        # Whichever were there still: the others got the job of a bundle without files.
        self.assertEqual(sorted(table), sorted(f"keel_{name}" for name in names))
        for name in names:
            self.assertIn(table[f"keel_{name}"], (DEFAULT + name, f"com.vantor.{name}.own"))

    def test_the_log_of_one_module(self):
        self.bundle("one")
        self.run_daemon()
        label = DEFAULT + "one"
        self.assertEqual(
            [line for line in self.daemon.log if line.category == "startup"],
            [("debug", "startup", text) for text in (
                MAKING,
                f"loadModuleIfNeededFromPath service {label} is not enabled ",
                f"loadModuleIfNeededFromPath created {label}",
                f"loadModuleIfNeededFromPath enabled {label}",
                f"loadAllModules: loaded {self.path('one')}",
                f'loadAllModules: moduleTable is {{"keel_one": "{label}"}}',
            )],
        )

    def test_keelctl_shows_why_a_job_is_synthesized(self):
        own = own_job("com.vantor.own", "com.vantor.own")
        self.bundle("plain")
        self.bundle("own", job=own)
        self.bundle("gone", job=own_job("com.vantor.gone", "com.vantor.gone"))
        self.write("bad", "Contents/Resources/launchd.plist", b"<plist>\n<dict>\n</plist>")
        self.write("worse", "launchd.plist", plistlib.dumps(["Label"]))
        self.write("worse", "Info.plist", plistlib.dumps({"QZJobLabel": 5}))
        self.run_daemon()
        remove(self.path("gone"))
        os.chmod(self.path("own"), 0o700)
        bad, worse = self.path("bad",
                               "Contents/Resources/launchd.plist"), self.path(
                                   "worse", "launchd.plist")
        expected = {
            "keel_plain": (True, "job file missing"),
            "keel_own": (False, None),
            "keel_gone": (None, "bundle missing"),
            "keel_bad": (True, f"job file: {bad} is no property list: line 3: mismatched tag"),
            "keel_worse": (True,
                           f'job file: {worse} holds no dictionary; '
                           'Info.plist: "QZJobLabel" is no text'),
        }
        self.assertEqual(self.shown_synthesis(), expected)
        # A user without access to the bundle does not see that it was synthesized.
        shown = self.shown_synthesis(user=1001)
        self.assertIsNone(shown["keel_own"][0])
        self.assertIn("Permission denied", shown["keel_own"][1])
        self.assertEqual(shown["keel_plain"], expected["keel_plain"])

    @staticmethod
    def shown_synthesis(user=0):
        """Returns keelctl's output for that user: synthesized or not, and why, by module."""
        shown = subprocess.run([keel_host.keelctl, "modules", "--json"], check=True,
                               capture_output=True, text=True, user=user)
        modules = map(json.loads, shown.stdout.splitlines())
        return {module["module"]: (module["synthesized"], module["reason"]) for module in modules}

    def test_an_enabled_job_is_only_recorded(self):
        self.bundle("one")
        self.assertEqual(self.run_daemon().stop(), 0)
        self.run_daemon()
        label = DEFAULT + "one"
        self.assertEqual(self.table(), {"keel_one": label})
        created = f"loadModuleIfNeededFromPath created {label}" in self.startup()
        self.assertEqual(created, not os.path.isdir("/run/systemd/system"))

    def test_a_thousand_bundles(self):
        for number in range(1000):
            self.bundle(f"m{number}", info={"QZJobLabel": f"com.vantor.label{number}"})
        began = time.monotonic()
        self.run_daemon(log="runtime=debug,startup=error")
        print(f"1000 bundles: up and running after {time.monotonic() - began:.3f} s; ", end="",
              flush=True)
        self.assertEqual(self.table(),
                         {f"keel_m{number}": f"{DEFAULT}m{number}" for number in range(1000)})


class Start(ModulesTest):
    def test_modules_are_loaded_before_any_listener(self):
        self.bundle("one")
        self.run_daemon()
        texts = [line.text for line in self.daemon.log if line.category != "daemon"]
        closing = next(place for place, text in enumerate(texts)
                       if text.startswith("loadAllModules: moduleTable is "))
        self.assertEqual(texts[closing + 1 : closing + 4],
                         ["Auth listener created", "Notify listener created", "up and running"])

    def test_sigterm_during_loading_ends_it_after_the_start(self):
        for number in range(200):
            self.bundle(f"m{number}")
        daemon = self.run_daemon(ready=False)
        daemon.wait_for_log(re.compile("loadAllModules: loaded .*"))
        daemon.signal(signal.SIGTERM)
        self.assertEqual(daemon.wait(), 0)
        self.assertEqual(len(self.daemon_texts("loadAllModules: loaded ")), 200)
        runtime = [line.text for line in daemon.log if line.category == "runtime"]
        # The signal is taken from the moment on at which its source is made, before the last step
        # of the start.
        self.assertEqual(runtime[:2], ["Auth listener created", "Notify listener created"])
        self.assertIn(SHUTTING_DOWN, runtime)
        self.assertFalse(os.path.lexists(NOTIFY_PATH))
        self.assertFalse(os.path.lexists(AUTH_PATH))

    def test_sighup_during_loading_does_nothing(self):
        for number in range(100):
            self.bundle(f"m{number}")
        daemon = self.run_daemon(ready=False)
        daemon.wait_for_log(re.compile("loadAllModules: loaded .*"))
        daemon.signal(signal.SIGHUP)
        daemon.wait_for_log("up and running")
        self.assertEqual(len(self.table()), 100)


class Readiness(ModulesTest):
    PATH = "/run/notify"

    def setUp(self):
        super().setUp()
        self.manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(remove, self.PATH)
        self.addCleanup(self.manager.close)
        self.manager.settimeout(keel_host.HANG_GUARD)
        self.manager.bind(self.PATH)

    def test_is_signalled_once_both_services_listen(self):
        self.bundle("one")
        daemon = self.run_daemon(ready=False, environment={"NOTIFY_SOCKET": self.PATH})
        self.assertEqual(self.manager.recv(1000), b"READY=1")
        for service in (AUTH, NOTIFY):
            with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as client:
                client.connect(f"{DIRECTORY}/{service}")
        self.assertEqual(self.table(), {"keel_one": DEFAULT + "one"})
        daemon.signal(signal.SIGTERM)
        self.assertEqual(self.manager.recv(1000), b"STOPPING=1")
        self.assertEqual(daemon.wait(), 0)

    def test_works_without_a_notify_socket(self):
        self.manager.close()
        daemon = self.run_daemon(environment={"NOTIFY_SOCKET": self.PATH})
        self.assertEqual(daemon.stop(), 0)
        os.unlink(self.PATH)
        daemon = self.run_daemon(environment={"NOTIFY_SOCKET": self.PATH})
        self.assertEqual(daemon.stop(), 0)


if __name__ == "__main__":
    keel_host.main()
