#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Tests the daemon under unprivileged users at full speed (tests/siege), a few seconds per case: it
survives, stays within its bounds, releases what it held, and loses nothing of another user. Times
are only printed: scripts/siege judges them, on an idle machine.
"""

import subprocess
import sys

import keel_host
from keel_client import HANG_GUARD
from keel_host import Bystanders, DaemonTest, memory_factor
from keel_siege import MEBIBYTE, Siege

SECONDS = 3
PEAK_BYTES = 560 * MEBIBYTE
KEPT_BYTES = 64 * MEBIBYTE


def siege_program():
    return next(argument for argument in sys.argv[1:] if argument.endswith("keel_siege"))


def is_back(rest, now):
    """Returns true once the daemon has released what it held. The victims may have one more
    connection than at rest.
    """
    return (
        now.resident <= rest.resident + KEPT_BYTES * memory_factor()
        and now.descriptors <= rest.descriptors + 1
    )


class Besieged(DaemonTest):
    def setUp(self):
        """Does nothing: each siege starts its own daemon."""

    def besiege(self, case, connections, attacker_count=1):
        siege = Siege(
            PROGRAM, SECONDS, attacker_count, patience_seconds=int(HANG_GUARD), is_back=is_back
        )
        outcome = siege.run(case, "--connections", str(connections))
        victims = outcome.victims
        print(
            f"{case}: deliveries p50 {victims['p50']:.1f}, p99 {victims['p99']:.1f},"
            f" max {victims['max']:.1f} ms; peak {outcome.peak_held_bytes // MEBIBYTE} MiB"
        )
        self.assertEqual((victims["lost"], outcome.unanswered, victims["ended"]), (0, 0, 0), case)
        self.assertLessEqual(outcome.peak_bytes, PEAK_BYTES * memory_factor(), case)
        self.assertTrue(is_back(outcome.rest, outcome.quiet), f"{outcome.rest}, {outcome.quiet}")
        return outcome

    def test_memory_files_of_tiny_items(self):
        self.besiege("files", 20)

    def test_large_frames_of_tiny_items(self):
        self.besiege("large-frames", 10)

    def test_skipped_frames(self):
        self.besiege("skips", 20)

    def test_one_byte_at_a_time(self):
        self.besiege("drip", 500)
        self.besiege("auth-drip", 500)

    def test_followers_that_read_one_byte_at_a_time(self):
        self.besiege("sips", 100)

    def test_connection_floods(self):
        self.besiege("connects", 1)
        self.besiege("strangers", 1)

    def test_cheap_requests(self):
        self.besiege("requests", 200)

    def test_two_attackers_at_once(self):
        self.besiege("drip", 200, attacker_count=2)


class Crowds(DaemonTest):
    log = "runtime=debug,notification=fault"

    def attack(self, *arguments):
        attack = subprocess.run(
            [PROGRAM, "--seconds", str(SECONDS), *arguments],
            capture_output=True,
            text=True,
            timeout=SECONDS + HANG_GUARD,
        )
        self.assertEqual(attack.returncode, 0, attack.stderr)

    def test_a_crowd_slower_than_the_updates(self):
        for shape in ((20, 5000), (100, 1000)):
            with self.subTest(shape=shape):
                bystanders = Bystanders(self, name=str(shape))
                self.attack("--names", str(shape[0]), "--connections", str(shape[1]), "crowd")
                self.assertTrue(self.daemon.running)
                bystanders.step()


PROGRAM = siege_program()

if __name__ == "__main__":
    keel_host.main()
