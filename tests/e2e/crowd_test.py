#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Tests very many connections: at once, in sequence, beyond the daemon's limit, and beyond a
user's.
"""

import os
import re
import resource
import select
import socket
import unittest

import keel_host
from keel_client import HANG_GUARD, Client, Ended
from keel_host import NOTIFY_PATH, Bystanders, DaemonTest

ALICE, BOB = 1001, 1002
MANY = 5000
MEBIBYTE = 1 << 20
FULL = re.compile(r"no more connections are accepted at .* for now: .*")
TOO_MANY = re.compile(r".*: too many connections of uid 1001; new ones are turned away")


def connect(uid=0):
    """Returns a connection of that user whose hello was not read yet."""
    os.seteuid(uid)
    try:
        client = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        client.connect(NOTIFY_PATH)
        return client
    finally:
        os.seteuid(0)


def readable(sockets):
    """Returns the readable ones."""
    poll = select.poll()
    for client in sockets:
        poll.register(client, select.POLLIN)
    ready = {number for number, _ in poll.poll(0)}
    return [client for client in sockets if client.fileno() in ready]


def wait_readable(client):
    if not select.select([client], [], [], HANG_GUARD)[0]:
        raise AssertionError("nothing came")


class Crowd(DaemonTest):

    def setUp(self):
        super().setUp()
        self.bystanders = Bystanders(self)
        hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
        resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
        self.sockets = []
        self.addCleanup(self.close_all)

    def tearDown(self):
        self.bystanders.step()

    def close_all(self):
        while self.sockets:
            self.sockets.pop().close()

    def test_ten_thousand_sequential_connections_leak_nothing(self):
        def connect_and_leave(count):
            for number in range(count):
                client = Client(greet=number % 2 == 0)
                if number % 4 == 0:
                    client.subscribe("weather")
                if number % 4 == 1:
                    client.take_hello()
                client.close()

        self.after_clean_up(lambda: connect_and_leave(1000), 1000)
        descriptors, memory = self.daemon.descriptor_count(), self.daemon.resident_bytes()
        self.after_clean_up(lambda: connect_and_leave(9000), 9000)
        self.bystanders.step()
        self.assertEqual(self.daemon.descriptor_count(), descriptors)
        self.assertMemoryWithin(memory, 8 * MEBIBYTE)
        self.assertEqual(self.client().dump("weather")[0][0]["subscribers"], [])

    def test_thousands_of_idle_connections_work(self):
        before = self.daemon.resident_bytes()
        clients = [self.client() for _ in range(MANY)]
        for _ in range(10):
            self.bystanders.step()
        self.assertMemoryWithin(before, MANY * 8192)
        for client in clients:
            client.request("subscribeTo:withFlags:andHandler:", "weather", 0)
        for client in clients:
            self.assertEqual(client.results(1), [None, None])
        publisher = self.client()
        self.assertWorked(publisher.publish({"n": 1}, "weather"))
        self.assertWorked(publisher.update({"n": 2}, "weather"))
        for client in clients:
            items = [client.delivery().item]
            while items[-1] != {"n": 2}:
                items.append(client.delivery().item)
            self.assertIn(items, ([{"n": 1}, {"n": 2}], [None, {"n": 1}, {"n": 2}]))
        self.assertEqual(len(publisher.dump("weather")[0][0]["subscribers"]), MANY)

        def leave():
            for client in clients:
                client.close()

        self.after_clean_up(leave, MANY)
        self.assertEqual(publisher.dump("weather")[0][0]["subscribers"], [])

    def test_a_crowd_that_connects_to_a_stopped_daemon_is_served(self):
        self.daemon.pause()
        self.sockets += [connect() for _ in range(1000)]
        self.daemon.go_on()
        for client in self.sockets:
            wait_readable(client)
            self.assertTrue(client.recv(4))


class Full(Crowd):
    """With few descriptors: connections beyond them wait and are not refused."""

    options = {"descriptors": 1200}

    def fill(self):
        """Connects until the daemon reports the shortage. Returns the accepted and the pending
        connections.
        """
        before = len(self.daemon.logged(FULL))
        while len(self.daemon.logged(FULL)) == before:
            self.sockets.append(connect())
            self.assertLess(len(self.sockets), 2400, "never full")
            self.bystanders.step()
        self.sockets += [connect() for _ in range(50)]
        for _ in range(10):
            self.bystanders.step()
        let_in = readable(self.sockets)
        return let_in, [client for client in self.sockets if client not in let_in]

    def test_existing_clients_are_served_and_others_wait(self):
        existing = self.client()
        let_in, waiting = self.fill()
        self.assertGreater(len(let_in), 100)
        self.assertGreaterEqual(len(waiting), 50)
        self.assertLess(self.daemon.descriptor_count(), 1200 - 32)
        self.assertWorked(existing.publish({"n": 1}, "weather"))
        self.assertWorked(existing.subscribe("weather"))
        self.assertEqual(existing.delivery().item, {"n": 1})
        for _ in range(20):
            self.bystanders.step()
        self.assertEqual(len(self.daemon.logged(FULL, "error", "runtime")), 1)
        self.assertEqual(readable(waiting), [])

    def test_waiting_clients_are_accepted_when_others_leave(self):
        let_in, waiting = self.fill()
        for client, successor in list(zip(let_in, waiting))[:10]:
            client.close()
            wait_readable(successor)
            self.assertTrue(successor.recv(4))
        self.sockets = [client for client in self.sockets if client.fileno() >= 0]
        self.bystanders.step()

    def test_recovers_once_they_have_left(self):
        for _ in range(3):
            self.fill()
            self.close_all()
            clients = [self.client() for _ in range(100)]
            for client in clients:
                self.assertEqual(client.module_table(), {})
                client.close()
        self.bystanders.step()

    def test_the_shortage_is_logged_once(self):
        let_in, waiting = self.fill()
        for client, successor in list(zip(let_in, waiting))[:10]:
            client.close()
            wait_readable(successor)
        for _ in range(10):
            self.bystanders.step()
        self.assertEqual(len(self.daemon.logged(FULL)), 1)

    def test_sigterm_works_in_a_crowd(self):
        self.fill()
        self.assertEqual(self.daemon.stop(), 0)
        self.daemon = self.start()
        self.close_all()
        self.bystanders = Bystanders(self)


class VeryFewDescriptors(Full):
    options = {"descriptors": 100}

    def fill(self):
        before = len(self.daemon.logged(FULL))
        while len(self.daemon.logged(FULL)) == before:
            self.sockets.append(connect())
            # More than can have been accepted: only the line may be late, on a busy machine.
            if len(self.sockets) == 150:
                self.daemon.wait_for_log(FULL, before + 1)
            self.bystanders.step()
        self.sockets += [connect() for _ in range(50)]
        self.bystanders.step()
        let_in = readable(self.sockets)
        return let_in, [client for client in self.sockets if client not in let_in]

    def test_existing_clients_are_served_and_others_wait(self):
        existing = self.client(descriptors=True)
        let_in, waiting = self.fill()
        self.assertGreater(len(let_in), 20)
        # Large values need descriptors too, or do without.
        for number in range(3):
            item = {"n": number, "filling": bytes(100000)}
            self.assertWorked(existing.publish(item, f"weather {number}"))
            self.assertWorked(existing.subscribe(f"weather {number}"))
            self.assertEqual(existing.delivery().item, item)
        self.assertEqual(readable(waiting), [])

    def test_recovers_once_they_have_left(self):
        self.fill()
        self.close_all()
        for client in [self.client() for _ in range(20)]:
            self.assertEqual(client.module_table(), {})


class OneUser(Crowd):
    """A user other than root may have as many connections as are still free of seven eighths of the
    total.
    """

    options = {"descriptors": 1200}

    def fill(self):
        """Connects until the daemon reports the shortage. Returns the accepted and the pending
        connections.
        """
        while True:
            os.seteuid(ALICE)
            try:
                client = Client(greet=False)
            finally:
                os.seteuid(0)
            try:
                client.take_hello()
                self.sockets.append(client)
                self.assertLess(len(self.sockets), 1200, "never turned away")
            except Ended as end:
                client.close()
                return end.goodbye

    def test_is_refused_beyond_the_limit_and_others_are_accepted(self):
        self.assertEqual(self.fill(), f"too many connections of uid {ALICE}")
        half = len(self.sockets)
        self.assertEqual(self.fill(), f"too many connections of uid {ALICE}")
        self.assertEqual(len(self.sockets), half)
        for uid in (0, BOB):
            os.seteuid(uid)
            try:
                client = self.client()
            finally:
                os.seteuid(0)
            self.assertEqual(client.module_table(), {})
        self.assertEqual(self.daemon.times_logged(TOO_MANY, 1, "error", "runtime"), 1)

    def test_has_half_of_seven_eighths(self):
        self.fill()
        share = len(self.sockets)
        others = 0
        while not self.daemon.logged(FULL):
            self.sockets.append(connect())
            others += 1
            self.assertLess(others, 2400)
            self.bystanders.step()
        # The bystanders are two more; the last that were connected may wait.
        self.assertLessEqual(abs(share - (share + others) * 7 / 16), 5)

    def test_is_accepted_again_after_leaving(self):
        self.fill()
        for client in [self.sockets.pop() for _ in range(10)]:
            self.after_clean_up(client.close)
        before = len(self.sockets)
        # A place is free when the socket is closed, which may be a moment later. The client that
        # watched the clean-up takes one.
        while len(self.sockets) < before + 9:
            self.fill()


def load_tests(loader, standard, pattern):
    """Omits the inherited cases of Crowd from its subclasses."""
    del standard, pattern
    suite = unittest.TestSuite()
    inherited = set(loader.getTestCaseNames(Crowd))
    for case in (Crowd, Full, VeryFewDescriptors, OneUser):
        names = [name for name in loader.getTestCaseNames(case) if case is Crowd
                 or name not in inherited]
        suite.addTests(map(case, names))
    return suite


if __name__ == "__main__":
    keel_host.main()
