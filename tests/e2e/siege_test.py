#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Tests the daemon under unprivileged users at full speed (tests/siege): it survives and serves
others.
"""

import subprocess
import sys

import keel_host
from keel_client import HANG_GUARD
from keel_host import Bystanders, DaemonTest

SECONDS = 4


def siege_program():
    return next(argument for argument in sys.argv[1:] if argument.endswith("keel_siege"))


class Siege(DaemonTest):
    log = "runtime=debug,notification=fault"

    def attack(self, *arguments):
        attack = subprocess.run([PROGRAM, "--seconds", str(SECONDS), *arguments],
                                capture_output=True, text=True,
                                timeout=SECONDS + HANG_GUARD)
        self.assertEqual(attack.returncode, 0, attack.stderr)

    def test_a_crowd_slower_than_the_updates(self):
        for shape in (("--names", "20", "--connections", "5000"),
                      ("--names", "100", "--connections", "1000")):
            with self.subTest(shape=shape):
                bystanders = Bystanders(self, name=" ".join(shape))
                self.attack(*shape, "crowd")
                self.assertTrue(self.daemon.running)
                bystanders.step()


PROGRAM = siege_program()

if __name__ == "__main__":
    keel_host.main()
