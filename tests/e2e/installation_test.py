#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Tests keeld installed and set up as a service of a real systemd, following docs/operations.md
step by step.
"""

import json
import os
import select
import subprocess
import unittest

import keel_host
from keel_accounts import add_account, password_of
from keel_auth import ALICE, TOP
from keel_client import HANG_GUARD

UNITS = ("keeld-auth.socket", "keeld-notify.socket", "keeld.service")
BUILD = "build/release"
DROP_INS = "/etc/systemd/system/keeld.service.d"


def steps():
    """Returns the commands of the guide's first shell block."""
    with open(os.path.join(TOP, "docs/operations.md")) as file:
        block = file.read().split("## Installing\n", 1)[1].split("```sh\n", 1)[1].split("```", 1)[0]
    return block.replace(BUILD, os.path.dirname(os.path.dirname(keel_host.keeld)))


def connects(pid):
    """Returns true if a process has a socket: keelctl has one once connected."""
    try:
        links = [os.readlink(f"/proc/{pid}/fd/{number}")
                 for number in os.listdir(f"/proc/{pid}/fd")]
    except FileNotFoundError:  # closed meanwhile
        return False
    return any(link.startswith("socket:") for link in links)


class Installation(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        add_account("alice", ALICE, ALICE)
        keel_host.remove("/private")
        keel_host.remove("/Applications")
        # A leak check at exit is not permitted there, and would make systemd wait for it.
        os.makedirs(DROP_INS)
        with open(f"{DROP_INS}/test.conf", "w") as file:
            file.write("[Service]\nEnvironment=ASAN_OPTIONS=detect_leaks=0\n")
        done = subprocess.run(["bash", "-euc", steps()], cwd=TOP, capture_output=True, text=True,
                              timeout=HANG_GUARD,
                              check=False)
        if done.returncode != 0:
            raise AssertionError(f"the guide's steps failed: {done.stdout}{done.stderr}")

    def keelctl(self, *words, password=None, uid=0):
        """Runs the installed keelctl; returns its status and output."""
        if password is not None:
            words = (*words, "--password-fd", "0")
        done = subprocess.run(["setpriv", f"--reuid={uid}", f"--regid={uid}", "--clear-groups",
                               "keelctl", *words], capture_output=True,
                              input=password and password + "\n", text=True, timeout=HANG_GUARD,
                              check=False)
        return done.returncode, done.stdout + done.stderr

    def test_is_a_service_enabled_at_boot(self):
        self.assertUnits("is-active", "active")
        self.assertUnits("is-enabled", "enabled")
        self.assertEqual(self.keelctl("auth", "check", uid=ALICE), (0, '{"alive":true}\n'))

    def test_logs_that_it_runs_first(self):
        self.systemctl("restart", "keeld")
        shown = subprocess.run(["systemctl", "show", "--value", "--property=MainPID", "keeld"],
                               capture_output=True, check=True)
        command = ["journalctl", "--follow", "--lines=all", "--output=cat",
                   f"_PID={int(shown.stdout)}"]
        with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as journal:
            self.addCleanup(journal.kill)
            self.assertTrue(select.select([journal.stdout], [], [], HANG_GUARD)[0])
            self.assertRegex(journal.stdout.readline(),
                             r"\Akeeld \d+\.\d+\.\d+ is running \(build id [0-9a-f]+\)\n\Z")
            journal.kill()
        errors = subprocess.run(["journalctl", "--quiet", "--priority=err", "--output=cat",
                                 command[-1]],
                                capture_output=True, text=True, check=True).stdout
        self.assertEqual(errors, "")

    def assertUnits(self, verb, word):
        said = subprocess.run(["systemctl", verb, *UNITS], capture_output=True, text=True,
                              check=False).stdout
        self.assertEqual(said.split(), [word] * len(UNITS))

    def systemctl(self, *words):
        subprocess.run(["systemctl", *words], capture_output=True, check=True, timeout=HANG_GUARD)

    def test_its_sockets_are_started_and_enabled_with_it(self):
        self.systemctl("disable", *UNITS)
        self.systemctl("stop", *UNITS)
        self.systemctl("start", "keeld")
        self.assertUnits("is-active", "active")
        self.systemctl("start", "keeld-notify.socket")
        self.systemctl("stop", *UNITS)
        self.systemctl("enable", "--now", "keeld")
        self.assertUnits("is-active", "active")
        self.assertUnits("is-enabled", "enabled")

    def test_stopped_sockets_return_with_the_next_start(self):
        self.systemctl("stop", "keeld-auth.socket", "keeld-notify.socket")
        self.systemctl("restart", "keeld")
        self.assertUnits("is-active", "active")
        self.assertEqual(self.keelctl("auth", "check"), (0, '{"alive":true}\n'))

    def test_clients_wait_while_it_is_restarted(self):
        gate, drop_in = "/run/gate", f"{DROP_INS}/gate.conf"
        os.mkfifo(gate)
        self.addCleanup(os.unlink, gate)
        with open(drop_in, "w") as file:
            file.write(f"[Service]\nExecStartPre=/bin/cat {gate}\n")
        self.addCleanup(self.systemctl, "daemon-reload")
        self.addCleanup(os.unlink, drop_in)
        self.systemctl("daemon-reload")
        self.systemctl("restart", "--no-block", "keeld")
        # Opened when the new keeld is about to be started, and the old one has ended.
        with open(gate, "w"):
            clients = [subprocess.Popen(["keelctl", *words], stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE)
                       for words in (("auth", "check"), ("dump",))]
            for client in clients:
                while not connects(client.pid):
                    self.assertIsNone(client.poll(), "it did not wait")
        for client in clients:
            said = client.communicate(timeout=HANG_GUARD)
            self.assertEqual(client.returncode, 0, said)

    def test_serves_before_others_run(self):
        self.assertEqual(self.keelctl("auth", "check")[0], 0)
        shown = subprocess.run(["systemctl", "show", "--value", "--property=MainPID", "keeld"],
                               capture_output=True, check=True)
        priorities = keel_host.thread_priorities(int(shown.stdout))
        self.assertEqual(priorities.pop("keel-io"), {keel_host.preferred_priority()})
        self.assertEqual(set().union(*priorities.values()), {0})

    def test_has_everything_for_proofs(self):
        status, said = self.keelctl("auth", "password", "alice", password="wrong")
        self.assertEqual(status, 1)
        self.assertIn("(error 5)", said)
        status, said = self.keelctl("auth", "password", "alice", password=password_of("alice"))
        self.assertEqual(status, 0, said)
        self.assertTrue(json.loads(said)["authenticated"])
        self.assertEqual(self.keelctl("digest", "set", "alice", password="of the digest"), (0, ""))
        self.assertEqual(self.keelctl("auth", "digest", "alice", password="of the digest")[0], 0)
        # polkit knows the right, and would give it after a proof.
        status, said = self.keelctl("auth", "reference", "alice", uid=ALICE)
        self.assertEqual(status, 1)
        self.assertIn("(status -60007)", said)


if __name__ == "__main__":
    keel_host.main()
