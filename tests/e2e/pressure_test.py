#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Tests clients that do not read and users over quota: they are paused or dropped, without effect
on others.
"""

import os
import re
import socket
import struct

import keel_host
from keel_client import FRAME_LIMIT, IN_FILE_LEAST, REPLY, REQUEST, Client, Code, Ended, Refused
from keel_host import NOTIFY_PATH, Bystanders, DaemonTest
from keel_values import InFile, encode, framed, sealed_file

MEBIBYTE = 1 << 20
WAITING_MOST = 64 * MEBIBYTE
WAITING_MOST_OF_ALL = 512 * MEBIBYTE
DESCRIPTORS_OF_A_MESSAGE = 8
RESERVE = 768  # descriptors that the daemon keeps for itself
QUOTA = 512 * MEBIBYTE  # half of what all clients may hold
TOO_SLOW = re.compile(r"<connection .*> dropped: too slow: (\d+) bytes were waiting")
GOODBYE_TOO_SLOW = re.compile(r"too slow: (\d+) bytes were waiting")
ALICE, BOB = 1001, 1002


def inline_item(number, size=IN_FILE_LEAST - 100):
    return {"number": number, "filling": bytes(size)}


class PressureTest(DaemonTest):
    def setUp(self):
        super().setUp()
        self.bystanders = Bystanders(self)
        self.publisher = self.client()

    def tearDown(self):
        self.bystanders.step()

    def deaf_follower(self, name, descriptors=False):
        """Returns a client that follows a name and reads nothing after the reply."""
        client = self.client(descriptors=descriptors)
        self.assertWorked(client.subscribe(name))
        return client

    def dropped(self):
        return self.daemon.logged(TOO_SLOW, "error", "runtime")


class SlowReaders(PressureTest):
    def test_a_slow_reader_is_dropped_beyond_64_mebibytes_with_a_goodbye(self):
        self.assertWorked(self.publisher.publish(inline_item(0), "camera"))
        slow, quick = self.deaf_follower("camera"), self.client()
        self.assertWorked(quick.subscribe("camera"))
        self.assertEqual(quick.delivery().item["number"], 0)
        before = self.daemon.resident_bytes()
        number = 0
        while not self.dropped():
            number += 1
            self.assertLess(number, 3 * WAITING_MOST // IN_FILE_LEAST, "never dropped")
            self.assertWorked(self.publisher.update(inline_item(number), "camera"))
            self.assertEqual(quick.delivery().item["number"], number)
            self.bystanders.step()
        waiting = int(TOO_SLOW.fullmatch(self.dropped()[0].text).group(1))
        self.assertGreater(waiting, WAITING_MOST)
        self.assertLess(waiting, WAITING_MOST + 2 * MEBIBYTE)
        self.assertMemoryWithin(before, 3 * WAITING_MOST)
        # The deliveries are in order and end with the goodbye.
        self.assertEqual(slow.end(), f"too slow: {waiting} bytes were waiting")
        received = [delivery.item["number"] for delivery in slow.deliveries_that_came()]
        self.assertEqual(received, list(range(len(received))))
        self.assertEqual(len(self.dropped()), 1)
        self.wait_for_clean_up(1)
        self.assertEqual(len(self.publisher.dump("camera")[0][0]["subscribers"]), 1)
        self.assertWorked(self.publisher.update(inline_item(-1), "camera"))
        self.assertEqual(quick.delivery().item["number"], -1)

    def test_a_reader_that_resumes_in_time_misses_nothing(self):
        self.assertWorked(self.publisher.publish(inline_item(0), "camera"))
        slow = self.deaf_follower("camera")
        count = WAITING_MOST // IN_FILE_LEAST // 2
        for number in range(1, count):
            self.assertWorked(self.publisher.update(inline_item(number), "camera"))
        self.assertEqual([slow.delivery().item["number"] for _ in range(count)], list(range(count)))
        self.assertFalse(self.dropped())

    def test_many_slow_readers_are_dropped_earlier(self):
        """Each follows a different name, so that nothing is shared: the total limit is reached
        first.
        """
        names = [f"camera {number}" for number in range(2 * WAITING_MOST_OF_ALL // WAITING_MOST)]
        for name in names:
            self.assertWorked(self.publisher.publish({}, name))
        slow = {name: self.deaf_follower(name) for name in names}
        before = self.daemon.resident_bytes()
        number = 0
        while not self.dropped():
            number += 1
            self.assertLess(number, WAITING_MOST // IN_FILE_LEAST, "not dropped earlier than alone")
            for name in names:
                self.assertWorked(self.publisher.update(inline_item(number), name))
            self.bystanders.step()
        self.assertGreater(number * IN_FILE_LEAST * len(names), WAITING_MOST_OF_ALL // 2)
        self.assertMemoryWithin(before, WAITING_MOST_OF_ALL + 2 * WAITING_MOST)
        # The remaining clients are served, and the dropped ones receive the reason.
        for name in names:
            self.assertWorked(self.publisher.update({"last": True}, name))
        ended = 0
        for client in slow.values():
            try:
                while client.delivery().item != {"last": True}:
                    pass
            except Ended as end:
                ended += 1
                self.assertLess(int(GOODBYE_TOO_SLOW.fullmatch(end.goodbye).group(1)), WAITING_MOST)
        self.assertEqual(ended, len(self.dropped()))

    def test_values_in_many_backlogs_are_held_once(self):
        self.assertWorked(self.publisher.publish({}, "camera"))
        slow = [self.deaf_follower("camera") for _ in range(20)]
        before = self.daemon.resident_bytes()
        for number in range(WAITING_MOST // IN_FILE_LEAST // 2):
            self.assertWorked(self.publisher.update(inline_item(number), "camera"))
        self.assertMemoryWithin(before, 2 * WAITING_MOST)
        for client in slow:
            client.close()

    def test_a_slow_reader_of_files_costs_bounded_descriptors(self):
        self.assertWorked(self.publisher.publish({}, "camera"))
        slow = self.deaf_follower("camera", descriptors=True)
        before = self.daemon.descriptor_count()
        for number in range(2000):
            self.assertWorked(self.publisher.update(inline_item(number, IN_FILE_LEAST), "camera"))
            if self.dropped():
                break
            if number % 100 == 0:
                self.bystanders.step()
                self.assertLessEqual(self.daemon.descriptor_count() - before, RESERVE)
        self.assertWorked(self.client().publish({}, "still served"))
        slow.close()
        self.wait_for_clean_up(1)
        self.assertLessEqual(self.daemon.descriptor_count(), before + 3)


def many_dumps():
    """Returns frames of more requests than any buffer holds, with long answers."""
    for number in range(1, 200001):
        yield framed(encode([REQUEST, number, 7, ["_all", False]]))


class RequestersThatDoNotRead(PressureTest):
    def send_until_held_up(self, client, frames):
        """Sends frames without reading until the daemon reads no more. Returns the number of
        complete frames; the rest of the last one is sent later.
        """
        sent, rest, patience = 0, b"", 0
        for frame in frames:
            rest = frame
            while rest:
                try:
                    rest = rest[client.socket.send(rest) :]
                    patience = 0
                except BlockingIOError:
                    # The daemon looks at all connections that have something for it before a
                    # bystander is served twice.
                    patience += 1
                    if patience > 20:
                        return sent, rest
                    self.bystanders.step()
            sent += 1
        return sent, b""

    def test_reading_pauses_and_all_answers_arrive(self):
        for number in range(200):
            self.assertWorked(self.publisher.publish({}, f"name {number:0100}"))
        before = self.daemon.resident_bytes()
        requester = self.client()
        sent, rest = self.send_until_held_up(requester, many_dumps())
        self.assertTrue(rest, "never held up")
        # Every request would be answered with some 40 KB.
        self.assertMemoryWithin(before, 24 * MEBIBYTE)
        requester.send_bytes(rest)
        for number in range(1, sent + 2):
            self.assertEqual(len(requester.results(number)[0]), 201)
        self.assertEqual([message.kind for message in requester.history[1:]], [REPLY] * (sent + 1))
        requester.last_id = sent + 1
        self.assertEqual(requester.module_table(), {})

    def test_pending_answers_end_with_the_connection(self):
        before = self.daemon.resident_bytes()
        for number in range(200):
            self.assertWorked(self.publisher.publish({}, f"name {number:0100}"))
        for _ in range(10):
            requester = self.client()
            self.send_until_held_up(requester, many_dumps())
            self.end_of(requester)
        self.assertMemoryWithin(before, 32 * MEBIBYTE)

    def test_small_answers_pause_reading_too(self):
        requester = self.client()
        requests = (framed(encode([REQUEST, number, 4, [{}, "unknown"]]))
                    for number in range(1, 2000001))
        before = self.daemon.resident_bytes()
        sent, rest = self.send_until_held_up(requester, requests)
        self.assertTrue(rest, "never held up")
        self.assertMemoryWithin(before, 24 * MEBIBYTE)
        requester.send_bytes(rest)
        for number in range(1, sent + 2):
            self.assertEqual(requester.results(number)[0].code, 11)

    def test_thousands_of_requests_at_once_are_all_answered(self):
        client = self.client()
        count = 20000  # more than may be without an answer
        client.send_bytes(
            b"".join(framed(encode([REQUEST, number, 6, []])) for number in range(1, count + 1)))
        self.assertEqual([client.results(number) for number in range(1, count + 1)], [[{}]] * count)

    def test_a_client_without_a_hello_is_limited(self):
        client = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.addCleanup(client.close)
        client.connect(NOTIFY_PATH)
        client.sendall(struct.pack("<I", 60000) + bytes(59999))
        self.bystanders.step()


class Quota(PressureTest):
    """The quota of a user other than root."""

    def publish_in_file(self, client, name, size, fill=0):
        content = encode({"picture": bytes([fill]) * (size - 14)})
        file = sealed_file(content)
        try:
            return client.call("publishItem:name:flags:value:withHandler:", InFile(len(content)),
                               name, 0, 0, files=[file])[0]
        finally:
            os.close(file)

    def fill(self, client, size, most):
        """Publishes items of that size until the quota is exhausted; returns their number."""
        for number in range(most + 1):
            try:
                self.assertWorked(self.publish_in_file(client, f"item {number}", size))
            except Refused as refused:
                self.assertEqual(refused.code, Code.overQuota, refused.text)
                return number
        self.fail("never refused")

    def in_user(self, uid, function, *arguments):
        return self.process(uid=uid).do(function, *arguments)

    def test_data_over_quota_is_refused_until_some_is_withdrawn(self):
        alice = as_user(ALICE)
        self.addCleanup(alice.close)
        count = self.fill(alice, FRAME_LIMIT, QUOTA // FRAME_LIMIT)
        self.assertGreaterEqual(count, QUOTA // FRAME_LIMIT - 1)
        # The connection goes on, and others are free to publish.
        with self.assertRaises(Refused) as refused:
            alice.publish({"picture": bytes(FRAME_LIMIT - 100)}, "inline")
        self.assertEqual(refused.exception.code, Code.overQuota)
        self.assertEqual(alice.module_table(), {})
        bob = as_user(BOB)
        self.addCleanup(bob.close)
        self.assertWorked(self.publish_in_file(bob, "of bob", FRAME_LIMIT))
        self.assertWorked(self.publisher.publish({}, "of root"))
        self.bystanders.step()
        self.assertWorked(alice.remove("item 0"))
        self.assertWorked(self.publish_in_file(alice, "another", FRAME_LIMIT))
        self.assertRaises(Refused, self.publish_in_file, alice, "one more", FRAME_LIMIT)
        self.assertEqual(alice.dump("one more")[1].code, 11)
        # Replacing data needs no more than before.
        self.assertWorked(alice.update({}, "another"))

    def test_counts_all_connections_of_the_user_and_their_remaining_items(self):
        alice = as_user(ALICE)
        self.fill(alice, FRAME_LIMIT, QUOTA // FRAME_LIMIT)
        self.end_of(alice)
        again = as_user(ALICE)
        self.addCleanup(again.close)
        with self.assertRaises(Refused) as refused:
            self.publish_in_file(again, "more", FRAME_LIMIT)
        self.assertEqual(refused.exception.code, Code.overQuota)
        self.assertMemoryWithin(0, 3 * QUOTA)

    def test_names_over_quota_are_refused(self):
        alice = as_user(ALICE)
        self.addCleanup(alice.close)
        names = 0
        most = 2 * QUOTA // MEBIBYTE
        with self.assertRaises((Refused, Ended)) as refused:
            for names in range(most):
                self.assertWorked(alice.subscribe(f"{names:0{MEBIBYTE}}"))
        # Either the name is refused, or its half while it is coming in.
        if isinstance(refused.exception, Ended):
            self.assertRegex(refused.exception.goodbye, "over quota")
        else:
            self.assertEqual(refused.exception.code, Code.overQuota)
        self.assertGreater(names, QUOTA // MEBIBYTE)
        bob = as_user(BOB)
        self.addCleanup(bob.close)
        self.assertWorked(bob.subscribe("x" * MEBIBYTE))
        self.bystanders.step()

    def test_does_not_limit_root(self):
        for number in range(QUOTA // FRAME_LIMIT + 2):
            self.assertWorked(self.publish_in_file(self.publisher, f"item {number}", FRAME_LIMIT))


class Descriptors(PressureTest):
    def test_incomplete_frames_of_one_user_do_not_block_files_of_others(self):
        content = encode({"picture": bytes(IN_FILE_LEAST)})
        file = self.file(sealed_file(content))
        for _ in range(20):
            alice = as_user(ALICE)
            self.addCleanup(alice.close)
            try:
                alice.send_bytes(b"\x20\0\0\0\x84\x01", files=[file] * DESCRIPTORS_OF_A_MESSAGE)
            except Ended:
                pass
        self.bystanders.step()
        client = self.client()
        frame = framed(encode([REQUEST, 1, 3, [InFile(len(content)), "camera", 0, 0]]))
        client.send_bytes(frame[:5], files=[file])
        self.bystanders.step()
        client.send_bytes(frame[5:])
        self.assertEqual(client.results(1), [None])


def as_user(uid):
    """Returns a client of that user in this process: connect(2) fixes the credentials."""
    os.seteuid(uid)
    try:
        return Client()
    finally:
        os.seteuid(0)


if __name__ == "__main__":
    keel_host.main()
