#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Tests statements of docs/protocol.md that no other test covers: hellos, order, endings, sessions.
"""

import errno
import itertools
import os
import re
import select
import socket
import struct

import keel_host
from keel_client import (
    AUTH, FAILURE, FRAME_LIMIT, HELLO, ONE_WAY, REPLY, REQUEST, UPDATE, Client, Code, Ended,
    Refused)
from keel_host import HANG_GUARD, Bystanders, DaemonTest
from keel_values import InFile, encode, framed, sealed_file

BOOKKEEPING = 128
SUBSCRIBE, UNSUBSCRIBE, PUBLISH, UPDATE_ITEM, MODULE_TABLE = 1, 2, 3, 4, 6


def frames(*messages):
    return b"".join(framed(encode(message)) for message in messages)


class StatementTest(DaemonTest):
    def at_once(self, client, *messages):
        """Has the daemon read all of them before it carries out the first."""
        self.daemon.pause()
        client.send_bytes(frames(*messages))
        self.daemon.go_on()
        client.last_id = max(message[1] for message in messages if message[0] == REQUEST)

    def items(self, client):
        return [delivery.item for delivery in client.deliveries_so_far()]


class Hello(StatementTest):
    def test_a_client_need_not_await_the_daemons_hello(self):
        client = self.client(greet=False)
        client.send_bytes(frames([HELLO, 1, [UPDATE], {}], [REQUEST, 1, SUBSCRIBE, ["weather", 0]],
                                 [REQUEST, 2, PUBLISH, [{"n": 1}, "weather", 0, 0]]))
        client.take_hello()
        self.assertEqual(client.results(1), [None, None])
        self.assertEqual(client.results(2), [None])
        self.assertEqual(client.delivery().item, {"n": 1})

    def test_the_clients_hello_has_no_deadline(self):
        bystanders = Bystanders(self)
        client = self.client(greet=False)
        client.take_hello()
        for _ in range(10):
            bystanders.step()
        client._read()
        self.assertEqual((client.ended, len(client.history)), (False, 1))
        client.send([HELLO, 1, [], {}])
        self.assertEqual(client.module_table(), {})


class Order(StatementTest):
    def test_deliveries_are_in_the_order_of_changes_over_all_names(self):
        names = ("wind", "rain", "snow")
        publishers = [self.client(), self.client()]
        followers = [self.client(), self.client(descriptors=True)]
        for place, name in enumerate(names):
            self.assertWorked(publishers[place % 2].publish({"n": -1}, name))
        for follower in followers:
            for name in names:
                self.assertWorked(follower.subscribe(name))
            follower.deliveries_so_far()
        sent = {0: [], 1: []}
        for number, place in zip(range(300), itertools.cycle((0, 0, 1, 2, 1))):
            publishers[place % 2].request("updatePublishedItem:name:withHandler:", {"n": number},
                                          names[place])
            sent[place % 2].append((names[place], number))
        for publisher in publishers:
            publisher.dump("")
        received = [[(name, item["n"]) for name, item, *_ in follower.deliveries_so_far()]
                    for follower in followers]
        self.assertEqual(received[0], received[1])
        for place in (0, 1):
            own = names[place::2]
            self.assertEqual([each for each in received[0] if each[0] in own], sent[place])

    def test_deliveries_precede_answers_to_later_requests(self):
        publisher, follower = self.client(), self.client()
        self.assertWorked(publisher.publish({"n": 0}, "weather"))
        self.assertWorked(follower.subscribe("weather"))
        follower.deliveries_so_far()
        for number in range(1, 50):
            self.assertWorked(publisher.update({"n": number}, "weather"))
            # Methods that do not wait in the queue, and failures, come behind it too.
            before = len(follower.history)
            follower.last_id += 1
            follower.send([REQUEST, follower.last_id, (MODULE_TABLE, 99)[number % 2], []])
            follower.answer(follower.last_id)
            self.assertEqual(follower.delivery().item, {"n": number})
            self.assertEqual([message.kind for message in follower.history[before:]],
                             [ONE_WAY, (REPLY, FAILURE)[number % 2]])

    def test_a_subscription_followed_by_updates_repeats_the_newest(self):
        client = self.client()
        self.at_once(client, [REQUEST, 1, PUBLISH, [{"n": 1}, "weather", 0, 0]],
                     [REQUEST, 2, SUBSCRIBE, ["weather", 0]],
                     [REQUEST, 3, UPDATE_ITEM, [{"n": 2}, "weather"]],
                     [REQUEST, 4, UPDATE_ITEM, [{"n": 3}, "weather"]])
        self.assertEqual(self.items(client), [{"n": 2}, {"n": 3}, {"n": 3}])
        answers = [message.fields[1] for message in client.history if message.kind == REPLY]
        self.assertEqual(answers[:4], [1, 2, 3, 4])
        # The reply to the subscription precedes all of them.
        kinds = [message.kind for message in client.history[1:4]]
        self.assertEqual(kinds, [REPLY, REPLY, ONE_WAY])

    def test_a_subscription_and_its_end_may_cause_a_delivery(self):
        client = self.client()
        self.assertWorked(client.publish({"n": 1}, "weather"))
        self.at_once(client, [REQUEST, 2, SUBSCRIBE, ["weather", 0]],
                     [ONE_WAY, UNSUBSCRIBE, ["weather"]])
        self.assertEqual(self.items(client), [{"n": 1}])
        self.assertWorked(client.update({"n": 2}, "weather"))
        self.assertEqual(self.items(client), [])


class Endings(StatementTest):
    def test_the_daemons_goodbye_stays_readable(self):
        client = self.client()
        self.daemon.pause()
        # As much as fits: some of it stays unread.
        data = memoryview(struct.pack("<I", (1 << 32) - 1) + bytes(1 << 20))
        try:
            while data:
                data = data[client.socket.send(data) :]
        except BlockingIOError:
            pass
        self.daemon.go_on()
        closed = select.poll()
        closed.register(client.socket, 0)
        self.assertEqual(closed.poll(HANG_GUARD * 1000)[0][1] & select.POLLHUP, select.POLLHUP)
        with self.assertRaises(OSError) as raised:
            client.socket.send(b"more", socket.MSG_NOSIGNAL)
        self.assertIn(raised.exception.errno, (errno.EPIPE, errno.ECONNRESET))
        # Ends at the end of file, or at ECONNRESET.
        self.assertTrue(client.end())
        self.assertFalse(client.cut_off)

    def test_a_half_close_ends_the_connection(self):
        publisher = self.client()
        self.assertWorked(publisher.publish({}, "weather"))
        self.after_clean_up(lambda: publisher.socket.shutdown(socket.SHUT_WR))
        self.assertWorked(self.own_client().publish({}, "weather"))

    def test_a_file_with_a_skipped_frame_ends_the_connection(self):
        client = self.client()
        file = self.file(sealed_file(encode({"picture": bytes(70000)})))
        body = encode([REQUEST, 1, PUBLISH, [InFile(70014), "camera", 0, 0]])
        rest = bytes(FRAME_LIMIT + 1 - len(body))
        try:
            client.send_bytes(struct.pack("<I", FRAME_LIMIT + 1) + body + rest, files=[file])
        except Ended:
            pass
        self.assertEqual(client.failure(1), Code.tooLarge)
        self.assertEqual(client.end(), "descriptors that no message claims")


class Sessions(StatementTest):
    def test_are_unsigned_in_proc_and_signed_here(self):
        with open("/proc/self/sessionid") as file:
            session = int(file.read())
        signed = session - (1 << 32 if session > 2147483647 else 0)
        client = self.client()
        self.assertWorked(client.publish({}, "mine"))
        publisher = client.dump("mine")[0][0]["publisher"]
        self.assertEqual(int(re.search(r"session (-?\d+)>", publisher)[1]), signed)
        with Client(AUTH, exports=()) as asker:
            selector = "isAuthedASID:withHandler:"
            self.assertEqual(asker.call(selector, -1), [False])
            unsigned = asker.request(selector, 4294967295)
            self.assertEqual(asker.failure(unsigned), Code.wrongArguments)


class Charges(StatementTest):
    """The text of failure 8 names the charge of a user."""


    USER = 501

    def setUp(self):
        super().setUp()
        self.user = self.as_user(Client)
        self.filled = self.fill()

    def as_user(self, maker, *arguments, **options):
        os.seteuid(self.USER)
        try:
            client = maker(*arguments, **options)
        finally:
            os.seteuid(0)
        self.addCleanup(client.close)
        return client

    def publish_large(self, name):
        content = encode({"": bytes(FRAME_LIMIT - 7)})
        file = sealed_file(content)
        try:
            more = [InFile(len(content)), name, 0, 0]
            self.user.call("publishItem:name:flags:value:withHandler:", *more, files=[file])
        finally:
            os.close(file)
        return len(content), len(name) + 640

    def fill(self):
        """Publishes until no more large data fits; the charges by the page."""
        charges = []
        try:
            for number in range(100):
                charges += self.publish_large(f"large {number}")
        except Refused:
            return charges
        self.fail("never refused")

    def held(self):
        with self.assertRaises(Refused) as refused:
            self.publish_large("never published")
        self.assertEqual(refused.exception.code, Code.overQuota)
        return int(re.search(r"holds (\d+) bytes", refused.exception.text)[1])

    def assertHeld(self, before, *charges):
        """Asserts that the charge exceeds `before` by that much, plus some overhead for each."""
        more = self.held() - before
        self.assertGreaterEqual(more, sum(charges))
        self.assertLessEqual(more, sum(charges) + BOOKKEEPING * len(charges))

    def test_are_those_of_the_page(self):
        self.assertHeld(0, *self.filled)
        before = self.held()
        self.assertWorked(self.user.subscribe("weather"))
        self.assertHeld(before, 7 + 640)
        # It is known now, although nobody follows it, and until somebody makes it unknown.
        self.user.unsubscribe("weather")
        self.assertHeld(before, 7 + 640)
        root = self.client()
        self.assertWorked(root.publish({}, "weather"))
        self.assertWorked(root.remove("weather"))
        self.assertHeld(before)
        # Following what others have made known is charged until it ends.
        self.assertWorked(root.publish({}, "weather"))
        self.assertWorked(self.user.subscribe("weather"))
        self.assertHeld(before, 7 + 640)
        self.user.unsubscribe("weather")
        self.assertHeld(before)

    def test_a_charge_for_data_ends_with_its_replacement(self):
        before = self.held()
        self.assertWorked(self.user.update({}, "large 0"))
        self.publish_large("large again")
        self.assertHeld(before, 1, 11 + 640)

    def test_a_charge_for_a_challenge_ends_with_its_answer_or_connection(self):
        before = self.held()
        auth = self.as_user(Client, AUTH, exports=())
        identifiers = [auth.call("authBasicStartWithHandler:")[1] for _ in range(3)]
        self.assertHeld(before, 1536, 1536, 1536)
        error = auth.call("authValidate:andID:withHandler:", "nonsense", identifiers[0])[2]
        self.assertEqual(error.code, 5)
        self.assertHeld(before, 1536, 1536)

    def test_charges_for_items_outlive_the_connection(self):
        before = self.held()
        self.end_of(self.user)
        self.user = self.as_user(Client)
        self.assertHeld(before)


if __name__ == "__main__":
    keel_host.main()
